// The host's multicast receiver refuses parameters it cannot run with before it listens; its
// sessions are exercised through whole jobs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/hostclasses.h"
#include "support/device_root.h"

namespace {

int Start(const std::string& parameters) {
  std::vector<char> text(parameters.begin(), parameters.end());
  text.push_back('\0');
  CMulticastClient mc;
  return mc.Start(text.data());
}

TEST(MulticastReceiver, RefusesBadParameters) {
  ftctest::DeviceRoot root;
  for (const char* parameters : {
           "",
           "-P 1044",           // no device folder
           "-D \\in -Q 1",      // unknown option
           "-D \\in -P 70000",  // port out of range
           "-D \\in -T",        // option without its value
           "-D \\in -T 0",      // no time at all
           "-D \\in -UP=x",     // status port not a number
       })
    EXPECT_EQ(Start(parameters), 1) << parameters;
}

}  // namespace
