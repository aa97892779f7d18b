#include "transfer/CSocketIO.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <cwchar>

#include "log/LogMsg.h"
#include "platform/faults.h"
#include "platform/sockets.h"
#include "platform/winux.h"

namespace {

const DWORD kSendChunk = 1460;  // one Ethernet TCP segment
const DWORD kDelayStep = 20;
const DWORD kDelayCeiling = 10000;
const DWORD kWouldBlock = 11;
const WORD kStartupVersion = 0x0101;

// The device's layer reports socket errors through the last error, as raw error numbers.
DWORD TakeSocketError() {
  SetLastError(static_cast<DWORD>(errno));
  return GetLastError();
}

void DebugText(const wchar_t* format, int value) {
  wchar_t text[64];
  swprintf(text, sizeof text / sizeof text[0], format, value);
  OutputDebugString(text);
}

}  // namespace

CSocketIO::CSocketIO() : m_socket(-1), m_mode(-1), m_bHalfClosed(false), m_dwDrainTimeout(10000) {
  std::memset(&m_addr, 0, sizeof m_addr);
  m_addr.family = AF_INET;
  m_addr.ip = htonl(INADDR_ANY);
}

CSocketIO::~CSocketIO() {
  if (m_socket != -1) Close();
}

int CSocketIO::Startup() {
  // No start-up call exists here: the sockets are always at version 1.1.
  WORD version = kStartupVersion;
  if (version == 0x0101) return 1;
  WSACleanup();
  return 0;
}

int CSocketIO::Shutdown() {
  return WSACleanup();
}

int CSocketIO::CreateTcpSocket() {
  if (m_socket != -1) Close();  // a second create must not leak the first descriptor
  m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (m_socket == -1) {
    TakeSocketError();
    LogMsg("FileTransferConfiglet - CSocketIO::CreateTcpSocket - Error Invalid Socket\r\n");
    return 0;
  }
  m_mode = 0;  // a new socket blocks
  m_bHalfClosed = false;
  return 1;
}

int CSocketIO::Connect(DWORD ip, WORD port, DWORD timeoutMs) {
  if (m_socket == -1) return 0;
  m_addr.family = AF_INET;
  m_addr.port = htons(port);
  m_addr.ip = ip;
  sockaddr_in peer{};
  peer.sin_family = m_addr.family;
  peer.sin_port = m_addr.port;
  peer.sin_addr.s_addr = m_addr.ip;

  // A blocking connect to a silent address outlasts any sensible time-out, so the handshake
  // runs non-blocking and the writability wait bounds it; the caller's mode is restored after.
  int flags = m_mode >= 0 ? (m_mode ? O_NONBLOCK : 0) : fcntl(m_socket, F_GETFL, 0);
  bool restoreBlocking = flags != -1 && !(flags & O_NONBLOCK);
  if (restoreBlocking) fcntl(m_socket, F_SETFL, flags | O_NONBLOCK);

  int rc = connect(m_socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
  int err = 0;
  // Whether the connection was just seen established, and so writable: asking again would
  // tell the same.
  bool established = false;
  // Near peers (this machine, the next switch) have often answered before connect returns; a
  // second call then says so without a wait.
  if (rc == -1 && errno == EINPROGRESS) {
    rc = connect(m_socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    if (rc == -1 && errno == EISCONN) rc = 0;
    if (rc == -1 && errno == EALREADY) errno = EINPROGRESS;
    established = rc == 0;
  }
  if (rc == -1 && errno != EINPROGRESS) {
    err = errno;
  } else if (rc == -1) {
    if (!SocketWriteable(timeoutMs)) return 0;
    established = true;
    socklen_t len = sizeof err;
    if (getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &err, &len) == -1) err = errno;
  }
  if (err != 0) {
    SetLastError(static_cast<DWORD>(err));
    DWORD code = GetLastError();
    LogMsg("FileTransferConfiglet - CSocketIO::Connect - Error !%d%%\r\n", static_cast<int>(code));
    DebugText(L"connect error, %d\r\n", static_cast<int>(code));
    Disconnect();
    Close();
    return 0;
  }
  if (restoreBlocking) fcntl(m_socket, F_SETFL, flags);
  if (established) return 1;
  return SocketWriteable(timeoutMs) ? 1 : 0;
}

int CSocketIO::SetMode(int mode) {
  if (m_socket != -1 && m_mode == (mode ? 1 : 0)) return 1;
  return SetMode(m_socket, mode);
}

int CSocketIO::SetMode(int socket, int mode) {
  int value = mode;
  if (ioctl(socket, FIONBIO, &value) == -1) {
    TakeSocketError();
    return 0;
  }
  if (socket == m_socket && socket != -1) m_mode = mode ? 1 : 0;
  return 1;
}

namespace {
int WaitMs(DWORD timeoutMs) {
  if (timeoutMs == 0) return -1;
  return timeoutMs > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<int>(timeoutMs);
}
}  // namespace

int CSocketIO::Wait(short events, int waitMs) {
  if (m_socket == -1) {
    SetLastError(ERROR_INVALID_HANDLE);
    return -1;
  }
  // poll rather than select: a descriptor number past the select set's 1024 bits stays safe.
  pollfd p{};
  p.fd = m_socket;
  p.events = events;
  for (;;) {
    int rc = poll(&p, 1, waitMs);
    if (rc == -1 && errno == EINTR) continue;
    if (rc == -1) {
      TakeSocketError();
      return -1;
    }
    if (rc == 0) return 0;
    // Like select, an error or hang-up counts as ready: the next call reports it.
    return (p.revents & (events | POLLERR | POLLHUP)) ? 1 : 2;
  }
}

int CSocketIO::ReadableNow() {
  return Wait(POLLIN, 0) == 1 ? 1 : 0;
}

int CSocketIO::SocketReadable(DWORD timeoutMs) {
  return Wait(POLLIN, WaitMs(timeoutMs)) == 1 ? 1 : 0;
}

int CSocketIO::SocketWriteable(DWORD timeoutMs) {
  int rc = Wait(POLLOUT, WaitMs(timeoutMs));
  if (rc == 0) {
    LogMsg("FileTransferConfiglet - CSocketIO::SocketWriteable - timeout error\r\n");
    return 0;
  }
  if (rc == -1) {
    LogMsg("FileTransferConfiglet - CSocketIO::SocketWriteable - error = !%d!\r\n",
           static_cast<int>(GetLastError()));
    return 0;
  }
  if (rc != 1) {
    LogMsg("FileTransferConfiglet - CSocketIO::SocketWriteable - socket not set\r\n");
    return 0;
  }
  return 1;
}

DWORD CSocketIO::SendData(const char* data, DWORD length) {
  DWORD sent = 0;
  DWORD delay = kDelayStep;
  while (sent < length) {
    DWORD chunk = length - sent < kSendChunk ? length - sent : kSendChunk;
    // MSG_NOSIGNAL: a peer that has gone must fail the send, not kill the host process.
    ssize_t rc = send(m_socket, data + sent, chunk, MSG_NOSIGNAL);
    if (rc == -1) {
      if (errno == EINTR) continue;
      DWORD err = TakeSocketError();
      if (err != kWouldBlock) {
        DebugText(L"SendData error, %d\r\n", static_cast<int>(err));
        return sent;
      }
      if (delay < kDelayCeiling) delay *= 2;
      Sleep(delay);
      continue;
    }
    sent += static_cast<DWORD>(rc);
    if (delay > kDelayStep) delay -= kDelayStep;
  }
  return sent;
}

int CSocketIO::ReadData(char* buffer, int length, int& received) {
  ssize_t rc;
  do {
    rc = FTC_PLUGIN_FAULT("ftc/plugin/socket-read", ECONNRESET)
             ? -1
             : recv(m_socket, buffer, length > 0 ? size_t(length) : 0, 0);
  } while (rc == -1 && errno == EINTR);
  if (rc == -1) TakeSocketError();
  received = static_cast<int>(rc);
  return rc > 0 ? 1 : 0;
}

int CSocketIO::BytesPending() {
  int count = 0;
  if (ioctl(m_socket, FIONREAD, &count) == -1) return 0;
  return count;
}

int CSocketIO::GetHostIpAddress(DWORD& ip) {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return 0;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &found) != 0 || !found) return 0;
  int ok = 0;
  if (found->ai_family == AF_INET && found->ai_addrlen >= sizeof(sockaddr_in)) {
    ip = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    ok = 1;
  }
  freeaddrinfo(found);
  return ok;
}

DWORD CSocketIO::GetHostIpAddress(const wchar_t* host) {
  if (!host || !host[0]) return 0;
  char narrow[128] = {};
  WideCharToMultiByte(CP_ACP, 0, host, -1, narrow, sizeof narrow - 1, nullptr, nullptr);
  narrow[sizeof narrow - 1] = 0;
  in_addr_t ip = inet_addr(narrow);
  // Names are deliberately not looked up: servers are always given as dotted addresses.
  return ip == INADDR_NONE ? 0 : static_cast<DWORD>(ip);
}

char* CSocketIO::IPToString(DWORD ip, char* text) {
  in_addr addr{};
  addr.s_addr = htonl(ip);
  if (!text || !inet_ntop(AF_INET, &addr, text, INET_ADDRSTRLEN)) {
    LogMsg("FileTransferConfiglet - CSocketIO::IPToString bad ip \r\n");
    return nullptr;
  }
  return text;
}

void CSocketIO::HalfClose() {
  if (m_socket == -1 || m_bHalfClosed) return;
  shutdown(m_socket, SHUT_WR);
  m_bHalfClosed = true;
}

int CSocketIO::Disconnect() {
  if (m_socket == -1) return 0;
  HalfClose();
  // Drain until the peer closes, but never longer than the drain time-out: a peer that keeps
  // the connection open (or keeps sending) must not hold the caller.
  using Clock = std::chrono::steady_clock;
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_dwDrainTimeout);
  char scratch[512];
  // What is there already needs no wait: after an early half-close the peer's close often is.
  for (bool wait = false;; wait = true) {
    if (wait) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) break;
      if (Wait(POLLIN, static_cast<int>(left.count())) != 1) break;
    }
    ssize_t rc = recv(m_socket, scratch, sizeof scratch, MSG_DONTWAIT);
    if (rc == -1 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    if (rc <= 0) break;
  }
  return 1;
}

int CSocketIO::Close() {
  // Closing twice is common (a failed attempt closes, then its caller does): no call for that.
  if (m_socket == -1) {
    errno = EBADF;
    return -1;
  }
  int rc = close(m_socket);
  m_socket = -1;
  m_mode = -1;
  m_bHalfClosed = false;
  return rc;
}

int CSocketIO::IsConnected() {
  return m_socket != -1 ? 1 : 0;
}
