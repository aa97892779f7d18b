#include "scripted_http_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace ftctest {

Reply Reply::Ok(const std::string& body, uint32_t crc, const std::string& extraHeaders) {
  Reply r;
  r.bytes = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\nContent-CRC32: " + std::to_string(crc) + "\r\n" + extraHeaders + "\r\n" + body;
  return r;
}

Reply Reply::Raw(const std::string& bytes, bool close) {
  Reply r;
  r.bytes = bytes;
  r.close = close;
  return r;
}

Reply Reply::Typed(int status, const std::string& type, const std::string& body,
                   const std::string& extraHeaders) {
  return Raw("HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: " + type +
             "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extraHeaders + "\r\n" +
             body);
}

ScriptedHttpPeer::ScriptedHttpPeer(std::vector<Reply> replies) : m_replies(std::move(replies)) {
  Listen(0);
}

ScriptedHttpPeer::ScriptedHttpPeer(Responder respond, uint16_t port)
    : m_respond(std::move(respond)) {
  Listen(port);
}

void ScriptedHttpPeer::Listen(uint16_t port) {
  m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_listen < 0) throw std::runtime_error("socket failed");
  int one = 1;
  setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  socklen_t len = sizeof addr;
  if (bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(m_listen, 8) != 0 ||
      getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
      pipe2(m_wake, O_CLOEXEC) != 0) {
    close(m_listen);
    throw std::runtime_error("listen failed");
  }
  m_port = ntohs(addr.sin_port);
  m_thread = std::thread([this] { Serve(); });
}

ScriptedHttpPeer::~ScriptedHttpPeer() {
  char stop = 1;
  (void)!write(m_wake[1], &stop, 1);
  m_thread.join();
  close(m_listen);
  close(m_wake[0]);
  close(m_wake[1]);
}

std::wstring ScriptedHttpPeer::Url(const std::wstring& suffix) const {
  return L"http://127.0.0.1:" + std::to_wstring(m_port) + suffix;
}

std::vector<std::string> ScriptedHttpPeer::Requests() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_requests;
}

int ScriptedHttpPeer::Connections() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_connections;
}

bool ScriptedHttpPeer::WaitForRequests(size_t n, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(m_lock);
  return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return m_requests.size() >= n; });
}

namespace {
// 1 when fd is readable, 0 when the peer is being stopped.
int WaitReadable(int fd, int wake) {
  pollfd p[2] = {{fd, POLLIN, 0}, {wake, POLLIN, 0}};
  for (;;) {
    int rc = poll(p, 2, -1);
    if (rc < 0 && errno == EINTR) continue;
    if (rc < 0 || (p[1].revents & POLLIN)) return 0;
    if (p[0].revents) return 1;
  }
}
}  // namespace

bool ScriptedHttpPeer::ReadRequest(int fd, std::string& pending) {
  for (;;) {
    size_t end = pending.find("\r\n\r\n");
    if (end != std::string::npos) {
      std::lock_guard<std::mutex> lock(m_lock);
      m_requests.push_back(pending.substr(0, end + 4));
      pending.erase(0, end + 4);
      m_changed.notify_all();
      return true;
    }
    if (!WaitReadable(fd, m_wake[0])) return false;
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    pending.append(buf, size_t(n));
  }
}

void ScriptedHttpPeer::Send(int fd, const Reply& reply) {
  // Every wait also watches the stop pipe, so a case never hangs on a client that stopped reading.
  auto wait = [&](short events, int timeoutMs) {
    pollfd p[2] = {{fd, events, 0}, {m_wake[0], POLLIN, 0}};
    int rc;
    do {
      rc = poll(p, 2, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc >= 0 && !(p[1].revents & POLLIN);
  };
  size_t step = reply.chunk ? reply.chunk : reply.bytes.size();
  for (size_t at = 0; at < reply.bytes.size(); at += step) {
    if (at && reply.delayMs && (!wait(0, reply.delayMs))) return;
    size_t len = std::min(step, reply.bytes.size() - at);
    size_t done = 0;
    while (done < len) {
      if (!wait(POLLOUT, -1)) return;
      ssize_t n = send(fd, reply.bytes.data() + at + done, len - done, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n <= 0) return;
      done += size_t(n);
    }
  }
}

bool ScriptedHttpPeer::Respond(int fd, std::string& pending, Reply* reply) {
  if (!ReadRequest(fd, pending)) return false;
  std::string head = Requests().back();
  size_t length = 0;
  for (size_t at = 0; (at = head.find("\r\n", at)) != std::string::npos;) {
    at += 2;
    if (strncasecmp(head.c_str() + at, "Content-Length:", 15) == 0)
      length = std::strtoul(head.c_str() + at + 15, nullptr, 10);
  }
  while (pending.size() < length) {
    if (!WaitReadable(fd, m_wake[0])) return false;
    char buf[65536];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    pending.append(buf, size_t(n));
  }
  *reply = m_respond(head, pending.substr(0, length));
  pending.erase(0, length);
  return true;
}

void ScriptedHttpPeer::Serve() {
  for (;;) {
    if (!WaitReadable(m_listen, m_wake[0])) return;
    int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    {
      std::lock_guard<std::mutex> lock(m_lock);
      ++m_connections;
    }
    std::string pending;
    for (Reply reply; m_respond;) {
      if (!Respond(fd, pending, &reply)) break;
      Send(fd, reply);
      if (reply.close) break;
    }
    for (; !m_respond;) {
      if (m_next >= m_replies.size()) {
        // Out of script: wait for the client to go (or the case to end), then close.
        std::string ignored;
        ReadRequest(fd, ignored);
        break;
      }
      const Reply& reply = m_replies[m_next];
      if (!reply.noRead && !ReadRequest(fd, pending)) break;
      ++m_next;
      Send(fd, reply);
      if (reply.close) break;
    }
    close(fd);
  }
}

uint32_t ReferenceCrc32(const std::string& text) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char c : text) {
    crc ^= c;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

}  // namespace ftctest
