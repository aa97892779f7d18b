// The plug-in's own IPv4 TCP socket: connect with a time-out, readiness waits, a paced send loop,
// single receives and a draining close. Used by one thread at a time.
#pragma once

#include "platform/wintypes.h"

class CSocketIO {
 public:
  CSocketIO();
  ~CSocketIO();
  CSocketIO(const CSocketIO&) = delete;
  CSocketIO& operator=(const CSocketIO&) = delete;

  int Startup();
  int Shutdown();
  int CreateTcpSocket();
  // ip in network order. Expects a socket from CreateTcpSocket; on failure the socket is closed.
  int Connect(DWORD ip, WORD port, DWORD timeoutMs);
  int SetMode(int mode);
  int SetMode(int socket, int mode);
  // A time-out of 0 waits without limit.
  int SocketReadable(DWORD timeoutMs);
  int SocketWriteable(DWORD timeoutMs);
  // Bytes sent; less than length when the socket failed.
  DWORD SendData(const char* data, DWORD length);
  // 1 when bytes arrived, 0 when the peer closed or the receive failed.
  int ReadData(char* buffer, int length, int& received);
  int BytesPending();
  int GetHostIpAddress(DWORD& ip);
  // Dotted addresses only; 0 when the text is not one.
  DWORD GetHostIpAddress(const wchar_t* host);
  // ip in host order; text must hold 16 bytes. Returns text, or null.
  char* IPToString(DWORD ip, char* text);
  int Disconnect();
  // Disconnect's first half alone (no more sends); Disconnect then only drains.
  void HalfClose();
  int Close();
  int IsConnected();

  // Longest wait for the peer to finish after our half-close (0: no wait).
  void SetDrainTimeout(DWORD timeoutMs) { m_dwDrainTimeout = timeoutMs; }

 protected:
  // The peer's IPv4 socket address; port and address in network order. Kept free of the
  // system's socket types so that the class's users see none of them.
  struct Address {
    WORD family;
    WORD port;
    DWORD ip;
    unsigned char zero[8];
  };

  int m_socket;  // descriptor, -1 when there is none
  int m_mode;    // of m_socket as last set: 0 blocking, 1 not, -1 unknown
  bool m_bHalfClosed;
  Address m_addr;
  DWORD m_dwDrainTimeout;

  // Without waiting: 1 when bytes or the peer's close are waiting to be read.
  int ReadableNow();

 private:
  // 1 when ready, 0 on time-out, -1 on error (last error set). waitMs -1 waits without limit.
  int Wait(short events, int waitMs);
};
