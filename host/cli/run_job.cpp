// `ftc-host run`: replays a job file into the plug-in and follows the upgrade to its end.
#include <dirent.h>
#include <strings.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "commands.h"
#include "job_file.h"
#include "platform/winux.h"
#include "plugin_session.h"
#include "progress_view.h"
#include "winux/winux_host.h"
#include "xq/spool.h"

namespace fs = std::filesystem;

namespace ftchost {

namespace {

bool InProgressEventExists() {
  HANDLE h = OpenEvent(0, FALSE, L"QV_UPGRADE_IN_PROGRESS");
  if (!h) return false;
  CloseHandle(h);
  return true;
}

std::string LogPath() {
  return WinuxMapPath(kDeviceLogFile);
}

uintmax_t FileSize(const std::string& path) {
  std::error_code ec;
  uintmax_t n = fs::file_size(path, ec);
  return ec ? 0 : n;
}

// The part of the device log written since offset.
std::string LogSince(uintmax_t offset) {
  std::ifstream in(LogPath(), std::ios::binary);
  if (!in) return "";
  in.seekg(static_cast<std::streamoff>(offset));
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

uint32_t Crc32Of(const std::string& path, bool* ok) {
  static uint32_t table[256];
  static bool built = false;
  if (!built) {
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      table[n] = c;
    }
    built = true;
  }
  std::ifstream in(path, std::ios::binary);
  *ok = static_cast<bool>(in);
  uint32_t crc = 0xFFFFFFFFu;
  char buf[65536];
  while (in) {
    in.read(buf, sizeof buf);
    for (std::streamsize i = 0; i < in.gcount(); ++i)
      crc = table[(crc ^ static_cast<uint8_t>(buf[i])) & 0xFF] ^ (crc >> 8);
  }
  return crc ^ 0xFFFFFFFFu;
}

struct Check {
  int matched = 0, mismatched = 0, absent = 0;
  std::vector<std::string> bad;
};

// The job's own files and those of its list file, checked against their CRCs where the job
// gives one. Files absent from the device may have been meant for other device kinds.
Check VerifyFiles(const JobFile& job) {
  std::vector<JobFile::File> files = job.files;
  if (job.hasListFile) {
    std::ifstream in(WinuxMapPath(job.listFile.dest), std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    std::vector<std::string> tokens;
    std::string cur;
    for (char c : s.str() + ",") {
      if (c == ',' || c == '\r' || c == '\n') {
        if (!cur.empty()) tokens.push_back(cur);
        cur.clear();
      } else {
        cur += c;
      }
    }
    for (size_t i = 0; i + 5 <= tokens.size(); i += 5)
      files.push_back({tokens[i], tokens[i + 1], tokens[i + 3], tokens[i + 2]});
  }
  Check check;
  for (const JobFile::File& f : files) {
    uint32_t expected = static_cast<uint32_t>(strtoul(f.crc.c_str(), nullptr, 10));
    if (expected == 0 || f.dest.rfind("RAM:", 0) == 0) continue;
    std::string host = WinuxMapPath(f.dest);
    bool ok = false;
    uint32_t crc = host.empty() ? 0 : Crc32Of(host, &ok);
    if (!ok) {
      ++check.absent;
    } else if (crc == expected) {
      ++check.matched;
    } else {
      ++check.mismatched;
      check.bad.push_back(f.dest);
    }
  }
  return check;
}

// What the device log says about the run.
struct Outcome {
  bool sawComplete = false, sawFailed = false, sawExit = false;
  int fetched = 0;
  uintmax_t bytes = 0;
};

Outcome ReadOutcome(const std::string& log) {
  Outcome o;
  std::istringstream in(log);
  std::string line;
  const std::string fetch = "ValidateFiles - http fetching !";
  while (std::getline(in, line)) {
    if (line.find("UpgradeThread - Send Upgrade complete event") != std::string::npos)
      o.sawComplete = true;
    if (line.find("UpgradeThread - Send Upgrade failed event") != std::string::npos)
      o.sawFailed = true;
    if (line.find("UpgradeThread - final exit") != std::string::npos) o.sawExit = true;
    size_t at = line.find(fetch);
    if (at != std::string::npos) {
      ++o.fetched;
      size_t to = line.find("! to !", at);
      if (to != std::string::npos) {
        std::string dest = line.substr(to + 6);
        size_t end = dest.rfind('!');
        if (end != std::string::npos) dest.resize(end);
        std::string host = WinuxMapPath(dest);
        if (!host.empty()) o.bytes += FileSize(host);
      }
    }
  }
  return o;
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

}  // namespace

int RunJob(const Options& opt) {
  JobFile job;
  std::string error;
  if (!LoadJob(opt.args[0], &job, &error)) {
    fprintf(stderr, "ftc-host: bad job file: %s\n", error.c_str());
    return kExitUsage;
  }
  double scale = opt.timeScale;
  if (const char* env = getenv("WINUX_TIME_SCALE")) scale = atof(env);
  printf("device root: %s\n", opt.root.c_str());
  printf("time scale:  %g (device pauses run at this fraction of their length)\n", scale);

  bool terminal = isatty(fileno(stdout));
  ProgressView view(stdout, terminal);
  PluginSession plugin;
  std::string path = opt.plugin.empty() ? DefaultPluginPath() : opt.plugin;
  if (!plugin.Load(
          path, [&view](const std::string& m) { view.Print(DescribeSendUp(m)); }, &error)) {
    fprintf(stderr, "ftc-host: %s\n", error.c_str());
    return kExitFailed;
  }
  view.Register();

  std::string reboot = opt.root + "/.winux/reboot-requested";
  std::error_code ec;
  fs::file_time_type rebootBefore{};
  bool rebootExisted = fs::exists(reboot, ec);
  if (rebootExisted) rebootBefore = fs::last_write_time(reboot, ec);
  uintmax_t logStart = FileSize(LogPath());
  auto started = std::chrono::steady_clock::now();

  // Replay, innermost groups closed first (the order of the calls list).
  int depth = 0;
  int threadsBefore = 0;
  bool upgradeStarted = false, upgradeRefused = false, anyRefused = false;
  uint32_t upgradeCode = 0;
  // A refused group is not entered: its fields and inner groups are not sent, and it is not
  // closed (closing Upgrade would start the job even when opening it was refused).
  int skipping = 0;
  for (const JobCall& call : job.calls) {
    if (skipping > 0) {
      if (call.kind == JobCall::kBeginGroup) ++skipping;
      if (call.kind == JobCall::kEndGroup && --skipping == 0) {
        --depth;
        view.Print(std::string(static_cast<size_t>(depth) * 2, ' ') + "EndGroup " + call.name +
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
        rc = plugin.BeginGroup(call.name);
        shown = indent + "BeginGroup " + call.name;
        ++depth;
        break;
      case JobCall::kSetField:
        rc = plugin.SetField(call.name, call.value);
        shown = indent + "SetField " + call.name + " = \"" + call.value + "\"";
        break;
      case JobCall::kEndGroup:
        --depth;
        shown = std::string(static_cast<size_t>(depth) * 2, ' ') + "EndGroup " + call.name;
        if (upgrade) threadsBefore = ThreadCount();
        rc = plugin.EndGroup(call.name);
        break;
    }
    view.Print(shown + " -> " + Hex(rc) + " " + ResultMeaning(rc));
    if (rc != 0) anyRefused = true;
    if (rc != 0 && call.kind == JobCall::kBeginGroup) skipping = 1;
    if (upgrade && rc != 0) {
      upgradeRefused = true;
      upgradeCode = rc;
    }
    if (upgrade && call.kind == JobCall::kEndGroup && rc == 0 && !upgradeRefused)
      upgradeStarted = true;
  }

  if (upgradeStarted) {
    // The worker owns the job now: it is over when the in-progress event is gone and the
    // worker thread has left (its last act is a pause after the event is deleted).
    bool gone = false;
    auto goneAt = std::chrono::steady_clock::now();
    auto grace = std::chrono::milliseconds(30000 + static_cast<int64_t>(4000 * scale));
    for (;;) {
      bool exists = InProgressEventExists();
      int threads = ThreadCount();
      if (!exists && threads <= threadsBefore) break;
      if (!exists && !gone) {
        gone = true;
        goneAt = std::chrono::steady_clock::now();
      }
      if (exists) gone = false;
      if (gone) {
        auto waited = std::chrono::steady_clock::now() - goneAt;
        if (waited > grace) {
          view.Print("warning: the worker has not left; summarising anyway");
          break;
        }
        // After its last line the worker only returns; a host thread may outlive it.
        if (waited > std::chrono::seconds(2) && ReadOutcome(LogSince(logStart)).sawExit) break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  view.Finish();

  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  Outcome outcome = ReadOutcome(LogSince(logStart));
  Check check = VerifyFiles(job);
  bool rebootRequested =
      fs::exists(reboot, ec) && (!rebootExisted || fs::last_write_time(reboot, ec) != rebootBefore);

  std::string result;
  bool success;
  if (!job.hasUpgrade) {
    success = !anyRefused;
    result = success ? "no upgrade in the job; every call accepted" : "some calls were refused";
  } else if (upgradeRefused || !upgradeStarted) {
    success = false;
    result = "refused (" + Hex(upgradeCode) + " " + ResultMeaning(upgradeCode) + ")";
  } else if (outcome.sawFailed) {
    success = false;
    result = "failed";
  } else if (check.mismatched > 0) {
    success = false;
    result = "failed (files do not match their CRCs)";
  } else {
    success = true;
    result = "succeeded";
  }

  printf("\nsummary\n");
  printf("  outcome:        %s\n", result.c_str());
  if (upgradeStarted) {
    printf("  files fetched:  %d\n", outcome.fetched);
    printf("  bytes fetched:  %ju\n", outcome.bytes);
    printf("  files checked:  %d match their CRC, %d damaged, %d not on this device\n",
           check.matched, check.mismatched, check.absent);
    for (const std::string& bad : check.bad) printf("    damaged: %s\n", bad.c_str());
    printf("  time:           %.2f s\n", seconds);
    printf("  reboot:         %s\n", rebootRequested ? "requested" : "not requested");
  }
  printf("  device log:     %s\n", LogPath().c_str());
  fflush(stdout);
  return success ? kExitOk : kExitFailed;
}

int ThreadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

}  // namespace ftchost
