// Host classes the plug-in uses: the download writer, the registry by full value path, the UDP
// sender of the remote log and the multicast receiver. Supplied by libftchost.so on Linux.
#pragma once

#include "platform/wintypes.h"

// Writer and reader of one device file. Paths are narrow device paths.
class WINUX_API FileIO {
 public:
  FileIO();
  ~FileIO();
  FileIO(const FileIO&) = delete;
  FileIO& operator=(const FileIO&) = delete;

  // mode 1 opens for reading. 1 on success, 0 on failure.
  int Open(const char* path, int mode);
  // Opens for writing: append keeps the existing bytes and writes in place. Otherwise the bytes
  // go to a new file beside path that replaces it at Close only when it has reached size bytes:
  // until then path keeps its old version, and a cut download leaves no torn file under it.
  // 1 on success, 0 on failure.
  int OpenForWriting(const char* path, int append, DWORD size);
  // The two calls a download makes before opening: the first clears a read-only flag left on a
  // stale file, the second checks that path can take a file (the stale one stays until the new
  // one is whole). Results are advisory.
  int PrepareForWriting(const char* path);
  int RemoveStale(const char* path);
  // 1 when written whole, 0 on failure.
  int Write(const char* data, DWORD length);
  // Absolute offset. 1 on success.
  int Seek(DWORD offset);
  // Bytes read, 0 at end or on failure.
  DWORD Read(char* buffer, DWORD length);
  // Reads the whole open file into buffer (at most capacity bytes); returns bytes read.
  DWORD ReadAll(char* buffer, DWORD capacity);
  // Size of the open file, 0 when none is open.
  DWORD Size();
  int IsOpen() const;
  // A new file that reached its size replaces its path now; a short one is dropped.
  void Close();
  // Device attribute bits (0x1 read-only). 1 on success.
  int SetAttributes(const char* path, DWORD attributes);
  // 1 when the file was deleted.
  static int Delete(const char* path);

 private:
  struct Lookup;
  struct Replacement;
  Lookup* Find(const char* path, bool again);
  void Forget();

  int m_fd;
  Replacement* m_replacement;
  Lookup* m_lookup;
};

// The registry by full paths: "HKEY_LOCAL_MACHINE\System\ImageUpdate\UpdateApp" names a key,
// "HKEY_LOCAL_MACHINE\Init\Launch130" a value (its last component). 1 on success, 0 on failure.
class WINUX_API Registry {
 public:
  int CreateKey(const char* keyPath);
  int SetNumber(const char* valuePath, DWORD value);
  int SetString(const char* valuePath, const char* value);
};

// Destination of a datagram: IPv4 address and port, both in network byte order.
struct WinuxSockAddr {
  uint32_t address;
  uint16_t port;
};

// A UDP socket and the destination its datagrams go to.
class WINUX_API SocketIO {
 public:
  SocketIO();
  ~SocketIO();
  SocketIO(const SocketIO&) = delete;
  SocketIO& operator=(const SocketIO&) = delete;

  // The socket handle, 0 on failure (a valid handle is never 0).
  int CreateUdpSocket();
  void SetUdpPort(WORD port);
  // 1 when the text is a dotted IPv4 address, 0 otherwise (the address is then unchanged).
  int SetIpAddress(const char* dotted);
  int GetSocket() const;
  const WinuxSockAddr* GetDestAddr() const;
  void Close();

 private:
  int m_socket;
  WinuxSockAddr m_dest;
};

class WINUX_API Network {
 public:
  // Bytes sent, or -1.
  int SendTo(int socket, const WinuxSockAddr* dest, const char* data, WORD length);
};

// Receives one multicast session into a device folder and reports progress as status datagrams.
// The parameter syntax is documented in docs/multicast.md.
class WINUX_API CMulticastClient {
 public:
  CMulticastClient();
  ~CMulticastClient();
  CMulticastClient(const CMulticastClient&) = delete;
  CMulticastClient& operator=(const CMulticastClient&) = delete;

  // Blocks until the session has ended or none started within the time-out. 0 on success.
  int Start(char* parameters);
  // Name and version of the receiver.
  const char* GetVersion();

 private:
  char m_szVersion[64];
};
