// The download writer: a thin unbuffered descriptor wrapper, so large writes go straight to
// write(2) and a resumed download can seek anywhere.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

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

int OpenPath(const char* path, int flags) {
  if (!Usable(path)) return -1;
  int fd;
  do {
    fd = SdkNoThrow<int>(-1, [&]() { return WinuxOpenPath(path, flags, 0666); });
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// False when what the place holds cannot take a file (a folder; last error set).
bool TakesFile(const WinuxPlace& place, int found) {
  if (found > 0 && S_ISDIR(place.st().st_mode)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return false;
  }
  return found >= 0;
}

// Write permission follows the device's read-only bit; only the owner's is given back.
int ApplyReadOnly(WinuxPlace& place, bool readOnly) {
  const mode_t was = place.st().st_mode & 07777;
  mode_t mode = readOnly ? (was & ~static_cast<mode_t>(0222)) : (was | S_IWUSR);
  if (mode != was && place.Chmod(mode) != 0) {
    WinuxSetLastErrorFromErrno(errno);
    return 0;
  }
  return 1;
}

}  // namespace

// Where a download goes, found once for the calls that prepare it and the open that follows.
struct FileIO::Lookup {
  std::string path;  // the device path it was found for
  WinuxPlace place;
  int found = -1;  // as WinuxPlace::Find
};

// The file a download writes until it is whole. Its offset and extent are counted here, as
// only this writer has it, so neither seeking to where it is nor checking it at the end asks
// the kernel.
struct FileIO::Replacement {
  std::unique_ptr<Lookup> at;
  std::string temp;
  off_t size = 0;
  off_t offset = 0;  // -1 after a failed write: unknown
  off_t end = 0;
};

FileIO::FileIO() : m_fd(-1), m_replacement(nullptr), m_lookup(nullptr) {}

FileIO::~FileIO() {
  Close();
  delete m_lookup;
}

// again: the previous call's lookup serves when it was for the same path. Null when the path
// is unusable or memory ran out.
FileIO::Lookup* FileIO::Find(const char* path, bool again) {
  if (!Usable(path)) return nullptr;
  if (again && m_lookup && m_lookup->path == path) return m_lookup;
  delete m_lookup;
  m_lookup = nullptr;
  return SdkNoThrow<Lookup*>(nullptr, [&]() {
    auto lookup = std::make_unique<Lookup>();
    lookup->path = path;
    lookup->found = lookup->place.Find(path);
    return m_lookup = lookup.release();
  });
}

void FileIO::Forget() {
  delete m_lookup;
  m_lookup = nullptr;
}

int FileIO::Open(const char* path, int mode) {
  Close();
  Forget();
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
    Lookup* lookup = Find(path, true);
    if (!lookup || !TakesFile(lookup->place, lookup->found)) return 0;
    return SdkNoThrow<int>(0, [&] {
      hostbase::RemoveDeadTempsOnce(lookup->place.host());
      auto r = std::make_unique<Replacement>();
      r->size = static_cast<off_t>(size);
      r->at.reset(lookup);
      m_lookup = nullptr;
      m_fd = r->at->place.CreateTemp(0666, &r->temp);
      if (m_fd < 0) {
        WinuxSetLastErrorFromErrno(errno);
        return 0;
      }
      m_replacement = r.release();
      return 1;
    });
  }
  Forget();
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
  Lookup* lookup = Find(path, false);
  if (!lookup) return 0;
  if (lookup->found <= 0) return lookup->found == 0 ? 1 : 0;
  return ApplyReadOnly(lookup->place, false);
}

int FileIO::RemoveStale(const char* path) {
  Lookup* lookup = Find(path, true);
  return lookup && TakesFile(lookup->place, lookup->found) ? 1 : 0;
}

int FileIO::Write(const char* data, DWORD length) {
  if (m_fd < 0 || (!data && length)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  hostbase::IoStatus written = FTC_FAULT("ftc/download/write", ENOSPC)
                                   ? hostbase::IoStatus{ENOSPC, "write"}
                                   : hostbase::WriteAll(m_fd, data, length);
  if (Replacement* r = m_replacement) {
    r->offset = written.ok() && r->offset >= 0 ? r->offset + length : -1;
    if (r->offset > r->end) r->end = r->offset;
  }
  if (!written.ok()) {
    WinuxSetLastErrorFromErrno(written.error);  // a write that takes nothing reads as EIO
    return 0;
  }
  return 1;
}

int FileIO::Seek(DWORD offset) {
  if (m_fd < 0) return 0;
  Replacement* r = m_replacement;
  if (r && r->offset == static_cast<off_t>(offset)) return 1;
  if (lseek(m_fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    WinuxSetLastErrorFromErrno(errno);
    if (r) r->offset = -1;
    return 0;
  }
  if (r) r->offset = static_cast<off_t>(offset);
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
  // Renamed without an fsync: a kill leaves the old version or the new, and a file that power
  // loss empties fails its CRC at the next validation and is fetched again. Syncing every small
  // file would cost more than fetching it.
  const bool whole = r && r->end == r->size;
  int committed = !whole ? 0 : SdkNoThrow<int>(-1, [&]() {
    if (FTC_FAULT("ftc/host/rename", EIO)) return -1;
    return r->at->place.Commit(m_fd, r->temp) == 0 ? 1 : -1;
  });
  if (committed < 0) WinuxSetLastErrorFromErrno(errno);
  // Retrying close after EINTR could close a descriptor another thread just got.
  close(m_fd);
  m_fd = -1;
  if (r && committed <= 0)
    SdkNoThrow<int>(0, [&]() {
      r->at->place.Remove(r->temp);
      return 0;
    });
}

int FileIO::SetAttributes(const char* path, DWORD attributes) {
  Lookup* lookup = Find(path, false);
  if (!lookup) return 0;
  if (lookup->found == 0) WinuxSetLastErrorFromErrno(ENOENT);
  if (lookup->found <= 0) return 0;
  return ApplyReadOnly(lookup->place, (attributes & FILE_ATTRIBUTE_READONLY) != 0);
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
