// A raw HTTP/1.1 client connection on loopback: sends exact bytes, reads one response at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace ftctest {

struct Response {
  int status = 0;  // 0: no complete response (closed, timed out or malformed)
  std::map<std::string, std::string> headers;
  std::string body;
};

class Connection {
 public:
  explicit Connection(uint16_t port);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  bool Send(const std::string& bytes);
  // One response; HEAD responses have no body.
  Response Read(bool head = false);
  Response Get(const std::string& target, const std::string& extraHeaders = "");
  Response Post(const std::string& target, const std::string& body);
  // True when the server closed the connection (EOF within a second).
  bool ClosedByPeer();

 private:
  bool Fill();
  int m_fd;
  std::string m_buffer;
};

}  // namespace ftctest
