// ftc-server --root BUNDLE_DIR [--bind 127.0.0.1] [--port N] [--reports FILE] [--db URL]
//            [--threads N] [--idle-timeout SEC] [--check-in SEC] [--admin-bind ADDRESS:PORT]
//            [--verbose]
// ftc-server fleet|events --db URL ...: the operator's views of the store
// ftc-server deploy ...: jobs handed to devices in phases
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/faults.h"
#include "common/http.h"
#include "server.h"
#include "views.h"

namespace {

int Usage(const char* error) {
  if (error) std::fprintf(stderr, "ftc-server: %s\n", error);
  std::fprintf(
      stderr,
      "usage: ftc-server --root BUNDLE_DIR [--bind ADDRESS] [--port N] [--reports FILE]\n"
      "                  [--db sqlite:PATH|postgresql://...] [--threads N]\n"
      "                  [--idle-timeout SEC] [--check-in SEC] [--admin-bind ADDRESS:PORT]\n"
      "                  [--verbose]\n"
      "       ftc-server fleet --db URL [--json] [--stale MINUTES]\n"
      "       ftc-server events --db URL [--device ID] [--since TIME] [--json]\n"
      "       ftc-server deploy create|list|show|pause|resume|cancel ...\n");
  return 2;
}

bool ParseNumber(const char* text, unsigned long long max, unsigned long long* out) {
  auto v = ftcserver::ParseDecimal(text ? text : "");
  if (!v || *v > max) return false;
  *out = *v;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  hostbase::ArmFaultsFromEnvironment();
  if (argc > 1 && std::strcmp(argv[1], "deploy") == 0)
    return ftcserver::DeployCommand(std::vector<std::string>(argv + 2, argv + argc));
  if (argc > 1 && (std::strcmp(argv[1], "fleet") == 0 || std::strcmp(argv[1], "events") == 0)) {
    std::vector<std::string> args(argv + 2, argv + argc);
    return argv[1][0] == 'f' ? ftcserver::FleetView(args) : ftcserver::EventsView(args);
  }
  ftcserver::Options opt;
  bool haveRoot = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    unsigned long long n = 0;
    if (a == "--verbose") {
      opt.verbose = true;
      continue;
    }
    if (a == "--help" || a == "-h") return Usage(nullptr), 0;
    if (!v) return Usage(("missing value for " + a).c_str());
    ++i;
    if (a == "--root") {
      opt.root = v;
      haveRoot = true;
    } else if (a == "--bind") {
      opt.bind = v;
    } else if (a == "--port") {
      if (!ParseNumber(v, 65535, &n)) return Usage("bad --port");
      opt.port = static_cast<uint16_t>(n);
    } else if (a == "--reports") {
      opt.reports = v;
    } else if (a == "--db") {
      opt.db = v;
    } else if (a == "--threads") {
      if (!ParseNumber(v, 256, &n)) return Usage("bad --threads");
      opt.threads = static_cast<unsigned>(n);
    } else if (a == "--admin-bind") {
      opt.adminBind = v;
    } else if (a == "--check-in") {
      if (!ParseNumber(v, 86400, &n) || n == 0) return Usage("bad --check-in");
      opt.checkInSec = static_cast<unsigned>(n);
    } else if (a == "--idle-timeout") {
      if (!ParseNumber(v, 86400, &n)) return Usage("bad --idle-timeout");
      opt.idleTimeoutSec = static_cast<unsigned>(n);
    } else {
      return Usage(("unknown option " + a).c_str());
    }
  }
  if (!haveRoot) return Usage("--root is required");

  // Thousands of devices: one descriptor each, plus one per file being sent.
  rlimit rl{};
  if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
  }
  signal(SIGPIPE, SIG_IGN);
  // Blocked before any thread starts so that only the signalfd below sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  int sfd = signalfd(-1, &stopSignals, SFD_CLOEXEC);
  if (sfd < 0) {
    std::perror("ftc-server: signalfd");
    return 1;
  }

  ftcserver::Server server(opt);
  if (std::string e = server.Start(); !e.empty()) {
    std::fprintf(stderr, "ftc-server: %s\n", e.c_str());
    return 1;
  }
  server.Run();
  std::printf("listening on %s\n", server.ListenAddress().c_str());
  if (!opt.adminBind.empty())
    std::printf("fleet page on http://%s/\n", server.AdminAddress().c_str());
  std::fflush(stdout);

  signalfd_siginfo si{};
  while (read(sfd, &si, sizeof si) < 0 && errno == EINTR) {
  }
  server.Stop();
  server.Wait();
  close(sfd);
  if (opt.verbose) std::fprintf(stderr, "ftc-server: stopped on signal %u\n", si.ssi_signo);
  return 0;
}
