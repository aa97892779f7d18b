// FTCCCRC32::FileCRC32 against zlib's crc32() over the same cached file.
//   bench_crc DEVICE_FILE HOST_FILE [ROUNDS]
// The device path is the same file as seen through WINUX_ROOT.
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench_util.h"
#include "transfer/FTCCCRC32.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: bench_crc DEVICE_FILE HOST_FILE [ROUNDS]\n");
    return 2;
  }
  std::string device = argv[1];
  std::wstring wdevice(device.begin(), device.end());
  int rounds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 3;

  // Best of several rounds: the page cache is warm after the first.
  double bestPlugin = 1e9, bestZlib = 1e9;
  DWORD pluginCrc = 0;
  uLong zlibCrc = 0;
  unsigned long long size = 0;
  for (int r = 0; r < rounds; ++r) {
    FTCCCRC32 crc;
    DWORD value = 0;
    double t0 = bench::Now();
    DWORD err = crc.FileCRC32(wdevice.c_str(), value);
    double t1 = bench::Now();
    if (err != 0) {
      std::fprintf(stderr, "FileCRC32 failed: %u\n", err);
      return 1;
    }
    pluginCrc = value;
    bestPlugin = std::min(bestPlugin, t1 - t0);

    int fd = open(argv[2], O_RDONLY);
    if (fd < 0) return 1;
    constexpr size_t kChunk = 1 << 20;
    std::unique_ptr<unsigned char[]> buf(new unsigned char[kChunk]);
    uLong z = crc32(0L, Z_NULL, 0);
    size = 0;
    t0 = bench::Now();
    for (ssize_t n; (n = read(fd, buf.get(), kChunk)) > 0; size += n)
      z = crc32(z, buf.get(), static_cast<uInt>(n));
    t1 = bench::Now();
    close(fd);
    zlibCrc = z;
    bestZlib = std::min(bestZlib, t1 - t0);
  }
  bench::Report("filecrc32", bestPlugin, size, pluginCrc == zlibCrc);
  bench::Report("zlib", bestZlib, size, 1);
  std::printf("crc plugin=%u zlib=%lu\n", pluginCrc, zlibCrc);
  return pluginCrc == zlibCrc ? 0 : 1;
}
