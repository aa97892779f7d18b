#include "base/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_set>

#include "base/faults.h"
#include "common/crc32.h"

namespace hostbase {

namespace {

IoStatus Failed(const char* step) {
  return IoStatus{errno ? errno : EIO, step};
}

std::string DirOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Closes on every path out; a failed close after writing is the caller's error to report.
class Fd {
 public:
  explicit Fd(int fd) : m_fd(fd) {}
  ~Fd() {
    if (m_fd >= 0) close(m_fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return m_fd; }
  bool Close() {
    int fd = m_fd;
    m_fd = -1;
    return close(fd) == 0;
  }

 private:
  int m_fd;
};

std::atomic<unsigned long long> g_tempCounter{0};

// getpid is a system call each time; a forked child takes its own number at the fork.
std::atomic<pid_t> g_pid{0};

pid_t Pid() {
  static const bool hooked = pthread_atfork(nullptr, nullptr, [] { g_pid.store(0); }) == 0;
  (void)hooked;
  pid_t pid = g_pid.load(std::memory_order_relaxed);
  if (pid == 0) g_pid.store(pid = getpid(), std::memory_order_relaxed);
  return pid;
}

}  // namespace

std::string TempName(const std::string& name) {
  return "." + name + "." + std::to_string(Pid()) + "." +
         std::to_string(g_tempCounter.fetch_add(1));
}

int CreateTempBeside(const std::string& path, unsigned mode, std::string* temp) {
  size_t slash = path.find_last_of('/');
  std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  for (int attempt = 0; attempt < 100; ++attempt) {
    *temp = dir + TempName(name);
    int fd = open(temp->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

int CreateTempIn(int folder, const std::string& name, unsigned mode, std::string* temp) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    *temp = TempName(name);
    int fd =
        openat(folder, temp->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

void RemoveDeadTemps(const std::string& path) {
  size_t slash = path.find_last_of('/');
  std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  std::string prefix = "." + (slash == std::string::npos ? path : path.substr(slash + 1)) + ".";
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    // ".<name>.<pid>.<n>": anything else is not ours.
    char* end = nullptr;
    long pid = strtol(name.c_str() + prefix.size(), &end, 10);
    if (pid <= 0 || *end != '.' || !std::isdigit(static_cast<unsigned char>(end[1]))) continue;
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) unlinkat(dirfd(d), e->d_name, 0);
  }
  closedir(d);
}

void RemoveDeadTempsOnce(const std::string& path) {
  static std::mutex& lock = *new std::mutex();
  static auto& cleared = *new std::unordered_set<std::string>();
  std::string folder = path.substr(0, path.find_last_of('/') + 1);
  {
    std::lock_guard<std::mutex> hold(lock);
    if (!cleared.insert(folder).second) return;
  }
  RemoveDeadTemps(path);
}

namespace {

// Syncs and closes a file just written, keeping the first failure.
IoStatus Finish(Fd& out, IoStatus status) {
  if (status.ok() && (FTC_FAULT("ftc/host/fsync", EIO) || fsync(out.get()) != 0))
    status = Failed("fsync");
  if (!out.Close() && status.ok()) status = Failed("close");
  return status;
}

// Writes a temporary beside path with fill(fd) and renames it over path.
template <typename Fill>
IoStatus ReplaceWith(const std::string& path, unsigned mode, Fill fill) {
  std::string temp;
  Fd out(CreateTempBeside(path, mode, &temp));
  if (out.get() < 0) return Failed("create");
  IoStatus status = Finish(out, fill(out.get()));
  FTC_FAULT_MOMENT("ftc/host/replacing");
  if (status.ok() && (FTC_FAULT("ftc/host/rename", EIO) || rename(temp.c_str(), path.c_str()) != 0))
    status = Failed("rename");
  if (!status.ok()) {
    unlink(temp.c_str());
    return status;
  }
  return SyncDir(DirOf(path));
}

}  // namespace

std::string IoStatus::Describe(const std::string& path) const {
  return std::string("cannot ") + step + " " + path + ": " + std::strerror(error);
}

IoStatus WriteAll(int fd, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = FTC_FAULT("ftc/host/write", ENOSPC) ? -1 : write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Failed("write");
    if (n == 0) return IoStatus{EIO, "write"};
    p += n;
    size -= static_cast<size_t>(n);
  }
  return {};
}

IoStatus ReadFull(int fd, void* data, size_t size, size_t* got) {
  char* p = static_cast<char*>(data);
  *got = 0;
  while (*got < size) {
    ssize_t n = read(fd, p + *got, size - *got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Failed("read");
    if (n == 0) break;
    *got += static_cast<size_t>(n);
  }
  return {};
}

IoStatus ReadWholeFile(const std::string& path, std::string* out) {
  Fd in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) return Failed("open");
  out->clear();
  char buffer[65536];
  for (;;) {
    size_t got = 0;
    IoStatus status = ReadFull(in.get(), buffer, sizeof buffer, &got);
    if (!status.ok()) return status;
    out->append(buffer, got);
    if (got < sizeof buffer) return {};
  }
}

IoStatus SyncDir(const std::string& dir) {
  Fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) return Failed("open folder");
  if (FTC_FAULT("ftc/host/fsync", EIO) || fsync(fd.get()) != 0) return Failed("sync folder");
  return {};
}

IoStatus MakeDirs(const std::string& dir) {
  struct stat st;
  if (stat(dir.c_str(), &st) == 0)
    return S_ISDIR(st.st_mode) ? IoStatus{} : IoStatus{ENOTDIR, "mkdir"};
  std::string parent = DirOf(dir);
  if (parent != dir) {
    IoStatus status = MakeDirs(parent);
    if (!status.ok()) return status;
  }
  if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return Failed("mkdir");
  return SyncDir(parent);
}

IoStatus WriteNewFile(const std::string& path, std::string_view content, unsigned mode) {
  Fd out(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (out.get() < 0) return Failed("create");
  IoStatus status = Finish(out, WriteAll(out.get(), content.data(), content.size()));
  if (!status.ok()) unlink(path.c_str());
  return status;
}

IoStatus ReplaceFile(const std::string& path, std::string_view content, unsigned mode) {
  return ReplaceWith(path, mode,
                     [&](int fd) { return WriteAll(fd, content.data(), content.size()); });
}

IoStatus CopyHostFile(const std::string& from, const std::string& to) {
  Fd in(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) return Failed("open");
  struct stat st;
  if (fstat(in.get(), &st) != 0) return Failed("stat");
  if (S_ISDIR(st.st_mode)) return IoStatus{EISDIR, "open"};
  return ReplaceWith(to, 0600, [&](int fd) {
    char buffer[65536];
    IoStatus status;
    for (size_t got = sizeof buffer; status.ok() && got == sizeof buffer;) {
      status = ReadFull(in.get(), buffer, sizeof buffer, &got);
      if (status.ok()) status = WriteAll(fd, buffer, got);
    }
    // Like the device, the copy keeps the source's write time and read-only state.
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (status.ok() && futimens(fd, times) != 0) status = Failed("set times of");
    if (status.ok() && fchmod(fd, st.st_mode & 07777) != 0) status = Failed("chmod");
    return status;
  });
}

IoStatus MoveHostFile(const std::string& from, const std::string& to) {
  {
    // A file that cannot be opened is renamed unsynced: rename itself reports a real problem.
    Fd fd(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() >= 0 && (FTC_FAULT("ftc/host/fsync", EIO) || fsync(fd.get()) != 0))
      return Failed("fsync");
  }
  if (FTC_FAULT("ftc/host/rename", EIO) || rename(from.c_str(), to.c_str()) != 0) {
    if (errno != EXDEV) return Failed("rename");
    IoStatus status = CopyHostFile(from, to);
    if (!status.ok()) return status;
    if (unlink(from.c_str()) != 0) return Failed("remove");
  } else {
    IoStatus status = SyncDir(DirOf(to));
    if (!status.ok()) return status;
  }
  return DirOf(from) == DirOf(to) ? IoStatus{} : SyncDir(DirOf(from));
}

std::optional<uint32_t> FileCrc32(const std::string& path) {
  Fd in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) return std::nullopt;
  char buffer[65536];
  uint32_t crc = 0;
  for (size_t got = sizeof buffer; got == sizeof buffer;) {
    if (!ReadFull(in.get(), buffer, sizeof buffer, &got).ok()) return std::nullopt;
    crc = ftc::Crc32(buffer, got, crc);
  }
  return crc;
}

}  // namespace hostbase
