// A device file's place held between calls: its folder's descriptor and its name there. Where
// the folder could not be held (the name is a link, or a folder on the way is missing) the calls
// fall back to the host path, as the other file services do.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "base/files.h"
#include "internal.h"
#include "winux_host.h"

struct WinuxPlace::State {
  winux::MappedPath mapped;
};

WinuxPlace::WinuxPlace() : m_state(new State()) {}

WinuxPlace::~WinuxPlace() {
  delete m_state;
}

int WinuxPlace::Find(const std::string& devicePath) {
  m_state->mapped = winux::MapDevicePath(devicePath);
  if (m_state->mapped.host.empty()) return -1;
  return m_state->mapped.exists ? 1 : 0;
}

const struct stat& WinuxPlace::st() const {
  return m_state->mapped.st;
}

const std::string& WinuxPlace::host() const {
  return m_state->mapped.host;
}

int WinuxPlace::Chmod(unsigned mode) {
  const winux::MappedPath& m = m_state->mapped;
  if (m.folder) return fchmodat(m.folder->fd, m.leaf.c_str(), mode, AT_SYMLINK_NOFOLLOW);
  return chmod(m.host.c_str(), mode);
}

namespace {

// A file made without a name is linked in through its /proc entry (linking the descriptor
// itself needs a capability); without /proc, or once such a link failed, every new file gets a
// name from the start.
std::atomic<bool> g_unnamedFailed{false};

bool CanLinkUnnamed() {
  static const bool can = access("/proc/self/fd", X_OK) == 0;
  return can && !g_unnamedFailed.load(std::memory_order_relaxed);
}

std::string ProcPath(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

}  // namespace

int WinuxPlace::CreateTemp(unsigned mode, std::string* temp) {
  winux::MappedPath& m = m_state->mapped;
  temp->clear();
  if (!m.folder) return hostbase::CreateTempBeside(m.host, mode, temp);
  // A new file needs no name until it is whole: nothing to clear away if the process dies, and
  // the folder changes once, when it is linked in.
  if (!m.exists && CanLinkUnnamed()) {
    int fd = openat(m.folder->fd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  }
  winux::StampFolder(m);
  int fd = hostbase::CreateTempIn(m.folder->fd, m.leaf, mode, temp);
  if (fd >= 0) winux::NoteFolderChanges(m.folder->fd, &m.folderTime, {{*temp, true}}, nullptr);
  return fd;
}

int WinuxPlace::Commit(int fd, const std::string& temp) {
  winux::MappedPath& m = m_state->mapped;
  if (!m.folder) {
    int rc = rename(temp.c_str(), m.host.c_str());
    if (rc == 0) winux::NoteHostChange(m.host, true, nullptr);
    return rc;
  }
  // The change time just before, not the one seen at the lookup: a change another process made
  // while the file was written must still make the next lookup read the folder.
  struct stat st;
  if (fstat(m.folder->fd, &st) != 0) return -1;
  const int folder = m.folder->fd;
  if (temp.empty()) {
    if (linkat(AT_FDCWD, ProcPath(fd).c_str(), folder, m.leaf.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      winux::NoteFolderChanges(folder, &st.st_ctim, {{m.leaf, true}}, nullptr);
      return 0;
    }
    if (errno != EEXIST) {
      g_unnamedFailed.store(true, std::memory_order_relaxed);
      return -1;
    }
    // Made meanwhile: replaced as a file that was there is, through a temporary named like the
    // others so that one a kill leaves here is cleared like them.
    std::string named;
    for (int attempt = 0;; ++attempt) {
      named = hostbase::TempName(m.leaf);
      if (linkat(AT_FDCWD, ProcPath(fd).c_str(), folder, named.c_str(), AT_SYMLINK_FOLLOW) == 0)
        break;
      if (errno != EEXIST || attempt == 99) return -1;
    }
    if (renameat(folder, named.c_str(), folder, m.leaf.c_str()) != 0) {
      const int err = errno;
      unlinkat(folder, named.c_str(), 0);
      errno = err;
      return -1;
    }
    winux::NoteFolderChanges(folder, nullptr, {{m.leaf, true}}, nullptr);
    return 0;
  }
  if (renameat(folder, temp.c_str(), folder, m.leaf.c_str()) != 0) return -1;
  winux::NoteFolderChanges(folder, &st.st_ctim, {{temp, false}, {m.leaf, true}}, nullptr);
  return 0;
}

void WinuxPlace::Remove(const std::string& temp) {
  winux::MappedPath& m = m_state->mapped;
  if (temp.empty()) return;  // an unnamed file goes with its descriptor
  if (!m.folder) {
    unlink(temp.c_str());
    return;
  }
  struct stat st;
  if (fstat(m.folder->fd, &st) != 0) return;
  if (unlinkat(m.folder->fd, temp.c_str(), 0) == 0)
    winux::NoteFolderChanges(m.folder->fd, &st.st_ctim, {{temp, false}}, nullptr);
}
