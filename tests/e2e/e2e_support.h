// The end-to-end world: a real ftc-server serving a bundle folder, jobs submitted through the
// test host, and readers for what a job leaves on the device.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/job_watch.h"
#include "support/device_root.h"
#include "support/helpers.h"
#include "support/plugin_host.h"

namespace e2e {

// ftc-server serving dir and recording completion reports; port 0 picks a free one.
class Server : public ftctest::ServerProcess {
 public:
  Server(const std::string& dir, uint16_t port = 0);
  std::string Reports() const { return ftctest::ReadHostFile(m_reports); }

 private:
  std::string m_reports;
};

// A temporary bundle folder.
class Bundle {
 public:
  Bundle();
  ~Bundle();
  const std::string& dir() const { return m_dir; }
  // Writes a file (relative path, slashes) and returns its CRC-32.
  uint32_t Add(const std::string& rel, const std::string& content);

 private:
  std::string m_dir;
};

// A job whose pre-flight registry test fails ("not ready"), so its start is refused.
extern const char kRefusedJob[];

struct File {
  std::string source, dest, crc, mask = "*";
};

struct Job {
  std::string baseUrl;
  uint16_t port = 80;
  std::vector<File> files;
  bool hasList = false;
  File list;
  int reboot = 0;
  std::string bundle = "E2E";
  std::string version = "1.0";
};

// Builds the job through the groups and closes Upgrade; the start result (0 when accepted).
// Set up a JobWatch before it to follow the job.
uint32_t Submit(ftctest::PluginHost& host, const Job& job);
// Submits the job and waits (real time) for its end as ftc-host learns it; a refused start is
// a failure.
ftchost::JobOutcome RunJob(ftctest::PluginHost& host, const Job& job,
                           std::chrono::milliseconds limit = std::chrono::seconds(30));

// The job ftc-bundle writes for the files under dir, fetched from server, with extra options.
std::string MakeJob(const std::string& dir, const std::string& server,
                    const std::string& extra = "");

struct HostRun {
  int exit = -1;
  std::string output;  // stdout and stderr together
};
// Runs ftc-host with args to its end.
HostRun Launch(const std::vector<std::string>& args);

}  // namespace e2e
