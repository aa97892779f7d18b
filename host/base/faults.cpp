#include "base/faults.h"

#ifdef FTC_FAULTS
#include <fcntl.h>
#include <fiu-control.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#endif

namespace hostbase {

#ifdef FTC_FAULTS
namespace {

struct PointCount {
  const char* name;  // as enabled: lives as long as the process
  long hits;
};

std::mutex g_lock;
PointCount g_points[64];
size_t g_pointCount = 0;
long g_hits = 0;
long g_nth = 0;
bool g_kill = false;
const char* g_tally = nullptr;
const char* g_fired = nullptr;

// Under g_lock. Plain write(2): the file primitives carry points themselves.
void WriteTallyLocked() {
  if (!g_tally) return;
  std::string text =
      "hits " + std::to_string(g_hits) + "\nfired " + (g_fired ? g_fired : "-") + "\n";
  for (size_t i = 0; i < g_pointCount; ++i)
    text += std::string(g_points[i].name) + " " + std::to_string(g_points[i].hits) + "\n";
  int fd = open(g_tally, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  (void)!write(fd, text.data(), text.size());
  close(fd);
}

void WriteTally() {
  std::lock_guard<std::mutex> lock(g_lock);
  WriteTallyLocked();
}

// Every point, so that each is enabled under its own name: libfiu hands the callback the name
// enabled, not the point's.
const char* const kPoints[] = {
    "ftc/host/write",           "ftc/host/fsync",
    "ftc/host/rename",          "ftc/host/replacing",
    "ftc/download/write",       "ftc/registry/save",
    "ftc/spool/temp-written",   "ftc/spool/written",
    "ftc/plugin/socket-read",   "ftc/plugin/transfer-buffer",
    "ftc/plugin/bundle-write",  "ftc/server/read",
    "ftc/server/report-write",  "ftc/server/report-sync",
    "ftc/store/commit",         "ftc/store/committed",
    "ftc/agent/checkin",        "ftc/agent/fetched",
    "ftc/deliver/acknowledged",
};

int OnHit(const char* name, int*, void**, unsigned*) {
  std::lock_guard<std::mutex> lock(g_lock);
  size_t i = 0;
  while (i < g_pointCount && std::strcmp(g_points[i].name, name) != 0) ++i;
  if (i == g_pointCount && i < sizeof g_points / sizeof g_points[0])
    g_points[g_pointCount++] = {name, 0};
  if (i < g_pointCount) ++g_points[i].hits;
  if (++g_hits != g_nth) return 0;
  g_fired = name;  // one of kPoints
  if (g_kill) {
    WriteTallyLocked();
    raise(SIGKILL);
  }
  return 1;
}

}  // namespace

void ArmFaultsFromEnvironment() {
  fiu_init(0);
  const char* points = getenv("FTC_FAULT_POINTS");
  if (!points || !*points) return;
  const char* nth = getenv("FTC_FAULT_NTH");
  const char* action = getenv("FTC_FAULT_ACTION");
  g_nth = nth ? atol(nth) : 0;
  g_kill = action && strcmp(action, "kill") == 0;
  g_tally = getenv("FTC_FAULT_TALLY");
  if (g_tally) g_tally = strdup(g_tally);
  std::string pattern = points;
  bool prefix = !pattern.empty() && pattern.back() == '*';
  if (prefix) pattern.pop_back();
  for (const char* point : kPoints) {
    if (prefix ? std::strncmp(point, pattern.c_str(), pattern.size()) == 0 : pattern == point)
      fiu_enable_external(point, 1, nullptr, 0, OnHit);
  }
  atexit(WriteTally);
}
#else
void ArmFaultsFromEnvironment() {}
#endif

}  // namespace hostbase
