// A scripted HTTP peer on 127.0.0.1 for the client's edge and fault cases: each request it
// receives (a head up to its blank line) is answered with the next scripted reply, sent as
// given, split and delayed as the case needs, closing early when asked. Every request's exact
// bytes are recorded.
//
//   ftctest::ScriptedHttpPeer peer({ftctest::Reply::Ok("hello", 0x3610A686)});
//   client.OpenURL(peer.Url(L"/a.bin").c_str(), path);
//   ...
//   EXPECT_EQ(peer.Requests().size(), 1u);
//
// Connections are served one at a time, in the order they arrive; the replies are one list
// across connections. When the list runs out, the connection is closed.
//
// A peer that follows a protocol instead of a script is given a responder: it sees each request
// whole (head, and the body its Content-Length names) and returns the reply.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ftctest {

struct Reply {
  std::string bytes;    // sent as they stand; empty: say nothing and wait
  size_t chunk = 0;     // when not 0, sent in pieces of this size ...
  int delayMs = 0;      // ... with this pause before each piece after the first
  bool close = false;   // close the connection once sent (instead of reading the next request)
  bool noRead = false;  // answer at once, before the request arrives (for stray-byte cases)

  // "HTTP/1.1 200 OK" with Content-Length, Content-CRC32 (decimal) and the extra header lines
  // (each ending in "\r\n"), then the body.
  static Reply Ok(const std::string& body, uint32_t crc, const std::string& extraHeaders = "");
  static Reply Raw(const std::string& bytes, bool close = false);
  // "HTTP/1.1 STATUS X" with Content-Type, Content-Length and the extra header lines, then body.
  static Reply Typed(int status, const std::string& type, const std::string& body,
                     const std::string& extraHeaders = "");
  static Reply Json(int status, const std::string& body, const std::string& extraHeaders = "") {
    return Typed(status, "application/json", body, extraHeaders);
  }
};

class ScriptedHttpPeer {
 public:
  using Responder = std::function<Reply(const std::string& head, const std::string& body)>;

  explicit ScriptedHttpPeer(std::vector<Reply> replies);
  // Listens on port (0: a free one); throws when it is taken.
  explicit ScriptedHttpPeer(Responder respond, uint16_t port = 0);
  ~ScriptedHttpPeer();
  ScriptedHttpPeer(const ScriptedHttpPeer&) = delete;
  ScriptedHttpPeer& operator=(const ScriptedHttpPeer&) = delete;

  uint16_t Port() const { return m_port; }
  // "http://127.0.0.1:PORT" followed by suffix.
  std::wstring Url(const std::wstring& suffix = L"") const;
  // Request heads received so far, blank line included.
  std::vector<std::string> Requests() const;
  int Connections() const;
  // Waits until n requests have arrived; false on time-out.
  bool WaitForRequests(size_t n, int timeoutMs = 5000) const;

 private:
  void Listen(uint16_t port);
  void Serve();
  // The reply for the request whose head was just read; false when the connection ended.
  bool Respond(int fd, std::string& pending, Reply* reply);
  // Returns false when the connection ended.
  bool ReadRequest(int fd, std::string& pending);
  void Send(int fd, const Reply& reply);

  std::vector<Reply> m_replies;
  Responder m_respond;
  size_t m_next = 0;
  int m_listen = -1;
  int m_wake[2] = {-1, -1};
  uint16_t m_port = 0;
  mutable std::mutex m_lock;
  mutable std::condition_variable m_changed;
  std::vector<std::string> m_requests;
  int m_connections = 0;
  std::thread m_thread;
};

// CRC-32 of text, computed independently of the plug-in.
uint32_t ReferenceCrc32(const std::string& text);

}  // namespace ftctest
