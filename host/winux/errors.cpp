#include <cerrno>

#include "platform/winux.h"
#include "winux_host.h"

namespace {
thread_local DWORD t_lastError = 0;
}

extern "C" DWORD GetLastError(void) {
  return t_lastError;
}

extern "C" void SetLastError(DWORD error) {
  t_lastError = error;
}

void WinuxSetLastErrorFromErrno(int err) {
  DWORD code;
  switch (err) {
    case 0:
      code = ERROR_SUCCESS;
      break;
    case ENOENT:
      code = ERROR_FILE_NOT_FOUND;
      break;
    case ENOTDIR:
      code = ERROR_PATH_NOT_FOUND;
      break;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
      code = ERROR_ACCESS_DENIED;
      break;
    case EMFILE:
    case ENFILE:
      code = ERROR_TOO_MANY_OPEN_FILES;
      break;
    case EBADF:
      code = ERROR_INVALID_HANDLE;
      break;
    case ENOMEM:
      code = ERROR_NOT_ENOUGH_MEMORY;
      break;
    case EEXIST:
      code = ERROR_ALREADY_EXISTS;
      break;
    case ENOTEMPTY:
      code = ERROR_DIR_NOT_EMPTY;
      break;
    case ENOSPC:
    case EDQUOT:
      code = ERROR_DISK_FULL;
      break;
    case EINVAL:
    case ENAMETOOLONG:
      code = ERROR_INVALID_PARAMETER;
      break;
    case ETIMEDOUT:
      code = ERROR_TIMEOUT;
      break;
    case EIO:
      code = ERROR_WRITE_FAULT;
      break;
    default:
      code = 0x20000000u | static_cast<DWORD>(err);
      break;  // customer bit: raw errno
  }
  t_lastError = code;
}
