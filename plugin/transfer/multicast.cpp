#include "transfer/multicast.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/LogMsg.h"
#include "log/display.h"
#include "platform/hostclasses.h"
#include "platform/sockets.h"
#include "platform/winux.h"

namespace {
int m_statusSocket = -1;
// Set by CloseStatusThreadSocket; the thread signals this event when it has left the socket.
std::atomic<bool> g_closing{false};
HANDLE g_hStatusThreadDone = nullptr;
const int kFirstStatusPort = 5655;
// Where the status thread of the running reception reports finished files.
MCFileDoneFunction g_fileDone = nullptr;
}  // namespace

void DecodeStatusDatagram(const unsigned char* data, int length, MCStatus* out) {
  memset(out, 0, sizeof *out);
  if (!data || length <= 0) return;
  auto byteAt = [&](int i) -> DWORD { return i < length ? data[i] : 0; };
  out->progress = static_cast<int>((byteAt(2) << 8) | byteAt(3));
  out->amount = (byteAt(8) << 24) | (byteAt(9) << 16) | (byteAt(10) << 8) | byteAt(11);
  int textLength = length - 12;
  if (textLength <= 0) return;
  if (textLength > static_cast<int>(sizeof out->text) - 1) textLength = sizeof out->text - 1;
  memcpy(out->text, data + 12, static_cast<size_t>(textLength));
}

int CreateStatusThreadSocket(int* port) {
  m_statusSocket = socket(AF_INET, SOCK_DGRAM, 0);
  if (m_statusSocket <= 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  int candidate = kFirstStatusPort;
  for (;; ++candidate) {
    // Past the last port there is nothing left to try.
    if (candidate > 65535) {
      close(m_statusSocket);
      m_statusSocket = -1;
      return 0;
    }
    address.sin_port = htons(static_cast<uint16_t>(candidate));
    if (bind(m_statusSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) break;
  }
  *port = candidate;
  // Signalled by the status thread when it has let go of the socket.
  g_closing = false;
  g_hStatusThreadDone = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  return 1;
}

void CloseStatusThreadSocket() {
  if (m_statusSocket >= 0) {
    g_closing = true;
    // A close alone does not wake a thread blocked in select on this host; shutting the socket
    // down does, and the thread lets go of the descriptor before it is closed and reused.
    shutdown(m_statusSocket, SHUT_RDWR);
    if (g_hStatusThreadDone) WinuxWaitForSingleObject(g_hStatusThreadDone, 60000);
    close(m_statusSocket);
    m_statusSocket = -1;
  }
  if (g_hStatusThreadDone) {
    CloseHandle(g_hStatusThreadDone);
    g_hStatusThreadDone = nullptr;
  }
  WSACleanup();
}

DWORD StatusThread(LPVOID parameter) {
  const MCFileDoneFunction fileDone =
      parameter ? *static_cast<const MCFileDoneFunction*>(parameter) : nullptr;
  unsigned char* buffer = static_cast<unsigned char*>(malloc(2048));
  char shown[256] = {0};
  const int s = m_statusSocket;
  HANDLE done = g_hStatusThreadDone;
  for (;;) {
    if (!buffer) break;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(s, &readable);
    // The device's stack ignores the count; this one needs the highest descriptor plus one.
    if (select(s + 1, &readable, nullptr, nullptr, nullptr) == -1) {
      LogMsg("FileTransferConfiglet - MCStatusThread, select error\r\n");
      break;
    }
    memset(buffer, 0, 2048);
    ssize_t received = recvfrom(s, buffer, 2048, 0, nullptr, nullptr);
    if (received == -1 || (received == 0 && g_closing)) {
      LogMsg("FileTransferConfiglet - MCStatusThread - recvfrom got error\r\n");
      break;
    }
    MCStatus status;
    DecodeStatusDatagram(buffer, static_cast<int>(received), &status);
    if (strcmp(status.text, shown) != 0) {
      SetProgress1(0);
      Sleep(10);
      memcpy(shown, status.text, sizeof shown);
      OutputGUIMsgA("%s", shown);
    }
    SetProgress1(status.progress);
    if (status.progress == 100 && fileDone) fileDone(status.amount);
  }
  free(buffer);
  if (done) SetEvent(done);
  return 0;
}

void RunMulticastReceiver(char* parameters, size_t capacity, MCFileDoneFunction fileDone) {
  int port = 0;
  if (CreateStatusThreadSocket(&port)) {
    g_fileDone = fileDone;
    DWORD id = 0;
    HANDLE thread = CreateThread(nullptr, 0, StatusThread, &g_fileDone, 0, &id);
    if (thread) {
      CloseHandle(thread);
    } else {
      CloseHandle(g_hStatusThreadDone);
      g_hStatusThreadDone = nullptr;
    }
    size_t used = strnlen(parameters, capacity);
    if (used < capacity)
      snprintf(parameters + used, capacity - used, " -UA=127.0.0.1 -UP=%d", port);
  }
  CMulticastClient mc;
  LogMsg("FileTransferConfiglet - StartMulticastClient - mc.Start, !%s!\r\n", parameters);
  mc.Start(parameters);
  CloseStatusThreadSocket();
}

int GetMClientVersion(char* text) {
  CMulticastClient mc;
  snprintf(text, 64, "%s", mc.GetVersion());
  return 0;
}
