#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <vector>

#include "internal.h"
#include "platform/winux.h"
#include "winux_host.h"

namespace {

std::mutex g_rootLock;
std::string g_root;

std::string StripTrailingSlashes(std::string p) {
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

// mkdir -p; existing folders are fine.
bool MakeDirs(const std::string& path, mode_t mode) {
  std::string partial;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == std::string::npos) slash = path.size();
    partial = path.substr(0, slash);
    if (!partial.empty() && mkdir(partial.c_str(), mode) != 0 && errno != EEXIST) return false;
    pos = slash + 1;
  }
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string RealPath(const std::string& path) {
  char buffer[PATH_MAX];
  if (!realpath(path.c_str(), buffer)) return "";
  return buffer;
}

bool Within(const std::string& path, const std::string& base) {
  if (path == base) return true;
  if (base == "/") return true;
  return path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
         path[base.size()] == '/';
}

uint64_t Fnv1a(const std::string& text) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : text) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

// Memory-backed files: one area per device root so concurrent roots (tests) stay apart.
std::string RamBase(const std::string& rootReal) {
  struct stat st;
  if (stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode)) {
    char name[96];
    snprintf(name, sizeof name, "/dev/shm/winux-ram-%u/%016llx", static_cast<unsigned>(getuid()),
             static_cast<unsigned long long>(Fnv1a(rootReal)));
    if (MakeDirs(name, 0700)) return name;
  }
  std::string fallback = rootReal + "/.winux/ram";
  MakeDirs(fallback, 0700);
  return fallback;
}

const char* const kStoreNames[] = {"Flash File Store", "Storage Card", "SD Card", "SDMMC Disk"};

}  // namespace

std::string WinuxRoot() {
  const char* env = getenv("WINUX_ROOT");
  if (env && *env) return StripTrailingSlashes(env);
  std::lock_guard<std::mutex> guard(g_rootLock);
  if (!g_root.empty()) return g_root;
  return "./device-root";
}

void WinuxSetRoot(const std::string& root) {
  std::lock_guard<std::mutex> guard(g_rootLock);
  g_root = StripTrailingSlashes(root);
}

double WinuxTimeScale() {
  const char* env = getenv("WINUX_TIME_SCALE");
  if (!env || !*env) return 1.0;
  char* end = nullptr;
  double value = strtod(env, &end);
  if (end == env || !std::isfinite(value) || value < 0) return 1.0;
  return value;
}

DWORD WinuxScaleMs(DWORD milliseconds) {
  if (milliseconds == INFINITE) return INFINITE;
  double scaled = static_cast<double>(milliseconds) * WinuxTimeScale();
  if (scaled >= 4294967294.0) return 0xFFFFFFFEu;  // a finite wait stays finite
  return static_cast<DWORD>(std::llround(scaled));
}

std::string WinuxIdentityValue(const std::string& key) {
  std::ifstream in(winux::StateDir() + "/identity");
  std::string line;
  while (std::getline(in, line)) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
      line.pop_back();
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string name = line.substr(0, eq);
    size_t first = name.find_first_not_of(" \t");
    if (first == std::string::npos) continue;
    name = name.substr(first, name.find_last_not_of(" \t") - first + 1);
    if (!winux::EqualsNoCase(name, key)) continue;
    std::string value = line.substr(eq + 1);
    size_t start = value.find_first_not_of(" \t");
    return start == std::string::npos ? "" : value.substr(start);
  }
  return "";
}

std::string WinuxMapPath(const std::string& devicePath) {
  return winux::MapDevicePath(devicePath).host;
}

std::string WinuxMapPathW(const wchar_t* devicePath) {
  if (!devicePath) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return "";
  }
  return WinuxMapPath(winux::ToUtf8(devicePath));
}

int WinuxOpenPath(const std::string& devicePath, int flags, unsigned mode) {
  // A file about to be replaced is mostly gone already: straight to the full lookup then.
  const bool replaces = (flags & O_CREAT) && (flags & O_TRUNC);
  int fd = replaces ? -1 : winux::OpenExisting(devicePath, flags, nullptr);
  if (fd >= 0 && (flags & O_CREAT) && (flags & O_EXCL)) {
    close(fd);
    SetLastError(ERROR_FILE_EXISTS);
    errno = EEXIST;
    return -1;
  }
  if (fd >= 0 && (flags & O_TRUNC) && ftruncate(fd, 0) != 0) {
    const int err = errno;
    close(fd);
    WinuxSetLastErrorFromErrno(err);
    errno = err;
    return -1;
  }
  if (fd >= 0) return fd;
  winux::MappedPath mapped = winux::MapDevicePath(devicePath);
  if (mapped.host.empty()) {
    errno = EACCES;
    return -1;
  }
  fd = winux::OpenMapped(mapped, flags, static_cast<mode_t>(mode));
  if (fd < 0) {
    const int err = errno;
    winux::SetErrorForPath(err, mapped);
    errno = err;
  }
  return fd;
}

int WinuxStatPath(const std::string& devicePath, struct stat* st, std::string* host) {
  winux::MappedPath mapped = winux::MapDevicePath(devicePath);
  if (mapped.host.empty()) return -1;
  if (host) *host = mapped.host;
  if (!mapped.exists) return 0;
  if (st) *st = mapped.st;
  return 1;
}

int WinuxUnlinkPath(const std::string& devicePath) {
  winux::MappedPath mapped = winux::MapDevicePath(devicePath);
  if (mapped.host.empty()) return EACCES;
  if (!mapped.exists) return ENOENT;
  if (S_ISDIR(mapped.st.st_mode)) return EISDIR;
  if (!mapped.folder) {
    winux::CountRemoval();
    return unlink(mapped.host.c_str()) == 0 ? 0 : errno;
  }
  winux::StampFolder(mapped);
  if (unlinkat(mapped.folder->fd, mapped.leaf.c_str(), 0) != 0) return errno;
  winux::NoteMappedChange(mapped, mapped.leaf, false);
  return 0;
}

void WinuxNoteHostPath(const std::string& hostPath, bool present) {
  winux::NoteHostChange(hostPath, present, nullptr);
}

namespace winux {

std::string StateDir() {
  return WinuxRoot() + "/.winux";
}

HostFd::~HostFd() {
  if (fd >= 0) close(fd);
}

namespace {

// The root or the memory area, opened once per root setting.
struct Base {
  std::string real;
  std::shared_ptr<HostFd> fd;
};

struct Bases {
  std::string root;  // the setting they were opened for
  Base device, ram;
};

// Never destroyed: detached threads may still map paths while the process exits.
std::mutex& g_basesLock = *new std::mutex();
Bases& g_bases = *new Bases();
std::atomic<bool> g_noOpenat2{false};

const uint64_t kNoLinks = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;

// openat2 confined beneath base; -1 with ENOSYS where the kernel lacks it.
int OpenBeneath(int base, const std::string& rel, int flags, uint64_t resolve) {
  if (!g_noOpenat2.load(std::memory_order_relaxed)) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.resolve = resolve;
    int fd = static_cast<int>(syscall(SYS_openat2, base, rel.c_str(), &how, sizeof how));
    if (fd >= 0 || (errno != ENOSYS && errno != EPERM)) return fd;
    g_noOpenat2.store(true);
  }
  errno = ENOSYS;
  return -1;
}

bool OpenBase(const std::string& path, Base& base) {
  base.real = RealPath(path);
  int fd = base.real.empty() ? -1 : open(base.real.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  base.fd = std::make_shared<HostFd>(fd);
  return true;
}

// again: the cached root was removed, so it is made and opened anew.
bool GetBase(bool ram, bool again, Base* out) {
  std::string root = WinuxRoot();
  std::lock_guard<std::mutex> guard(g_basesLock);
  if (g_bases.root != root || again) g_bases = Bases{root, {}, {}};
  if (!g_bases.device.fd) {
    struct stat st;
    const bool exists = stat(root.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    if ((!exists && !MakeDirs(root, 0777)) || !OpenBase(root, g_bases.device)) {
      WinuxSetLastErrorFromErrno(errno);
      return false;
    }
  }
  if (ram && !g_bases.ram.fd && !OpenBase(RamBase(g_bases.device.real), g_bases.ram)) {
    WinuxSetLastErrorFromErrno(errno);
    return false;
  }
  *out = ram ? g_bases.ram : g_bases.device;
  return true;
}

std::string JoinHost(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

enum class LeafKind { kPlain, kLink };

// The last component in an open folder: as spelled, else from the folder's index.
LeafKind Leaf(const std::shared_ptr<HostFd>& folder, const std::string& folderHost,
              const std::string& name, MappedPath& r) {
  r.leaf = name;
  struct stat st;
  int rc = fstatat(folder->fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW);
  if (rc != 0 && errno == ENOENT) {
    std::string other = FindNoCase(folder->fd, name, &r.folderTime);
    r.stamped = true;
    if (!other.empty()) {
      r.leaf = other;
      rc = fstatat(folder->fd, other.c_str(), &st, AT_SYMLINK_NOFOLLOW);
    }
  }
  if (rc == 0 && S_ISLNK(st.st_mode)) return LeafKind::kLink;
  r.host = JoinHost(folderHost, r.leaf);
  r.exists = rc == 0;
  if (r.exists) r.st = st;
  r.folder = folder;
  return LeafKind::kPlain;
}

// A link is followed only to somewhere under the base; a dangling one cannot be proven to stay
// inside, so it is refused like an escaping one. Null with last error set when refused.
std::shared_ptr<HostFd> FollowLink(const Base& base, const std::string& link, std::string* target,
                                   struct stat* st) {
  *target = RealPath(link);
  int fd = -1;
  if (!target->empty() && Within(*target, base.real)) {
    std::string rel = *target == base.real ? "." : target->substr(base.real.size() + 1);
    if (base.real == "/" && *target != "/") rel = target->substr(1);
    fd = OpenBeneath(base.fd->fd, rel, O_PATH, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS);
    if (fd < 0 && errno == ENOSYS) fd = open(target->c_str(), O_PATH | O_CLOEXEC);
  }
  if (fd < 0 || fstat(fd, st) != 0) {
    if (fd >= 0) close(fd);
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  return std::make_shared<HostFd>(fd);
}

// One component at a time: for names in another case, links, and folders that are missing.
MappedPath Walk(const Base& base, const std::vector<std::string>& parts) {
  MappedPath r;
  std::shared_ptr<HostFd> dir = base.fd;
  std::string current = base.real;
  for (size_t i = 0; i < parts.size(); ++i) {
    std::string name = parts[i];
    struct stat st;
    if (i + 1 == parts.size()) {
      if (Leaf(dir, current, name, r) == LeafKind::kPlain) return r;
      std::string target;
      std::shared_ptr<HostFd> node = FollowLink(base, JoinHost(current, r.leaf), &target, &st);
      if (!node) return MappedPath{};
      MappedPath linked;
      linked.host = target;
      linked.exists = true;
      linked.st = st;
      return linked;
    }
    int rc = fstatat(dir->fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW);
    if (rc != 0 && errno == ENOENT) {
      std::string other = FindNoCase(dir->fd, name, nullptr);
      if (!other.empty()) {
        name = other;
        rc = fstatat(dir->fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW);
      }
    }
    std::shared_ptr<HostFd> next;
    std::string nextHost = JoinHost(current, name);
    if (rc == 0 && S_ISLNK(st.st_mode)) {
      next = FollowLink(base, nextHost, &nextHost, &st);
      if (!next) return MappedPath{};
    } else if (rc == 0 && S_ISDIR(st.st_mode)) {
      int fd = openat(dir->fd, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (fd >= 0) next = std::make_shared<HostFd>(fd);
    }
    if (!next || !S_ISDIR(st.st_mode)) {
      // Missing, or a file where a folder should be: the rest is named as spelled.
      r.host = nextHost;
      for (size_t j = i + 1; j < parts.size(); ++j) r.host = JoinHost(r.host, parts[j]);
      r.parentMissing = true;
      return r;
    }
    dir = next;
    current = nextHost;
  }
  return r;
}

MappedPath Resolve(const Base& base, const std::vector<std::string>& parts) {
  MappedPath r;
  if (parts.empty()) {
    r.host = base.real;
    r.isStoreRoot = true;
    r.exists = fstat(base.fd->fd, &r.st) == 0;
    return r;
  }
  // The folder in one confined call, then the leaf by its spelling.
  std::string rel;
  for (size_t i = 0; i + 1 < parts.size(); ++i) rel += (i ? "/" : "") + parts[i];
  int fd = OpenBeneath(base.fd->fd, rel.empty() ? "." : rel, O_PATH | O_DIRECTORY, kNoLinks);
  if (fd >= 0) {
    auto folder = std::make_shared<HostFd>(fd);
    if (Leaf(folder, rel.empty() ? base.real : JoinHost(base.real, rel), parts.back(), r) ==
        LeafKind::kPlain)
      return r;
  }
  return Walk(base, parts);
}

}  // namespace

namespace {

struct DevicePath {
  bool ram = false;
  std::vector<std::string> parts;
};

DevicePath Parse(const std::string& devicePath) {
  DevicePath d;
  std::string path = devicePath;
  for (char& c : path)
    if (c == '\\') c = '/';
  d.ram = path.size() >= 4 && EqualsNoCase(path.substr(0, 4), "RAM:");
  if (d.ram) path = path.substr(4);

  // Collapse . and .. first, as the device does, so nothing can climb above the base.
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == std::string::npos) slash = path.size();
    std::string part = path.substr(pos, slash - pos);
    pos = slash + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!d.parts.empty()) d.parts.pop_back();
      continue;
    }
    d.parts.push_back(part);
  }
  return d;
}

}  // namespace

int OpenExisting(const std::string& devicePath, int flags, struct stat* st) {
  DevicePath d = Parse(devicePath);
  Base base;
  std::string rel;
  for (const std::string& part : d.parts) rel += (rel.empty() ? "" : "/") + part;
  if (rel.empty() || !GetBase(d.ram, false, &base)) return -1;
  int fd = OpenBeneath(base.fd->fd, rel, flags & ~(O_CREAT | O_EXCL | O_TRUNC), kNoLinks);
  if (fd >= 0 && st && fstat(fd, st) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

int StatBeneath(const std::string& devicePath, struct stat* st, std::string* key) {
  DevicePath d = Parse(devicePath);
  Base base;
  std::string rel;
  for (const std::string& part : d.parts) rel += (rel.empty() ? "" : "/") + part;
  if (rel.empty() || !GetBase(d.ram, false, &base)) return -1;
  *key = JoinHost(base.real, rel);
  return st ? fstatat(base.fd->fd, rel.c_str(), st, AT_SYMLINK_NOFOLLOW) : 0;
}

MappedPath MapDevicePath(const std::string& devicePath) {
  DevicePath d = Parse(devicePath);
  const bool ram = d.ram;
  const std::vector<std::string>& parts = d.parts;
  MappedPath result;
  for (int round = 0; round < 2; ++round) {
    Base base;
    if (!GetBase(ram, round > 0, &base)) return MappedPath{};
    result = Resolve(base, parts);
    if (result.host.empty() || result.exists || (parts.size() > 1 && !result.parentMissing)) break;
    // Missing right under the root: perhaps the root was removed (and made again) since.
    struct stat st;
    if (fstat(base.fd->fd, &st) != 0 || st.st_nlink != 0) break;
  }
  return result;
}

int OpenMapped(MappedPath& path, int flags, mode_t mode) {
  flags |= O_CLOEXEC;
  if (!path.folder) {
    // A missing folder stays missing: never open by a name that something may have put there.
    if (!path.exists) {
      errno = ENOENT;
      return -1;
    }
    return open(path.host.c_str(), flags, mode);
  }
  const bool creating = (flags & O_CREAT) && !path.exists;
  if (creating) StampFolder(path);
  int fd = openat(path.folder->fd, path.leaf.c_str(), flags | O_NOFOLLOW, mode);
  if (fd >= 0 && creating) NoteMappedChange(path, path.leaf, true);
  return fd;
}

void StampFolder(MappedPath& path) {
  struct stat st;
  if (path.stamped || !path.folder) return;
  if (fstat(path.folder->fd, &st) != 0) return;
  path.folderTime = st.st_ctim;
  path.stamped = true;
}

void NoteMappedChange(const MappedPath& path, const std::string& name, bool present) {
  if (path.folder)
    NoteFolderChange(path.folder->fd, path.stamped ? &path.folderTime : nullptr, name, present);
}

void SetErrorForPath(int err, const MappedPath& path) {
  if ((err == ENOENT || err == ENOTDIR) && path.parentMissing) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return;
  }
  WinuxSetLastErrorFromErrno(err);
}

bool IsMountedStore(const std::string& hostPath) {
  Base base;
  if (!GetBase(false, false, &base)) return false;
  const std::string& rootReal = base.real;
  size_t slash = hostPath.rfind('/');
  if (rootReal.empty() || slash == std::string::npos) return false;
  std::string parent = hostPath.substr(0, slash);
  if (parent.empty()) parent = "/";
  if (parent != rootReal) return false;
  std::string name = hostPath.substr(slash + 1);
  for (const char* store : kStoreNames)
    if (EqualsNoCase(name, store)) return true;
  struct stat self, up;
  return stat(hostPath.c_str(), &self) == 0 && stat(parent.c_str(), &up) == 0 &&
         S_ISDIR(self.st_mode) && self.st_dev != up.st_dev;
}

}  // namespace winux
