// A bundle folder as devices take it: its files with their CRCs, and the job document that
// points a device's plug-in at them. Shared by ftc-bundle and the server's deployments.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ftcserver {

struct BundleFile {
  std::string rel;  // '/'-separated, relative to the bundle folder
  unsigned long long size = 0;
  uint32_t crc = 0;
};

struct ServerUrl {
  std::string host;
  unsigned port = 0;
  std::string base;  // "http://host:port[/path]" without a trailing slash
};

struct BundleJob {
  std::string dir, server, dest, mask = "*", bundle, version, list, listDest;
  std::string multicast;  // the receiver's parameter text; empty: no multicast session
  bool reboot = false;
};

constexpr const char* kDefaultListName = "filelist.txt";

// Regular files below `dir`, sorted by relative path.
bool ScanBundle(const std::string& dir, std::vector<BundleFile>* out, std::string* error);
// Source as the device will put it in its request line.
std::string UrlPath(const std::string& rel);
std::string DevicePath(const std::string& prefix, const std::string& rel);
// Why a device record or the list file cannot carry this file, "" when it can.
std::string CheckRepresentable(const BundleFile& f, const std::string& dest, bool forList);
void WarnIfUnchecked(const BundleFile& f, const char* tool);
std::optional<ServerUrl> ParseServerUrl(const std::string& url);

// The job document for the folder; false with *error when it cannot be written. Warnings go to
// standard error under `tool`'s name.
bool WriteBundleJob(const BundleJob& job, const char* tool, std::string* xml, std::string* error);

}  // namespace ftcserver
