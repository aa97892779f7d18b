#include "common/list_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> Read(const std::string& text) {
  ftc::ListFileReader reader(text);
  std::vector<std::string> out;
  ftc::ListEntry e;
  while (reader.Next(&e)) {
    out.push_back(std::string(e.source) + "|" + std::string(e.dest) + "|" + std::string(e.masks) +
                  "|" + std::string(e.crc) + "|" + std::string(e.size));
  }
  return out;
}

TEST(ListFile, EveryFiveTokensMakeOneEntry) {
  using List = std::vector<std::string>;
  EXPECT_EQ(Read("a.bin,\\dest\\a.bin,X*,12345,100\r\n"), List{"a.bin|\\dest\\a.bin|X*|12345|100"});
  EXPECT_EQ(Read("a,b,c,1,2,x,y"), List{"a|b|c|1|2"});  // a short last group is dropped
  // Runs of separators, empty lines and trailing ones count as one; the masks keep their blanks.
  EXPECT_EQ(Read("\r\n\r\na,b,AB CD;EF,1,2\n\n,,,b,c,d,3,4,,\r\n"),
            (List{"a|b|AB CD;EF|1|2", "b|c|d|3|4"}));
  EXPECT_EQ(Read(""), List{});
  EXPECT_EQ(Read(",,,\r\n"), List{});
  // A NUL ends the list as it ends the device's string.
  EXPECT_EQ(Read(std::string("a,b,c,1,2\0d,e,f,3,4", 19)), List{"a|b|c|1|2"});
}

}  // namespace
