// The log: one destination at a time (the local file or the remote receiver), whole lines
// under concurrent writers, and the remote datagram's exact form.
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log/LogMsg.h"
#include "support/device_root.h"
#include "support/helpers.h"

namespace {

const char kLogFile[] = "/tmp/FileXfer.txt";

// A UDP receiver on a free loopback port.
struct UdpListener {
  UdpListener() : fd(ftctest::BoundUdp(&port)) {}
  ~UdpListener() { close(fd); }
  std::string Receive() { return ftctest::ReceiveDatagram(fd); }
  int port = 0;
  int fd;
};

// Every exact log line elsewhere shows lines appended as given; here the cut of an overlong one.
TEST(Log, AnOverlongLineIsCutAt1024Bytes) {
  ftctest::DeviceRoot root;
  LogMsg("%s", std::string(3000, 'q').c_str());
  EXPECT_EQ(root.ReadFile(kLogFile), std::string(1024, 'q'));
}

TEST(Log, RemoteDestinationSendsOneSyslogDatagramAndNothingToTheFileUntilClosed) {
  ftctest::DeviceRoot root;
  UdpListener listener;
  SysLogInit("127.0.0.1", static_cast<unsigned short>(listener.port));
  LogMsg("x");
  std::string datagram = listener.Receive();
  // "< 14>" (priority right-aligned in three columns), local time, one blank, the message; no
  // terminator and no line end.
  EXPECT_TRUE(std::regex_match(datagram, std::regex(R"(< 14>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d x)")))
      << datagram;
  LogMsg("second %d\r\n", 2);
  std::string second = listener.Receive();
  EXPECT_TRUE(std::regex_match(second, std::regex(R"(< 14>[-0-9]{10} [:0-9]{8} second 2\r\n)")))
      << second;
  EXPECT_EQ(root.ReadFile(kLogFile), "");
  SysLogClose();
  // A later job can return to the file.
  SysLogInit("127.0.0.1", 0);
  LogMsg("local\r\n");
  EXPECT_EQ(root.ReadFile(kLogFile), "local\r\n");
}

TEST(Log, DestinationChoiceFollowsAddressAndPort) {
  struct Case {
    const char* address;
    unsigned short port;
    bool toFile;
  };
  // A port with an address that is not dotted IPv4 keeps the remote path without a socket:
  // lines are lost rather than sent somewhere unintended.
  const Case cases[] = {
      {"127.0.0.1", 0, true},
      {"not-an-address", 514, false},
      {"", 514, false},
      {"256.1.1.1", 514, false},
  };
  for (const Case& c : cases) {
    ftctest::DeviceRoot root;
    SysLogInit(c.address, c.port);
    LogMsg("line\r\n");
    SysLogClose();
    EXPECT_EQ(root.ReadFile(kLogFile), c.toFile ? "line\r\n" : "") << c.address << ":" << c.port;
  }
}

TEST(Log, ConcurrentWritersNeverInterleaveLines) {
  ftctest::DeviceRoot root;
  const int kThreads = 4;
  const int kLines = 150;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i)
        LogMsg("FileTransferConfiglet - writer %d - line %03d of a longer text\r\n", t, i);
    });
  for (auto& th : threads) th.join();

  std::string text = root.ReadFile(kLogFile);
  std::set<std::string> seen;
  std::regex line(R"(FileTransferConfiglet - writer \d - line \d{3} of a longer text)");
  size_t start = 0;
  for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
    std::string one = text.substr(start, end - start);
    ASSERT_TRUE(std::regex_match(one, line)) << one;
    seen.insert(one);
  }
  EXPECT_EQ(start, text.size());
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

}  // namespace
