// File helpers on device paths.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/helpers.h"
#include "platform/winux.h"
#include "sdk_internal.h"
#include "winux/winux_host.h"

namespace {

bool Exists(const std::string& host) {
  struct stat st;
  return !host.empty() && stat(host.c_str(), &st) == 0;
}

HANDLE Open(const wchar_t* path, int mode) {
  if (!path) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  if (mode == 0)
    return CreateFile(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  return CreateFile(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0,
                    nullptr);
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Copies into a temporary beside the target and renames it over, so the target is either the old
// file or the whole new one, never a torn copy. A read-only target is replaced as well.
bool CopyHostFile(const std::string& from, const std::string& to) {
  int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    WinuxSetLastErrorFromErrno(errno);
    return false;
  }
  struct stat st {};
  if (fstat(in, &st) != 0 || S_ISDIR(st.st_mode)) {
    int err = S_ISDIR(st.st_mode) ? EISDIR : errno;
    close(in);
    WinuxSetLastErrorFromErrno(err);
    return false;
  }
  std::string temp = to + ".copyXXXXXX";
  int out = mkostemp(&temp[0], O_CLOEXEC);
  if (out < 0) {
    WinuxSetLastErrorFromErrno(errno);
    close(in);
    return false;
  }
  char buffer[65536];
  bool ok = true;
  for (;;) {
    ssize_t n = read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ok = false;
      break;
    }
    if (n == 0) break;
    if (!WriteAll(out, buffer, static_cast<size_t>(n))) {
      ok = false;
      break;
    }
  }
  int err = errno;
  if (ok && fchmod(out, st.st_mode & 07777) != 0) ok = false;
  if (close(out) != 0 && ok) {
    ok = false;
    err = errno;
  }
  close(in);
  if (ok && rename(temp.c_str(), to.c_str()) != 0) {
    ok = false;
    err = errno;
  }
  if (!ok) {
    unlink(temp.c_str());
    WinuxSetLastErrorFromErrno(err);
  }
  return ok;
}

bool MapPair(const wchar_t* existing, const wchar_t* target, std::string* from, std::string* to) {
  if (!existing || !target) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  *from = WinuxMapPathW(existing);
  if (from->empty()) return false;
  *to = WinuxMapPathW(target);
  return !to->empty();
}

}  // namespace

BOOL QVFileExists(const char* path) {
  return SdkNoThrow<BOOL>(
      FALSE, [&]() -> BOOL { return path && Exists(WinuxMapPath(path)) ? TRUE : FALSE; });
}

BOOL QVFileExists(const wchar_t* path) {
  return SdkNoThrow<BOOL>(
      FALSE, [&]() -> BOOL { return path && Exists(WinuxMapPathW(path)) ? TRUE : FALSE; });
}

HANDLE QVOpenFile(const wchar_t* path, int mode) {
  return SdkNoThrow<HANDLE>(INVALID_HANDLE_VALUE, [&]() -> HANDLE { return Open(path, mode); });
}

HANDLE QVOpenFile(const char* path, int mode) {
  return SdkNoThrow<HANDLE>(INVALID_HANDLE_VALUE, [&]() -> HANDLE {
    if (!path) return Open(nullptr, mode);
    return Open(SdkWiden(path).c_str(), mode);
  });
}

DWORD QVGetFileSize(HANDLE file) {
  if (!file || file == INVALID_HANDLE_VALUE) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0xFFFFFFFFu;
  }
  return GetFileSize(file, nullptr);
}

BOOL QVCloseFile(HANDLE file) {
  if (!file || file == INVALID_HANDLE_VALUE) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  return CloseHandle(file);
}

BOOL TVLRenameFileW(const wchar_t* existing, const wchar_t* target) {
  return SdkNoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::string from, to;
    if (!MapPair(existing, target, &from, &to)) return FALSE;
    struct stat st;
    if (stat(to.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    }
    if (rename(from.c_str(), to.c_str()) == 0) return TRUE;
    if (errno != EXDEV) {
      WinuxSetLastErrorFromErrno(errno);
      return FALSE;
    }
    // Another file system (the memory-backed area, say): copy, then remove the original.
    if (!CopyHostFile(from, to)) return FALSE;
    if (unlink(from.c_str()) != 0) {
      WinuxSetLastErrorFromErrno(errno);
      return FALSE;
    }
    return TRUE;
  });
}

BOOL TVLCopyFileW(const wchar_t* existing, const wchar_t* target) {
  return SdkNoThrow<BOOL>(FALSE, [&]() -> BOOL {
    std::string from, to;
    if (!MapPair(existing, target, &from, &to)) return FALSE;
    return CopyHostFile(from, to) ? TRUE : FALSE;
  });
}
