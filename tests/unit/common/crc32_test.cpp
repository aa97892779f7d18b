// The one CRC-32 and list-file reader of the plug-in, the host and the server.
#include "common/crc32.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/list_file.h"
#include "support/scripted_http_peer.h"

namespace {

// The fast paths (table slicing, carry-less multiply) must agree with the stored table byte by
// byte at every length and alignment, around each path's block boundaries, and a CRC continued
// piece by piece must equal the one of the whole.
TEST(Crc32, FastPathsMatchTheTableAndContinue) {
  std::mt19937 rng(7);
  std::string data(70000, '\0');
  for (char& c : data) c = char(rng());
  EXPECT_EQ(ftc::Crc32("123456789", 9), 0xCBF43926u);  // the standard check value
  EXPECT_EQ(ftc::Crc32(nullptr, 0), 0u);
  auto bytewise = [&](size_t at, size_t len) {
    uint32_t r = 0xFFFFFFFFu;
    for (size_t i = 0; i < len; ++i)
      r = (r >> 8) ^ ftc::kCrc32Table[(r ^ static_cast<uint8_t>(data[at + i])) & 0xFF];
    return ~r;
  };
  for (size_t at = 0; at < 17; ++at)
    for (size_t len : {0,   1,   15,  16,  17,  63,  64,  65,  79,  80,   127,
                       128, 129, 255, 256, 257, 271, 511, 512, 527, 1000, 4097})
      ASSERT_EQ(ftc::Crc32(data.data() + at, len), bytewise(at, len))
          << "offset " << at << " length " << len;
  EXPECT_EQ(ftc::Crc32(data.data(), data.size()), ftctest::ReferenceCrc32(data));

  for (size_t piece : {1, 15, 16, 6007}) {
    uint32_t running = 0;
    for (size_t at = 0; at < data.size(); at += piece)
      running = ftc::Crc32(data.data() + at, std::min(piece, data.size() - at), running);
    EXPECT_EQ(running, ftctest::ReferenceCrc32(data)) << piece;
  }
}

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
