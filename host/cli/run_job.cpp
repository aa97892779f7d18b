// `ftc-host run`: replays a job file into the plug-in and follows the upgrade to its end.
#include <strings.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "commands.h"
#include "deliver.h"
#include "job_file.h"
#include "job_watch.h"
#include "plugin_session.h"
#include "progress_view.h"
#include "verify.h"
#include "winux/winux_host.h"
#include "xq/spool.h"

namespace fs = std::filesystem;

namespace ftchost {

namespace {

using Clock = std::chrono::steady_clock;

// A job waits for an unreachable server for as long as it takes; an operator should not.
constexpr std::chrono::hours kJobLimit{1};

// A file as it stood before the job.
struct Stamp {
  uintmax_t size;
  fs::file_time_type written;
  bool operator==(const Stamp& o) const { return size == o.size && written == o.written; }
};

// Every file under the device root but the platform's own state, by host path.
std::map<std::string, Stamp> TakeSnapshot(const std::string& root) {
  std::map<std::string, Stamp> files;
  std::error_code ec;
  const fs::path platform = fs::path(root) / ".winux";
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
  for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->path() == platform) {
      it.disable_recursion_pending();
      continue;
    }
    std::error_code e;
    if (!it->is_regular_file(e)) continue;
    Stamp s{it->file_size(e), it->last_write_time(e)};
    if (!e) files[it->path().lexically_normal().string()] = s;
  }
  return files;
}

// The state reports the plug-in sends up, told in a line; anything else as collapsed text.
std::string DescribeSendUp(const std::string& message) {
  SpoolRecord r;
  r.message = message;
  xqspool::DecodeMessage(&r);
  if (r.kind == "state") return "host message: ready-to-work state " + r.code + ", " + r.text;
  if (r.kind == "autodeploy") return "host message: AutoDeploy " + r.code;
  std::string collapsed;
  for (char c : message) {
    bool space = c == ' ' || c == '\t' || c == '\r' || c == '\n';
    if (space && (collapsed.empty() || collapsed.back() == ' ')) continue;
    collapsed += space ? ' ' : c;
  }
  return "host message: " + collapsed;
}

std::string Hex(uint32_t v) {
  char b[16];
  snprintf(b, sizeof b, "0x%08X", v);
  return b;
}

struct Run {
  Run(const Options& o, const JobFile& j) : opt(o), job(j), view(stdout, isatty(fileno(stdout))) {}

  const Options& opt;
  const JobFile& job;
  ProgressView view;
  PluginSession plugin;
  std::map<std::string, Stamp> before;
  bool rebootExisted = false;
  fs::file_time_type rebootBefore{};
  Clock::time_point started;

  bool upgradeStarted = false, upgradeRefused = false, anyRefused = false;
  uint32_t upgradeCode = 0;
  // Set up just before the Upgrade group closes.
  std::optional<JobWatch> watch;
  JobOutcome outcome = JobOutcome::kRunning;
  double seconds = 0;

  int matched = 0, damaged = 0, absent = 0, fetched = 0;
  uintmax_t bytes = 0;
  std::vector<std::string> bad;

  std::string RebootFile() const { return opt.root + "/.winux/reboot-requested"; }
};

int Load(Run& run) {
  std::string error;
  printf("device root: %s\n", run.opt.root.c_str());
  printf("time scale:  %g (device pauses run at this fraction of their length)\n",
         WinuxTimeScale());
  std::string path = run.opt.plugin.empty() ? DefaultPluginPath() : run.opt.plugin;
  ProgressView& view = run.view;
  if (!run.plugin.Load(
          path, [&view](const std::string& m) { view.Print(DescribeSendUp(m)); }, &error)) {
    fprintf(stderr, "ftc-host: %s\n", error.c_str());
    return kExitFailed;
  }
  run.view.Register();

  run.before = TakeSnapshot(run.opt.root);
  std::error_code ec;
  run.rebootExisted = fs::exists(run.RebootFile(), ec);
  if (run.rebootExisted) run.rebootBefore = fs::last_write_time(run.RebootFile(), ec);
  run.started = Clock::now();
  return kExitOk;
}

// The job's calls in order, innermost groups closed first.
void Replay(Run& run, const std::function<void()>& started) {
  int depth = 0;
  // A refused group is not entered: its fields and inner groups are not sent, and it is not
  // closed (closing Upgrade would start the job even when opening it was refused).
  int skipping = 0;
  for (const JobCall& call : run.job.calls) {
    if (skipping > 0) {
      if (call.kind == JobCall::kBeginGroup) ++skipping;
      if (call.kind == JobCall::kEndGroup && --skipping == 0) {
        --depth;
        run.view.Print(std::string(static_cast<size_t>(depth) * 2, ' ') + "EndGroup " + call.name +
                       " not sent: the group was refused");
      }
      continue;
    }
    std::string indent(static_cast<size_t>(depth) * 2, ' ');
    uint32_t rc = 0;
    std::string shown;
    bool upgrade = strcasecmp(call.name.c_str(), "Upgrade") == 0;
    switch (call.kind) {
      case JobCall::kBeginGroup:
        rc = run.plugin.BeginGroup(call.name);
        shown = indent + "BeginGroup " + call.name;
        ++depth;
        break;
      case JobCall::kSetField:
        rc = run.plugin.SetField(call.name, call.value);
        shown = indent + "SetField " + call.name + " = \"" + call.value + "\"";
        break;
      case JobCall::kEndGroup:
        --depth;
        shown = std::string(static_cast<size_t>(depth) * 2, ' ') + "EndGroup " + call.name;
        if (upgrade) run.watch.emplace(run.opt.root);
        rc = run.plugin.EndGroup(call.name);
        break;
    }
    run.view.Print(shown + " -> " + Hex(rc) + " " + ResultMeaning(rc));
    if (rc != 0) run.anyRefused = true;
    if (rc != 0 && call.kind == JobCall::kBeginGroup) skipping = 1;
    if (upgrade && rc != 0) {
      run.upgradeRefused = true;
      run.upgradeCode = rc;
    }
    if (upgrade && call.kind == JobCall::kEndGroup && rc == 0 && !run.upgradeRefused) {
      run.upgradeStarted = true;
      if (started) started();
    }
  }
}

bool RebootRequested(const Run& run) {
  std::error_code ec;
  return fs::exists(run.RebootFile(), ec) &&
         (!run.rebootExisted || fs::last_write_time(run.RebootFile(), ec) != run.rebootBefore);
}

// The worker owns the job now; the watch says when it has let go.
void WaitForEnd(Run& run) {
  if (run.upgradeStarted) run.outcome = run.watch->Wait(kJobLimit);
  run.view.Finish();
  run.seconds = std::chrono::duration<double>(Clock::now() - run.started).count();
}

// A file counts as fetched when it matches its CRC now and was absent before or has been
// written since: whether multicast or HTTP brought it the plug-in does not report.
void Verify(Run& run) {
  for (const FileCheck& f : CheckFiles(run.job)) {
    if (f.state == FileCheck::kAbsent) {
      ++run.absent;
    } else if (f.state == FileCheck::kDamaged) {
      ++run.damaged;
      run.bad.push_back(f.dest);
    } else {
      ++run.matched;
      std::error_code sizeError, timeError;
      std::string path = fs::path(f.host).lexically_normal().string();
      Stamp now{fs::file_size(path, sizeError), fs::last_write_time(path, timeError)};
      auto was = run.before.find(path);
      if (!sizeError && !timeError && (was == run.before.end() || !(was->second == now))) {
        ++run.fetched;
        run.bytes += now.size;
      }
    }
  }
}

JobResult Summary(const Run& run) {
  JobResult r;
  std::string result;
  if (!run.job.hasUpgrade) {
    r.state = run.anyRefused ? JobResult::kFailed : JobResult::kComplete;
    r.text =
        run.anyRefused ? "some calls were refused" : "no upgrade in the job; every call accepted";
    result = r.text;
  } else if (run.upgradeRefused || !run.upgradeStarted) {
    r.state = JobResult::kRefused;
    r.code = run.upgradeCode;
    r.text = ResultMeaning(run.upgradeCode);
    result = "refused (" + Hex(run.upgradeCode) + " " + r.text + ")";
  } else if (run.outcome == JobOutcome::kRunning) {
    r.state = JobResult::kUnknown;
    r.text = "the job gave no end within " +
             std::to_string(std::chrono::minutes(kJobLimit).count()) +
             " minutes and may still be running";
    result = "unknown: " + r.text;
  } else if (run.outcome == JobOutcome::kUnreported) {
    r.state = JobResult::kUnknown;
    r.text = "the job ended without queueing its final device event";
    result = "unknown: " + r.text;
  } else if (run.outcome == JobOutcome::kFailed) {
    r.state = JobResult::kFailed;
    r.text = run.watch->text();
    result = "failed (" + r.text + ")";
  } else if (run.damaged > 0) {
    r.state = JobResult::kFailed;
    r.text = "files do not match their CRCs";
    result = "failed (" + r.text + ")";
  } else {
    r.state = JobResult::kComplete;
    r.text = run.watch->text();
    result = "succeeded";
  }
  bool success = r.state == JobResult::kComplete;
  r.fetched = run.fetched;
  r.bytes = run.bytes;

  printf("\nsummary\n");
  printf("  outcome:        %s\n", result.c_str());
  if (run.upgradeStarted) {
    printf("  files fetched:  %d (absent before or rewritten since, and matching)\n", run.fetched);
    printf("  bytes fetched:  %ju\n", run.bytes);
    printf("  files checked:  %d match their CRC, %d damaged, %d not on this device\n", run.matched,
           run.damaged, run.absent);
    for (const std::string& bad : run.bad) printf("    damaged: %s\n", bad.c_str());
    printf("  time:           %.2f s\n", run.seconds);
    printf("  reboot:         %s\n", RebootRequested(run) ? "requested" : "not requested");
  }
  printf("  device log:     %s\n", WinuxMapPath(kDeviceLogFile).c_str());
  fflush(stdout);
  r.exit = success ? kExitOk : kExitFailed;
  return r;
}

}  // namespace

JobResult RunParsedJob(const Options& opt, const JobFile& job,
                       const std::function<void()>& started) {
  Run run(opt, job);
  if (int rc = Load(run); rc != kExitOk) {
    JobResult r;
    r.exit = rc;
    r.text = "the plug-in could not be loaded";
    return r;
  }
  Replay(run, started);
  WaitForEnd(run);
  Verify(run);
  return Summary(run);
}

int RunJob(const Options& opt) {
  JobFile job;
  std::string error;
  if (!LoadJob(opt.args[0], &job, &error)) {
    fprintf(stderr, "ftc-host: bad job file: %s\n", error.c_str());
    return kExitUsage;
  }
  return DeliverAfterJob(opt, RunParsedJob(opt, job).exit);
}

}  // namespace ftchost
