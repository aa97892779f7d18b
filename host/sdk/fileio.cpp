// The download writer: a thin unbuffered descriptor wrapper, so large writes go straight to
// write(2) and a resumed download can seek anywhere.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "base/faults.h"
#include "base/files.h"
#include "platform/hostclasses.h"
#include "platform/winux.h"
#include "sdk_internal.h"
#include "winux/winux_host.h"

namespace {

bool Usable(const char* path) {
  if (path && *path) return true;
  SetLastError(ERROR_INVALID_PARAMETER);
  return false;
}

// 1 found, 0 absent, -1 refused or unusable.
int Stat(const char* path, struct stat* st, std::string* host) {
  if (!Usable(path)) return -1;
  return SdkNoThrow<int>(-1, [&]() { return WinuxStatPath(path, st, host); });
}

int OpenPath(const char* path, int flags) {
  if (!Usable(path)) return -1;
  int fd;
  do {
    fd = SdkNoThrow<int>(-1, [&]() { return WinuxOpenPath(path, flags, 0666); });
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// -1 when path cannot take a file (a folder, or refused; last error set), else whether a file
// is there (*host then names it).
int ExistingTarget(const char* path, std::string* host) {
  struct stat st;
  int found = Stat(path, &st, host);
  if (found > 0 && S_ISDIR(st.st_mode)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return -1;
  }
  return found;
}

// Write permission follows the device's read-only bit; only the owner's is given back.
int ApplyReadOnly(const std::string& host, const struct stat& st, bool readOnly) {
  mode_t mode = st.st_mode & 07777;
  mode = readOnly ? (mode & ~static_cast<mode_t>(0222)) : (mode | S_IWUSR);
  if (mode != (st.st_mode & 07777) && chmod(host.c_str(), mode) != 0) {
    WinuxSetLastErrorFromErrno(errno);
    return 0;
  }
  return 1;
}

// Temporaries a killed process left are cleared once per folder and process: reading the folder
// for every download would make each file cost as much as the folder is large.
void RemoveDeadTempsOnce(const std::string& host) {
  static std::mutex& lock = *new std::mutex();
  static auto& cleared = *new std::unordered_set<std::string>();
  std::string folder = host.substr(0, host.find_last_of('/') + 1);
  {
    std::lock_guard<std::mutex> hold(lock);
    if (!cleared.insert(folder).second) return;
  }
  hostbase::RemoveDeadTemps(host);
}

}  // namespace

// The file a download writes until it is whole.
struct FileIO::Replacement {
  std::string target;
  std::string temp;
  off_t size = 0;
};

FileIO::FileIO() : m_fd(-1), m_replacement(nullptr) {}

FileIO::~FileIO() {
  Close();
}

int FileIO::Open(const char* path, int mode) {
  Close();
  m_fd = OpenPath(path, mode == 1 ? O_RDONLY : O_RDWR);
  if (m_fd < 0) return 0;
  struct stat st;
  if (fstat(m_fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    Close();
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  return 1;
}

int FileIO::OpenForWriting(const char* path, int append, DWORD size) {
  Close();
  if (!append) {
    std::string host;
    int found = ExistingTarget(path, &host);
    if (found < 0) return 0;
    return SdkNoThrow<int>(0, [&] {
      if (found == 0 && (host = WinuxMapPath(path)).empty()) return 0;
      RemoveDeadTempsOnce(host);
      auto r = std::make_unique<Replacement>();
      r->target = host;
      r->size = static_cast<off_t>(size);
      struct timespec before = WinuxHostFolderTime(host);
      m_fd = hostbase::CreateTempBeside(host, 0666, &r->temp);
      if (m_fd < 0) {
        WinuxSetLastErrorFromErrno(errno);
        return 0;
      }
      WinuxNoteHostPath(r->temp, true, &before);
      m_replacement = r.release();
      return 1;
    });
  }
  m_fd = OpenPath(path, O_WRONLY | O_CREAT);
  if (m_fd < 0) return 0;
  // Not O_APPEND: a resumed download seeks back to its last checkpoint and writes from there.
  if (lseek(m_fd, 0, SEEK_END) < 0) {
    WinuxSetLastErrorFromErrno(errno);
    Close();
    return 0;
  }
  return 1;
}

int FileIO::PrepareForWriting(const char* path) {
  struct stat st;
  std::string host;
  int found = Stat(path, &st, &host);
  if (found <= 0) return found == 0 ? 1 : 0;
  return ApplyReadOnly(host, st, false);
}

int FileIO::RemoveStale(const char* path) {
  std::string host;
  return ExistingTarget(path, &host) < 0 ? 0 : 1;
}

int FileIO::Write(const char* data, DWORD length) {
  if (m_fd < 0 || (!data && length)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  hostbase::IoStatus written = FTC_FAULT("ftc/download/write", ENOSPC)
                                   ? hostbase::IoStatus{ENOSPC, "write"}
                                   : hostbase::WriteAll(m_fd, data, length);
  if (!written.ok()) {
    WinuxSetLastErrorFromErrno(written.error);  // a write that takes nothing reads as EIO
    return 0;
  }
  return 1;
}

int FileIO::Seek(DWORD offset) {
  if (m_fd < 0) return 0;
  if (lseek(m_fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    WinuxSetLastErrorFromErrno(errno);
    return 0;
  }
  return 1;
}

DWORD FileIO::Read(char* buffer, DWORD length) {
  if (m_fd < 0 || !buffer) return 0;
  for (;;) {
    ssize_t n = read(m_fd, buffer, length);
    if (n >= 0) return static_cast<DWORD>(n);
    if (errno != EINTR) {
      WinuxSetLastErrorFromErrno(errno);
      return 0;
    }
  }
}

DWORD FileIO::ReadAll(char* buffer, DWORD capacity) {
  if (m_fd < 0 || !buffer) return 0;
  DWORD done = 0;
  while (done < capacity) {
    ssize_t n = pread(m_fd, buffer + done, capacity - done, static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      WinuxSetLastErrorFromErrno(errno);
      break;
    }
    if (n == 0) break;
    done += static_cast<DWORD>(n);
  }
  return done;
}

DWORD FileIO::Size() {
  if (m_fd < 0) return 0;
  struct stat st;
  if (fstat(m_fd, &st) != 0) return 0;
  if (st.st_size > static_cast<off_t>(0xFFFFFFFFu)) return 0xFFFFFFFFu;
  return static_cast<DWORD>(st.st_size);
}

int FileIO::IsOpen() const {
  return m_fd >= 0 ? 1 : 0;
}

void FileIO::Close() {
  if (m_fd < 0) return;
  std::unique_ptr<Replacement> r(m_replacement);
  m_replacement = nullptr;
  struct stat st;
  bool whole = r && fstat(m_fd, &st) == 0 && st.st_size == r->size;
  // Retrying close after EINTR could close a descriptor another thread just got.
  close(m_fd);
  m_fd = -1;
  if (!r) return;
  // Renamed without an fsync: a kill leaves the old version or the new, and a file that power
  // loss empties fails its CRC at the next validation and is fetched again. Syncing every small
  // file would cost more than fetching it.
  struct timespec before = WinuxHostFolderTime(r->target);
  if (whole && !FTC_FAULT("ftc/host/rename", EIO) &&
      rename(r->temp.c_str(), r->target.c_str()) == 0) {
    WinuxNoteHostPath(r->target, true);
    WinuxNoteHostPath(r->temp, false, &before);
    return;
  }
  if (whole) WinuxSetLastErrorFromErrno(errno);
  unlink(r->temp.c_str());
  WinuxNoteHostPath(r->temp, false, &before);
}

int FileIO::SetAttributes(const char* path, DWORD attributes) {
  struct stat st;
  std::string host;
  int found = Stat(path, &st, &host);
  if (found == 0) WinuxSetLastErrorFromErrno(ENOENT);
  if (found <= 0) return 0;
  return ApplyReadOnly(host, st, (attributes & FILE_ATTRIBUTE_READONLY) != 0);
}

int FileIO::Delete(const char* path) {
  if (!Usable(path)) return 0;
  int err = SdkNoThrow<int>(EIO, [&]() { return WinuxUnlinkPath(path); });
  if (err == EISDIR) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  if (err != 0) {
    WinuxSetLastErrorFromErrno(err);
    return 0;
  }
  return 1;
}
