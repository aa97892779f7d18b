#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "internal.h"
#include "platform/winux.h"
#include "winux_host.h"

namespace winux {

struct FileObject : Object {
  FileObject() : Object(Kind::File) {}
  ~FileObject() override {
    if (fd >= 0) close(fd);
  }
  int fd = -1;
  bool regular = false;  // a short read is the end of the file: no read to find it again
};

namespace {

bool ReadOnlyMode(mode_t mode) {
  return (mode & S_IWUSR) == 0;
}

MappedPath MapWide(LPCWSTR path) {
  if (!path || !*path) {
    SetLastError(path ? ERROR_PATH_NOT_FOUND : ERROR_INVALID_PARAMETER);
    return MappedPath{};
  }
  return MapDevicePath(ToUtf8(path));
}

// open(2) flags of an fopen mode; -1 when it is not one.
int FopenFlags(const char* mode) {
  int flags;
  switch (mode[0]) {
    case 'r':
      flags = 0;
      break;
    case 'w':
      flags = O_CREAT | O_TRUNC;
      break;
    case 'a':
      flags = O_CREAT | O_APPEND;
      break;
    default:
      return -1;
  }
  const bool both = strchr(mode, '+') != nullptr;
  flags |= both ? O_RDWR : mode[0] == 'r' ? O_RDONLY : O_WRONLY;
  if (strchr(mode, 'x')) flags |= O_EXCL;
  return flags;
}

using HeldFd = std::shared_ptr<HostFd>;

ssize_t AppendTo(void* cookie, const char* data, size_t size) {
  hostbase::IoStatus written = hostbase::WriteAll((*static_cast<HeldFd*>(cookie))->fd, data, size);
  if (!written.ok()) {
    errno = written.error;
    return -1;
  }
  return static_cast<ssize_t>(size);
}

int CloseAppender(void* cookie) {
  delete static_cast<HeldFd*>(cookie);
  return 0;
}

// A stream that only appends, unbuffered: each write goes out at once (a log line is one
// write, never split by a buffer), without the status calls a buffered stream makes first.
FILE* Appender(const HeldFd& fd) {
  cookie_io_functions_t io{};
  io.write = AppendTo;
  io.close = CloseAppender;
  auto* held = new HeldFd(fd);
  FILE* f = fopencookie(held, "a", io);
  if (!f) {
    delete held;
    return nullptr;
  }
  setvbuf(f, nullptr, _IONBF, 0);
  return f;
}

// Append descriptors kept while their path still names the same file: a log opened anew for
// every line then costs a write, not an open, a stat and a close. The path is looked at again
// when this process removed or renamed any name since, or once kRecheck has passed since it was
// last seen naming the file: a log replaced or removed from outside is followed within that time.
struct KeptAppend {
  std::string key;
  dev_t dev;
  ino_t ino;
  bool readOnly;
  std::chrono::steady_clock::time_point seen;
  unsigned long removals;  // Removals() when seen
  HeldFd fd;
};
const auto kRecheck = std::chrono::milliseconds(1);
// Never destroyed: detached threads may still log while the process exits.
std::mutex& g_keptLock = *new std::mutex();
std::vector<KeptAppend>& g_kept = *new std::vector<KeptAppend>();
const size_t kMaxKept = 8;

KeptAppend* FindKept(const std::string& key) {
  for (KeptAppend& k : g_kept)
    if (k.key == key) return &k;
  return nullptr;
}

// The kept descriptor of the file path names now; null when there is none. *key names the path
// for Keep.
HeldFd Kept(const char* path, bool* readOnly, std::string* key) {
  if (StatBeneath(path, nullptr, key) != 0) return nullptr;
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard<std::mutex> guard(g_keptLock);
    KeptAppend* k = FindKept(*key);
    if (!k) return nullptr;
    if (now - k->seen < kRecheck && k->removals == Removals()) {
      *readOnly = k->readOnly;
      return k->fd;
    }
  }
  const unsigned long removals = Removals();
  struct stat st;
  if (StatBeneath(path, &st, key) != 0) return nullptr;
  std::lock_guard<std::mutex> guard(g_keptLock);
  KeptAppend* k = FindKept(*key);
  if (!k || k->dev != st.st_dev || k->ino != st.st_ino) return nullptr;
  k->readOnly = *readOnly = ReadOnlyMode(st.st_mode);
  k->seen = now;
  k->removals = removals;
  return k->fd;
}

void Keep(const std::string& key, const HeldFd& fd) {
  struct stat st;
  if (key.empty() || fstat(fd->fd, &st) != 0) return;
  std::lock_guard<std::mutex> guard(g_keptLock);
  for (auto it = g_kept.begin(); it != g_kept.end(); ++it)
    if (it->key == key) {
      g_kept.erase(it);
      break;
    }
  if (g_kept.size() >= kMaxKept) g_kept.erase(g_kept.begin());
  g_kept.push_back(KeptAppend{key, st.st_dev, st.st_ino, ReadOnlyMode(st.st_mode),
                              std::chrono::steady_clock::now(), Removals(), fd});
}

// chmod through the folder, never following a link put in the leaf's place since the lookup.
int ChmodMapped(const MappedPath& path, mode_t mode) {
  if (path.folder) return fchmodat(path.folder->fd, path.leaf.c_str(), mode, AT_SYMLINK_NOFOLLOW);
  return chmod(path.host.c_str(), mode);
}

// unlink or rmdir through the folder, keeping its name index current.
int RemoveMapped(MappedPath& path, int flags) {
  if (!path.folder) {
    CountRemoval();
    return flags ? rmdir(path.host.c_str()) : unlink(path.host.c_str());
  }
  StampFolder(path);
  int rc = unlinkat(path.folder->fd, path.leaf.c_str(), flags);
  if (rc == 0) NoteMappedChange(path, path.leaf, false);
  return rc;
}

}  // namespace
}  // namespace winux

using namespace winux;

extern "C" HANDLE CreateFile(LPCWSTR path, DWORD access, DWORD, LPSECURITY_ATTRIBUTES,
                             DWORD disposition, DWORD flagsAndAttributes, HANDLE) {
  if (!path || !*path) {
    SetLastError(path ? ERROR_PATH_NOT_FOUND : ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  int flags = O_CLOEXEC;
  const bool wantWrite = (access & GENERIC_WRITE) != 0;
  if (wantWrite && (access & GENERIC_READ))
    flags |= O_RDWR;
  else if (wantWrite)
    flags |= O_WRONLY;
  else
    flags |= O_RDONLY;
  switch (disposition) {
    case CREATE_NEW:
      flags |= O_CREAT | O_EXCL;
      break;
    case CREATE_ALWAYS:
      flags |= O_CREAT | O_TRUNC;
      break;
    case OPEN_EXISTING:
      break;
    case OPEN_ALWAYS:
      flags |= O_CREAT;
      break;
    case TRUNCATE_EXISTING:
      flags |= O_TRUNC;
      break;
    default:
      SetLastError(ERROR_INVALID_PARAMETER);
      return INVALID_HANDLE_VALUE;
  }
  if ((flags & O_TRUNC) && !wantWrite) flags = (flags & ~O_RDONLY) | O_RDWR;
  // Refusals of an existing file; the read-only attribute binds even where the host user could
  // write anyway.
  auto refusal = [&](const struct stat& st) -> DWORD {
    if (S_ISDIR(st.st_mode)) return ERROR_ACCESS_DENIED;
    if (disposition == CREATE_NEW) return ERROR_FILE_EXISTS;
    if ((wantWrite || (flags & O_TRUNC)) && ReadOnlyMode(st.st_mode)) return ERROR_ACCESS_DENIED;
    return ERROR_SUCCESS;
  };
  const std::string device = ToUtf8(path);
  struct stat st;
  bool exists = true;
  bool regular = true;
  int fd = OpenExisting(device, flags, &st);
  if (fd >= 0) {
    regular = S_ISREG(st.st_mode);
    DWORD refused = refusal(st);
    if (refused == ERROR_SUCCESS && (flags & O_TRUNC) && ftruncate(fd, 0) != 0) {
      WinuxSetLastErrorFromErrno(errno);
      refused = GetLastError();
    }
    if (refused != ERROR_SUCCESS) {
      close(fd);
      SetLastError(refused);
      return INVALID_HANDLE_VALUE;
    }
  } else {
    MappedPath mapped = MapDevicePath(device);
    if (mapped.host.empty()) return INVALID_HANDLE_VALUE;
    exists = mapped.exists;
    regular = !exists || S_ISREG(mapped.st.st_mode);
    DWORD refused = exists ? refusal(mapped.st) : ERROR_SUCCESS;
    if (refused != ERROR_SUCCESS) {
      SetLastError(refused);
      return INVALID_HANDLE_VALUE;
    }
    mode_t mode = (flagsAndAttributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;
    fd = OpenMapped(mapped, flags, mode);
    if (fd < 0) {
      SetErrorForPath(errno, mapped);
      return INVALID_HANDLE_VALUE;
    }
  }
  auto object = std::make_shared<FileObject>();
  object->fd = fd;
  object->regular = regular;
  // Opening an existing file with a creating disposition reports that it was there.
  SetLastError(exists && (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
                   ? ERROR_ALREADY_EXISTS
                   : ERROR_SUCCESS);
  return AddHandle(object);
}

extern "C" BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD toRead, LPDWORD read, LPVOID) {
  if (read) *read = 0;
  auto f = Lookup<FileObject>(file, Kind::File);
  if (!f) return FALSE;
  if (!buffer && toRead) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  size_t got = 0;
  hostbase::IoStatus status;
  if (f->regular) {
    ssize_t n;
    do n = ::read(f->fd, buffer, toRead);
    while (n < 0 && errno == EINTR);
    if (n < 0) status.error = errno;
    got = n < 0 ? 0 : static_cast<size_t>(n);
  } else {
    status = hostbase::ReadFull(f->fd, buffer, toRead, &got);
  }
  if (!status.ok()) {
    WinuxSetLastErrorFromErrno(status.error);
    return FALSE;
  }
  if (read) *read = static_cast<DWORD>(got);
  return TRUE;
}

extern "C" BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD toWrite, LPDWORD written, LPVOID) {
  if (written) *written = 0;
  auto f = Lookup<FileObject>(file, Kind::File);
  if (!f) return FALSE;
  if (!buffer && toWrite) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  hostbase::IoStatus status = hostbase::WriteAll(f->fd, buffer, toWrite);
  if (!status.ok()) {
    WinuxSetLastErrorFromErrno(status.error);
    return FALSE;
  }
  if (written) *written = toWrite;
  return TRUE;
}

extern "C" DWORD GetFileSize(HANDLE file, LPDWORD sizeHigh) {
  auto f = Lookup<FileObject>(file, Kind::File);
  struct stat st;
  if (!f) return 0xFFFFFFFFu;
  if (fstat(f->fd, &st) != 0) {
    WinuxSetLastErrorFromErrno(errno);
    return 0xFFFFFFFFu;
  }
  uint64_t size = static_cast<uint64_t>(st.st_size);
  if (sizeHigh) *sizeHigh = static_cast<DWORD>(size >> 32);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(size);
}

extern "C" DWORD SetFilePointer(HANDLE file, LONG distance, LPLONG distanceHigh, DWORD method) {
  auto f = Lookup<FileObject>(file, Kind::File);
  if (!f) return 0xFFFFFFFFu;
  int64_t offset =
      distanceHigh ? (static_cast<int64_t>(*distanceHigh) << 32) | static_cast<uint32_t>(distance)
                   : static_cast<int64_t>(distance);
  int whence = method == 0 ? SEEK_SET : method == 1 ? SEEK_CUR : method == 2 ? SEEK_END : -1;
  if (whence < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0xFFFFFFFFu;
  }
  off_t at = lseek(f->fd, static_cast<off_t>(offset), whence);
  if (at < 0) {
    WinuxSetLastErrorFromErrno(errno);
    return 0xFFFFFFFFu;
  }
  if (distanceHigh) *distanceHigh = static_cast<LONG>(static_cast<uint64_t>(at) >> 32);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(at);
}

extern "C" FILE* WinuxFopen(const char* path, const char* mode) {
  if (!path || !mode || !*path) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  const int flags = FopenFlags(mode);
  if (flags < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  const bool writes = strpbrk(mode, "wa+") != nullptr;
  const bool appends = (flags & O_ACCMODE) == O_WRONLY && (flags & O_APPEND);
  std::string key;
  if (appends) {
    bool readOnly = false;
    if (HeldFd kept = Kept(path, &readOnly, &key)) {
      if (!readOnly) return Appender(kept);
      SetLastError(ERROR_ACCESS_DENIED);
      return nullptr;
    }
  }
  struct stat st;
  int fd = OpenExisting(path, flags, &st);
  MappedPath mapped;
  if (fd >= 0) {
    if (writes && ReadOnlyMode(st.st_mode)) {
      close(fd);
      SetLastError(ERROR_ACCESS_DENIED);
      return nullptr;
    }
    if ((flags & O_TRUNC) && ftruncate(fd, 0) != 0) {
      WinuxSetLastErrorFromErrno(errno);
      close(fd);
      return nullptr;
    }
  } else {
    mapped = MapDevicePath(path);
    if (mapped.host.empty()) return nullptr;
    if (writes && mapped.exists && ReadOnlyMode(mapped.st.st_mode)) {
      SetLastError(ERROR_ACCESS_DENIED);
      return nullptr;
    }
    fd = OpenMapped(mapped, flags, 0666);
  }
  if (fd < 0) {
    SetErrorForPath(errno, mapped);
    return nullptr;
  }
  if (appends) {
    HeldFd held = std::make_shared<HostFd>(fd);
    Keep(key, held);
    FILE* f = Appender(held);
    if (!f) WinuxSetLastErrorFromErrno(errno);
    return f;
  }
  FILE* f = fdopen(fd, mode);
  if (!f) {
    const int err = errno;
    close(fd);
    WinuxSetLastErrorFromErrno(err);
  }
  return f;
}

extern "C" FILE* _wfopen(LPCWSTR path, LPCWSTR mode) {
  if (!path || !mode) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return WinuxFopen(ToUtf8(path).c_str(), ToUtf8(mode).c_str());
}

extern "C" BOOL CreateDirectory(LPCWSTR path, LPSECURITY_ATTRIBUTES) {
  MappedPath mapped = MapWide(path);
  if (mapped.host.empty()) return FALSE;
  int rc;
  if (mapped.folder) {
    StampFolder(mapped);
    rc = mkdirat(mapped.folder->fd, mapped.leaf.c_str(), 0777);
    if (rc == 0) NoteMappedChange(mapped, mapped.leaf, true);
  } else {
    rc = mapped.exists ? (errno = EEXIST, -1) : (errno = ENOENT, -1);
  }
  if (rc != 0) {
    SetErrorForPath(errno, mapped);
    return FALSE;
  }
  return TRUE;
}

extern "C" BOOL RemoveDirectory(LPCWSTR path) {
  MappedPath mapped = MapWide(path);
  if (mapped.host.empty()) return FALSE;
  if (mapped.isStoreRoot) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  if (RemoveMapped(mapped, AT_REMOVEDIR) != 0) {
    SetErrorForPath(errno == EEXIST ? ENOTEMPTY : errno, mapped);
    return FALSE;
  }
  return TRUE;
}

extern "C" BOOL DeleteFile(LPCWSTR path) {
  MappedPath mapped = MapWide(path);
  if (mapped.host.empty()) return FALSE;
  if (!mapped.exists) {
    SetErrorForPath(ENOENT, mapped);
    return FALSE;
  }
  if (S_ISDIR(mapped.st.st_mode) || ReadOnlyMode(mapped.st.st_mode)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  if (RemoveMapped(mapped, 0) != 0) {
    SetErrorForPath(errno, mapped);
    return FALSE;
  }
  return TRUE;
}

extern "C" BOOL CopyFile(LPCWSTR existing, LPCWSTR target, BOOL failIfExists) {
  MappedPath from = MapWide(existing);
  if (from.host.empty()) return FALSE;
  MappedPath to = MapWide(target);
  if (to.host.empty()) return FALSE;
  if (!from.exists) {
    SetErrorForPath(ENOENT, from);
    return FALSE;
  }
  if (to.exists) {
    if (failIfExists) {
      SetLastError(ERROR_FILE_EXISTS);
      return FALSE;
    }
    if (S_ISDIR(to.st.st_mode) || ReadOnlyMode(to.st.st_mode)) {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    }
  } else if (to.parentMissing) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return FALSE;
  }
  StampFolder(to);
  hostbase::IoStatus copied = hostbase::CopyHostFile(from.host, to.host);
  if (copied.ok()) NoteMappedChange(to, to.leaf, true);
  if (!copied.ok()) WinuxSetLastErrorFromErrno(copied.error);
  return copied.ok() ? TRUE : FALSE;
}

extern "C" BOOL MoveFile(LPCWSTR existing, LPCWSTR target) {
  MappedPath from = MapWide(existing);
  if (from.host.empty()) return FALSE;
  MappedPath to = MapWide(target);
  if (to.host.empty()) return FALSE;
  if (!from.exists) {
    SetErrorForPath(ENOENT, from);
    return FALSE;
  }
  // A target that differs only in case is the same file on the device: a rename in place.
  if (to.exists && to.host != from.host) {
    SetLastError(ERROR_ALREADY_EXISTS);
    return FALSE;
  }
  if (to.host == from.host) {
    // Same file: only the spelling changes, so the new name is taken as written.
    std::string spelled = ToUtf8(target);
    size_t cut = spelled.find_last_of("\\/");
    spelled = cut == std::string::npos ? spelled : spelled.substr(cut + 1);
    to.host = to.host.substr(0, to.host.rfind('/') + 1) + spelled;
    to.leaf = spelled;
  }
  StampFolder(from);
  StampFolder(to);
  // Between the memory area and the root this copies, then removes the original.
  hostbase::IoStatus moved = hostbase::MoveHostFile(from.host, to.host);
  if (moved.ok()) {
    NoteMappedChange(from, from.leaf, false);
    // In one folder the first note already took the folder's new time.
    if (from.host.substr(0, from.host.rfind('/')) == to.host.substr(0, to.host.rfind('/')))
      to.stamped = false;
    NoteMappedChange(to, to.leaf, true);
  }
  if (!moved.ok()) SetErrorForPath(moved.error, to.parentMissing ? to : from);
  return moved.ok() ? TRUE : FALSE;
}

extern "C" DWORD GetFileAttributes(LPCWSTR path) {
  MappedPath mapped = MapWide(path);
  if (mapped.host.empty()) return INVALID_FILE_ATTRIBUTES;
  if (!mapped.exists) {
    SetErrorForPath(ENOENT, mapped);
    return INVALID_FILE_ATTRIBUTES;
  }
  const struct stat& st = mapped.st;
  DWORD attributes = 0;
  if (S_ISDIR(st.st_mode)) {
    attributes |= FILE_ATTRIBUTE_DIRECTORY;
    if (IsMountedStore(mapped.host)) attributes |= FILE_ATTRIBUTE_MOUNTED_STORE;
  }
  if (ReadOnlyMode(st.st_mode)) attributes |= FILE_ATTRIBUTE_READONLY;
  return attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
}

extern "C" BOOL SetFileAttributes(LPCWSTR path, DWORD attributes) {
  MappedPath mapped = MapWide(path);
  if (mapped.host.empty()) return FALSE;
  if (!mapped.exists) {
    SetErrorForPath(ENOENT, mapped);
    return FALSE;
  }
  const struct stat& st = mapped.st;
  mode_t mode = st.st_mode & 07777;
  if (attributes & FILE_ATTRIBUTE_READONLY)
    mode &= ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
  else
    mode |= S_IWUSR;
  if (mode != (st.st_mode & 07777) && ChmodMapped(mapped, mode) != 0) {
    WinuxSetLastErrorFromErrno(errno);
    return FALSE;
  }
  return TRUE;
}

extern "C" BOOL GetDiskFreeSpaceEx(LPCWSTR path, PULARGE_INTEGER freeToCaller,
                                   PULARGE_INTEGER total, PULARGE_INTEGER totalFree) {
  MappedPath mapped = path ? MapWide(path) : MapDevicePath("\\");
  if (mapped.host.empty()) return FALSE;
  struct statvfs vfs;
  if (statvfs(mapped.host.c_str(), &vfs) != 0) {
    SetErrorForPath(errno, mapped);
    return FALSE;
  }
  const uint64_t unit = vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize;
  if (freeToCaller) freeToCaller->QuadPart = static_cast<uint64_t>(vfs.f_bavail) * unit;
  if (total) total->QuadPart = static_cast<uint64_t>(vfs.f_blocks) * unit;
  if (totalFree) totalFree->QuadPart = static_cast<uint64_t>(vfs.f_bfree) * unit;
  return TRUE;
}
