// `ftc-host pull`: asks the plug-in to pull one file from an HTTP server, as the management
// server does, and follows the request's thread to its end.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "plugin_session.h"
#include "winux/winux_host.h"
#include "xq/spool.h"

namespace ftchost {

namespace {

using Clock = std::chrono::steady_clock;

// The plug-in's request record holds each text in 256 bytes.
constexpr size_t kMaxText = 255;
constexpr int kAttempts = 10;

int PullUsage(const std::string& message) {
  fprintf(stderr,
          "ftc-host: %s\n"
          "usage: ftc-host pull --url URL --file NAME --dest PATH --bundle NAME [--root DIR]\n"
          "                     [--time-scale X] [--plugin PATH]\n",
          message.c_str());
  return kExitUsage;
}

}  // namespace

int PullCommand(const Options& opt) {
  std::map<std::string, std::string> named;
  const std::vector<std::string> keys = {"--url", "--file", "--dest", "--bundle"};
  for (size_t i = 0; i < opt.args.size(); ++i) {
    const std::string& a = opt.args[i];
    bool known = false;
    for (const std::string& k : keys) known = known || a == k;
    if (!known) return PullUsage("pull: unexpected '" + a + "'");
    if (i + 1 >= opt.args.size()) return PullUsage("pull: " + a + " needs a value");
    named[a] = opt.args[++i];
  }
  for (const std::string& k : keys) {
    if (named[k].empty()) return PullUsage("pull: " + k + " is required");
    // A longer text would be cut by the device, and the wrong file fetched or written.
    if (named[k].size() > kMaxText)
      return PullUsage("pull: " + k + " is longer than " + std::to_string(kMaxText) + " bytes");
  }
  const std::string& dest = named["--dest"];

  std::mutex printLock;
  auto print = [&printLock](const std::string& line) {
    std::lock_guard<std::mutex> g(printLock);
    printf("%s\n", line.c_str());
    fflush(stdout);
  };
  // The request's last report: the thread only pauses and frees its record after it.
  std::atomic<bool> finished{false};
  PluginSession plugin;
  std::string error;
  std::string path = opt.plugin.empty() ? DefaultPluginPath() : opt.plugin;
  bool loaded = plugin.Load(
      path,
      [&print, &finished](const std::string& m) {
        SpoolRecord r;
        r.message = m;
        xqspool::DecodeMessage(&r);
        if (r.kind != "state") return;
        print("status: " + r.text);
        if (r.text == "File Transfer Complete") finished = true;
      },
      &error);
  if (!loaded) {
    fprintf(stderr, "ftc-host: %s\n", error.c_str());
    return kExitFailed;
  }

  std::set<std::string> seen;
  ReadSpoolNew(opt.root, "", &seen);
  auto started = Clock::now();

  const std::pair<const char*, std::string> fields[] = {{"SrcUrl", named["--url"]},
                                                        {"SrcFile", named["--file"]},
                                                        {"DestFile", dest},
                                                        {"FileID", named["--bundle"]}};
  print("pulling " + named["--url"] + "\\" + named["--file"] + " to " + dest);
  uint32_t rc = plugin.BeginGroup("PullFile");
  for (const auto& f : fields)
    if (rc == 0) rc = plugin.SetField(f.first, f.second);
  if (rc == 0) rc = plugin.EndGroup("PullFile");
  if (rc != 0) {
    fprintf(stderr, "ftc-host: the plug-in refused the request: 0x%08X %s\n", rc,
            ResultMeaning(rc));
    return kExitFailed;
  }

  // Each attempt may wait out the client's 20 s time-out and a scaled 3 s pause. A request that
  // used up its attempts says nothing more: its thread ends, and that is the end.
  const double scale = WinuxTimeScale();
  const auto limit =
      std::chrono::milliseconds(static_cast<int64_t>(kAttempts * (20000 + 3000 * scale) + 10000));
  bool complete = false, ended = false;
  while (!(complete && finished) && !ended && Clock::now() - started < limit) {
    ended = WinuxWaitForPlatformThreads(20);
    for (const SpoolRecord& r : ReadSpoolNew(opt.root, "", &seen)) {
      if (r.kind != "event") continue;
      print("event " + r.code + ": " + r.text);
      if (r.code == "205185" && r.text == dest) complete = true;
    }
  }
  double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  char summary[160];
  if (complete) {
    std::ifstream in(WinuxMapPath(dest), std::ios::binary | std::ios::ate);
    long long bytes = in ? static_cast<long long>(in.tellg()) : -1;
    snprintf(summary, sizeof summary, "pulled %lld bytes in %.1f s", bytes, seconds);
    print(summary);
    return kExitOk;
  }
  if (ended)
    snprintf(summary, sizeof summary,
             "pull failed: %d attempts, none succeeded (see the device log)", kAttempts);
  else
    snprintf(summary, sizeof summary, "pull did not finish within %.0f s", seconds);
  print(summary);
  return kExitFailed;
}

}  // namespace ftchost
