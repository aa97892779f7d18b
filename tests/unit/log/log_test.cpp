// The log: one destination at a time (the local file or the remote receiver), whole lines
// under concurrent writers, and the remote datagram's exact form.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log/LogMsg.h"
#include "support/device_root.h"

namespace {

const char kLogFile[] = "/tmp/FileXfer.txt";

// A UDP receiver on a free loopback port.
class UdpListener {
 public:
  UdpListener() {
    m_fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
    timeval timeout{5, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  }
  ~UdpListener() { close(m_fd); }
  unsigned short port() const { return m_port; }
  // One datagram's bytes, or "<none>" after the time-out.
  std::string Receive() {
    char buffer[2048];
    ssize_t n = recv(m_fd, buffer, sizeof(buffer), 0);
    return n < 0 ? "<none>" : std::string(buffer, static_cast<size_t>(n));
  }

 private:
  int m_fd;
  unsigned short m_port;
};

TEST(Log, FileLinesAreAppendedAsGivenWithoutAnythingAdded) {
  ftctest::DeviceRoot root;
  root.WriteFile(kLogFile, "earlier\r\n");
  LogMsg("abc\r\n");
  EXPECT_EQ(root.ReadFile(kLogFile), "earlier\r\nabc\r\n");
  LogMsg("FileTransferConfiglet - %s - !%s! %d\r\n", "Fn", "detail", 42);
  EXPECT_EQ(root.ReadFile(kLogFile),
            "earlier\r\nabc\r\nFileTransferConfiglet - Fn - !detail! 42\r\n");
}

TEST(Log, OverlongMessageIsCutAt1024Bytes) {
  ftctest::DeviceRoot root;
  std::string big(3000, 'q');
  LogMsg("%s", big.c_str());
  EXPECT_EQ(root.ReadFile(kLogFile), std::string(1024, 'q'));
}

TEST(Log, RemoteDestinationSendsOneSyslogDatagramAndNothingToTheFile) {
  ftctest::DeviceRoot root;
  UdpListener listener;
  SysLogInit("127.0.0.1", listener.port());
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
  };
  for (const Case& c : cases) {
    ftctest::DeviceRoot root;
    SysLogInit(c.address, c.port);
    LogMsg("line\r\n");
    SysLogClose();
    EXPECT_EQ(root.ReadFile(kLogFile), c.toFile ? "line\r\n" : "") << c.address << ":" << c.port;
  }
}

TEST(Log, ALaterJobCanReturnToTheFile) {
  ftctest::DeviceRoot root;
  UdpListener listener;
  SysLogInit("127.0.0.1", listener.port());
  LogMsg("remote\r\n");
  EXPECT_NE(listener.Receive(), "<none>");
  SysLogClose();
  SysLogInit("127.0.0.1", 0);
  LogMsg("local\r\n");
  EXPECT_EQ(root.ReadFile(kLogFile), "local\r\n");
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
