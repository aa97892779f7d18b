// Downloads through the plug-in's CHTTPClient as the upgrade engine sets it up.
//   bench_http_get one http://HOST:PORT/PATH DEVICE_FILE
//   bench_http_get fetch http://HOST:PORT NAMES_FILE DEVICE_FOLDER
//     the engine's GetFile per name (one line each), a connection per file as the engine makes
//   bench_http_get validate HOST_FOLDER NAMES_FILE DEVICE_FOLDER
//     the engine's ValidateFiles over the names already on the device, CRCs from HOST_FOLDER
// WINUX_ROOT must name the device root the downloads are written under.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "common/crc32.h"
#include "config/UpgradeConfig.h"
#include "config/records.h"
#include "engine/completion.h"
#include "engine/file_list.h"
#include "engine/job_state.h"
#include "transfer/CHTTPClient.h"
#include "winux/winux_host.h"

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

std::vector<std::string> ReadNames(const char* file) {
  std::vector<std::string> names;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) names.push_back(line);
  return names;
}

std::string DevicePath(const std::string& folder, std::string name) {
  for (char& c : name)
    if (c == '/') c = '\\';
  return folder + "\\" + name;
}

void Copy(char* out, size_t capacity, const std::string& text) {
  std::snprintf(out, capacity, "%s", text.c_str());
}

// The engine's job, as far as GetFile and ValidateFiles read it.
struct Job {
  UpgradeConfig cfg;
  Job() { m_pUpgCfg = &cfg; }
  ~Job() {
    CleanupHTTPClient();
    m_pUpgCfg = nullptr;
  }
};

// One attempt per file (a failed one still counts as done); run.sh compares what arrived.
int Fetch(const char* base, const char* namesFile, const std::string& folder) {
  std::vector<std::string> names = ReadNames(namesFile);
  Job job;
  double c0 = bench::CpuSeconds();
  double t0 = bench::Now();
  for (const std::string& n : names) {
    std::string dest = DevicePath(folder, n);
    GetFile(const_cast<char*>(base), const_cast<char*>(n.c_str()), const_cast<char*>(dest.c_str()),
            0, 1);
  }
  double t1 = bench::Now();
  double c1 = bench::CpuSeconds();
  bench::Report("fetch", t1 - t0, CHTTPClient::GetBundleRxBytes(), 1);
  std::printf("files=%zu folder_reads=%lu cpu_seconds=%.6f\n", names.size(), WinuxFolderReads(),
              c1 - c0);
  return 0;
}

int Validate(const std::string& hostFolder, const char* namesFile, const std::string& folder) {
  std::vector<std::string> names = ReadNames(namesFile);
  Job job;
  unsigned long long bytes = 0;
  for (const std::string& n : names) {
    std::ifstream in(hostFolder + "/" + n, std::ios::binary);
    std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    tagDownloadFile* entry = NewRecord<tagDownloadFile>();
    if (!entry) return 1;
    Copy(entry->m_szSourceFile, sizeof entry->m_szSourceFile, n);
    Copy(entry->m_szDestFile, sizeof entry->m_szDestFile, DevicePath(folder, n));
    Copy(entry->m_szMCTMask, sizeof entry->m_szMCTMask, "*");
    Copy(entry->m_szCRC, sizeof entry->m_szCRC,
         std::to_string(ftc::Crc32(body.data(), body.size())));
    Copy(entry->m_szFileSize, sizeof entry->m_szFileSize, std::to_string(body.size()));
    job.cfg.AddDownloadFile(entry);
    bytes += body.size();
  }
  // Nothing may be fetched: the bundle is complete, so every file is only read and checked.
  job.cfg.SetBaseURL("http://127.0.0.1:1");
  CHTTPClient::SetBundleRxBytes(0);
  int usesRam = 0;
  double c0 = bench::CpuSeconds();
  double t0 = bench::Now();
  ValidateFiles(&job.cfg, &usesRam);
  double t1 = bench::Now();
  double c1 = bench::CpuSeconds();
  bool ok = CHTTPClient::GetBundleRxBytes() == static_cast<DWORD>(bytes);
  bench::Report("validate", t1 - t0, bytes, ok);
  std::printf("files=%zu cpu_seconds=%.6f\n", names.size(), c1 - c0);
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr,
                 "usage: bench_http_get one URL FILE | fetch BASE NAMES FOLDER | validate DATA "
                 "NAMES FOLDER\n");
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
  if (mode == "fetch" && argc >= 5) return Fetch(argv[2], argv[3], argv[4]);
  if (mode == "validate" && argc >= 5) return Validate(argv[2], argv[3], argv[4]);
  return 2;
}
