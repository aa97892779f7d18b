#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unordered_map>

#include "base/faults.h"
#include "common/http.h"
#include "metrics.h"
#include "store/intake.h"
#include "store/text.h"
#include "store_queue.h"

namespace ftcserver {
namespace {

// Request bodies are not expected; a small one is read and dropped so the connection survives.
constexpr unsigned long long kMaxDiscardedBody = 1 << 20;
// How much one connection may send per wake-up before others get a turn.
constexpr size_t kSendBudget = 8 << 20;
// Input buffered ahead of the request being answered.
constexpr size_t kMaxBufferedInput = 256 << 10;
// Regular-file attribute reported to devices (archive); 0x1 is added for read-only files.
constexpr unsigned kAttrArchive = 0x20;

// Few accepts per wake-up: the other workers, woken by the same readiness, take the rest.
constexpr int kAcceptBatch = 4;

char gListenTag;
char gStopTag;
char gStoreDoneTag;

int64_t NowSec() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return ts.tv_sec;
}

std::string Errno(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

const char* Reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 206:
      return "Partial Content";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 410:
      return "Gone";
    case 411:
      return "Length Required";
    case 413:
      return "Payload Too Large";
    case 416:
      return "Range Not Satisfiable";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    default:
      return "Error";
  }
}

struct Range {
  bool present = false;
  bool satisfiable = true;
  off_t first = 0;
  off_t last = 0;
};

// One "bytes=a-b" range; anything fancier is ignored and the whole file served.
Range ParseRange(const std::string* header, off_t size) {
  Range r;
  if (!header) return r;
  std::string_view h = *header;
  if (h.substr(0, 6) != "bytes=" || h.find(',') != std::string_view::npos) return r;
  h.remove_prefix(6);
  size_t dash = h.find('-');
  if (dash == std::string_view::npos) return r;
  auto a = ParseDecimal(h.substr(0, dash));
  auto b = ParseDecimal(h.substr(dash + 1));
  if (!a && !b) return r;
  r.present = true;
  if (!a) {  // suffix: the last b bytes
    if (*b == 0 || size == 0) return r.satisfiable = false, r;
    unsigned long long n = std::min<unsigned long long>(*b, size);
    r.first = size - static_cast<off_t>(n);
    r.last = size - 1;
    return r;
  }
  if (*a >= static_cast<unsigned long long>(size)) return r.satisfiable = false, r;
  r.first = static_cast<off_t>(*a);
  r.last = size - 1;
  if (b) {
    if (*b < *a) return r.present = false, r;
    r.last = static_cast<off_t>(std::min<unsigned long long>(*b, size - 1));
  }
  return r;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

ReportLog::~ReportLog() {
  if (m_fd > 1) close(m_fd);
}

std::string ReportLog::Open(const std::string& path) {
  if (path.empty()) {
    m_fd = STDOUT_FILENO;
    return {};
  }
  m_fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (m_fd < 0) return Errno(("cannot open reports file " + path).c_str());
  m_sync = true;
  m_path = path;
  return {};
}

std::string ReportLog::Reopen() {
  if (m_path.empty()) return {};
  int fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return Errno(("cannot reopen reports file " + m_path).c_str());
  std::lock_guard<std::mutex> lock(m_mutex);
  close(m_fd);
  m_fd = fd;
  return {};
}

bool ReportLog::Append(const std::string& line) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::string data = line + "\n";
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = FTC_FAULT("ftc/server/report-write", ENOSPC)
                    ? -1
                    : write(m_fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return !m_sync || (!FTC_FAULT("ftc/server/report-sync", EIO) && fdatasync(m_fd) == 0);
}

// ---------------------------------------------------------------------------------------------

class Worker {
 public:
  explicit Worker(Server& server) : m_server(server) {}
  ~Worker() {
    for (auto& [fd, c] : m_conns) Release(*c);
    if (m_ep >= 0) close(m_ep);
    if (m_doneFd >= 0) close(m_doneFd);
  }

  std::string Init() {
    m_ep = epoll_create1(EPOLL_CLOEXEC);
    if (m_ep < 0) return Errno("epoll_create1");
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLEXCLUSIVE;
    ev.data.ptr = &gListenTag;
    if (epoll_ctl(m_ep, EPOLL_CTL_ADD, m_server.listenFd(), &ev) != 0) return Errno("epoll_ctl");
    ev.events = EPOLLIN;
    ev.data.ptr = &gStopTag;
    if (epoll_ctl(m_ep, EPOLL_CTL_ADD, m_server.stopFd(), &ev) != 0) return Errno("epoll_ctl");
    m_doneFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_doneFd < 0) return Errno("eventfd");
    ev.events = EPOLLIN;
    ev.data.ptr = &gStoreDoneTag;
    if (epoll_ctl(m_ep, EPOLL_CTL_ADD, m_doneFd, &ev) != 0) return Errno("epoll_ctl");
    m_reserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    return {};
  }

  void Loop() {
    epoll_event events[256];
    int64_t lastSweep = NowSec();
    bool running = true;
    while (running) {
      int n = epoll_wait(m_ep, events, 256, 1000);
      if (n < 0 && errno != EINTR) break;
      m_now = NowSec();
      m_tick.store(m_now, std::memory_order_relaxed);
      bool answered = false;
      for (int i = 0; i < n; ++i) {
        void* tag = events[i].data.ptr;
        if (tag == &gStopTag) {
          running = false;
        } else if (tag == &gListenTag) {
          Accept();
        } else if (tag == &gStoreDoneTag) {
          answered = true;
        } else if (static_cast<Conn*>(tag)->fd >= 0) {
          OnEvent(*static_cast<Conn*>(tag), events[i].events);
        }
      }
      m_evicted.clear();
      // After the batch: an answer may close a connection that a later event still names.
      if (answered) StoreDone();
      if (m_now - lastSweep >= 1) {
        lastSweep = m_now;
        SweepIdle();
      }
    }
    for (auto& [fd, c] : m_conns) Release(*c);
    m_server.metrics().Closed(static_cast<int64_t>(m_conns.size()));
    m_conns.clear();
    if (m_reserveFd >= 0) close(m_reserveFd);
    m_reserveFd = -1;
  }

  // Monotonic seconds of the loop's latest turn; it turns at least once a second.
  int64_t tick() const { return m_tick.load(std::memory_order_relaxed); }

 private:
  struct Conn {
    int fd = -1;
    std::string peer;
    std::string in;
    unsigned long long discard = 0;
    size_t bodyWanted = 0;  // a delivery's body still being read
    std::string bodyTarget;
    uint64_t id = 0;            // tells a connection from a later one on the same descriptor
    bool waitingStore = false;  // its answer comes from the store queue; reads are paused
    bool paused = false;
    std::string out;
    size_t outOff = 0;
    int fileFd = -1;
    off_t fileOff = 0;
    unsigned long long fileLeft = 0;
    bool closeAfter = false;
    bool peerClosed = false;
    bool wantWrite = false;
    int64_t lastActive = 0;
    RequestKind kind = RequestKind::kOther;  // of the request being answered
    std::chrono::steady_clock::time_point started;
    int64_t partialSince = 0;  // when the request still incomplete began to arrive; 0: none
  };
  enum class Flushed { kDone, kBlocked, kError };

  void Accept() {
    for (int i = 0; i < kAcceptBatch; ++i) {
      sockaddr_storage ss{};
      socklen_t len = sizeof ss;
      int fd = accept4(m_server.listenFd(), reinterpret_cast<sockaddr*>(&ss), &len,
                       SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if ((errno == EMFILE || errno == ENFILE) && EvictIdle()) continue;
        if ((errno == EMFILE || errno == ENFILE) && m_reserveFd >= 0) {
          // Out of descriptors: take the pending connection and drop it rather than spin on it.
          close(m_reserveFd);
          int drop = accept(m_server.listenFd(), nullptr, nullptr);
          if (drop >= 0) close(drop);
          m_reserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        }
        return;
      }
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      auto c = std::make_unique<Conn>();
      c->fd = fd;
      c->id = ++m_nextId;
      c->lastActive = m_now;
      char host[INET6_ADDRSTRLEN] = "?";
      if (ss.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&ss)->sin_addr, host, sizeof host);
      else if (ss.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr, host, sizeof host);
      c->peer = host;
      epoll_event ev{};
      ev.events = EPOLLIN | EPOLLRDHUP;
      ev.data.ptr = c.get();
      if (epoll_ctl(m_ep, EPOLL_CTL_ADD, fd, &ev) != 0) {
        close(fd);
        continue;
      }
      m_conns.emplace(fd, std::move(c));
      m_server.metrics().Opened();
    }
  }

  void OnEvent(Conn& c, uint32_t events) {
    c.lastActive = m_now;
    if (events & EPOLLERR) return Close(c);
    if (c.waitingStore) return (events & EPOLLHUP) ? Close(c) : void();
    if (Pending(c)) {
      Flushed f = Flush(c);
      if (f == Flushed::kError) return Close(c);
      if (f == Flushed::kBlocked) return SetInterest(c, true);
      if (c.closeAfter) return Close(c);
    }
    if (events & (EPOLLIN | EPOLLHUP | EPOLLRDHUP)) {
      if (!ReadInput(c)) c.peerClosed = true;
    }
    Process(c);
  }

  // false once the peer has closed its side or the socket failed.
  bool ReadInput(Conn& c) {
    char buf[65536];
    while (c.in.size() < std::max(kMaxBufferedInput, c.bodyWanted)) {
      ssize_t n = FTC_FAULT("ftc/server/read", ECONNRESET) ? -1 : recv(c.fd, buf, sizeof buf, 0);
      if (n > 0) {
        c.in.append(buf, static_cast<size_t>(n));
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
      return false;
    }
    return true;
  }

  void Process(Conn& c) {
    for (;;) {
      if (c.discard) {
        size_t take = static_cast<size_t>(std::min<unsigned long long>(c.discard, c.in.size()));
        c.in.erase(0, take);
        c.discard -= take;
        if (c.discard) break;
      }
      if (c.bodyWanted) {
        if (c.in.size() < c.bodyWanted) break;
        Deliver(c);
      } else {
        Request r;
        ParseResult pr = ParseRequest(c.in, &r);
        if (pr.status == ParseStatus::kIncomplete) break;
        if (pr.status == ParseStatus::kBad) {
          if (m_server.options().verbose)
            std::fprintf(stderr, "%s bad request: %s\n", c.peer.c_str(), pr.error.c_str());
          c.in.clear();
          Begin(c, RequestKind::kOther, 0);
          Respond(c, 400, "", true);
        } else {
          c.in.erase(0, pr.headLength);
          c.partialSince = 0;
          Handle(c, r);
          if (c.bodyWanted) continue;
        }
      }
      if (c.waitingStore) return Pause(c);
      Flushed f = Flush(c);
      if (f == Flushed::kError) return Close(c);
      if (f == Flushed::kBlocked) return SetInterest(c, true);
      if (c.closeAfter) return Close(c);
    }
    if (c.peerClosed) return Close(c);
    if (c.in.empty() && !c.discard && !c.bodyWanted)
      c.partialSince = 0;
    else if (!c.partialSince)
      c.partialSince = m_now;
    SetInterest(c, false);
  }

  void Begin(Conn& c, RequestKind kind, uint64_t bodyBytes) {
    c.kind = kind;
    c.started = std::chrono::steady_clock::now();
    m_server.metrics().Request(kind, bodyBytes);
  }

  static RequestKind KindOf(const Request& r) {
    if (r.method == "POST")
      return r.target == "/xq/messages"     ? RequestKind::kMessages
             : r.target == "/xq/inventory"  ? RequestKind::kInventory
             : r.target == "/agent/checkin" ? RequestKind::kCheckIn
             : r.target == "/agent/result"  ? RequestKind::kResult
                                            : RequestKind::kOther;
    if (r.IsCompletionReport()) return RequestKind::kReport;
    if (r.method == "GET" && r.target.rfind("/agent/jobs/", 0) == 0) return RequestKind::kJob;
    return r.method == "GET" || r.method == "HEAD" ? RequestKind::kFile : RequestKind::kOther;
  }

  void Handle(Conn& c, const Request& r) {
    const std::string* length = r.Header("Content-Length");
    Begin(c, KindOf(r), length ? ParseDecimal(*length).value_or(0) : 0);
    c.closeAfter = !r.KeepAlive();
    if (r.Header("Transfer-Encoding")) return Respond(c, 501, r.target, true);
    if (r.method == "POST" && (r.target == "/xq/messages" || r.target == "/xq/inventory" ||
                               r.target == "/agent/checkin" || r.target == "/agent/result"))
      return ExpectBody(c, r);
    if (const std::string* cl = r.Header("Content-Length")) {
      auto n = ParseDecimal(*cl);
      if (!n) return Respond(c, 400, r.target, true);
      if (*n > kMaxDiscardedBody) return Respond(c, 413, r.target, true);
      c.discard = *n;
    }
    if (r.IsCompletionReport()) return Report(c, r);
    if (r.target.empty()) return Respond(c, 400, r.target, true);
    if (r.method != "GET" && r.method != "HEAD") return Respond(c, 405, r.target, false);
    if (r.method == "GET" && r.target.rfind("/agent/jobs/", 0) == 0) {
      StoreJob job;
      job.kind = StoreJob::kJob;
      job.body = c.bodyTarget = r.target;
      return Submit(c, std::move(job));
    }
    ServeFile(c, r);
  }

  void Report(Conn& c, const Request& r) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    ftcstore::ReportRow row =
        ftcstore::MakeReport(ftcstore::IsoTime(now, 3), c.peer, r.Header("Core-name"),
                             r.Header("Bundle-rx"), r.Header("HTTP-fallback"), r.Header("Error"));
    // Recorded, then stored, before the device hears back and before its next request is read.
    const std::string* fallback = r.Header("HTTP-fallback");
    m_server.metrics().CompletionReport(fallback && ParseDecimal(*fallback).value_or(0) != 0);
    StoreJob job;
    job.kind = StoreJob::kReport;
    job.report = std::move(row);
    job.received = ftcstore::IsoTime(now, 6);
    Submit(c, std::move(job));
  }

  // A delivery's head has arrived; its body is read before anything else on the connection.
  void ExpectBody(Conn& c, const Request& r) {
    const std::string* length = r.Header("Content-Length");
    std::optional<unsigned long long> n;
    if (length) n = ParseDecimal(*length);
    if (!n)
      return RespondJson(c, r.target, ftcstore::Refusal(length ? 400 : 411, "no body length"),
                         true);
    if (*n > ftcstore::kMaxDeliveryBody)
      return RespondJson(c, r.target, ftcstore::Refusal(413, "body over 4 MiB"), true);
    c.bodyTarget = r.target;
    c.bodyWanted = static_cast<size_t>(*n);
    // An empty body is complete at once.
    if (c.bodyWanted == 0) Deliver(c);
  }

  void Deliver(Conn& c) {
    StoreJob job;
    job.kind = c.bodyTarget == "/xq/messages"     ? StoreJob::kMessages
               : c.bodyTarget == "/xq/inventory"  ? StoreJob::kInventory
               : c.bodyTarget == "/agent/checkin" ? StoreJob::kCheckIn
                                                  : StoreJob::kResult;
    job.body = c.in.substr(0, c.bodyWanted);
    c.in.erase(0, c.bodyWanted);
    c.bodyWanted = 0;
    // Thousands of devices stay connected between deliveries: none keeps a body's buffer.
    std::string(c.in).swap(c.in);
    Submit(c, std::move(job));
  }

  // The connection waits, reading nothing more, until the store has answered.
  void Submit(Conn& c, StoreJob job) {
    c.waitingStore = true;
    job.done = [this, fd = c.fd, id = c.id,
                report = job.kind == StoreJob::kReport](ftcstore::Answer a) {
      {
        std::lock_guard<std::mutex> lock(m_doneMutex);
        m_done.push_back({fd, id, report, std::move(a)});
      }
      uint64_t one = 1;
      [[maybe_unused]] ssize_t n = write(m_doneFd, &one, sizeof one);
    };
    m_server.storeQueue().Submit(std::move(job));
  }

  void StoreDone() {
    uint64_t count;
    [[maybe_unused]] ssize_t n = read(m_doneFd, &count, sizeof count);
    std::vector<Answered> done;
    {
      std::lock_guard<std::mutex> lock(m_doneMutex);
      done.swap(m_done);
    }
    for (Answered& d : done) {
      auto it = m_conns.find(d.fd);
      if (it == m_conns.end() || it->second->id != d.id) continue;  // gone meanwhile
      Conn& c = *it->second;
      c.waitingStore = false;
      if (d.answer.status == 503) m_server.metrics().StoreError();
      m_server.metrics().MessagesStored(d.answer.stored);
      if (d.report) {  // its answer keeps its old bytes
        for (const std::string& line : d.answer.log)
          std::fprintf(stderr, "ftc-server: %s\n", line.c_str());
        if (d.answer.status == 200 || d.answer.status == 500)
          Respond(c, d.answer.status, "", false);
        else
          Respond(c, 503, "", false, RetryAfter().c_str());
      } else {
        RespondJson(c, c.bodyTarget, d.answer, false);
      }
      Flushed f = Flush(c);
      if (f == Flushed::kError) {
        Close(c);
      } else if (f == Flushed::kBlocked) {
        SetInterest(c, true);
      } else if (c.closeAfter) {
        Close(c);
      } else {
        Process(c);
      }
    }
  }

  void Pause(Conn& c) {
    epoll_event ev{};
    ev.data.ptr = &c;
    if (epoll_ctl(m_ep, EPOLL_CTL_MOD, c.fd, &ev) == 0) c.paused = true;
  }

  static std::string RetryAfter() {
    return "Retry-After: " + std::to_string(ftcstore::kRetryAfterSeconds) + "\r\n";
  }

  void ServeFile(Conn& c, const Request& r) {
    ResolvedTarget t = ResolveTarget(r.target);
    if (t.status == TargetStatus::kBadRequest) return Respond(c, 400, r.target, false);
    if (t.status == TargetStatus::kForbidden) return Respond(c, 403, r.target, false);
    if (t.path.empty()) return Respond(c, 404, r.target, false);
    int err = 0;
    int fd = OpenBeneath(t.path, &err);
    if (fd < 0 && (err == EMFILE || err == ENFILE) && EvictIdle(&c)) fd = OpenBeneath(t.path, &err);
    if (fd < 0) {
      bool outside = err == EXDEV || err == ELOOP || err == EACCES;
      bool exhausted = err == EMFILE || err == ENFILE || err == ENOMEM;
      return Respond(c, outside ? 403 : exhausted ? 503 : 404, r.target, false);
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      close(fd);
      return Respond(c, 404, r.target, false);
    }
    std::optional<uint32_t> crc = m_server.crcCache().Get(fd, st);
    if (!crc) {
      close(fd);
      return Respond(c, 500, r.target, false);
    }
    Range range = ParseRange(r.Header("Range"), st.st_size);
    if (range.present && !range.satisfiable) {
      close(fd);
      char extra[64];
      std::snprintf(extra, sizeof extra, "Content-Range: bytes */%lld\r\n",
                    static_cast<long long>(st.st_size));
      return Respond(c, 416, r.target, false, extra);
    }
    off_t first = range.present ? range.first : 0;
    unsigned long long length = range.present
                                    ? static_cast<unsigned long long>(range.last - range.first + 1)
                                    : static_cast<unsigned long long>(st.st_size);
    unsigned attributes = kAttrArchive | ((st.st_mode & S_IWUSR) ? 0 : 1);
    char head[512];
    int n = std::snprintf(
        head, sizeof head,
        "HTTP/1.1 %s\r\nServer: ftc-server\r\nContent-Length: %llu\r\nContent-CRC32: %u\r\n"
        "Content-Attributes: %u\r\nContent-timestamp: %s\r\n"
        "Content-Type: application/octet-stream\r\nAccept-Ranges: bytes\r\n",
        range.present ? "206 Partial Content" : "200 OK", length, *crc, attributes,
        FormatDeviceTimestamp(st.st_mtim.tv_sec).c_str());
    c.out.assign(head, static_cast<size_t>(n));
    if (range.present) {
      n = std::snprintf(head, sizeof head, "Content-Range: bytes %lld-%lld/%lld\r\n",
                        static_cast<long long>(range.first), static_cast<long long>(range.last),
                        static_cast<long long>(st.st_size));
      c.out.append(head, static_cast<size_t>(n));
    }
    c.out += c.closeAfter ? "Connection: close\r\n\r\n" : "Connection: Keep-Alive\r\n\r\n";
    c.outOff = 0;
    if (m_server.options().verbose)
      std::fprintf(stderr, "%s %s %s %d %llu\n", c.peer.c_str(), r.method.c_str(), r.target.c_str(),
                   range.present ? 206 : 200, length);
    Measure(c, c.out.size() + (r.method == "HEAD" ? 0 : length));
    if (r.method == "GET") m_server.metrics().FileServed();
    if (r.method == "HEAD" || length == 0) {
      close(fd);
      return;
    }
    c.fileFd = fd;
    c.fileOff = first;
    c.fileLeft = length;
  }

  int OpenBeneath(const std::string& rel, int* err) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    static std::atomic<bool> noOpenat2{false};
    if (!noOpenat2.load(std::memory_order_relaxed)) {
      open_how how{};
      how.flags = kFlags;
      how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
      int fd =
          static_cast<int>(syscall(SYS_openat2, m_server.rootFd(), rel.c_str(), &how, sizeof how));
      if (fd >= 0) return fd;
      if (errno != ENOSYS && errno != EPERM) return *err = errno, -1;
      noOpenat2.store(true);
    }
    // Kernels without openat2: resolve the whole path and check it is still under the root.
    std::string full = m_server.options().root + "/" + rel;
    char resolved[PATH_MAX];
    if (!realpath(full.c_str(), resolved)) return *err = errno, -1;
    const std::string& root = m_server.options().root;
    if (std::strncmp(resolved, root.c_str(), root.size()) != 0 ||
        (resolved[root.size()] != '/' && resolved[root.size()] != '\0'))
      return *err = EXDEV, -1;
    int fd = open(resolved, kFlags);
    if (fd < 0) *err = errno;
    return fd;
  }

  // Every refusal and every message turned away is logged, verbose or not.
  void RespondJson(Conn& c, const std::string& target, const ftcstore::Answer& a, bool close) {
    for (const std::string& line : a.log)
      std::fprintf(stderr, "ftc-server: %s POST %s %d: %s\n", c.peer.c_str(), target.c_str(),
                   a.status, line.c_str());
    Respond(c, a.status, target, close, a.status == 503 ? RetryAfter().c_str() : "", &a.body,
            a.type.c_str());
  }

  void Respond(Conn& c, int status, const std::string& target, bool close,
               const char* extraHeaders = "", const std::string* json = nullptr,
               const char* type = "application/json") {
    if (close) c.closeAfter = true;
    std::string body = json ? *json : status == 200 ? "" : std::string(Reason(status)) + "\n";
    char head[256];
    int n = std::snprintf(
        head, sizeof head,
        "HTTP/1.1 %d %s\r\nServer: ftc-server\r\nContent-Length: %zu\r\n"
        "Content-Type: %s\r\n%s%s",
        status, Reason(status), body.size(), json ? type : "text/plain", extraHeaders,
        c.closeAfter ? "Connection: close\r\n\r\n" : "Connection: Keep-Alive\r\n\r\n");
    c.out.assign(head, static_cast<size_t>(std::min<int>(n, sizeof head - 1)));
    c.out += body;
    c.outOff = 0;
    Measure(c, c.out.size());
    if (m_server.options().verbose && status != 200)
      std::fprintf(stderr, "%s %d %s\n", c.peer.c_str(), status, target.c_str());
  }

  void Measure(const Conn& c, uint64_t bytes) {
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - c.started;
    m_server.metrics().Response(c.kind, bytes, took.count());
  }

  static bool Pending(const Conn& c) { return c.outOff < c.out.size() || c.fileLeft > 0; }

  Flushed Flush(Conn& c) {
    size_t budget = kSendBudget;
    while (c.outOff < c.out.size()) {
      // MSG_MORE lets the head share a segment with the first body bytes.
      int flags = MSG_NOSIGNAL | (c.fileLeft ? MSG_MORE : 0);
      ssize_t n = send(c.fd, c.out.data() + c.outOff, c.out.size() - c.outOff, flags);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Flushed::kBlocked;
      if (n <= 0) return Flushed::kError;
      c.outOff += static_cast<size_t>(n);
    }
    c.out.clear();
    c.outOff = 0;
    while (c.fileLeft > 0) {
      if (budget == 0) return Flushed::kBlocked;
      size_t chunk = static_cast<size_t>(std::min<unsigned long long>(c.fileLeft, budget));
      ssize_t n = sendfile(c.fd, c.fileFd, &c.fileOff, chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Flushed::kBlocked;
      // 0: the file shrank under us; the promised length can no longer be met.
      if (n <= 0) return Flushed::kError;
      c.fileLeft -= static_cast<unsigned long long>(n);
      budget -= static_cast<size_t>(n);
    }
    if (c.fileFd >= 0) close(c.fileFd);
    c.fileFd = -1;
    return Flushed::kDone;
  }

  void SetInterest(Conn& c, bool wantWrite) {
    // A send budget running out leaves the socket writable: EPOLLOUT fires again at once.
    if (!c.paused && c.wantWrite == wantWrite) return;
    epoll_event ev{};
    ev.events = wantWrite ? EPOLLOUT : (EPOLLIN | EPOLLRDHUP);
    ev.data.ptr = &c;
    if (epoll_ctl(m_ep, EPOLL_CTL_MOD, c.fd, &ev) == 0) {
      c.wantWrite = wantWrite;
      c.paused = false;
    }
  }

  static void Release(Conn& c) {
    if (c.fileFd >= 0) close(c.fileFd);
    if (c.fd >= 0) close(c.fd);
    c.fileFd = c.fd = -1;
  }

  void Close(Conn& c) {
    m_server.metrics().Closed();
    int fd = c.fd;
    Release(c);
    m_conns.erase(fd);  // frees c
  }

  // Between requests, nothing owed either way: closing it loses nothing.
  static bool Idle(const Conn& c) {
    return !c.waitingStore && !Pending(c) && c.in.empty() && !c.bodyWanted && !c.discard;
  }

  // Out of descriptors: the connection idle the longest gives way to a new one, so that held-open
  // connections cannot lock devices out. One quiet for less than a second may have its request
  // on the way. False when none is idle.
  bool EvictIdle(const Conn* keep = nullptr) {
    Conn* oldest = nullptr;
    for (auto& [fd, c] : m_conns)
      if (c.get() != keep && Idle(*c) && m_now - c->lastActive >= 1 &&
          (!oldest || c->lastActive < oldest->lastActive))
        oldest = c.get();
    if (!oldest) return false;
    // Events of this batch may still name it: it is freed after the batch.
    int fd = oldest->fd;
    Release(*oldest);
    auto it = m_conns.find(fd);
    m_evicted.push_back(std::move(it->second));
    m_conns.erase(it);
    return true;
  }

  void SweepIdle() {
    unsigned limit = m_server.options().idleTimeoutSec;
    if (limit == 0) return;
    std::vector<int> idle;
    // A request trickled in a byte at a time counts from its first byte, not its latest.
    for (auto& [fd, c] : m_conns)
      if (m_now - c->lastActive >= static_cast<int64_t>(limit) ||
          (c->partialSince && m_now - c->partialSince >= static_cast<int64_t>(limit)))
        idle.push_back(fd);
    for (int fd : idle) {
      auto it = m_conns.find(fd);
      if (it != m_conns.end()) Close(*it->second);
    }
  }

  struct Answered {
    int fd;
    uint64_t id;
    bool report;
    ftcstore::Answer answer;
  };

  Server& m_server;
  int m_ep = -1;
  int m_doneFd = -1;  // store threads post answers to m_done and wake the loop here
  std::mutex m_doneMutex;
  std::vector<Answered> m_done;
  uint64_t m_nextId = 0;
  int m_reserveFd = -1;
  int64_t m_now = 0;
  std::atomic<int64_t> m_tick{NowSec()};
  std::unordered_map<int, std::unique_ptr<Conn>> m_conns;
  std::vector<std::unique_ptr<Conn>> m_evicted;
};

std::string Listen(const std::string& bind, uint16_t portNumber, int* listenFd,
                   std::string* address) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* res = nullptr;
  std::string port = std::to_string(portNumber);
  int gai = getaddrinfo(bind.c_str(), port.c_str(), &hints, &res);
  if (gai != 0) return "cannot resolve " + bind + ": " + gai_strerror(gai);
  std::string error = "no address to bind";
  for (addrinfo* a = res; a; a = a->ai_next) {
    int fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
      error = Errno("socket");
      continue;
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(fd, a->ai_addr, a->ai_addrlen) != 0 || listen(fd, SOMAXCONN) != 0) {
      error = Errno(("cannot listen on " + bind + ":" + port).c_str());
      close(fd);
      continue;
    }
    *listenFd = fd;
    break;
  }
  freeaddrinfo(res);
  if (*listenFd < 0) return error;

  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  getsockname(*listenFd, reinterpret_cast<sockaddr*>(&ss), &len);
  char host[INET6_ADDRSTRLEN] = "";
  if (ss.ss_family == AF_INET6) {
    auto* s6 = reinterpret_cast<sockaddr_in6*>(&ss);
    inet_ntop(AF_INET6, &s6->sin6_addr, host, sizeof host);
    *address = "[" + std::string(host) + "]:" + std::to_string(ntohs(s6->sin6_port));
  } else {
    auto* s4 = reinterpret_cast<sockaddr_in*>(&ss);
    inet_ntop(AF_INET, &s4->sin_addr, host, sizeof host);
    *address = std::string(host) + ":" + std::to_string(ntohs(s4->sin_port));
  }
  return {};
}

// ---------------------------------------------------------------------------------------------

Server::Server(Options options) : m_options(std::move(options)) {}

Server::~Server() {
  Stop();
  Wait();
  m_workers.clear();
  if (m_listenFd >= 0) close(m_listenFd);
  if (m_stopFd >= 0) close(m_stopFd);
  if (m_rootFd >= 0) close(m_rootFd);
}

std::string Server::Start() {
  char resolved[PATH_MAX];
  if (!realpath(m_options.root.c_str(), resolved))
    return Errno(("cannot resolve root " + m_options.root).c_str());
  m_options.root = resolved;
  m_rootFd = open(resolved, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (m_rootFd < 0) return Errno(("cannot open root " + m_options.root).c_str());
  if (std::string e = m_reports.Open(m_options.reports); !e.empty()) return e;
  if (m_options.db.empty()) m_options.db = "sqlite:" + m_options.root + ".fleet.db";
  // Brings the schema up to date once, before the store threads open their connections.
  if (std::string e; !ftcstore::OpenStore(m_options.db, ftcstore::OpenMode::kServe, &e))
    return "cannot open the store " + m_options.db + ": " + e;
  m_stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_stopFd < 0) return Errno("eventfd");

  if (std::string e = Listen(m_options.bind, m_options.port, &m_listenFd, &m_listenAddress);
      !e.empty())
    return e;
  if (!m_options.adminBind.empty())
    if (std::string e = m_admin.Start(m_options.adminBind, m_options.db, &m_metrics); !e.empty())
      return e;

  unsigned threads = m_options.threads;
  if (threads == 0) threads = std::max(1u, std::min(8u, std::thread::hardware_concurrency()));
  // SQLite takes one writer at a time; PostgreSQL commits as many as it has connections.
  bool sqlite = m_options.db.rfind("sqlite:", 0) == 0;
  if (std::string e =
          m_storeQueue.Start(m_options.db, sqlite ? 1 : threads, m_options.checkInSec, &m_reports);
      !e.empty())
    return e;
  for (unsigned i = 0; i < threads; ++i) {
    auto w = std::make_unique<Worker>(*this);
    if (std::string e = w->Init(); !e.empty()) return e;
    m_workers.push_back(std::move(w));
  }
  return {};
}

bool Server::Responsive(int64_t withinSec) const {
  int64_t now = NowSec();
  for (const auto& w : m_workers)
    if (now - w->tick() > withinSec) return false;
  return true;
}

std::string Server::Reload(const Options& options) {
  m_options.verbose = options.verbose;
  m_options.idleTimeoutSec = options.idleTimeoutSec;
  m_options.checkInSec = options.checkInSec;
  m_storeQueue.SetCheckInSeconds(options.checkInSec);
  return m_reports.Reopen();
}

void Server::Run() {
  for (auto& w : m_workers) m_threads.emplace_back([&w] { w->Loop(); });
  m_admin.Run();
}

void Server::Stop() {
  if (m_stopFd < 0) return;
  uint64_t one = 1;
  // The counter stays non-zero, so every worker's epoll keeps reporting it.
  [[maybe_unused]] ssize_t n = write(m_stopFd, &one, sizeof one);
  m_admin.Stop();
}

void Server::Wait() {
  for (auto& t : m_threads)
    if (t.joinable()) t.join();
  m_threads.clear();
  // After the workers, before they are destroyed: answers go to them.
  m_storeQueue.Stop();
  m_admin.Wait();
}

}  // namespace ftcserver
