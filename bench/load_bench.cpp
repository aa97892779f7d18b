// A fleet at once against one ftc-server, from one epoll loop:
//
//   bench_load PORT DEVICES [--idle N] [--slow N FILE] [--hold SECONDS] FILE...
//
// Each device opens its own connection and, as an agent does in one round, checks in, fetches
// every FILE in the device's request form (Content-CRC32 checked against the bytes), delivers a
// batch of events and sends its completion report. Beside them, --idle N connections are opened
// first and never send anything, and --slow N connections ask for FILE and then read one byte a
// second. Every device request must be answered 2xx; a refused connection, a reset, an early
// close or any other status counts as failed. One line of key=value pairs at the end; the idle
// connections must still be open then.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_util.h"

namespace {

int g_port = 0;

int Connect(int rcvbuf = 0) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  // Set before connecting, so the window stays small and the server's sends block early.
  if (rcvbuf) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(g_port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 && errno != EINPROGRESS) {
    close(fd);
    return -1;
  }
  return fd;
}

std::string Post(const std::string& target, const std::string& body) {
  return "POST " + target + " HTTP/1.1\r\nHost: load\r\nContent-Type: application/json\r\n" +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// One agent round: check-in, the files, a delivery, the completion report.
std::vector<std::string> Round(int device, const std::vector<std::string>& files) {
  char id[32];
  std::snprintf(id, sizeof id, "load-%06d", device);
  std::vector<std::string> r;
  r.push_back(
      Post("/agent/checkin", std::string("{\"device\":\"") + id +
                                 "\",\"serial\":\"S\",\"hardware\":\"MC9090\",\"busy\":false}"));
  for (size_t i = 0; i < files.size(); ++i)
    r.push_back("GET " + files[i] + ":" + std::to_string(i + 1) + "," +
                std::to_string(files.size()) +
                " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: UpgradeClient\r\nAccept: */*\r\n"
                "Connection: Keep-Alive\r\nCore-name: " +
                id + "\r\nCache-Control: no-cache\r\n\r\n");
  std::string messages;
  for (int seq = 1; seq <= 5; ++seq)
    messages +=
        std::string(seq > 1 ? "," : "") +
        "{\"queue\":\"QV_Event_DB\",\"seq\":" + std::to_string(seq) +
        ",\"time\":\"2026-11-23T05:00:0" + std::to_string(seq) +
        ".000000Z\",\"body\":\"<DevInfo Action=\\\"Notify\\\"><Subsystem Name=\\\"QV_EVENT_DB\\\">"
        "<Group Name=\\\"errorLogMsg\\\"><Field Name=\\\"msgNum\\\">205181</Field>"
        "</Group></Subsystem></DevInfo>\"}";
  r.push_back(Post("/xq/messages",
                   std::string("{\"device\":\"") + id + "\",\"messages\":[" + messages + "]}"));
  r.push_back(std::string("GET HTTP/1.1\r\nCore-name: ") + id +
              "\r\nBundle-rx: 0\r\nHTTP-fallback: 1\r\nBundle-transfer: COMPLETE\r\n\r\n");
  return r;
}

enum class Role { kDevice, kIdle, kSlow };

struct Client {
  Role role = Role::kDevice;
  int fd = -1;
  std::vector<std::string> requests;
  size_t next = 0;  // request being sent or answered
  size_t sent = 0;
  double sentAt = 0;
  std::string in;
  long slowBytes = 0;
};

// Status, head length and body length of a whole response at the front of in; false until then.
bool WholeResponse(const std::string& in, int* status, size_t* head, size_t* body,
                   std::string* crc) {
  size_t end = in.find("\r\n\r\n");
  if (end == std::string::npos) return false;
  *status = in.size() > 12 ? std::atoi(in.c_str() + 9) : 0;
  *head = end + 4;
  size_t cl = in.find("Content-Length: ");
  *body = cl < end ? std::strtoul(in.c_str() + cl + 16, nullptr, 10) : 0;
  size_t c = in.find("Content-CRC32: ");
  crc->clear();
  if (c < end) crc->assign(in, c + 15, in.find("\r\n", c) - c - 15);
  return in.size() >= *head + *body;
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr,
                 "usage: bench_load PORT DEVICES [--idle N] [--slow N FILE] [--hold SECONDS] "
                 "FILE...\n");
    return 2;
  }
  g_port = std::atoi(argv[1]);
  int devices = std::atoi(argv[2]);
  int idle = 0, slow = 0;
  double hold = 0;
  std::string slowFile;
  std::vector<std::string> files;
  for (int i = 3; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--idle" && i + 1 < argc) {
      idle = std::atoi(argv[++i]);
    } else if (a == "--slow" && i + 2 < argc) {
      slow = std::atoi(argv[++i]);
      slowFile = argv[++i];
    } else if (a == "--hold" && i + 1 < argc) {
      hold = std::atof(argv[++i]);
    } else {
      files.push_back(a);
    }
  }
  rlimit rl{};
  if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
  }

  int ep = epoll_create1(0);
  std::vector<Client> clients(static_cast<size_t>(idle + slow + devices));
  long refused = 0, devicesOpen = 0;
  auto open = [&](Client& c, Role role, int rcvbuf = 0) {
    c.role = role;
    c.fd = Connect(rcvbuf);
    if (c.fd < 0) return void(++refused);
    if (role == Role::kDevice) ++devicesOpen;
    epoll_event ev{};
    ev.events = role == Role::kIdle ? EPOLLRDHUP : EPOLLIN | EPOLLOUT | EPOLLRDHUP;
    ev.data.ptr = &c;
    epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &ev);
  };
  size_t k = 0;
  for (int i = 0; i < idle; ++i) open(clients[k++], Role::kIdle);
  for (int i = 0; i < slow; ++i) {
    Client& c = clients[k++];
    c.requests = {"GET " + slowFile + " HTTP/1.1\r\nHost: load\r\n\r\n"};
    open(c, Role::kSlow, 4096);
  }
  double t0 = bench::Now();
  for (int i = 0; i < devices; ++i) {
    Client& c = clients[k++];
    c.requests = Round(i, files);
    open(c, Role::kDevice);
  }

  long answered = 0, failed = 0, badCrc = 0, devicesDone = 0;
  // Files come from the page cache; check-ins, deliveries and reports wait for a commit.
  std::vector<double> fileLatency, storeLatency;
  auto finish = [&](Client& c, bool ok) {
    if (!ok) ++failed;
    epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
    close(c.fd);
    c.fd = -1;
    ++devicesDone;
  };
  double lastTrickle = bench::Now();
  epoll_event events[512];
  while (devicesDone < devicesOpen || bench::Now() - t0 < hold) {
    int n = epoll_wait(ep, events, 512, 200);
    if (n < 0 && errno != EINTR) break;
    double now = bench::Now();
    if (now - t0 > 600) break;  // a stuck run still reports
    for (int i = 0; i < n; ++i) {
      Client& c = *static_cast<Client*>(events[i].data.ptr);
      if (c.fd < 0) continue;
      if (c.role == Role::kIdle) {  // closed by the server: counted at the end
        epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
        continue;
      }
      if ((events[i].events & EPOLLOUT) && c.next < c.requests.size() &&
          c.sent < c.requests[c.next].size()) {
        const std::string& r = c.requests[c.next];
        ssize_t w = send(c.fd, r.data() + c.sent, r.size() - c.sent, MSG_NOSIGNAL);
        if (w < 0 && errno != EAGAIN) {
          if (c.role == Role::kDevice) finish(c, false);
          continue;
        }
        if (w > 0 && c.sent == 0) c.sentAt = now;
        if (w > 0) c.sent += static_cast<size_t>(w);
        if (c.sent == r.size()) {
          epoll_event ev{};
          ev.events = c.role == Role::kSlow ? EPOLLRDHUP : EPOLLIN | EPOLLRDHUP;
          ev.data.ptr = &c;
          epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &ev);
        }
      }
      if (c.role == Role::kSlow) {
        if (events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
          epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
          close(c.fd);
          c.fd = -1;
        }
        continue;
      }
      if (!(events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP))) continue;
      char buf[65536];
      ssize_t r = recv(c.fd, buf, sizeof buf, 0);
      if (r > 0) c.in.append(buf, static_cast<size_t>(r));
      int status = 0;
      size_t head = 0, body = 0;
      std::string crc;
      while (c.next < c.requests.size() && WholeResponse(c.in, &status, &head, &body, &crc)) {
        (c.next > 0 && c.next <= files.size() ? fileLatency : storeLatency)
            .push_back(now - c.sentAt);
        ++answered;
        if (!crc.empty() &&
            crc != std::to_string(crc32(0, reinterpret_cast<const Bytef*>(c.in.data() + head),
                                        static_cast<uInt>(body))))
          ++badCrc;
        c.in.erase(0, head + body);
        if (status < 200 || status > 299) {
          std::fprintf(stderr, "load: %s -> %d\n",
                       c.requests[c.next].substr(0, c.requests[c.next].find('\r')).c_str(), status);
          status = -1;
          break;
        }
        ++c.next;
        c.sent = 0;
        if (c.next < c.requests.size()) {
          epoll_event ev{};
          ev.events = EPOLLOUT | EPOLLIN | EPOLLRDHUP;
          ev.data.ptr = &c;
          epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &ev);
        }
      }
      if (status == -1) {
        finish(c, false);
      } else if (c.next == c.requests.size()) {
        finish(c, true);
      } else if (r == 0 || (r < 0 && errno != EAGAIN)) {
        finish(c, false);  // closed or reset before its answer
      }
    }
    // The slow readers take one byte each per second.
    if (now - lastTrickle >= 1) {
      lastTrickle = now;
      for (Client& c : clients) {
        if (c.role != Role::kSlow || c.fd < 0) continue;
        char b;
        if (recv(c.fd, &b, 1, 0) == 1) ++c.slowBytes;
      }
    }
  }
  double seconds = bench::Now() - t0;
  long idleOpen = 0, slowOpen = 0, slowBytes = 0;
  for (Client& c : clients) {
    if (c.fd < 0) continue;
    if (c.role == Role::kIdle) {
      char b;
      ssize_t r = recv(c.fd, &b, 1, MSG_PEEK | MSG_DONTWAIT);
      if (r < 0 && errno == EAGAIN) ++idleOpen;
    } else if (c.role == Role::kSlow) {
      ++slowOpen;
      slowBytes += c.slowBytes;
    }
  }
  long want = static_cast<long>(devices) * static_cast<long>(files.size() + 3);
  bool ok = answered == want && failed == 0 && refused == 0 && badCrc == 0 && idleOpen == idle;
  std::printf(
      "load ok=%d devices=%d requests=%ld answered=%ld failed=%ld refused=%ld bad_crc=%ld "
      "seconds=%.3f rps=%.0f file_p50_ms=%.1f file_p99_ms=%.1f file_max_ms=%.1f "
      "store_p50_ms=%.1f store_p99_ms=%.1f idle_open=%ld/%d slow_open=%ld/%d slow_bytes=%ld\n",
      ok, devices, want, answered, failed, refused, badCrc, seconds, answered / seconds,
      Percentile(fileLatency, 0.5) * 1e3, Percentile(fileLatency, 0.99) * 1e3,
      Percentile(fileLatency, 1.0) * 1e3, Percentile(storeLatency, 0.5) * 1e3,
      Percentile(storeLatency, 0.99) * 1e3, idleOpen, idle, slowOpen, slow, slowBytes);
  return ok ? 0 : 1;
}
