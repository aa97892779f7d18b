#include "http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace ftctest {

Connection::Connection(uint16_t port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(m_fd);
    throw std::runtime_error("connect");
  }
}

Connection::~Connection() {
  close(m_fd);
}

bool Connection::Send(const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

Response Connection::Read(bool head) {
  Response r;
  size_t end;
  while ((end = m_buffer.find("\r\n\r\n")) == std::string::npos)
    if (!Fill()) return r;
  std::string text = m_buffer.substr(0, end + 2);
  m_buffer.erase(0, end + 4);
  int status = 0;
  if (std::sscanf(text.c_str(), "HTTP/1.1 %d", &status) != 1) return r;
  for (size_t pos = text.find("\r\n") + 2; pos < text.size();) {
    size_t next = text.find("\r\n", pos);
    std::string line = text.substr(pos, next - pos);
    pos = next + 2;
    size_t colon = line.find(": ");
    if (colon != std::string::npos) r.headers[line.substr(0, colon)] = line.substr(colon + 2);
  }
  size_t length =
      head ? 0 : std::stoull(r.headers.count("Content-Length") ? r.headers["Content-Length"] : "0");
  while (m_buffer.size() < length)
    if (!Fill()) return r;
  r.body = m_buffer.substr(0, length);
  m_buffer.erase(0, length);
  r.status = status;
  return r;
}

Response Connection::Get(const std::string& target, const std::string& extraHeaders) {
  if (!Send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeaders + "\r\n"))
    return {};
  return Read();
}

Response Connection::Post(const std::string& target, const std::string& body) {
  if (!Send("POST " + target +
            " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n" +
            "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body))
    return {};
  return Read();
}

bool Connection::ClosedByPeer() {
  pollfd p{m_fd, POLLIN, 0};
  char c;
  return poll(&p, 1, 1000) == 1 && recv(m_fd, &c, 1, MSG_PEEK) == 0;
}

bool Connection::Fill() {
  pollfd p{m_fd, POLLIN, 0};
  if (poll(&p, 1, 10000) != 1) return false;
  char buf[1 << 16];
  ssize_t n = recv(m_fd, buf, sizeof buf, 0);
  if (n <= 0) return false;
  m_buffer.append(buf, static_cast<size_t>(n));
  return true;
}

}  // namespace ftctest
