// Timing and memory figures shared by the benchmark programs.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <cstdio>

namespace bench {

inline double Now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// User and system time of this process so far.
inline double CpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

inline long MaxRssKiB() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// One result line: key=value pairs that run.sh reads.
inline void Report(const char* what, double seconds, unsigned long long bytes, int ok) {
  std::printf("%s ok=%d seconds=%.6f bytes=%llu mbps=%.1f maxrss_kib=%ld\n", what, ok, seconds,
              bytes, seconds > 0 ? bytes / seconds / 1e6 : 0.0, MaxRssKiB());
  std::fflush(stdout);
}

}  // namespace bench
