// File helpers on device paths.

#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/text.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "sdk_internal.h"
#include "winux/winux_host.h"

namespace {

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
  return SdkNoThrow<BOOL>(FALSE, [&]() -> BOOL {
    return path && WinuxStatPath(path, nullptr, nullptr) == 1 ? TRUE : FALSE;
  });
}

BOOL QVFileExists(const wchar_t* path) {
  return SdkNoThrow<BOOL>(FALSE, [&]() -> BOOL {
    return path && WinuxStatPath(hostbase::ToUtf8(path), nullptr, nullptr) == 1 ? TRUE : FALSE;
  });
}

HANDLE QVOpenFile(const wchar_t* path, int mode) {
  return SdkNoThrow<HANDLE>(INVALID_HANDLE_VALUE, [&]() -> HANDLE { return Open(path, mode); });
}

HANDLE QVOpenFile(const char* path, int mode) {
  return SdkNoThrow<HANDLE>(INVALID_HANDLE_VALUE, [&]() -> HANDLE {
    if (!path) return Open(nullptr, mode);
    return Open(hostbase::FromUtf8(path, hostbase::StrayByte::kQuestionMark).c_str(), mode);
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
    // Durable, as the installed-bundle record is replaced through it. Into the memory-backed
    // area (another file system) it copies, then removes the original.
    hostbase::IoStatus moved = hostbase::MoveHostFile(from, to);
    if (moved.ok()) {
      WinuxNoteHostPath(from, false);
      WinuxNoteHostPath(to, true);
    }
    if (!moved.ok()) WinuxSetLastErrorFromErrno(moved.error);
    return moved.ok() ? TRUE : FALSE;
  });
}

// The device's CopyFile, replacing a target that is there.
BOOL TVLCopyFileW(const wchar_t* existing, const wchar_t* target) {
  if (!existing || !target) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return CopyFile(existing, target, FALSE);
}
