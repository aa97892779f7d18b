// `ftc-host agent`: the device's management client. It checks in with the fleet server, runs
// the job handed to it as `run` does, delivers what the job queued and reports the outcome.
// A record under <root>/.winux names the job under way, so that after a restart the server, not
// the agent, decides whether that job runs again.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "base/faults.h"
#include "base/files.h"
#include "commands.h"
#include "deliver.h"
#include "http_post.h"
#include "job_file.h"
#include "job_watch.h"
#include "plugin_session.h"
#include "service/daemon.h"
#include "winux/winux_host.h"
#include "xq/outbox.h"
#include "xq/spool.h"

namespace ftchost {

namespace {

using json = nlohmann::json;

// Device seconds, scaled by the time scale like the device's other pauses.
constexpr double kDefaultInterval = 60;
constexpr double kLongestInterval = 86400;
constexpr double kLongestBackOff = 300;

constexpr char kEventQueue[] = "QV_Event_DB";
constexpr char kJobStarted[] = "205181";
constexpr char kJobFailed[] = "205180";
constexpr char kJobComplete[] = "205182";

std::string Dump(const json& j) {
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

const char* StateName(JobResult::State s) {
  switch (s) {
    case JobResult::kRefused:
      return "refused";
    case JobResult::kComplete:
      return "complete";
    default:
      return "failed";
  }
}

// The highest number the event queue has handed out so far: the job's records come after it.
uint64_t EventPosition(const std::string& root) {
  const std::string dir = xqspool::SpoolDir(root) + "/" + kEventQueue;
  uint64_t highest = xqspool::RetiredUpTo(dir);
  for (const std::string& name : xqspool::ListDir(dir)) {
    uint64_t sequence = 0;
    if (xqspool::ParseRecordName(name, &sequence)) highest = std::max(highest, sequence);
  }
  return highest;
}

// Records spooled and not yet taken by the server.
size_t SpoolBacklog(const std::string& root) {
  const std::string spool = xqspool::SpoolDir(root);
  size_t n = 0;
  for (const std::string& queue : xqspool::ListDir(spool)) {
    if (!xqspool::IsValidQueueName(queue)) continue;
    uint64_t sequence = 0;
    for (const std::string& name : xqspool::ListDir(spool + "/" + queue))
      n += xqspool::ParseRecordName(name, &sequence);
  }
  return n;
}

bool ParseInterval(const std::string& text, double* seconds) {
  char* end = nullptr;
  double v = strtod(text.c_str(), &end);
  if (!end || *end || !(v > 0) || v > kLongestInterval) return false;
  *seconds = v;
  return true;
}

std::atomic<bool> g_reload{false};

void OnReloadSignal(int) {
  g_reload = true;
}

// The agent's figures since it started, written whole for a node exporter's textfile collector.
struct Figures {
  std::map<std::string, uint64_t> jobs;  // by outcome
  uint64_t files = 0, bytes = 0, checkIns = 0, checkInFailures = 0, deliveryFailures = 0;
  time_t lastCheckIn = 0;

  std::string Text(const std::string& root) const {
    ftcservice::MetricsText t;
    t.Family("ftc_agent_jobs_total", "counter", "Jobs the agent ran, by outcome.");
    for (const char* outcome : {"complete", "failed", "refused"}) {
      auto it = jobs.find(outcome);
      t.Sample("ftc_agent_jobs_total", {{"outcome", outcome}},
               it == jobs.end() ? 0 : static_cast<double>(it->second));
    }
    auto counter = [&](const char* name, const char* help, double v) {
      t.Family(name, "counter", help);
      t.Sample(name, {}, v);
    };
    counter("ftc_agent_fetched_files_total", "Files jobs brought that match their CRCs.",
            static_cast<double>(files));
    counter("ftc_agent_fetched_bytes_total", "Bytes of those files.", static_cast<double>(bytes));
    counter("ftc_agent_checkins_total", "Check-ins the server answered.",
            static_cast<double>(checkIns));
    counter("ftc_agent_checkin_failures_total", "Check-ins that failed.",
            static_cast<double>(checkInFailures));
    counter("ftc_agent_delivery_failures_total", "Deliveries that left records behind.",
            static_cast<double>(deliveryFailures));
    t.Family("ftc_agent_delivery_backlog", "gauge", "Spooled records not yet delivered.");
    t.Sample("ftc_agent_delivery_backlog", {}, static_cast<double>(SpoolBacklog(root)));
    t.Family("ftc_agent_last_checkin_timestamp_seconds", "gauge", "When the server last answered.");
    t.Sample("ftc_agent_last_checkin_timestamp_seconds", {}, static_cast<double>(lastCheckIn));
    return t.text();
  }
};

// What the device's own records say of a job that began after position.
std::string FoundSince(const std::string& root, uint64_t position) {
  std::string found = "none";
  for (const SpoolRecord& r : xqspool::ReadQueue(root, kEventQueue)) {
    if (r.sequence <= position || r.kind != "event") continue;
    if (r.code == kJobComplete) return "complete";
    if (r.code == kJobFailed) return "failed";
    if (r.code == kJobStarted) found = "started";
  }
  return found;
}

// Each exchange on a connection of its own: check-ins are far apart, and delivery opens its own.
class DeviceAgent {
 public:
  DeviceAgent(const Options& opt, std::string base, DeviceIdentity id, double interval)
      : m_opt(opt),
        m_metricsFile(opt.metricsFile),
        m_base(std::move(base)),
        m_id(std::move(id)),
        m_interval(interval),
        m_record(opt.root + "/.winux/agent-job.json"),
        m_random(std::random_device{}()) {}

  int Run() {
    printf("agent for device %s checking in with %s\n", m_id.device.c_str(), m_base.c_str());
    fflush(stdout);
    Resume();
    ftcservice::NotifyReady();
    int failures = 0;
    while (!StopRequested()) {
      if (g_reload.exchange(false)) Reload();
      WriteFigures();
      if (!m_pending.is_null() && !PostResult()) {
        PauseUnlessStopped(RetryWait(failures++, kLongestBackOff, m_retryAfter, m_random));
        continue;
      }
      json job;
      double next = m_interval;
      if (!CheckIn(&job, &next)) {
        ++m_figures.checkInFailures;
        ftcservice::Log(ftcservice::Level::kWarning, "ftc-host agent: check-in failed: %s",
                        m_reason.c_str());
        PauseUnlessStopped(RetryWait(failures++, kLongestBackOff, m_retryAfter, m_random));
        continue;
      }
      failures = 0;
      ++m_figures.checkIns;
      m_figures.lastCheckIn = time(nullptr);
      // The inventory goes at start and after jobs; reports whenever there are some.
      if (m_inventoryDue || SpoolBacklog(m_opt.root) > 0) Deliver();
      if (job.is_object() && !StopRequested()) RunAssigned(job);
      WriteFigures();
      // Jitter keeps a fleet told the same interval from arriving in step.
      PauseUnlessStopped(next * WinuxTimeScale() *
                         std::uniform_real_distribution<double>(0.8, 1.2)(m_random));
    }
    ftcservice::NotifyStopping();
    printf("agent stopped\n");
    fflush(stdout);
    return kExitOk;
  }

 private:
  // SIGHUP: the server's address and the interval as the settings now give them.
  void Reload() {
    Options now;
    std::string error, base;
    if (!RereadOptions(&now, &error) || !ResolveServer(now.server, &base, &error)) {
      ftcservice::Log(ftcservice::Level::kWarning, "ftc-host agent: settings not reloaded: %s",
                      error.c_str());
      return;
    }
    double interval = m_interval;
    if (!now.interval.empty() && !ParseInterval(now.interval, &interval)) {
      ftcservice::Log(ftcservice::Level::kWarning, "ftc-host agent: settings not reloaded: %s",
                      "bad interval");
      return;
    }
    m_base = base;
    m_interval = interval;
    m_metricsFile = now.metricsFile;
    ftcservice::Log(ftcservice::Level::kInfo, "ftc-host agent: settings reloaded");
  }

  void WriteFigures() {
    if (m_metricsFile.empty()) return;
    size_t slash = m_metricsFile.rfind('/');
    hostbase::IoStatus s = slash == std::string::npos || slash == 0
                               ? hostbase::IoStatus{}
                               : hostbase::MakeDirs(m_metricsFile.substr(0, slash));
    if (s.ok()) s = hostbase::ReplaceFile(m_metricsFile, m_figures.Text(m_opt.root));
    if (!s.ok() && !m_figuresFailed)
      ftcservice::Log(ftcservice::Level::kWarning, "ftc-host agent: %s",
                      s.Describe(m_metricsFile).c_str());
    m_figuresFailed = !s.ok();
  }

  // A record left behind means we died mid-job: say what the device holds, and let the server
  // decide whether the job runs again.
  void Resume() {
    std::string text;
    if (!hostbase::ReadWholeFile(m_record, &text).ok()) return;
    json r = json::parse(text, nullptr, false);
    if (!r.is_object() || !r["deployment"].is_number_unsigned() ||
        !r["position"].is_number_unsigned()) {
      (void)unlink(m_record.c_str());
      return;
    }
    std::string found = FoundSince(m_opt.root, r["position"].get<uint64_t>());
    // The spool may have been delivered since; the record kept the end it saw.
    if ((found == "none" || found == "started") && r["outcome"].is_string())
      found = r["outcome"] == "complete" ? "complete" : "failed";
    m_resumed = {{"deployment", r["deployment"]}, {"found", found}};
    printf("resuming after deployment %s: %s\n", r["deployment"].dump().c_str(), found.c_str());
    fflush(stdout);
  }

  bool Answered(const HttpAnswer& a, const char* what) {
    m_retryAfter = a.status == 0 ? -1 : a.retryAfter;
    if (a.status == 200) return true;
    m_reason =
        std::string(what) + ": " + (a.error.empty() ? "HTTP " + std::to_string(a.status) : a.error);
    return false;
  }

  bool CheckIn(json* job, double* next) {
    FTC_FAULT_MOMENT("ftc/agent/checkin");
    json body = {{"device", m_id.device},
                 {"serial", m_id.serial},
                 {"hardware", m_id.hardware},
                 {"busy", UpgradeInProgress()},
                 {"resumed", m_resumed}};
    HttpAnswer a = HttpClient().PostJson(m_base + "/agent/checkin", Dump(body));
    if (!Answered(a, "checkin")) return false;
    json answer = json::parse(a.body, nullptr, false);
    if (!answer.is_object()) {
      m_reason = "the check-in answer is not JSON";
      return false;
    }
    if (!m_resumed.is_null()) {
      m_resumed = nullptr;
      (void)unlink(m_record.c_str());
    }
    if (answer["next"].is_number() && answer["next"].get<double>() >= 0)
      *next = std::min(answer["next"].get<double>(), kLongestInterval);
    *job = answer["job"];
    return true;
  }

  void Deliver() {
    DeliverOptions d;
    d.root = m_opt.root;
    d.server = m_base;
    if (DeliverOnce(d) == kExitOk) {
      m_inventoryDue = false;
    } else {
      ++m_figures.deliveryFailures;
      ftcservice::Log(ftcservice::Level::kWarning, "ftc-host agent: delivery is incomplete");
    }
  }

  void RunAssigned(const json& assigned) {
    const json& deployment = assigned["deployment"];
    std::string url = assigned["url"].is_string() ? assigned["url"].get<std::string>() : "";
    if (!deployment.is_number_unsigned() || url.empty() || url[0] != '/') {
      fprintf(stderr, "ftc-host agent: the server handed out a job without a deployment\n");
      return;
    }
    m_deployment = deployment.get<uint64_t>();
    std::string name = "deployment " + std::to_string(m_deployment);
    url += (url.find('?') == std::string::npos ? "?device=" : "&device=") + m_id.device;
    // Kept before the fetch: the server counts a fetched job as the device's, so a restart
    // after the fetch must tell it, even when the job never started ("none").
    json record = {{"deployment", m_deployment},
                   {"started", xqspool::UtcNow()},
                   {"position", EventPosition(m_opt.root)}};
    if (!Keep(record)) return;
    HttpAnswer a = HttpClient().Get(m_base + url);
    if (a.status == 404 || a.status == 410) {
      printf("%s is not for this device any more (HTTP %ld)\n", name.c_str(), a.status);
      (void)unlink(m_record.c_str());
      return;
    }
    if (!Answered(a, "job")) {
      fprintf(stderr, "ftc-host agent: %s not fetched: %s\n", name.c_str(), m_reason.c_str());
      (void)unlink(m_record.c_str());
      return;
    }
    FTC_FAULT_MOMENT("ftc/agent/fetched");
    JobFile job;
    std::string error;
    if (!ParseJob(a.body, &job, &error)) {
      fprintf(stderr, "ftc-host agent: %s: bad job file: %s\n", name.c_str(), error.c_str());
      m_pending = Result("failed", 0, "bad job file: " + error);
      PostResult();
      return;
    }
    printf("%s: running its job\n", name.c_str());
    fflush(stdout);
    // The plug-in's threads inherit the mask: a stop during the job waits for its end instead of
    // cutting their calls short with EINTR.
    sigset_t stops, was;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stops, &was);
    JobResult r = RunParsedJob(m_opt, job, [this] {
      m_pending = Result("started", 0, "");
      PostResult();
    });
    pthread_sigmask(SIG_SETMASK, &was, nullptr);
    m_inventoryDue = true;
    ++m_figures.jobs[StateName(r.state)];
    m_figures.files += static_cast<uint64_t>(r.fetched);
    m_figures.bytes += r.bytes;
    record["outcome"] = StateName(r.state);
    (void)Keep(record);
    m_pending = Result(StateName(r.state), r.code, r.text);
    // A refusal goes first so the server knows at once. So does a failure: the plug-in's own
    // events call a job complete even when its files never matched their CRCs, and the server
    // keeps the first outcome it hears. A success goes after its events.
    if (r.state != JobResult::kComplete) PostResult();
    Deliver();
    if (!m_pending.is_null()) PostResult();
  }

  bool Keep(const json& record) {
    hostbase::IoStatus s = hostbase::ReplaceFile(m_record, Dump(record));
    if (!s.ok()) fprintf(stderr, "ftc-host agent: %s\n", s.Describe(m_record).c_str());
    return s.ok();
  }

  json Result(const std::string& state, uint32_t code, const std::string& text) const {
    return {{"device", m_id.device},
            {"deployment", m_deployment},
            {"state", state},
            {"code", code},
            {"text", text}};
  }

  // Sends m_pending. Kept for another attempt while the server is away; anything else it
  // answers settles it.
  bool PostResult() {
    HttpAnswer a = HttpClient().PostJson(m_base + "/agent/result", Dump(m_pending));
    if (a.status == 0 || a.status >= 500 || a.status == 408 || a.status == 429) {
      Answered(a, "result");
      fprintf(stderr, "ftc-host agent: result not taken: %s\n", m_reason.c_str());
      return false;
    }
    std::string state = m_pending["state"];
    if (a.status != 200)
      fprintf(stderr, "ftc-host agent: the server refused the result (HTTP %ld)\n", a.status);
    printf("deployment %ju: reported %s\n", static_cast<uintmax_t>(m_deployment), state.c_str());
    fflush(stdout);
    m_pending = nullptr;
    if (state != "started") (void)unlink(m_record.c_str());
    return true;
  }

  const Options& m_opt;
  std::string m_metricsFile;
  std::string m_base;
  const DeviceIdentity m_id;
  double m_interval;
  Figures m_figures;
  bool m_figuresFailed = false;
  const std::string m_record;
  std::mt19937 m_random;
  json m_resumed;  // null, or what was found of the job a restart interrupted
  json m_pending;  // a result still to post
  uint64_t m_deployment = 0;
  bool m_inventoryDue = true;
  long m_retryAfter = -1;
  std::string m_reason;
};

// An exclusive flock held for the process's life: two agents on one root would run two jobs.
bool LockRoot(const std::string& root) {
  const std::string dir = root + "/.winux";
  if (!hostbase::MakeDirs(dir).ok()) return false;
  int fd = open((dir + "/agent.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
  if (fd >= 0) close(fd);
  return false;
}

}  // namespace

int AgentCommand(const Options& opt) {
  if (!opt.args.empty()) {
    fprintf(stderr, "ftc-host: agent takes no arguments\n");
    return kExitUsage;
  }
  double interval = kDefaultInterval;
  if (!opt.interval.empty() && !ParseInterval(opt.interval, &interval)) {
    fprintf(stderr, "ftc-host: --interval takes seconds above 0, at most a day\n");
    return kExitUsage;
  }
  signal(SIGPIPE, SIG_IGN);
  struct sigaction reload {};
  reload.sa_handler = OnReloadSignal;
  sigemptyset(&reload.sa_mask);
  reload.sa_flags = SA_RESTART;
  sigaction(SIGHUP, &reload, nullptr);
  // A job under way is let finish; the stop comes between steps.
  StopOnSignals();
  try {
    std::string base, error;
    if (!ResolveServer(opt.server, &base, &error)) {
      fprintf(stderr, "ftc-host agent: %s\n", error.c_str());
      return kExitUsage;
    }
    DeviceIdentity id = ReadIdentity();
    if (!UsableDeviceId(id.device, &error)) {
      fprintf(stderr, "ftc-host agent: %s\n", error.c_str());
      return kExitFailed;
    }
    if (!LockRoot(opt.root)) {
      fprintf(stderr, "ftc-host agent: another agent runs on %s\n", opt.root.c_str());
      return kExitFailed;
    }
    DeviceAgent agent(opt, base, id, interval);
    return agent.Run();
  } catch (const std::exception& e) {
    fprintf(stderr, "ftc-host agent: %s\n", e.what());
  } catch (...) {
    fprintf(stderr, "ftc-host agent: unexpected failure\n");
  }
  return kExitFailed;
}

}  // namespace ftchost
