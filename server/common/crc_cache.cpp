#include "crc_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "common/crc32.h"

namespace ftcserver {
namespace {

int64_t Ns(const timespec& t) {
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Bounds the table for servers whose bundles are replaced many times over their lifetime.
constexpr size_t kMaxEntries = 1 << 16;

}  // namespace

std::optional<uint32_t> FileCrc32(int fd) {
  constexpr size_t kChunk = 1 << 20;
  std::unique_ptr<unsigned char[]> buf(new unsigned char[kChunk]);
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  uint32_t crc = 0;
  off_t off = 0;
  for (;;) {
    ssize_t n = pread(fd, buf.get(), kChunk, off);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    crc = ftc::Crc32(buf.get(), static_cast<size_t>(n), crc);
    off += n;
  }
  return crc;
}

std::optional<uint32_t> CrcCache::Get(int fd, const struct stat& st) {
  Key key{st.st_dev, st.st_ino};
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(key);
    if (it != m_entries.end() && it->second.size == st.st_size &&
        it->second.mtimeNs == Ns(st.st_mtim) && it->second.ctimeNs == Ns(st.st_ctim))
      return it->second.crc;
  }
  // Computed outside the lock: a large file must not stall requests for other files.
  m_computations++;
  std::optional<uint32_t> crc = FileCrc32(fd);
  if (!crc) return std::nullopt;
  struct stat after {};
  if (fstat(fd, &after) != 0 || after.st_size != st.st_size ||
      Ns(after.st_mtim) != Ns(st.st_mtim) || Ns(after.st_ctim) != Ns(st.st_ctim))
    return crc;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_entries.size() >= kMaxEntries) m_entries.clear();
  m_entries[key] = Version{st.st_size, Ns(st.st_mtim), Ns(st.st_ctim), *crc};
  return crc;
}

}  // namespace ftcserver
