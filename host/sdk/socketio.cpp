// The UDP sender of the remote log.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/hostclasses.h"
#include "winux/winux_host.h"

SocketIO::SocketIO() : m_socket(0), m_dest{0, 0} {}

SocketIO::~SocketIO() {
  Close();
}

int SocketIO::CreateUdpSocket() {
  Close();
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (fd < 0) {
    WinuxSetLastErrorFromErrno(errno);
    return 0;
  }
  if (fd == 0) {
    // 0 means "no socket" to the caller: move it to a higher number.
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
    int err = errno;
    close(fd);
    if (moved < 0) {
      WinuxSetLastErrorFromErrno(err);
      return 0;
    }
    fd = moved;
  }
  m_socket = fd;
  return m_socket;
}

void SocketIO::SetUdpPort(WORD port) {
  m_dest.port = htons(port);
}

int SocketIO::SetIpAddress(const char* dotted) {
  in_addr addr;
  if (!dotted || inet_pton(AF_INET, dotted, &addr) != 1) return 0;
  m_dest.address = addr.s_addr;
  return 1;
}

int SocketIO::GetSocket() const {
  return m_socket;
}

const WinuxSockAddr* SocketIO::GetDestAddr() const {
  return &m_dest;
}

void SocketIO::Close() {
  if (m_socket > 0) close(m_socket);
  m_socket = 0;
}

int Network::SendTo(int socket, const WinuxSockAddr* dest, const char* data, WORD length) {
  if (socket <= 0 || !dest || (!data && length)) return -1;
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = dest->address;
  to.sin_port = dest->port;
  for (;;) {
    ssize_t n =
        sendto(socket, data, length, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&to), sizeof to);
    if (n >= 0) return static_cast<int>(n);
    if (errno != EINTR) {
      WinuxSetLastErrorFromErrno(errno);
      return -1;
    }
  }
}
