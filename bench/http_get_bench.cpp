// Downloads through the plug-in's CHTTPClient as the upgrade engine sets it up.
//   bench_http_get one http://HOST:PORT/PATH DEVICE_FILE
//   bench_http_get list http://HOST:PORT NAMES_FILE DEVICE_FOLDER   (one name per line)
// WINUX_ROOT must name the device root the downloads are written under.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "transfer/CHTTPClient.h"

namespace {

std::wstring Wide(const std::string& s) {
  return std::wstring(s.begin(), s.end());
}

void Configure(CHTTPClient& c) {
  c.Init();
  c.SetTimeout(20000);
  c.SetPerformChecksum(1);
  c.SetWorkingSemaphore(nullptr);
  c.SetType("BENCH");
  c.SetFamily("BENCH");
  c.SetModel("BENCH");
  c.SetSerialNum("0");
  c.SetCoreName("BENCH-CORE");
  if (const char* size = std::getenv("BENCH_XFER_BUFFER")) c.SetXferBufferSize(std::atoi(size));
}

// One request as the engine's GetFile makes it: open (or reuse) the connection, then Get.
bool Fetch(CHTTPClient& c, const std::string& url, const std::string& deviceFile) {
  wchar_t path[256] = {0};
  if (!c.OpenURL(Wide(url).c_str(), path)) return false;
  return c.Get(path, Wide(deviceFile).c_str()) != 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: bench_http_get one URL DEVICE_FILE | list BASE NAMES FOLDER\n");
    return 2;
  }
  std::string mode = argv[1];
  CHTTPClient client;
  Configure(client);
  if (mode == "one") {
    double t0 = bench::Now();
    bool ok = Fetch(client, argv[2], argv[3]);
    double t1 = bench::Now();
    bench::Report("get", t1 - t0, CHTTPClient::GetBundleRxBytes(), ok);
    return ok ? 0 : 1;
  }
  if (mode == "list" && argc >= 5) {
    std::vector<std::string> names;
    std::ifstream in(argv[3]);
    for (std::string line; std::getline(in, line);)
      if (!line.empty()) names.push_back(line);
    std::string base = argv[2], folder = argv[4];
    int good = 0;
    double t0 = bench::Now();
    for (const std::string& n : names) good += Fetch(client, base + "/" + n, folder + "\\" + n);
    double t1 = bench::Now();
    bench::Report("list", t1 - t0, CHTTPClient::GetBundleRxBytes(),
                  good == static_cast<int>(names.size()));
    std::printf("files=%zu good=%d\n", names.size(), good);
    return good == static_cast<int>(names.size()) ? 0 : 1;
  }
  return 2;
}
