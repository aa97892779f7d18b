#include "log/LogMsg.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/hostclasses.h"
#include "platform/sockets.h"
#include "platform/winux.h"

namespace {

const char kLogFile[] = "/tmp/FileXfer.txt";
const wchar_t kLogFolder[] = L"/tmp";
const wchar_t kLogMutex[] = L"FILELOG_MUTEX";
const size_t kMessageSize = 1025;
const size_t kLineSize = 1152;
// User-level facility, informational severity.
const int kPriority = (1 << 3) | 6;

FILE* m_fp = nullptr;
std::atomic<unsigned short> m_wRemoteDebugPort{0};
char m_szRemoteDebugAddress[64] = "";
// Never destroyed: detached worker threads may still log while the process exits.
SocketIO& m_Debug = *new SocketIO();
Network& m_Network = *new Network();
char* pW2ABuf = nullptr;

// The named lock every writer of the log shares, also writers in other modules of the process.
class LogLock {
 public:
  LogLock() : m_handle(CreateMutex(nullptr, FALSE, kLogMutex)), m_taken(false) {
    if (m_handle) m_taken = WinuxWaitForSingleObject(m_handle, INFINITE) == WINUX_WAIT_ACQUIRED;
  }
  ~LogLock() {
    if (m_taken) WinuxReleaseSemaphore(m_handle, 1, nullptr);
    if (m_handle) CloseHandle(m_handle);
  }
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;
  bool taken() const { return m_taken; }

 private:
  HANDLE m_handle;
  bool m_taken;
};

// A fresh device may not have the folder yet.
FILE* OpenLogFile() {
  FILE* fp = WinuxFopen(kLogFile, "a");
  if (!fp && CreateDirectory(kLogFolder, nullptr)) fp = WinuxFopen(kLogFile, "a");
  return fp;
}

void SendRemote(const char* message) {
  char line[kLineSize];
  memset(line, 0, sizeof(line));
  SYSTEMTIME now;
  memset(&now, 0, sizeof(now));
  GetLocalTime(&now);
  // The %3d keeps the priority right-aligned ("< 14>"): receivers expect that form.
  snprintf(line, sizeof(line), "<%3d>%04d-%02d-%02d %02d:%02d:%02d %s", kPriority, now.wYear,
           now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, message);
  m_Network.SendTo(m_Debug.GetSocket(), m_Debug.GetDestAddr(), line,
                   static_cast<WORD>(strlen(line)));
}

}  // namespace

void LogMsg(const char* format, ...) {
  if (!format) return;
  char* message = static_cast<char*>(calloc(1, kMessageSize));
  if (!message) return;
  {
    LogLock lock;
    if (lock.taken()) {
      // Opened whatever the destination, so a later switch back to the file finds it ready.
      if (!m_fp) m_fp = OpenLogFile();
      va_list args;
      va_start(args, format);
      if (m_wRemoteDebugPort.load() != 0) {
        vsnprintf(message, kMessageSize, format, args);
        SendRemote(message);
      } else if (m_fp) {
        vsnprintf(message, kMessageSize, format, args);
        fwrite(message, 1, strlen(message), m_fp);
        // Closed after every line so the file is whole even if the process dies.
        fclose(m_fp);
        m_fp = nullptr;
      }
      va_end(args);
    }
  }
  free(message);
}

void SysLogInit(const char* address, unsigned short port) {
  LogLock lock;
  m_wRemoteDebugPort = port;
  snprintf(m_szRemoteDebugAddress, sizeof(m_szRemoteDebugAddress), "%s", address ? address : "");
  // A previous job's socket must not carry this job's lines to the old receiver.
  m_Debug.Close();
  if (port == 0 || inet_addr(m_szRemoteDebugAddress) == INADDR_NONE) return;
  if (m_Debug.CreateUdpSocket() == 0) {
    m_wRemoteDebugPort = 0;
    return;
  }
  m_Debug.SetUdpPort(port);
  m_Debug.SetIpAddress(m_szRemoteDebugAddress);
}

void SysLogClose() {
  LogLock lock;
  if (m_fp) {
    fclose(m_fp);
    m_fp = nullptr;
  }
}

char* SysLogToASCII(const wchar_t* text) {
  if (!text) text = L"";
  size_t size = wcslen(text) + 1;
  free(pW2ABuf);
  pW2ABuf = static_cast<char*>(calloc(1, size));
  if (!pW2ABuf) return nullptr;
  WideCharToMultiByte(CP_ACP, 0, text, -1, pW2ABuf, static_cast<int>(size), nullptr, nullptr);
  pW2ABuf[size - 1] = '\0';
  return pW2ABuf;
}
