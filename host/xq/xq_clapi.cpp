// The device's message-queue client library on Linux: lapi_write puts each message into the
// durable spool (see spool.h) instead of sending it to a queue server.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <string>

#include "base/faults.h"
#include "base/files.h"
#include "platform/xq.h"
#include "winux/winux_host.h"
#include "xq/outbox.h"
#include "xq/spool.h"

namespace {

// Status words written back to the caller.
const uint32_t kStatusOk = 0;
const uint32_t kStatusBadArgument = 1;
const uint32_t kStatusNotDurable = 2;

// Larger messages are refused: nothing the plug-in sends comes near this.
const uint32_t kMaxMessage = 1u << 20;

struct XqHandle {
  std::string server;
  std::string queue;
};

// Live handles, so that a stale or foreign pointer is refused instead of followed.
std::mutex g_handlesLock;
std::set<XqHandle*> g_handles;

// Copies the handle's queue name while the handle is known to be open: a close on another
// thread may free it right after.
bool SourceOf(XqHandle* h, std::string* source) {
  std::lock_guard<std::mutex> lock(g_handlesLock);
  if (g_handles.count(h) == 0) return false;
  *source = h->queue;
  return true;
}

// Bounded read of a caller's text; the device passes queue names in small zeroed buffers.
std::string BoundedText(const char* text, size_t max) {
  if (!text) return std::string();
  return std::string(text, strnlen(text, max));
}

// Names for the trailer's attributes: quotes and "--" would break the comment.
std::string TrailerSafe(const std::string& text) {
  std::string out;
  for (char c : text) {
    bool ok = (c >= 0x20 && c < 0x7f) && c != '"' && c != '<' && c != '>' && c != '&' &&
              !(c == '-' && !out.empty() && out.back() == '-');
    out += ok ? c : '_';
  }
  return out;
}

// The highest sequence already in the folder; used when the counter file is missing or bad.
uint64_t ScanHighest(const std::string& dir) {
  uint64_t highest = 0;
  for (const std::string& name : xqspool::ListDir(dir)) {
    uint64_t seq = 0;
    if (xqspool::ParseRecordName(name, &seq) && seq > highest) highest = seq;
  }
  return highest;
}

std::string RecordName(const std::string& dir, uint64_t seq) {
  char name[40];
  snprintf(name, sizeof name, xqspool::kRecordNameFormat, static_cast<unsigned long long>(seq));
  return dir + "/" + name;
}

// Holds an exclusive flock on the queue's counter file: the sequence is taken and the record
// linked under it, so numbers increase in the order records appear, across threads (each has
// its own open file description) and processes.
class QueueLock {
 public:
  explicit QueueLock(const std::string& dir) : m_fd(xqspool::LockQueueDir(dir)) {}
  ~QueueLock() {
    if (m_fd >= 0) close(m_fd);  // releases the lock
  }
  QueueLock(const QueueLock&) = delete;
  QueueLock& operator=(const QueueLock&) = delete;
  bool ok() const { return m_fd >= 0; }

  // 0 when the counter cannot be read.
  uint64_t Last() const {
    char buf[32] = {0};
    ssize_t n = pread(m_fd, buf, sizeof buf - 1, 0);
    if (n <= 0) return 0;
    char* end = nullptr;
    unsigned long long v = strtoull(buf, &end, 10);
    return end != buf ? v : 0;
  }
  // Not synced: the link below refuses to reuse a number, so a counter that falls back after a
  // crash only costs a retry.
  bool Store(uint64_t seq) const {
    char buf[32];
    int n = snprintf(buf, sizeof buf, "%llu\n", static_cast<unsigned long long>(seq));
    return ftruncate(m_fd, 0) == 0 && pwrite(m_fd, buf, size_t(n), 0) == n;
  }

 private:
  int m_fd = -1;
};

std::atomic<uint64_t> g_tempCounter{0};

// Writes one record durably. Returns false when any step fails; nothing partial is left behind
// under a record name.
bool SpoolWrite(const std::string& source, const std::string& queue, const char* message,
                size_t length, const std::string& core) {
  std::string dir = xqspool::SpoolDir(WinuxRoot()) + "/" + queue;
  if (!hostbase::MakeDirs(dir).ok()) return false;
  // What a writer killed before linking its record left: ".tmp.<pid>.<n>".
  hostbase::RemoveDeadTempsOnce(dir + "/tmp");

  std::string content(message, length);
  content += '\n';
  content += xqspool::kTrailerStart;
  content += "time=\"" + xqspool::UtcNow() + "\" queue=\"" + queue + "\" core=\"" +
             TrailerSafe(core) + "\" source=\"" + TrailerSafe(source) + "\" bytes=\"" +
             std::to_string(length) + "\"" + xqspool::kTrailerEnd;

  char tempName[96];
  snprintf(tempName, sizeof tempName, "/.tmp.%d.%llu", static_cast<int>(getpid()),
           static_cast<unsigned long long>(g_tempCounter.fetch_add(1)));
  std::string temp = dir + tempName;
  if (!hostbase::WriteNewFile(temp, content, 0644).ok()) return false;
  FTC_FAULT_MOMENT("ftc/spool/temp-written");

  bool linked = false;
  {
    QueueLock lock(dir);
    if (lock.ok()) {
      uint64_t seq = lock.Last();
      if (seq == 0) seq = ScanHighest(dir);
      // Delivery may have emptied the folder; numbers it retired stay taken.
      seq = std::max(seq, xqspool::RetiredUpTo(dir));
      // link, unlike rename, never replaces an existing record. A taken number means the
      // counter fell behind: continue after the highest record instead.
      for (int attempt = 0; attempt < 8 && !linked; ++attempt) {
        ++seq;
        if (link(temp.c_str(), RecordName(dir, seq).c_str()) == 0) {
          linked = true;
        } else if (errno == EEXIST) {
          seq = std::max(seq, ScanHighest(dir));
        } else {
          break;
        }
      }
      if (linked) (void)lock.Store(seq);
    }
  }
  unlink(temp.c_str());
  if (!linked || !hostbase::SyncDir(dir).ok()) return false;
  FTC_FAULT_MOMENT("ftc/spool/written");
  return true;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int32_t lapi_open(void** handle, const char* server,
                                                         const char* queue, int32_t, int32_t,
                                                         int32_t, int32_t, uint32_t* status,
                                                         int32_t) {
  if (status) *status = kStatusBadArgument;
  if (!handle) return -1;
  *handle = nullptr;
  XqHandle* h = new (std::nothrow) XqHandle;
  if (!h) return -1;
  try {
    h->server = BoundedText(server, 256);
    h->queue = BoundedText(queue, 256);
    std::lock_guard<std::mutex> lock(g_handlesLock);
    g_handles.insert(h);
  } catch (...) {
    delete h;
    return -1;
  }
  *handle = h;
  if (status) *status = kStatusOk;
  return 0;
}

__attribute__((visibility("default"))) int32_t lapi_close(void* handle) {
  XqHandle* h = static_cast<XqHandle*>(handle);
  {
    std::lock_guard<std::mutex> lock(g_handlesLock);
    if (!h || g_handles.erase(h) == 0) return -1;
  }
  delete h;
  return 0;
}

__attribute__((visibility("default"))) int32_t lapi_write(void* handle, int32_t, int32_t, int32_t,
                                                          int32_t, int32_t, uint32_t* status,
                                                          const char* destQueue,
                                                          const char* message, uint32_t length,
                                                          int32_t, int32_t, int32_t,
                                                          const char* coreQueue) {
  if (status) *status = kStatusBadArgument;
  if (!handle || !message || length == 0 || length > kMaxMessage) return -1;
  try {
    std::string source;
    if (!SourceOf(static_cast<XqHandle*>(handle), &source)) return -1;
    std::string queue = BoundedText(destQueue, 256);
    if (!xqspool::IsValidQueueName(queue)) return -1;
    // length counts the terminating NUL; a shorter text ends at its own NUL.
    size_t bytes = strnlen(message, length);
    if (bytes == length) --bytes;
    std::string core = BoundedText(coreQueue, 256);
    if (!SpoolWrite(source, queue, message, bytes, core)) {
      // The plug-in does not look at the result; whoever runs the host should hear of it.
      fprintf(stderr, "xq_clapi: a message to %s was not kept\n", queue.c_str());
      if (status) *status = kStatusNotDurable;
      return -1;
    }
  } catch (...) {
    if (status) *status = kStatusNotDurable;
    return -1;
  }
  if (status) *status = kStatusOk;
  return 0;
}

}  // extern "C"
