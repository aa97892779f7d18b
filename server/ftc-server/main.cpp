// ftc-server [--config FILE] --root BUNDLE_DIR [--bind 127.0.0.1] [--port N] [--reports FILE]
//            [--db URL] [--threads N] [--idle-timeout SEC] [--check-in SEC]
//            [--admin-bind ADDRESS:PORT] [--verbose]
// ftc-server fleet|events --db URL ...: the operator's views of the store
// ftc-server deploy ...: jobs handed to devices in phases
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/faults.h"
#include "common/http.h"
#include "server.h"
#include "service/daemon.h"
#include "views.h"

namespace {

using ftcservice::Level;
using ftcservice::Log;

constexpr char kDefaultConfig[] = "/etc/ftc/server.conf";

int Usage(const char* error) {
  if (error) std::fprintf(stderr, "ftc-server: %s\n", error);
  std::fprintf(
      error ? stderr : stdout,
      "usage: ftc-server [--config FILE] --root BUNDLE_DIR [--bind ADDRESS] [--port N]\n"
      "                  [--reports FILE]\n"
      "                  [--db sqlite:PATH|postgresql://...] [--threads N]\n"
      "                  [--idle-timeout SEC] [--check-in SEC] [--admin-bind ADDRESS:PORT]\n"
      "                  [--verbose]\n"
      "       ftc-server fleet --db URL [--json] [--stale MINUTES]\n"
      "       ftc-server events --db URL [--device ID] [--since TIME] [--json]\n"
      "       ftc-server deploy create|list|show|pause|resume|cancel ...\n"
      "       ftc-server --version\n"
      "Serves the bundle folder to devices, records their reports and hands out deployments.\n"
      "Settings come from FILE (default %s when it exists) as key = value lines named like\n"
      "the options (root = /srv/bundle, verbose = true); options given here override them.\n"
      "With --admin-bind the fleet page and /metrics are served on that address. SIGHUP\n"
      "rereads verbose, idle-timeout and check-in and reopens the reports file.\n",
      kDefaultConfig);
  return error ? 2 : 0;
}

bool ParseNumber(const char* text, unsigned long long max, unsigned long long* out) {
  auto v = ftcserver::ParseDecimal(text ? text : "");
  if (!v || *v > max) return false;
  *out = *v;
  return true;
}

// The file's flags first, then the command line's, so that the latter win. "" or an error text.
std::string ReadOptions(std::vector<std::string> args, ftcserver::Options* opt, bool* help) {
  std::string config, error;
  if (error = ftcservice::TakeConfigPath(&args, kDefaultConfig, &config); !error.empty())
    return error;
  std::vector<std::string> all;
  if (!config.empty())
    if (error = ftcservice::ConfigFlags(config, {"verbose"}, &all); !error.empty()) return error;
  all.insert(all.end(), args.begin(), args.end());
  bool haveRoot = false;
  for (size_t i = 0; i < all.size(); ++i) {
    const std::string& a = all[i];
    const char* v = i + 1 < all.size() ? all[i + 1].c_str() : nullptr;
    unsigned long long n = 0;
    if (a == "--verbose") {
      opt->verbose = true;
      continue;
    }
    if (a == "--help" || a == "-h") return *help = true, "";
    if (!v) return "missing value for " + a;
    ++i;
    if (a == "--root") {
      opt->root = v;
      haveRoot = true;
    } else if (a == "--bind") {
      opt->bind = v;
    } else if (a == "--port") {
      if (!ParseNumber(v, 65535, &n)) return "bad --port";
      opt->port = static_cast<uint16_t>(n);
    } else if (a == "--reports") {
      opt->reports = v;
    } else if (a == "--db") {
      opt->db = v;
    } else if (a == "--threads") {
      if (!ParseNumber(v, 256, &n)) return "bad --threads";
      opt->threads = static_cast<unsigned>(n);
    } else if (a == "--admin-bind") {
      opt->adminBind = v;
    } else if (a == "--check-in") {
      if (!ParseNumber(v, 86400, &n) || n == 0) return "bad --check-in";
      opt->checkInSec = static_cast<unsigned>(n);
    } else if (a == "--idle-timeout") {
      if (!ParseNumber(v, 86400, &n)) return "bad --idle-timeout";
      opt->idleTimeoutSec = static_cast<unsigned>(n);
    } else {
      return "unknown option " + a;
    }
  }
  if (!haveRoot) return "--root is required";
  return {};
}

// The operator's commands find the store (and a new deployment its bundle folder and the
// server's address) in the server's own settings unless they are named.
std::vector<std::string> WithServerSettings(const char* command, std::vector<std::string> args) {
  auto has = [&](const char* flag) {
    return std::find(args.begin(), args.end(), flag) != args.end();
  };
  std::string config;
  if (!ftcservice::TakeConfigPath(&args, kDefaultConfig, &config).empty() || config.empty())
    return args;
  ftcserver::Options opt;
  bool help = false;
  if (!ReadOptions({"--config", config}, &opt, &help).empty()) return args;
  if (!has("--db"))
    args.insert(args.end(), {"--db", opt.db.empty() ? "sqlite:" + opt.root + ".fleet.db" : opt.db});
  if (std::strcmp(command, "deploy") == 0 && !args.empty() && args[0] == "create") {
    if (!has("--root")) args.insert(args.end(), {"--root", opt.root});
    bool wildcard = opt.bind == "0.0.0.0" || opt.bind == "::" || opt.bind.empty();
    if (!has("--server") && !wildcard)
      args.insert(
          args.end(),
          {"--server",
           "http://" + (opt.bind.find(':') != std::string::npos ? "[" + opt.bind + "]" : opt.bind) +
               ":" + std::to_string(opt.port)});
  }
  return args;
}

}  // namespace

int main(int argc, char** argv) {
  hostbase::ArmFaultsFromEnvironment();
  if (argc > 1 && std::strcmp(argv[1], "--version") == 0)
    return ftcservice::PrintVersion("ftc-server"), 0;
  std::vector<std::string> args(argv + 1, argv + argc);
  if (argc > 1 && std::strcmp(argv[1], "deploy") == 0)
    return ftcserver::DeployCommand(WithServerSettings(argv[1], {args.begin() + 1, args.end()}));
  if (argc > 1 && (std::strcmp(argv[1], "fleet") == 0 || std::strcmp(argv[1], "events") == 0)) {
    std::vector<std::string> rest = WithServerSettings(argv[1], {args.begin() + 1, args.end()});
    return argv[1][0] == 'f' ? ftcserver::FleetView(rest) : ftcserver::EventsView(rest);
  }
  ftcserver::Options opt;
  bool help = false;
  if (std::string e = ReadOptions(args, &opt, &help); !e.empty()) return Usage(e.c_str());
  if (help) return Usage(nullptr);

  // Thousands of devices: one descriptor each, plus one per file being sent.
  rlimit rl{};
  if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
  }
  signal(SIGPIPE, SIG_IGN);
  // Blocked before any thread starts so that only the signalfd below sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  int sfd = signalfd(-1, &signals, SFD_CLOEXEC);
  if (sfd < 0) {
    std::perror("ftc-server: signalfd");
    return 1;
  }

  ftcserver::Server server(opt);
  if (std::string e = server.Start(); !e.empty()) {
    Log(Level::kError, "ftc-server: %s", e.c_str());
    return 1;
  }
  // Said before the workers run: a fault that kills the server at its first request must not
  // lose the line that says where it listens.
  std::printf("listening on %s\n", server.ListenAddress().c_str());
  if (!opt.adminBind.empty())
    std::printf("fleet page on http://%s/\n", server.AdminAddress().c_str());
  std::fflush(stdout);
  server.Run();
  ftcservice::NotifyReady();

  // The watchdog hears from us only while every worker's loop keeps turning.
  uint64_t ping = ftcservice::WatchdogPingUsec();
  int waitMs = ping ? static_cast<int>(std::max<uint64_t>(ping / 1000, 1)) : -1;
  int64_t within = std::max<int64_t>(2, static_cast<int64_t>(ping / 1000000));
  signalfd_siginfo si{};
  for (;;) {
    pollfd p{sfd, POLLIN, 0};
    int n = poll(&p, 1, waitMs);
    if (n < 0 && errno != EINTR) break;
    if (ping && server.Responsive(within)) ftcservice::NotifyWatchdog();
    if (n <= 0) continue;
    if (read(sfd, &si, sizeof si) != sizeof si) continue;
    if (si.ssi_signo != SIGHUP) break;
    ftcservice::NotifyReloading();
    ftcserver::Options now;
    if (std::string e = ReadOptions(args, &now, &help); !e.empty())
      Log(Level::kWarning, "ftc-server: settings not reloaded: %s", e.c_str());
    else if (std::string r = server.Reload(now); !r.empty())
      Log(Level::kError, "ftc-server: %s", r.c_str());
    else
      Log(Level::kInfo, "ftc-server: settings reloaded");
    ftcservice::NotifyReady();
  }
  ftcservice::NotifyStopping();
  server.Stop();
  server.Wait();
  close(sfd);
  if (opt.verbose) std::fprintf(stderr, "ftc-server: stopped on signal %u\n", si.ssi_signo);
  return 0;
}
