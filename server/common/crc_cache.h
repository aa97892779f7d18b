// Whole-file CRC-32s, computed once per file version and shared by all worker threads.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <tuple>

namespace ftcserver {

class CrcCache {
 public:
  // CRC of the open regular file `fd` whose fstat is `st`. A cached value is reused while the
  // file keeps its device, inode, size, modification and change times; a file that changes
  // while being read is not cached. Empty when the file cannot be read. Thread-safe.
  std::optional<uint32_t> Get(int fd, const struct stat& st);

  // Number of full computations so far (each reads the whole file).
  uint64_t Computations() const { return m_computations.load(); }

 private:
  struct Version {
    off_t size;
    int64_t mtimeNs;
    int64_t ctimeNs;
    uint32_t crc;
  };
  using Key = std::tuple<dev_t, ino_t>;

  std::mutex m_mutex;
  std::map<Key, Version> m_entries;
  std::atomic<uint64_t> m_computations{0};
};

// CRC of the whole of `fd`, read with pread (the file offset is left alone).
std::optional<uint32_t> FileCrc32(int fd);

}  // namespace ftcserver
