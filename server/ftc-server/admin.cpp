#include "admin.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/http.h"
#include "fleet_page.h"
#include "metrics.h"
#include "server.h"
#include "store/store.h"
#include "store/text.h"
#include "views.h"

namespace ftcserver {
namespace {

using OrderedJson = nlohmann::ordered_json;

// A slow or silent browser must not hold the page for everyone else.
constexpr int kIoTimeoutSec = 5;
// A device counts as gone quiet after this long, as in the fleet view.
constexpr unsigned long long kStaleMinutes = 60;

struct Reply {
  int status = 200;
  const char* type = "application/json";
  std::string body;
};

Reply Json(const OrderedJson& j) {
  return {200, "application/json", Dump(j)};
}

Reply Failure(int status, const std::string& why) {
  return {status, "application/json", Dump(OrderedJson{{"error", why}})};
}

Reply FleetJson(ftcstore::Store& store) {
  std::string now = ftcstore::IsoNow(6);
  std::vector<ftcstore::DeploymentRow> deployments;
  std::vector<ftcstore::FleetRow> fleet;
  ftcstore::Status s = store.Deployments(now, &deployments);
  if (s.ok()) s = store.Fleet(&fleet);
  if (!s.ok()) return Failure(503, s.message);
  OrderedJson j;
  j["now"] = now;
  j["deployments"] = OrderedJson::array();
  for (const auto& d : deployments) j["deployments"].push_back(DeploymentJson(d));
  j["devices"] = OrderedJson::array();
  time_t t = time(nullptr);
  for (const auto& f : fleet)
    j["devices"].push_back(
        {{"device", f.device},
         {"hardware", f.hardware},
         {"installed", f.installed},
         {"state", JobState(f, kStaleMinutes, t)},
         {"last_event", f.jobText},
         {"last_message", f.lastSeen},
         {"last_report", f.reportTime.empty() ? OrderedJson() : OrderedJson(f.reportTime)}});
  return Json(j);
}

Reply DeploymentDetail(ftcstore::Store& store, std::string_view id) {
  auto n = ParseDecimal(id);
  if (!n || *n == 0 || *n > static_cast<unsigned long long>(INT64_MAX))
    return Failure(404, "no such deployment");
  bool found = false;
  ftcstore::DeploymentRow d;
  std::vector<ftcstore::DeploymentDeviceRow> devices;
  ftcstore::Status s =
      store.Deployment(static_cast<int64_t>(*n), ftcstore::IsoNow(6), &found, &d, &devices);
  if (!s.ok()) return Failure(503, s.message);
  if (!found) return Failure(404, "no such deployment");
  OrderedJson j = DeploymentJson(d);
  j["devices"] = DeploymentDevicesJson(devices);
  OrderedJson history = OrderedJson::array();
  for (const auto& [time, counts] : d.history) {
    OrderedJson c = OrderedJson::object();
    for (size_t at = 0, end; at < counts.size(); at = end + 1) {
      end = counts.find(',', at);
      if (end == std::string::npos) end = counts.size();
      std::string pair = counts.substr(at, end - at);
      size_t eq = pair.find('=');
      if (eq != std::string::npos) c[pair.substr(0, eq)] = std::atoll(pair.c_str() + eq + 1);
    }
    history.push_back({{"time", time}, {"counts", c}});
  }
  j["history"] = history;
  return Json(j);
}

bool SendAll(int fd, const std::string& data) {
  for (size_t done = 0; done < data.size();) {
    ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

AdminServer::AdminServer() = default;

AdminServer::~AdminServer() {
  Stop();
  Wait();
  if (m_listenFd >= 0) close(m_listenFd);
  if (m_stopFd >= 0) close(m_stopFd);
}

std::string AdminServer::Start(const std::string& bind, const std::string& db,
                               const Metrics* metrics) {
  m_metrics = metrics;
  size_t colon = bind.rfind(':');
  auto port = colon == std::string::npos ? std::nullopt : ParseDecimal(bind.substr(colon + 1));
  if (!port || *port > 65535) return "--admin-bind must be ADDRESS:PORT";
  std::string host = bind.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  std::string error;
  m_store = ftcstore::OpenStore(db, ftcstore::OpenMode::kRead, &error);
  if (!m_store) return "cannot open the store " + db + ": " + error;
  m_stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_stopFd < 0) return std::string("eventfd: ") + std::strerror(errno);
  return Listen(host, static_cast<uint16_t>(*port), &m_listenFd, &m_address);
}

void AdminServer::Run() {
  if (m_listenFd >= 0 && !m_thread.joinable()) m_thread = std::thread([this] { Loop(); });
}

void AdminServer::Stop() {
  if (m_stopFd < 0) return;
  uint64_t one = 1;
  [[maybe_unused]] ssize_t n = write(m_stopFd, &one, sizeof one);
}

void AdminServer::Wait() {
  if (m_thread.joinable()) m_thread.join();
}

void AdminServer::Loop() {
  pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_stopFd, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents) return;
    if (!(fds[0].revents & POLLIN)) continue;
    int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    timeval tv{kIoTimeoutSec, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    // Nothing may escape the thread's top: a request that throws is dropped.
    try {
      Serve(fd);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "ftc-server: fleet page: %s\n", e.what());
    }
    close(fd);
  }
}

void AdminServer::Serve(int fd) {
  std::string in;
  Request r;
  ParseResult pr;
  for (;;) {
    pr = ParseRequest(in, &r);
    if (pr.status != ParseStatus::kIncomplete) break;
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    in.append(buf, static_cast<size_t>(n));
  }
  Reply reply;
  std::string_view target = r.target;
  target = target.substr(0, target.find('?'));
  if (pr.status == ParseStatus::kBad) {
    reply = Failure(400, "bad request");
  } else if (r.method != "GET") {
    reply = Failure(405, "read only");
  } else if (target == "/" || target == "/index.html") {
    reply = {200, "text/html; charset=utf-8", ftcpage::kIndexHtml};
  } else if (target == "/fleet.css") {
    reply = {200, "text/css", ftcpage::kFleetCss};
  } else if (target == "/fleet.js") {
    reply = {200, "text/javascript", ftcpage::kFleetJs};
  } else if (target == "/metrics" && m_metrics) {
    reply = {200, "text/plain; version=0.0.4; charset=utf-8",
             m_metrics->Render(m_store.get(), kStaleMinutes)};
  } else if (target == "/api/fleet") {
    reply = FleetJson(*m_store);
  } else if (target.rfind("/api/deployments/", 0) == 0) {
    reply = DeploymentDetail(*m_store, target.substr(17));
  } else {
    reply = Failure(404, "not found");
  }
  char head[256];
  int n = std::snprintf(head, sizeof head,
                        "HTTP/1.1 %d %s\r\nServer: ftc-server\r\nContent-Type: %s\r\n"
                        "Content-Length: %zu\r\nCache-Control: no-store\r\n"
                        "Connection: close\r\n\r\n",
                        reply.status, reply.status == 200 ? "OK" : "Error", reply.type,
                        reply.body.size());
  SendAll(fd,
          std::string(head, static_cast<size_t>(std::min<int>(n, sizeof head - 1))) + reply.body);
}

}  // namespace ftcserver
