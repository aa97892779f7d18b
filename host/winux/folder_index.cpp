// Case-insensitive names per folder, so that a name not spelled as on disk costs a hash lookup
// rather than a read of the whole folder. An index is trusted while the folder's change time is
// the one it was built or last updated at; the kernel gives a change that follows a stat a finer
// time stamp than the last one, so a change by another process is always seen.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "internal.h"
#include "winux_host.h"

namespace winux {
namespace {

struct FolderKey {
  dev_t dev;
  ino_t ino;
  bool operator==(const FolderKey& o) const { return dev == o.dev && ino == o.ino; }
};

struct FolderKeyHash {
  size_t operator()(const FolderKey& k) const {
    return std::hash<unsigned long long>()(static_cast<unsigned long long>(k.ino) * 31u + k.dev);
  }
};

struct Index {
  struct timespec ctime {};
  bool folded = false;  // two names differ only in case: a removal cannot be applied alone
  std::unordered_map<std::string, std::string> names;  // folded -> as on disk
};

const size_t kMaxFolders = 1024;

// Never destroyed: detached threads may still look names up while the process exits.
std::mutex& g_lock = *new std::mutex();
std::unordered_map<FolderKey, Index, FolderKeyHash>& g_indexes =
    *new std::unordered_map<FolderKey, Index, FolderKeyHash>();
std::atomic<unsigned long> g_reads{0};

std::string Fold(const std::string& name) {
  std::string out = name;
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

bool SameTime(const struct timespec& a, const struct timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Reads the folder once; false when it cannot be read.
bool Build(int folder, const struct stat& st, Index& index) {
  int fd = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  DIR* d = fdopendir(fd);
  if (!d) {
    close(fd);
    return false;
  }
  g_reads.fetch_add(1, std::memory_order_relaxed);
  index = Index{};
  index.ctime = st.st_ctim;
  while (struct dirent* e = readdir(d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    if (!index.names.emplace(Fold(e->d_name), e->d_name).second) index.folded = true;
  }
  closedir(d);
  return true;
}

}  // namespace

std::string FindNoCase(int folder, const std::string& name, struct timespec* ctime) {
  struct stat st;
  if (fstat(folder, &st) != 0) return "";
  if (ctime) *ctime = st.st_ctim;
  std::lock_guard<std::mutex> guard(g_lock);
  FolderKey key{st.st_dev, st.st_ino};
  auto it = g_indexes.find(key);
  if (it == g_indexes.end() || !SameTime(it->second.ctime, st.st_ctim)) {
    if (g_indexes.size() >= kMaxFolders && it == g_indexes.end()) g_indexes.clear();
    Index fresh;
    if (!Build(folder, st, fresh)) return "";
    it = g_indexes.insert_or_assign(key, std::move(fresh)).first;
  }
  auto found = it->second.names.find(Fold(name));
  return found == it->second.names.end() ? "" : found->second;
}

std::atomic<unsigned long>& g_removals = *new std::atomic<unsigned long>(0);

unsigned long Removals() {
  return g_removals.load(std::memory_order_acquire);
}

void CountRemoval() {
  g_removals.fetch_add(1, std::memory_order_acq_rel);
}

void NoteFolderChanges(int folder, const struct timespec* before,
                       std::initializer_list<FolderChange> changes, struct timespec* after) {
  for (const FolderChange& change : changes)
    if (!change.present) CountRemoval();
  struct stat st;
  if (fstat(folder, &st) != 0) return;
  if (after) *after = st.st_ctim;
  std::lock_guard<std::mutex> guard(g_lock);
  auto it = g_indexes.find(FolderKey{st.st_dev, st.st_ino});
  if (it == g_indexes.end()) return;
  Index& index = it->second;
  for (const FolderChange& change : changes) {
    std::string key = Fold(change.name);
    if (change.present) {
      index.names.emplace(key, change.name);
      continue;
    }
    auto found = index.names.find(key);
    if (found != index.names.end() && found->second == change.name) index.names.erase(found);
    if (index.folded) return;  // another spelling may remain: read the folder again
  }
  // Only when nothing else changed the folder since it was last seen: our change alone.
  if (before && SameTime(*before, index.ctime)) index.ctime = st.st_ctim;
}

void NoteFolderChange(int folder, const struct timespec* before, const std::string& name,
                      bool present) {
  NoteFolderChanges(folder, before, {{name, present}}, nullptr);
}

namespace {

std::string ParentOf(const std::string& hostPath) {
  size_t slash = hostPath.rfind('/');
  if (slash == std::string::npos || slash + 1 >= hostPath.size()) return "";
  return slash == 0 ? "/" : hostPath.substr(0, slash);
}

}  // namespace

void NoteHostChange(const std::string& hostPath, bool present, const struct timespec* before) {
  if (!present) CountRemoval();
  std::string parent = ParentOf(hostPath);
  if (parent.empty()) return;
  int fd = open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  NoteFolderChange(fd, before, hostPath.substr(parent.size() == 1 ? 1 : parent.size() + 1),
                   present);
  close(fd);
}

}  // namespace winux

unsigned long WinuxFolderReads() {
  return winux::g_reads.load(std::memory_order_relaxed);
}
