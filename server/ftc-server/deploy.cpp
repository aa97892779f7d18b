// ftc-server deploy: jobs handed to devices in phases, from the operator's side.
#include <arpa/inet.h>
#include <fnmatch.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <set>

#include "common/bundle_job.h"
#include "common/http.h"
#include "multicast_sender.h"
#include "store/store.h"
#include "store/text.h"
#include "views.h"

namespace ftcserver {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr const char* kDeviceStates[] = {"pending", "sent",    "started",   "complete",
                                         "failed",  "refused", "timed out", "cancelled"};
// A year: anything longer is a typing mistake.
constexpr double kMaxDeadlineMinutes = 525600;

int Usage(const std::string& error) {
  std::fprintf(
      stderr,
      "ftc-server: %s\n"
      "usage: ftc-server deploy create --db URL --root BUNDLE_DIR --bundle NAME\n"
      "                  --server http://HOST:PORT --dest PREFIX\n"
      "                  (--devices ID,...|--hardware PATTERN|--all) [--phases 10,50,100]\n"
      "                  [--max-failures N|P%%] [--deadline MINUTES] [--version V] [--reboot]\n"
      "                  [--list NAME] [--multicast [--multicast-group ADDRESS[:PORT]]\n"
      "                  [--multicast-interface ADDRESS] [--multicast-rate KBPS]]\n"
      "       ftc-server deploy list --db URL [--json]\n"
      "       ftc-server deploy show ID --db URL [--json]\n"
      "       ftc-server deploy pause|resume|cancel ID --db URL\n",
      error.c_str());
  return 2;
}

int Fail(const std::string& error) {
  std::fprintf(stderr, "ftc-server: %s\n", error.c_str());
  return 1;
}

std::vector<std::string> Split(const std::string& s) {
  std::vector<std::string> out;
  for (size_t at = 0, end; at <= s.size(); at = end + 1) {
    end = s.find(',', at);
    if (end == std::string::npos) end = s.size();
    if (end > at) out.push_back(s.substr(at, end - at));
  }
  return out;
}

// Rising percentages ending at 100.
std::optional<std::vector<int>> ParsePhases(const std::string& s) {
  std::vector<int> out;
  for (const std::string& p : Split(s)) {
    auto n = ParseDecimal(p);
    if (!n || *n == 0 || *n > 100 || (!out.empty() && static_cast<int>(*n) <= out.back()))
      return std::nullopt;
    out.push_back(static_cast<int>(*n));
  }
  if (out.empty() || out.back() != 100) return std::nullopt;
  return out;
}

std::string Now() {
  return ftcstore::IsoNow(6);
}

std::string Phase(const ftcstore::DeploymentRow& d) {
  size_t phases = Split(d.phases).size();
  return std::to_string(d.phase + 1) + "/" + std::to_string(phases);
}

int64_t Count(const ftcstore::DeploymentRow& d, const std::string& state) {
  for (const auto& [name, n] : d.counts)
    if (name == state) return n;
  return 0;
}

struct Args {
  std::string db, id, devices, hardware, phases = "100", maxFailures, deadline, root;
  std::string mcGroup, mcInterface, mcRate;
  bool all = false, json = false, multicast = false;
  BundleJob job;
};

std::unique_ptr<ftcstore::Store> Open(const Args& a, ftcstore::OpenMode mode) {
  std::string error;
  auto store = ftcstore::OpenStore(a.db, mode, &error);
  if (!store)
    std::fprintf(stderr, "ftc-server: cannot open the store %s: %s\n", a.db.c_str(), error.c_str());
  return store;
}

bool IsIpv4(const std::string& s) {
  in_addr addr{};
  return inet_pton(AF_INET, s.c_str(), &addr) == 1;
}

bool ParseMulticast(const Args& a, const std::string& serverHost, MulticastPlan* out) {
  if (!a.mcGroup.empty()) {
    size_t colon = a.mcGroup.find(':');
    out->group = a.mcGroup.substr(0, colon);
    if (colon != std::string::npos) {
      auto port = ParseDecimal(a.mcGroup.substr(colon + 1));
      if (!port || *port == 0 || *port > 65535) return false;
      out->port = static_cast<unsigned>(*port);
    }
  }
  in_addr group{};
  if (inet_pton(AF_INET, out->group.c_str(), &group) != 1 || (ntohl(group.s_addr) >> 28) != 14)
    return false;
  out->interface = a.mcInterface.empty() ? serverHost : a.mcInterface;
  if (!IsIpv4(out->interface)) return false;
  if (!a.mcRate.empty()) {
    auto rate = ParseDecimal(a.mcRate);
    if (!rate || *rate == 0 || *rate > 10000000) return false;
    out->rateKbps = static_cast<unsigned>(*rate);
  }
  return true;
}

int Create(const Args& a) {
  if (a.root.empty() || a.job.bundle.empty() || a.job.server.empty() || a.job.dest.empty())
    return Usage("create needs --root, --bundle, --server and --dest");
  if (a.job.bundle.find('/') != std::string::npos || a.job.bundle == "." || a.job.bundle == "..")
    return Usage("--bundle names a folder directly under the root");
  if ((!a.devices.empty()) + (!a.hardware.empty()) + a.all != 1)
    return Usage("name the devices with one of --devices, --hardware or --all");
  ftcstore::DeploymentPlan plan;
  auto phases = ParsePhases(a.phases);
  if (!phases) return Usage("--phases must be rising percentages ending at 100");
  plan.phases = *phases;
  if (!a.maxFailures.empty()) {
    plan.maxFailuresPercent = a.maxFailures.back() == '%';
    auto n = ParseDecimal(plan.maxFailuresPercent
                              ? std::string_view(a.maxFailures).substr(0, a.maxFailures.size() - 1)
                              : std::string_view(a.maxFailures));
    if (!n || *n > 1000000000 || (plan.maxFailuresPercent && *n > 100))
      return Usage("bad --max-failures");
    plan.maxFailures = static_cast<int64_t>(*n);
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  plan.created = ftcstore::IsoTime(now, 6);
  if (!a.deadline.empty()) {
    char* end = nullptr;
    double minutes = std::strtod(a.deadline.c_str(), &end);
    if (end == a.deadline.c_str() || *end || !(minutes > 0) || minutes > kMaxDeadlineMinutes)
      return Usage("bad --deadline");
    double seconds = std::floor(minutes * 60 * 1e6) / 1e6;
    timespec at = now;
    at.tv_sec += static_cast<time_t>(seconds);
    at.tv_nsec += static_cast<long>((seconds - std::floor(seconds)) * 1e9);
    if (at.tv_nsec >= 1000000000L) at.tv_sec++, at.tv_nsec -= 1000000000L;
    plan.deadline = ftcstore::IsoTime(at, 6);
  }

  BundleJob job = a.job;
  job.dir = a.root + "/" + job.bundle;
  auto server = ParseServerUrl(job.server);
  if (!server) return Usage("--server must be http://HOST:PORT with an explicit port");
  job.server = server->base + "/" + UrlPath(job.bundle);
  MulticastPlan multicast;
  if (a.multicast) {
    if (!ParseMulticast(a, server->host, &multicast))
      return Usage(
          "--multicast needs IPv4 addresses: a multicast group, and an interface "
          "(--multicast-interface, else the --server host)");
    job.multicast = ReceiverParameters(multicast, job.dest);
  }
  std::string error;
  if (!WriteBundleJob(job, "ftc-server", &plan.job, &error)) return Fail(error);
  plan.bundle = job.bundle;

  auto store = Open(a, ftcstore::OpenMode::kServe);
  if (!store) return 1;
  std::set<std::string> chosen;
  if (!a.devices.empty()) {
    for (const std::string& d : Split(a.devices)) {
      if (!ftcstore::IsDeviceId(d)) return Usage("not a device id: " + d);
      chosen.insert(d);
    }
  } else {
    std::vector<ftcstore::FleetRow> fleet;
    if (ftcstore::Status s = store->Fleet(&fleet); !s.ok()) return Fail(s.message);
    for (const ftcstore::FleetRow& f : fleet)
      if (a.all || fnmatch(a.hardware.c_str(), f.hardware.c_str(), 0) == 0) chosen.insert(f.device);
  }
  if (chosen.empty()) return Fail("no device matches");
  plan.devices.assign(chosen.begin(), chosen.end());
  int64_t id = 0;
  if (ftcstore::Status s = store->CreateDeployment(plan, &id); !s.ok()) return Fail(s.message);
  std::printf("deployment %lld: %s to %zu device%s in %zu phase%s\n", static_cast<long long>(id),
              plan.bundle.c_str(), plan.devices.size(), plan.devices.size() == 1 ? "" : "s",
              plan.phases.size(), plan.phases.size() == 1 ? "" : "s");
  if (!a.multicast) return 0;
  std::fflush(stdout);
  return RunMulticastSessions(*store, id, multicast, job.dir);
}

int List(const Args& a) {
  auto store = Open(a, ftcstore::OpenMode::kRead);
  if (!store) return 1;
  std::vector<ftcstore::DeploymentRow> rows;
  if (ftcstore::Status s = store->Deployments(Now(), &rows); !s.ok()) return Fail(s.message);
  std::vector<std::vector<std::string>> table = {{"ID", "BUNDLE", "STATE", "PHASE", "DEVICES"}};
  for (const char* state : kDeviceStates) table[0].push_back(state);
  for (auto& h : table[0])
    for (char& c : h) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (const ftcstore::DeploymentRow& d : rows) {
    if (a.json) {
      std::printf("%s\n", Dump(DeploymentJson(d)).c_str());
      continue;
    }
    std::vector<std::string> row = {std::to_string(d.id), Cell(d.bundle), d.state, Phase(d),
                                    std::to_string(d.devices)};
    for (const char* state : kDeviceStates) row.push_back(std::to_string(Count(d, state)));
    table.push_back(std::move(row));
  }
  if (!a.json) PrintTable(table);
  return 0;
}

std::optional<int64_t> DeploymentId(const std::string& s) {
  auto n = ParseDecimal(s);
  if (!n || *n == 0 || *n > static_cast<unsigned long long>(INT64_MAX)) return std::nullopt;
  return static_cast<int64_t>(*n);
}

int Show(const Args& a, int64_t id) {
  auto store = Open(a, ftcstore::OpenMode::kRead);
  if (!store) return 1;
  bool found = false;
  ftcstore::DeploymentRow d;
  std::vector<ftcstore::DeploymentDeviceRow> devices;
  if (ftcstore::Status s = store->Deployment(id, Now(), &found, &d, &devices); !s.ok())
    return Fail(s.message);
  if (!found) return Fail("no deployment " + a.id);
  if (a.json) {
    OrderedJson j = DeploymentJson(d);
    j["devices"] = DeploymentDevicesJson(devices);
    std::printf("%s\n", Dump(j).c_str());
    return 0;
  }
  std::printf("deployment %lld: %s, %s, phase %s (%s%%)", static_cast<long long>(d.id),
              d.bundle.c_str(), d.state.c_str(), Phase(d).c_str(), d.phases.c_str());
  if (!d.maxFailures.empty()) std::printf(", max failures %s", d.maxFailures.c_str());
  if (!d.deadline.empty()) std::printf(", deadline %s", ShortTime(d.deadline).c_str());
  std::printf("\n\n");
  std::vector<std::vector<std::string>> table = {
      {"DEVICE", "PHASE", "STATE", "CODE", "TEXT", "UPDATED"}};
  for (const ftcstore::DeploymentDeviceRow& r : devices)
    table.push_back({r.device, std::to_string(r.phase + 1), r.state,
                     r.code ? std::to_string(*r.code) : "-", Cell(r.text), ShortTime(r.updated)});
  PrintTable(table);
  return 0;
}

int Change(const Args& a, const std::string& action, int64_t id) {
  auto store = Open(a, ftcstore::OpenMode::kRead);
  if (!store) return 1;
  std::string why;
  if (ftcstore::Status s = store->ChangeDeployment(id, action, Now(), &why); !s.ok())
    return Fail(s.message);
  if (!why.empty()) return Fail("cannot " + action + " deployment " + a.id + ": " + why);
  std::printf("deployment %s: %s\n", a.id.c_str(),
              action == "pause"    ? "paused"
              : action == "resume" ? "running"
                                   : "cancelled");
  return 0;
}

}  // namespace

OrderedJson DeploymentJson(const ftcstore::DeploymentRow& d) {
  OrderedJson counts = OrderedJson::object();
  for (const char* state : kDeviceStates) counts[state] = Count(d, state);
  OrderedJson phases = OrderedJson::array();
  for (const std::string& p : Split(d.phases)) phases.push_back(std::stoi(p));
  return {{"id", d.id},
          {"bundle", d.bundle},
          {"created", d.created},
          {"state", d.state},
          {"phase", d.phase + 1},
          {"phases", phases},
          {"max_failures", d.maxFailures.empty() ? OrderedJson() : OrderedJson(d.maxFailures)},
          {"deadline", d.deadline.empty() ? OrderedJson() : OrderedJson(d.deadline)},
          {"devices", d.devices},
          {"counts", counts}};
}

OrderedJson DeploymentDevicesJson(const std::vector<ftcstore::DeploymentDeviceRow>& devices) {
  OrderedJson list = OrderedJson::array();
  for (const ftcstore::DeploymentDeviceRow& r : devices)
    list.push_back({{"device", r.device},
                    {"phase", r.phase + 1},
                    {"state", r.state},
                    {"code", r.code ? OrderedJson(*r.code) : OrderedJson()},
                    {"text", r.text},
                    {"updated", r.updated}});
  return list;
}

int DeployCommand(const std::vector<std::string>& args) {
  if (args.empty()) return Usage("deploy needs a command");
  const std::string& command = args[0];
  Args a;
  std::map<std::string, std::string*> valued = {{"--db", &a.db},
                                                {"--devices", &a.devices},
                                                {"--hardware", &a.hardware},
                                                {"--phases", &a.phases},
                                                {"--root", &a.root},
                                                {"--max-failures", &a.maxFailures},
                                                {"--deadline", &a.deadline},
                                                {"--bundle", &a.job.bundle},
                                                {"--server", &a.job.server},
                                                {"--dest", &a.job.dest},
                                                {"--version", &a.job.version},
                                                {"--list", &a.job.list},
                                                {"--multicast-group", &a.mcGroup},
                                                {"--multicast-interface", &a.mcInterface},
                                                {"--multicast-rate", &a.mcRate}};
  size_t i = 1;
  bool wantsId = command != "create" && command != "list";
  if (wantsId) {
    if (args.size() < 2) return Usage(command + " needs a deployment id");
    a.id = args[i++];
  }
  for (; i < args.size(); ++i) {
    const std::string& opt = args[i];
    if (opt == "--json" || opt == "--all" || opt == "--reboot" || opt == "--multicast") {
      (opt == "--json"        ? a.json
       : opt == "--all"       ? a.all
       : opt == "--multicast" ? a.multicast
                              : a.job.reboot) = true;
      continue;
    }
    auto it = valued.find(opt);
    if (it == valued.end()) return Usage("unknown option " + opt);
    if (i + 1 >= args.size()) return Usage("missing value for " + opt);
    *it->second = args[++i];
  }
  if (a.db.empty()) return Usage("--db is required");
  if (command == "create") return Create(a);
  if (command == "list") return List(a);
  std::optional<int64_t> id = wantsId ? DeploymentId(a.id) : std::nullopt;
  if (!id) return Usage("bad deployment id " + a.id);
  if (command == "show") return Show(a, *id);
  if (command == "pause" || command == "resume" || command == "cancel")
    return Change(a, command, *id);
  return Usage("unknown command deploy " + command);
}

}  // namespace ftcserver
