// Runs the real ftc-server and talks raw HTTP to it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace servertest {

// A child ftc-server on a free loopback port; stopped with SIGTERM by Stop() or the destructor.
class ServerProcess {
 public:
  ServerProcess(const std::string& root, const std::vector<std::string>& extraArgs = {});
  ~ServerProcess();
  uint16_t port() const { return m_port; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
  // Sends SIGTERM and returns the exit status (-1 when it did not exit normally).
  int Stop();

 private:
  pid_t m_pid = -1;
  uint16_t m_port = 0;
};

struct Response {
  int status = 0;  // 0: no complete response (closed, timed out or malformed)
  std::map<std::string, std::string> headers;  // names as sent
  std::string body;
};

class Connection {
 public:
  explicit Connection(uint16_t port);
  ~Connection();
  bool Send(const std::string& bytes);
  // Reads one response; HEAD responses have no body.
  Response Read(bool head = false);
  Response Get(const std::string& target, const std::string& extraHeaders = "");
  // True when the server has closed the connection (reads EOF within a second).
  bool ClosedByPeer();

 private:
  bool Fill();
  int m_fd = -1;
  std::string m_buffer;
};

uint32_t ReferenceCrc32(const std::string& data);
std::string RunCommand(const std::string& command, int* exitStatus);

}  // namespace servertest
