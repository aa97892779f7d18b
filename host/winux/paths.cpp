#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
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

// Finds an entry of dir whose name equals name ignoring ASCII case; empty when none.
std::string ScanFolder(const std::string& dir, const std::string& name) {
  DIR* d = opendir(dir.c_str());
  if (!d) return "";
  std::string found;
  while (struct dirent* e = readdir(d)) {
    if (winux::EqualsNoCase(e->d_name, name)) {
      found = e->d_name;
      break;
    }
  }
  closedir(d);
  return found;
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

namespace winux {

std::string StateDir() {
  return WinuxRoot() + "/.winux";
}

MappedPath MapDevicePath(const std::string& devicePath) {
  MappedPath result;
  std::string path = devicePath;
  for (char& c : path)
    if (c == '\\') c = '/';

  std::string root = WinuxRoot();
  struct stat rootStat;
  const bool rootExists = stat(root.c_str(), &rootStat) == 0 && S_ISDIR(rootStat.st_mode);
  if (!rootExists && !MakeDirs(root, 0777)) {
    WinuxSetLastErrorFromErrno(errno);
    return result;
  }
  std::string rootReal = RealPath(root);
  if (rootReal.empty()) {
    WinuxSetLastErrorFromErrno(errno);
    return result;
  }
  std::string base = rootReal;
  if (path.size() >= 4 && EqualsNoCase(path.substr(0, 4), "RAM:")) {
    base = RealPath(RamBase(rootReal));
    if (base.empty()) {
      WinuxSetLastErrorFromErrno(errno);
      return result;
    }
    path = path.substr(4);
  }

  // Collapse . and .. first, as the device does, so nothing can climb above the base.
  std::vector<std::string> parts;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == std::string::npos) slash = path.size();
    std::string part = path.substr(pos, slash - pos);
    pos = slash + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
      continue;
    }
    parts.push_back(part);
  }

  std::string current = base;
  bool missing = false;
  for (size_t i = 0; i < parts.size(); ++i) {
    const bool last = i + 1 == parts.size();
    std::string candidate = current + "/" + parts[i];
    if (missing) {
      result.parentMissing = true;
      current = candidate;
      continue;
    }
    struct stat st;
    if (lstat(candidate.c_str(), &st) != 0) {
      const int err = errno;
      std::string found = err == ENOENT ? ScanFolder(current, parts[i]) : "";
      if (found.empty()) {
        if (err == ENOTDIR) result.parentMissing = true;
        missing = true;
        current = candidate;
        continue;
      }
      candidate = current + "/" + found;
      if (lstat(candidate.c_str(), &st) != 0) {
        missing = true;
        current = candidate;
        continue;
      }
    }
    if (S_ISLNK(st.st_mode)) {
      std::string target = RealPath(candidate);
      // A dangling link cannot be proven to stay inside, so it is refused like an escaping one.
      if (target.empty() || !Within(target, base)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return MappedPath{};
      }
      candidate = target;
      if (stat(candidate.c_str(), &st) != 0) st.st_mode = 0;
    }
    current = candidate;
    if (!last && !S_ISDIR(st.st_mode)) missing = true;  // a file where a folder should be
  }
  result.host = current;
  result.isStoreRoot = parts.empty();
  return result;
}

void SetErrorForPath(int err, const MappedPath& path) {
  if ((err == ENOENT || err == ENOTDIR) && path.parentMissing) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return;
  }
  WinuxSetLastErrorFromErrno(err);
}

bool IsMountedStore(const std::string& hostPath) {
  std::string rootReal = RealPath(WinuxRoot());
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
