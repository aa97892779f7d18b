// The host's multicast receiver on its own: parameter errors, the start time-out, and a real
// session whose progress arrives as status datagrams.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "platform/hostclasses.h"
#include "support/device_root.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

int BoundUdp(int* port) {
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  *port = ntohs(a.sin_port);
  return s;
}

int FreeUdpPort() {
  int port = 0;
  close(BoundUdp(&port));
  return port;
}

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

TEST(MulticastReceiver, GivesUpWhenNoSessionStarts) {
  ftctest::DeviceRoot root;
  auto started = Clock::now();
  EXPECT_EQ(Start("-D \"\\Flash File Store\\in\" -P " + std::to_string(FreeUdpPort()) +
                  " -I 127.0.0.1 -M 127.0.0.1 -T 1"),
            5);
  auto took = Clock::now() - started;
  EXPECT_GE(took, std::chrono::milliseconds(900));
  EXPECT_LT(took, std::chrono::seconds(5));
  EXPECT_TRUE(root.Exists("\\Flash File Store\\in"));
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
  int statusSocket = BoundUdp(&statusPort);
  int sessionPort = FreeUdpPort();
  std::string parameters =
      "-D \"\\Flash File Store\\in box\" -P " + std::to_string(sessionPort) +
      " -I 127.0.0.1 -M 127.0.0.1 -T 20 -UA=127.0.0.1 -UP=" + std::to_string(statusPort);
  auto result = std::async(std::launch::async, [&] { return Start(parameters); });

  std::string port = std::to_string(sessionPort), file = src + "/a.bin";
  const char* argv[] = {"uftp",   "-p",         port.c_str(), "-M",        "127.0.0.1",
                        "-I",     "127.0.0.1",  "-H",         "127.0.0.1", "-R",
                        "100000", file.c_str(), nullptr};
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  pid_t sender = -1;
  ASSERT_EQ(posix_spawnp(&sender, "uftp", &fa, nullptr, const_cast<char**>(argv), environ), 0);
  posix_spawn_file_actions_destroy(&fa);

  ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(result.get(), 0);
  kill(sender, SIGKILL);
  waitpid(sender, nullptr, 0);

  EXPECT_EQ(root.ReadFile("\\Flash File Store\\in box\\a.bin"), body);
  std::vector<Status> seen;
  pollfd p{statusSocket, POLLIN, 0};
  while (poll(&p, 1, 0) > 0) {
    unsigned char d[2048];
    ssize_t n = recv(statusSocket, d, sizeof d, 0);
    ASSERT_GE(n, 12);
    seen.push_back(
        {(d[2] << 8) | d[3],
         (uint32_t(d[8]) << 24) | (uint32_t(d[9]) << 16) | (uint32_t(d[10]) << 8) | d[11],
         std::string(reinterpret_cast<char*>(d) + 12, static_cast<size_t>(n - 12))});
  }
  close(statusSocket);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].progress, 0);
  EXPECT_EQ(seen[0].text, "Receiving a.bin");
  EXPECT_EQ(seen[1].progress, 100);
  EXPECT_EQ(seen[1].amount, body.size());
  EXPECT_EQ(seen[1].text, "Receiving a.bin");
}

}  // namespace
