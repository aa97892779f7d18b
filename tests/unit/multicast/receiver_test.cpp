// The host's multicast receiver on its own: parameter errors and a real session whose
// progress arrives as status datagrams.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "platform/hostclasses.h"
#include "support/device_root.h"
#include "udp_helpers.h"

namespace {

int Start(const std::string& parameters) {
  std::vector<char> text(parameters.begin(), parameters.end());
  text.push_back('\0');
  CMulticastClient mc;
  return mc.Start(text.data());
}

TEST(MulticastReceiver, RefusesBadParameters) {
  ftctest::DeviceRoot root;
  struct Case {
    const char* parameters;
    int result;
  } cases[] = {
      {"", 1},
      {"-P 1044", 1},           // no device folder
      {"-D \\in -Q 1", 1},      // unknown option
      {"-D \\in -P 70000", 1},  // port out of range
      {"-D \\in -T", 1},        // option without its value
      {"-D \\in -T 0", 1},      // no time at all
      {"-D \\in -UP=x", 1},     // status port not a number
  };
  for (const Case& c : cases) EXPECT_EQ(Start(c.parameters), c.result) << c.parameters;
}

struct Status {
  int progress;
  uint32_t amount;
  std::string text;
};

TEST(MulticastReceiver, ReceivesASessionAndReportsEachFile) {
  ftctest::DeviceRoot root;
  const std::string body(70000, 'm');
  // The sender's folder, outside the device folder the session fills.
  std::string src = root.path() + "/sender";
  mkdir(src.c_str(), 0755);
  ftctest::WriteHostFile(src + "/a.bin", body);

  int statusPort = 0;
  int statusSocket = ftctest::BoundUdp(&statusPort);
  int sessionPort = ftctest::FreeUdpPort();
  std::string parameters =
      "-D \"\\Flash File Store\\in box\" -P " + std::to_string(sessionPort) +
      " -I 127.0.0.1 -M 127.0.0.1 -T 20 -UA=127.0.0.1 -UP=" + std::to_string(statusPort);
  auto result = std::async(std::launch::async, [&] { return Start(parameters); });

  ftctest::Child sender(mctest::SenderArgs(sessionPort, {src + "/a.bin"}));
  ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(result.get(), 0);

  EXPECT_EQ(root.ReadFile("\\Flash File Store\\in box\\a.bin"), body);
  std::vector<Status> seen;
  for (std::string d; (d = ftctest::ReceiveDatagram(statusSocket, 0)) != "<none>";) {
    ASSERT_GE(d.size(), 12u);
    auto byte = [&](size_t i) { return uint32_t(static_cast<unsigned char>(d[i])); };
    seen.push_back({int(byte(2) << 8 | byte(3)),
                    byte(8) << 24 | byte(9) << 16 | byte(10) << 8 | byte(11), d.substr(12)});
  }
  close(statusSocket);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].progress, 0);
  EXPECT_EQ(seen[1].progress, 100);
  EXPECT_EQ(seen[1].amount, body.size());
  for (const Status& st : seen) EXPECT_EQ(st.text, "Receiving a.bin");
}

}  // namespace
