// Scaffolding the test folders share: waiting, counting, test data, child programs, loopback
// sockets and the real upgrade server.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ftctest {

// Polls done every few milliseconds until it holds or the time-out (real time) passes.
bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Milliseconds of real time since the given point.
long ElapsedMs(std::chrono::steady_clock::time_point since);
// How often what occurs in text (overlapping occurrences count).
int Count(const std::string& text, const std::string& what);
// Bytes of a fixed pseudo-random pattern: the same seed gives the same bytes.
std::string RandomBytes(size_t size, uint32_t seed);
// Runs a shell command; its output and error text. *exitStatus: the exit code, -1 on a signal.
std::string RunCommand(const std::string& command, int* exitStatus = nullptr);

// A program run in the background with its output discarded (found on PATH when args[0] has no
// slash); killed at the end if still running.
class Child {
 public:
  explicit Child(const std::vector<std::string>& args);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  pid_t pid() const { return m_pid; }
  // The exit code (128 when ended by a signal), or -1 when it has not ended in time.
  int Wait(std::chrono::milliseconds timeout);

 private:
  pid_t m_pid = -1;
};

// A copy of /bin/sleep at path (folders made as needed) sleeping a minute, returned once a
// process snapshot lists it under the file's name, which names longer than the kernel's
// 15-character comm need; null when it is not listed within the time-out.
std::unique_ptr<Child> StartListedSleeper(
    const std::string& path, std::chrono::milliseconds timeout = std::chrono::seconds(60));

// A UDP socket bound on loopback to *port (0: any free one); the port goes back in *port.
int BoundUdp(int* port);
int FreeUdpPort();
// A loopback TCP port nothing listened on when asked.
int FreeTcpPort();
// One datagram from fd, or "<none>" when nothing came within the time-out.
std::string ReceiveDatagram(int fd, int timeoutMs = 5000);
void SendDatagram(int port, const std::string& bytes);

// ftc-server on a free loopback port serving root; stopped with SIGTERM by Stop() or at the end.
class ServerProcess {
 public:
  explicit ServerProcess(const std::string& root, const std::vector<std::string>& extraArgs = {});
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  uint16_t port() const { return m_port; }
  pid_t pid() const { return m_pid; }
  // "http://127.0.0.1:PORT" followed by path.
  std::string url(const std::string& path = "") const;
  // Sends SIGTERM; the exit code, -1 when it did not exit normally.
  int Stop();
  // Waits for it to end on its own: as Child::Wait.
  int Wait(std::chrono::milliseconds timeout);

 private:
  pid_t m_pid = -1;
  uint16_t m_port = 0;
};

}  // namespace ftctest
