// The spool as an outbox: the file steps that lapi_write and the delivery agent share, and the
// agent's retiring of records the server has taken (or refused for good). Header-only, like
// spool.h, so that ftc-host needs no link to the queue library.
//
// A queue that delivery has emptied must never hand out a number again: the server keys
// messages on (device, queue, sequence, time). Retiring first records the highest retired
// number in <queue>/.retired (replaced atomically, synced), and lapi_write numbers past it even
// when its own counter was lost.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/files.h"
#include "xq/spool.h"

namespace xqspool {

inline const char kRetiredFile[] = ".retired";
// Records the server refused for good, kept for a person to look at.
inline const char kRejectedDir[] = "rejected";

// An open descriptor of <dir>/.sequence holding an exclusive flock, or -1. Closing it unlocks.
// lapi_write numbers and links a record under this lock.
inline int LockQueueDir(const std::string& dir) {
  int fd = open((dir + "/.sequence").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  while (flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      close(fd);
      return -1;
    }
  }
  return fd;
}

// "YYYY-MM-DDThh:mm:ss.uuuuuuZ", the spool's time format.
inline std::string UtcNow() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tm;
  gmtime_r(&ts.tv_sec, &tm);
  char buf[96];
  snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", tm.tm_year + 1900,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000);
  return buf;
}

// The highest number ever retired from the queue folder dir; 0 when none.
inline uint64_t RetiredUpTo(const std::string& dir) {
  char buf[32] = {0};
  int fd = open((dir + "/" + kRetiredFile).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  ssize_t n = pread(fd, buf, sizeof buf - 1, 0);
  close(fd);
  return n > 0 ? std::strtoull(buf, nullptr, 10) : 0;
}

namespace detail {

inline bool StoreRetired(const std::string& dir, uint64_t seq) {
  return hostbase::ReplaceFile(dir + "/" + kRetiredFile, std::to_string(seq) + "\n").ok();
}

}  // namespace detail

// One record to take out of its queue: deleted, or moved into <queue>/rejected/ when aside.
struct Retirement {
  uint64_t sequence = 0;
  bool aside = false;
};

// Retires records of one queue, under the queue's lock so that numbering sees the new floor.
// A record already gone (another agent took it) counts as retired. False with *error when the
// floor cannot be made durable (nothing is then removed) or a removal failed.
inline bool RetireRecords(const std::string& root, const std::string& queue,
                          const std::vector<Retirement>& records, std::string* error) {
  if (records.empty()) return true;
  const std::string dir = SpoolDir(root) + "/" + queue;
  int lock = LockQueueDir(dir);
  if (lock < 0) {
    *error = "cannot lock " + dir;
    return false;
  }
  uint64_t highest = 0;
  bool anyAside = false;
  for (const Retirement& r : records) {
    highest = std::max(highest, r.sequence);
    anyAside = anyAside || r.aside;
  }
  bool ok = true;
  const std::string aside = dir + "/" + kRejectedDir;
  if (highest > RetiredUpTo(dir) && !detail::StoreRetired(dir, highest)) {
    *error = "cannot record the retired numbers in " + dir;
    ok = false;
  } else if (anyAside && mkdir(aside.c_str(), 0755) != 0 && errno != EEXIST) {
    *error = "cannot make " + aside;
    ok = false;
  }
  for (size_t i = 0; ok && i < records.size(); ++i) {
    char name[40];
    snprintf(name, sizeof name, kRecordNameFormat,
             static_cast<unsigned long long>(records[i].sequence));
    std::string path = dir + "/" + name;
    int rc = records[i].aside ? rename(path.c_str(), (aside + "/" + name).c_str())
                              : unlink(path.c_str());
    if (rc != 0 && errno != ENOENT) {
      *error = "cannot retire " + path;
      ok = false;
    }
  }
  if (anyAside) (void)hostbase::SyncDir(aside);
  ok = hostbase::SyncDir(dir).ok() && ok;
  close(lock);
  return ok;
}

}  // namespace xqspool
