// Many devices delivering at once to ftc-server, and the same rows as SQL for the databases' own
// tools, so that run.sh can set the server's figure beside theirs.
//
//   bench_delivery run PORT DEVICES BATCHES BATCH   every device on its own connection posts
//                                                   BATCHES batches of BATCH messages, all at once
//   bench_delivery sqlite DEVICES BATCHES BATCH     the same rows as a script for sqlite3
//   bench_delivery pgbench BATCH                    one batch as a pgbench script
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bench_util.h"

namespace {

// A device event as the plug-in queues it.
std::string Event(const std::string& device, int seq) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<DevInfo Action=\"Notify\">\n"
         "  <Subsystem Name=\"QV_EVENT_DB\">\n    <Group Name=\"errorLogMsg\">\n"
         "      <Field Name=\"timestamp\">0</Field>\n      <Field Name=\"system\">20</Field>\n"
         "      <Field Name=\"subsystem\">QV_UPGD_SRVR</Field>\n"
         "      <Field Name=\"uniqueId\">" +
         device + "</Field>\n      <Field Name=\"msgNum\">205181</Field>\n" +
         "      <Field Name=\"fcnName\">SendDeviceEvent</Field>\n"
         "      <Field Name=\"severity\">3</Field>\n      <Field Name=\"lineNum\">1</Field>\n"
         "      <Field Name=\"optArgArrayElement\">Bench, " +
         std::to_string(seq) +
         "</Field>\n      <Field Name=\"systemRc\">0</Field>\n    </Group>\n  </Subsystem>\n"
         "</DevInfo>\n";
}

std::string DeviceId(int d) {
  char id[40];
  std::snprintf(id, sizeof id, "bench-%06d", d);
  return id;
}

std::string Time(int seq) {
  char t[40];
  std::snprintf(t, sizeof t, "2026-11-22T%02d:%02d:%02d.000000Z", seq / 3600 % 24, seq / 60 % 60,
                seq % 60);
  return t;
}

std::string Request(int device, int first, int batch) {
  nlohmann::json messages = nlohmann::json::array();
  std::string id = DeviceId(device);
  for (int seq = first; seq < first + batch; ++seq)
    messages.push_back(
        {{"queue", "QV_Event_DB"}, {"seq", seq}, {"time", Time(seq)}, {"body", Event(id, seq)}});
  std::string body = nlohmann::json{{"device", id}, {"messages", messages}}.dump();
  return "POST /xq/messages HTTP/1.1\r\nHost: bench\r\nContent-Type: application/json\r\n"
         "Content-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

// The statements the server runs for one message and once per batch; device and seq are SQL
// expressions.
std::string InsertSql(const std::string& device, const std::string& seq, int n,
                      const std::string& body, bool pg) {
  std::string blob =
      pg ? "convert_to(" + Quote(body) + ", 'UTF8')" : "CAST(" + Quote(body) + " AS BLOB)";
  return "INSERT INTO messages (device, queue, seq, time, received, kind, category, code, text, "
         "body) VALUES (" +
         device + ", 'QV_Event_DB', " + seq + ", " + Quote(Time(n)) + ", " + Quote(Time(n)) +
         ", 'event', 20, '205181', " + Quote("Bench, " + std::to_string(n)) + ", " + blob +
         ") ON CONFLICT (device, queue, seq, time) DO NOTHING;\n";
}

std::string TouchSql(const std::string& device) {
  return "INSERT INTO devices (device, first_seen, last_seen) VALUES (" + device +
         ", '2026-11-22T00:00:00.000000Z', '2026-11-22T00:00:00.000000Z') ON CONFLICT (device) "
         "DO UPDATE SET last_seen = CASE WHEN excluded.last_seen > devices.last_seen THEN "
         "excluded.last_seen ELSE devices.last_seen END;\n";
}

struct Client {
  int fd = -1;
  int device = 0;
  int next = 1;  // first sequence number of the batch to send
  std::string out;
  size_t sent = 0;
  std::string in;
};

// Whole response at the front of in: its length, else 0.
size_t ResponseLength(const std::string& in, std::string* body) {
  size_t end = in.find("\r\n\r\n");
  if (end == std::string::npos) return 0;
  size_t cl = in.find("Content-Length: ");
  if (cl == std::string::npos || cl > end) return 0;
  size_t length = std::strtoul(in.c_str() + cl + 16, nullptr, 10);
  if (in.size() < end + 4 + length) return 0;
  *body = in.substr(end + 4, length);
  return end + 4 + length;
}

int Run(int port, int devices, int batches, int batch) {
  int ep = epoll_create1(0);
  std::vector<Client> clients(static_cast<size_t>(devices));
  long stored = 0, other = 0, failed = 0, open = 0;
  double t0 = bench::Now();
  for (int d = 0; d < devices; ++d) {
    Client& c = clients[static_cast<size_t>(d)];
    c.device = d;
    c.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    int one = 1;
    setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(c.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 && errno != EINPROGRESS) {
      ++failed;
      continue;
    }
    c.out = Request(d, c.next, batch);
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLOUT;
    ev.data.ptr = &c;
    epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &ev);
    ++open;
  }
  epoll_event events[256];
  while (open > 0) {
    int n = epoll_wait(ep, events, 256, 30000);
    if (n <= 0) break;
    for (int i = 0; i < n; ++i) {
      Client& c = *static_cast<Client*>(events[i].data.ptr);
      auto finish = [&](bool ok) {
        if (!ok) ++failed;
        epoll_ctl(ep, EPOLL_CTL_DEL, c.fd, nullptr);
        close(c.fd);
        c.fd = -1;
        --open;
      };
      if (c.sent < c.out.size() && (events[i].events & EPOLLOUT)) {
        ssize_t w = send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
        if (w < 0 && errno != EAGAIN) {
          finish(false);
          continue;
        }
        if (w > 0) c.sent += static_cast<size_t>(w);
        if (c.sent == c.out.size()) {
          epoll_event ev{};
          ev.events = EPOLLIN;
          ev.data.ptr = &c;
          epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &ev);
        }
      }
      if (!(events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))) continue;
      char buf[65536];
      ssize_t r = recv(c.fd, buf, sizeof buf, 0);
      if (r == 0 || (r < 0 && errno != EAGAIN)) {
        finish(false);
        continue;
      }
      if (r > 0) c.in.append(buf, static_cast<size_t>(r));
      std::string body;
      size_t used = ResponseLength(c.in, &body);
      if (!used) continue;
      c.in.erase(0, used);
      for (size_t at = body.find("\"stored\""); at != std::string::npos;
           at = body.find("\"stored\"", at + 1))
        ++stored;
      if (body.find("\"duplicate\"") != std::string::npos ||
          body.find("\"rejected\"") != std::string::npos ||
          body.find("\"results\"") == std::string::npos)
        ++other;
      c.next += batch;
      if (c.next > batches * batch) {
        finish(true);
        continue;
      }
      c.out = Request(c.device, c.next, batch);
      c.sent = 0;
      epoll_event ev{};
      ev.events = EPOLLOUT;
      ev.data.ptr = &c;
      epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &ev);
    }
  }
  double seconds = bench::Now() - t0;
  long want = static_cast<long>(devices) * batches * batch;
  std::printf("delivery ok=%d seconds=%.3f messages=%ld mps=%.0f failed=%ld unexpected=%ld\n",
              stored == want && failed == 0 && other == 0, seconds, stored, stored / seconds,
              failed, other);
  close(ep);
  return stored == want ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  auto arg = [&](int i) { return i < argc ? std::atoi(argv[i]) : 0; };
  if (mode == "run" && argc == 6) return Run(arg(2), arg(3), arg(4), arg(5));
  if (mode == "sqlite" && argc == 5) {
    int devices = arg(2), batches = arg(3), batch = arg(4);
    for (int d = 0; d < devices; ++d) {
      std::string id = DeviceId(d);
      for (int first = 1; first <= batches * batch; first += batch) {
        std::printf("BEGIN IMMEDIATE;\n");
        for (int seq = first; seq < first + batch; ++seq)
          std::fputs(InsertSql(Quote(id), std::to_string(seq), seq, Event(id, seq), false).c_str(),
                     stdout);
        std::fputs(TouchSql(Quote(id)).c_str(), stdout);
        std::printf("COMMIT;\n");
      }
    }
    return 0;
  }
  if (mode == "pgbench" && argc == 3) {
    // Sequence numbers drawn at random: the same key never comes twice in practice.
    const std::string id = "'bench-pg-' || :client_id";
    std::printf("BEGIN;\n");
    for (int i = 1; i <= arg(2); ++i) {
      std::printf("\\set seq random(1, 1000000000000)\n");
      std::fputs(InsertSql(id, ":seq", i, Event("bench-pg-0", i), true).c_str(), stdout);
    }
    std::fputs(TouchSql(id).c_str(), stdout);
    std::printf("COMMIT;\n");
    return 0;
  }
  std::fprintf(stderr,
               "usage: bench_delivery run PORT DEVICES BATCHES BATCH | sqlite DEVICES BATCHES "
               "BATCH | pgbench BATCH\n");
  return 2;
}
