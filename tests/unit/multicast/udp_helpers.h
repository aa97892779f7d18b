// Loopback ports and quiet child programs for the multicast cases.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace mctest {

// A UDP socket bound on loopback to port (0: any free one); the port goes back in *port.
inline int BoundUdp(int* port) {
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(*port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  *port = ntohs(a.sin_port);
  return s;
}

inline int FreeUdpPort() {
  int port = 0;
  close(BoundUdp(&port));
  return port;
}

// A program run in the background with its output discarded; killed at the end if still running.
class Child {
 public:
  explicit Child(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    if (posix_spawnp(&m_pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) m_pid = -1;
    posix_spawn_file_actions_destroy(&fa);
  }
  ~Child() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The exit status, or -1 when it has not ended in time.
  int Wait(std::chrono::milliseconds timeout) {
    auto until = std::chrono::steady_clock::now() + timeout;
    while (m_pid > 0 && std::chrono::steady_clock::now() < until) {
      int status = 0;
      if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }

 private:
  pid_t m_pid = -1;
};

// The uftp sender of a unicast session on loopback.
inline std::vector<std::string> SenderArgs(int port, const std::vector<std::string>& files) {
  std::vector<std::string> args = {"uftp",      "-p", std::to_string(port), "-M", "127.0.0.1", "-I",
                                   "127.0.0.1", "-H", "127.0.0.1",          "-R", "100000"};
  args.insert(args.end(), files.begin(), files.end());
  return args;
}

}  // namespace mctest
