// `ftc-host deliver`: the spool is the outbox. Records go oldest first per queue, in batches,
// and leave the spool only once the server has acknowledged them: delivery is at-least-once and
// the server drops repeats by (device, queue, sequence, time).
#include "deliver.h"

#include <signal.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "base/faults.h"
#include "http_post.h"
#include "platform/helpers.h"
#include "platform/hwid.h"
#include "platform/winux.h"
#include "winux/winux_host.h"
#include "xq/outbox.h"
#include "xq/spool.h"

namespace ftchost {

namespace {

using Clock = std::chrono::steady_clock;
using json = nlohmann::json;

constexpr size_t kMaxBatch = 500;
// The server takes 4 MiB; the envelope and escaping of the next message need room.
constexpr size_t kMaxBatchBytes = (4u << 20) - (64u << 10);
constexpr int kDefaultPort = 8789;
// Back-off after a failed attempt, in device seconds (scaled by the time scale).
constexpr double kFirstWait = 1.0;
constexpr double kLongestWait = 60.0;
// A one-shot run gives up when the server has taken nothing for this long (device seconds).
constexpr double kGiveUpAfter = 300.0;
// Retry-After is the server's real time; an absurd one is cut to this.
constexpr long kLongestRetryAfter = 600;
constexpr auto kIdlePoll = std::chrono::milliseconds(200);
// Installed files beyond this are not records we report.
constexpr size_t kMaxRecordFile = 1u << 20;

// After these the installed bundles may have changed: upgrade failed or complete, file pulled.
const char* const kJobEndEvents[] = {"205180", "205182", "205185"};

const char kBundleFile[] = "\\temp\\Quovera\\QVSubSystems\\QVBundles.xml";
const wchar_t kSubsystemsKey[] = L"Software\\Tervalon\\QVClient\\Subsystems";
const char kDefaultVersionFile[] = "\\Quovera\\QVSubSystems\\FileTransferConfiglet.ini";

std::atomic<bool> g_stop{false};

void OnStopSignal(int) {
  g_stop = true;
}

// A REG_SZ value under HKEY_LOCAL_MACHINE, read as the plug-in reads it; "" when absent.
std::string RegistryText(const wchar_t* key, const wchar_t* name, size_t maxChars) {
  HKEY handle = nullptr;
  if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &handle) != ERROR_SUCCESS) return "";
  std::vector<wchar_t> value(maxChars + 1, L'\0');
  DWORD type = REG_SZ;
  DWORD size = static_cast<DWORD>(maxChars * sizeof(wchar_t));
  LSTATUS rc =
      RegQueryValueEx(handle, name, nullptr, &type, reinterpret_cast<LPBYTE>(value.data()), &size);
  RegCloseKey(handle);
  if (rc != ERROR_SUCCESS || type != REG_SZ) return "";
  std::string narrow(maxChars * 4 + 1, '\0');
  QVToASCIIStringW(value.data(), narrow.data(), static_cast<int>(narrow.size()));
  narrow.resize(strlen(narrow.c_str()));
  return narrow;
}

}  // namespace

bool ResolveServer(const std::string& given, std::string* base, std::string* error) {
  std::string url = given;
  if (url.empty()) {
    std::string value = RegistryText(L"SOFTWARE\\Tervalon\\XQueue", L"ServerIP", 63);
    char host[256] = "";
    int port = 0;
    if (!QVParseURL(value.c_str(), host, sizeof host, &port)) port = kDefaultPort;
    if (!*host) {
      *error =
          "no --server given and no ServerIP under "
          "HKEY_LOCAL_MACHINE\\SOFTWARE\\Tervalon\\XQueue";
      return false;
    }
    std::string name = host;
    if (name.find(':') != std::string::npos) name = "[" + name + "]";
    url = "http://" + name + ":" + std::to_string(port);
  }
  if (url.find("://") == std::string::npos) url = "http://" + url;
  while (!url.empty() && url.back() == '/') url.pop_back();
  size_t scheme = url.find("://");
  std::string name = url.substr(0, scheme);
  if ((strcasecmp(name.c_str(), "http") != 0 && strcasecmp(name.c_str(), "https") != 0) ||
      url.size() == scheme + 3) {
    *error = "'" + given + "' is not an http:// server address";
    return false;
  }
  *base = url;
  return true;
}

namespace {

std::string IdentityText(DWORD (*get)(char*, DWORD*)) {
  char buf[256] = {};
  DWORD length = sizeof buf - 1;
  return get(buf, &length) == 0 ? std::string(buf, strnlen(buf, sizeof buf - 1)) : "";
}

bool IsDeviceId(const std::string& id) {
  if (id.empty() || id.size() > 64) return false;
  for (char c : id) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '.' || c == ':' || c == '-';
    if (!ok) return false;
  }
  return true;
}

// A device file's text, "" when it is absent.
std::string DeviceFileText(const std::string& devicePath) {
  std::string host = WinuxMapPath(devicePath);
  if (host.empty()) return "";
  std::ifstream in(host, std::ios::binary);
  std::string text(kMaxRecordFile, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(std::max<std::streamsize>(in.gcount(), 0)));
  return text;
}

// Texts that are not UTF-8 cannot travel in JSON as they are: their bad bytes become U+FFFD.
std::string Dump(const json& j) {
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool IsUtf8(const std::string& text) {
  try {
    (void)json(text).dump();
    return true;
  } catch (const json::exception&) {
    return false;
  }
}

std::string Name(const SpoolRecord& r) {
  return r.queue + "/" + std::to_string(r.sequence);
}

// A text member of an answer; "" when it is absent or not text, whatever the server sent.
std::string TextOf(const json& j, const char* key) {
  if (!j.is_object()) return "";
  auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : "";
}

// The "error" of a refusal's body, if it has one.
std::string ServerSays(const HttpAnswer& a) {
  std::string error = TextOf(json::parse(a.body, nullptr, false), "error");
  return "HTTP " + std::to_string(a.status) + (error.empty() ? "" : ": " + error);
}

// Faults of what was sent, not of the server's state: the message goes aside.
bool RefusesMessage(long status) {
  return status >= 400 && status < 500 && status != 404 && status != 405 && status != 408 &&
         status != 429;
}

class Agent {
 public:
  Agent(const DeliverOptions& opt, std::string base, std::string device)
      : m_opt(opt),
        m_base(std::move(base)),
        m_device(std::move(device)),
        m_random(std::random_device{}()) {}

  int Run() {
    printf("delivering %s to %s as device %s\n", m_opt.root.c_str(), m_base.c_str(),
           m_device.c_str());
    fflush(stdout);
    m_lastProgress = Clock::now();
    for (;;) {
      if (g_stop) return Finish("stopped");
      Step step = m_inventoryDue ? SendInventory() : SendMessages();
      if (step == Step::kIdle) {
        if (!m_opt.follow) return Finish("done");
        Pause(std::chrono::duration<double>(kIdlePoll).count());
        continue;
      }
      if (step == Step::kProgress) {
        m_failures = 0;
        m_lastProgress = Clock::now();
        continue;
      }
      if (step == Step::kAgain) continue;
      double wait = NextWait();
      if (!m_opt.follow) {
        double left = kGiveUpAfter * WinuxTimeScale() -
                      std::chrono::duration<double>(Clock::now() - m_lastProgress).count();
        if (left <= 0 || (m_retryAfter > 0 && m_retryAfter > left)) return GiveUp();
        wait = std::min(wait, left);
      }
      fprintf(stderr, "ftc-host deliver: %s; next attempt in %.1f s\n", m_reason.c_str(), wait);
      Pause(wait);
    }
  }

 private:
  enum class Step { kProgress, kAgain, kFailed, kIdle };

  Step Failed(const std::string& what, const HttpAnswer& a) {
    m_reason = what + ": " + (a.error.empty() ? ServerSays(a) : a.error);
    m_retryAfter = a.status == 0 ? -1 : std::min(a.retryAfter, kLongestRetryAfter);
    return Step::kFailed;
  }

  double NextWait() { return RetryWait(m_failures++, kLongestWait, m_retryAfter, m_random); }

  void Pause(double seconds) { PauseUnlessStopped(seconds); }

  Step SendInventory() {
    std::string folder = RegistryText(kSubsystemsKey, L"Path", 256);
    DeviceIdentity id = ReadIdentity();
    json inventory = {
        {"device", m_device},
        {"serial", id.serial},
        {"hardware", id.hardware},
        {"bundles", DeviceFileText(kBundleFile)},
        {"version", DeviceFileText(folder.empty() ? kDefaultVersionFile
                                                  : folder + "\\FileTransferConfiglet.ini")},
    };
    // After a job that changed nothing the server already has this one.
    if (m_inventories > 0 && inventory == m_lastInventory) {
      m_inventoryDue = false;
      return Step::kAgain;
    }
    json sent = inventory;
    sent["time"] = xqspool::UtcNow();
    HttpAnswer a = m_http.PostJson(m_base + "/xq/inventory", Dump(sent));
    if (a.status == 200) {
      if (TextOf(json::parse(a.body, nullptr, false), "status") != "stored")
        return Failed("inventory", {a.status, "", -1, "the answer is not an acknowledgement"});
      m_inventoryDue = false;
      m_lastInventory = std::move(inventory);
      ++m_inventories;
      return Step::kProgress;
    }
    if (RefusesMessage(a.status)) {
      fprintf(stderr, "ftc-host deliver: the server refused the inventory (%s)\n",
              ServerSays(a).c_str());
      m_inventoryDue = false;
      return Step::kProgress;
    }
    return Failed("inventory", a);
  }

  // The oldest records of every queue, merged by time with each queue's order kept, up to the
  // batch limits. A record marked to go alone ends the batch, or is the whole of it.
  std::vector<SpoolRecord> NextBatch() {
    std::vector<std::vector<SpoolRecord>> heads;
    for (const std::string& queue : xqspool::ListDir(xqspool::SpoolDir(m_opt.root))) {
      if (!xqspool::IsValidQueueName(queue)) continue;
      std::vector<SpoolRecord> records = xqspool::ReadQueue(m_opt.root, queue, kMaxBatch);
      std::vector<xqspool::Retirement> damaged;
      for (const SpoolRecord& r : records) {
        if (r.complete) continue;
        fprintf(stderr, "ftc-host deliver: %s is damaged (no valid trailer); moved to %s/\n",
                Name(r).c_str(), xqspool::kRejectedDir);
        damaged.push_back({r.sequence, true});
        ++m_asideCount;
      }
      if (!damaged.empty()) {
        Retire(queue, damaged);
        records.erase(std::remove_if(records.begin(), records.end(),
                                     [](const SpoolRecord& r) { return !r.complete; }),
                      records.end());
      }
      if (!records.empty()) heads.push_back(std::move(records));
    }
    std::vector<SpoolRecord> batch;
    std::vector<size_t> next(heads.size(), 0);
    size_t bytes = 0;
    while (batch.size() < kMaxBatch) {
      int best = -1;
      for (size_t q = 0; q < heads.size(); ++q) {
        if (next[q] >= heads[q].size()) continue;
        if (best < 0 || heads[q][next[q]].time < heads[best][next[best]].time) best = int(q);
      }
      if (best < 0) break;
      SpoolRecord& r = heads[best][next[best]];
      bool alone = m_alone.count(r.path) > 0;
      size_t size = Dump(json(r.message)).size() + r.queue.size() + r.time.size() + 64;
      if (!batch.empty() && (alone || bytes + size > kMaxBatchBytes)) break;
      bytes += size;
      batch.push_back(std::move(r));
      ++next[best];
      if (alone) break;
    }
    return batch;
  }

  Step SendMessages() {
    std::vector<SpoolRecord> batch = NextBatch();
    if (batch.empty()) return Step::kIdle;
    json messages = json::array();
    for (const SpoolRecord& r : batch) {
      if (!IsUtf8(r.message))
        fprintf(stderr, "ftc-host deliver: %s is not UTF-8; sent with U+FFFD for its bad bytes\n",
                Name(r).c_str());
      messages.push_back(
          {{"queue", r.queue}, {"seq", r.sequence}, {"time", r.time}, {"body", r.message}});
    }
    HttpAnswer a = m_http.PostJson(m_base + "/xq/messages",
                                   Dump({{"device", m_device}, {"messages", std::move(messages)}}));
    if (a.status == 200) return Acknowledged(batch, a);
    if (!RefusesMessage(a.status)) return Failed("messages", a);
    if (batch.size() > 1) {
      // One poison message must not take good ones aside with it.
      fprintf(stderr, "ftc-host deliver: a batch of %zu was refused (%s); sending each alone\n",
              batch.size(), ServerSays(a).c_str());
      for (const SpoolRecord& r : batch) m_alone.insert(r.path);
      return Step::kAgain;
    }
    fprintf(stderr, "ftc-host deliver: %s refused (%s); moved to %s/\n", Name(batch[0]).c_str(),
            ServerSays(a).c_str(), xqspool::kRejectedDir);
    ++m_asideCount;
    m_alone.erase(batch[0].path);
    return Retire(batch[0].queue, {{batch[0].sequence, true}}) ? Step::kProgress : Step::kFailed;
  }

  Step Acknowledged(const std::vector<SpoolRecord>& batch, const HttpAnswer& a) {
    json body = json::parse(a.body, nullptr, false);
    const json* results = body.is_object() && body.contains("results") ? &body["results"] : nullptr;
    bool usable = results && results->is_array() && results->size() == batch.size();
    std::vector<std::string> statuses;
    for (size_t i = 0; usable && i < batch.size(); ++i) {
      const json& r = (*results)[i];
      statuses.push_back(TextOf(r, "status"));
      const std::string& status = statuses.back();
      usable = TextOf(r, "queue") == batch[i].queue && r.contains("seq") &&
               r["seq"].is_number_unsigned() && r["seq"].get<uint64_t>() == batch[i].sequence &&
               (status == "stored" || status == "duplicate" || status == "rejected");
    }
    // Nothing is retired on an answer that does not account for every message.
    if (!usable) return Failed("messages", {a.status, "", -1, "the answer is not a result list"});

    std::map<std::string, std::vector<xqspool::Retirement>> retire;
    int stored = 0, duplicates = 0, rejected = 0;
    for (size_t i = 0; i < batch.size(); ++i) {
      const SpoolRecord& r = batch[i];
      const std::string& status = statuses[i];
      bool aside = status == "rejected";
      if (aside) {
        std::string why = TextOf((*results)[i], "error");
        fprintf(stderr, "ftc-host deliver: %s rejected (%s); moved to %s/\n", Name(r).c_str(),
                why.empty() ? "no reason given" : why.c_str(), xqspool::kRejectedDir);
        ++rejected;
      } else {
        ++(status == "stored" ? stored : duplicates);
        if (r.kind == "event" && std::find(std::begin(kJobEndEvents), std::end(kJobEndEvents),
                                           r.code) != std::end(kJobEndEvents))
          m_inventoryDue = true;
      }
      retire[r.queue].push_back({r.sequence, aside});
      m_alone.erase(r.path);
    }
    m_stored += stored;
    m_duplicates += duplicates;
    m_asideCount += rejected;
    printf("delivered %zu: %d stored, %d already stored, %d rejected\n", batch.size(), stored,
           duplicates, rejected);
    fflush(stdout);
    bool ok = true;
    FTC_FAULT_MOMENT("ftc/deliver/acknowledged");
    for (const auto& [queue, records] : retire) ok = Retire(queue, records) && ok;
    return ok ? Step::kProgress : Step::kFailed;
  }

  bool Retire(const std::string& queue, const std::vector<xqspool::Retirement>& records) {
    std::string error;
    if (xqspool::RetireRecords(m_opt.root, queue, records, &error)) return true;
    // The records stay and go again; the server answers "duplicate".
    m_reason = error;
    m_retryAfter = -1;
    return false;
  }

  int Finish(const char* how) {
    size_t left = 0;
    const std::string spool = xqspool::SpoolDir(m_opt.root);
    for (const std::string& queue : xqspool::ListDir(spool)) {
      if (!xqspool::IsValidQueueName(queue)) continue;
      uint64_t sequence = 0;
      for (const std::string& name : xqspool::ListDir(spool + "/" + queue))
        left += xqspool::ParseRecordName(name, &sequence) ? 1 : 0;
    }
    printf(
        "%s: %d messages stored, %d already stored, %d moved aside; inventory sent %d time%s;"
        " %zu left in the spool\n",
        how, m_stored, m_duplicates, m_asideCount, m_inventories, m_inventories == 1 ? "" : "s",
        left);
    fflush(stdout);
    return m_opt.follow || left == 0 ? kExitOk : kExitFailed;
  }

  int GiveUp() {
    fprintf(stderr, "ftc-host deliver: giving up: %s took nothing for %.0f s (%s)\n",
            m_base.c_str(), kGiveUpAfter * WinuxTimeScale(), m_reason.c_str());
    Finish("gave up");
    return kExitFailed;
  }

  const DeliverOptions& m_opt;
  const std::string m_base;
  const std::string m_device;
  HttpClient m_http;
  std::mt19937 m_random;
  Clock::time_point m_lastProgress;
  bool m_inventoryDue = true;
  json m_lastInventory;
  int m_failures = 0;
  long m_retryAfter = -1;
  std::string m_reason;
  // Records of a refused batch, to be sent one by one.
  std::set<std::string> m_alone;
  int m_stored = 0, m_duplicates = 0, m_asideCount = 0, m_inventories = 0;
};

}  // namespace

DeviceIdentity ReadIdentity() {
  return {IdentityText(TVLHWID::GetUniqueID), IdentityText(TVLHWID::GetSerialNumber),
          IdentityText(TVLHWID::GetHardwareCfg)};
}

bool UsableDeviceId(const std::string& device, std::string* error) {
  if (IsDeviceId(device)) return true;
  *error = "the device's unique id \"" + device +
           "\" cannot name it to the server (1 to 64 of A-Z a-z 0-9 _ . : -)";
  return false;
}

void StopOnSignals() {
  struct sigaction stop {};
  stop.sa_handler = OnStopSignal;
  sigemptyset(&stop.sa_mask);
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
}

bool StopRequested() {
  return g_stop;
}

double RetryWait(int failures, double longest, long retryAfter, std::mt19937& random) {
  // Capped exponential with jitter, so a fleet that lost its server does not return in step.
  double wait = std::min(longest, kFirstWait * std::pow(2.0, std::min(failures, 16)));
  wait = std::uniform_real_distribution<double>(wait / 2, wait)(random) * WinuxTimeScale();
  if (retryAfter > 0) {
    double asked = static_cast<double>(std::min(retryAfter, kLongestRetryAfter));
    wait = asked + std::uniform_real_distribution<double>(0, asked / 4)(random);
  }
  return wait;
}

void PauseUnlessStopped(double seconds) {
  auto until = Clock::now() +
               std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  while (!g_stop && Clock::now() < until) {
    Clock::duration left = until - Clock::now();
    std::this_thread::sleep_for(std::min<Clock::duration>(left, std::chrono::milliseconds(50)));
  }
}

int DeliverOnce(const DeliverOptions& opt) {
  // A server that drops the connection mid-request is a failed attempt, not the end of us.
  signal(SIGPIPE, SIG_IGN);
  try {
    std::string base, error;
    if (!ResolveServer(opt.server, &base, &error)) {
      fprintf(stderr, "ftc-host deliver: %s\n", error.c_str());
      return kExitUsage;
    }
    std::string device = ReadIdentity().device;
    if (!UsableDeviceId(device, &error)) {
      fprintf(stderr, "ftc-host deliver: %s\n", error.c_str());
      return kExitFailed;
    }
    Agent agent(opt, base, device);
    return agent.Run();
  } catch (const std::exception& e) {
    fprintf(stderr, "ftc-host deliver: %s\n", e.what());
  } catch (...) {
    fprintf(stderr, "ftc-host deliver: unexpected failure\n");
  }
  return kExitFailed;
}

int DeliverCommand(const Options& opt) {
  if (!opt.args.empty()) {
    fprintf(stderr,
            "ftc-host: deliver takes no arguments\n"
            "usage: ftc-host deliver [--server URL] [--follow] [--root DIR]\n");
    return kExitUsage;
  }
  // Stop after the request in flight: its acknowledged records are retired first.
  StopOnSignals();
  DeliverOptions d;
  d.root = opt.root;
  d.server = opt.server;
  d.follow = opt.follow;
  return DeliverOnce(d);
}

int DeliverAfterJob(const Options& opt, int jobExit) {
  if (opt.deliver.empty()) return jobExit;
  DeliverOptions d;
  d.root = opt.root;
  d.server = opt.deliver;
  int delivered = DeliverOnce(d);
  return jobExit != kExitOk || delivered == kExitOk ? jobExit : kExitFailed;
}

}  // namespace ftchost
