#include "transfer/FTCCCRC32.h"

#include <memory>
#include <new>

#include "log/LogMsg.h"
#include "platform/winux.h"

namespace {

const DWORD kFileReadSize = 256 * 1024;  // large enough to amortise the read calls, fits L2

}  // namespace

DWORD FTCCCRC32::CalcBufferCRC(const char* buffer, DWORD length) {
  return buffer ? ftc::Crc32(buffer, length) : 0;
}

DWORD FTCCCRC32::FileCRC32(const wchar_t* path, DWORD& crc) {
  DWORD result = 0;
  crc = 0xFFFFFFFFu;
  LogMsg("FTCCCRC32::FileCRC32 - In\r\n");
  HANDLE file =
      CreateFile(path, GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    result = GetLastError();  // before the log line, whose own calls reset it
    LogMsg("FTCCCRC32::FileCRC32 - file open error\r\n");
  } else {
    LogMsg("FTCCCRC32::FileCRC32 - readFile file\r\n");
    char small[4096];
    std::unique_ptr<char[]> large(new (std::nothrow) char[kFileReadSize]);
    char* buffer = large ? large.get() : small;
    DWORD size = large ? kFileReadSize : DWORD(sizeof small);
    DWORD got = 0;
    while (ReadFile(file, buffer, size, &got, nullptr) && got != 0)
      crc = Update(crc, buffer, got < size ? got : size);
  }
  // The invalid handle of a failed open is handed to the close as well; the host refuses it.
  if (file != nullptr) {
    LogMsg("FTCCCRC32::FileCRC32 - close file\r\n");
    CloseHandle(file);
  }
  crc = ~crc;
  LogMsg("FTCCCRC32::FileCRC32 - Out\r\n");
  return result;
}

DWORD FTCCCRC32::WrittenCRC32(DWORD running, DWORD& crc) {
  LogMsg("FTCCCRC32::FileCRC32 - In\r\n");
  LogMsg("FTCCCRC32::FileCRC32 - readFile file\r\n");
  LogMsg("FTCCCRC32::FileCRC32 - close file\r\n");
  crc = ~running;
  LogMsg("FTCCCRC32::FileCRC32 - Out\r\n");
  return 0;
}

DWORD FTCCCRC32::RAMFileCRC32(const wchar_t*, DWORD&, DWORD) {
  return 0;
}
