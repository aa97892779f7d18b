// A temporary device root per test case, and the paths of the built programs.
#pragma once

#include <string>

namespace ftctest {

// Creates a fresh root, points WINUX_ROOT and WINUX_TIME_SCALE at it for this process, and
// removes it at the end of the case (kept when FTC_KEEP_ROOT is set, for post-mortems).
class DeviceRoot {
 public:
  explicit DeviceRoot(double timeScale = 0.001);
  ~DeviceRoot();
  DeviceRoot(const DeviceRoot&) = delete;
  DeviceRoot& operator=(const DeviceRoot&) = delete;

  const std::string& path() const { return m_path; }
  // Where a device path ("\Flash File Store\a.bin") lives on the host, spelled as given.
  std::string HostPath(const std::string& devicePath) const;
  void WriteFile(const std::string& devicePath, const std::string& content) const;
  std::string ReadFile(const std::string& devicePath) const;
  bool Exists(const std::string& devicePath) const;
  // Writes <root>/.winux/identity from "key=value" lines.
  void WriteIdentity(const std::string& lines) const;
  // The text of the registry hive, "" when none was saved.
  std::string ReadHive() const;
  // The plug-in's local log ("/tmp/FileXfer.txt" on the device), "" when there is none.
  std::string Log() const { return ReadFile("/tmp/FileXfer.txt"); }

 private:
  std::string m_path;
};

// The build tree the tests run from (bin/ and lib/ below it).
std::string BuildDir();
std::string BinDir();
std::string LibDir();

// Whole contents of a host file, "" when it cannot be read.
std::string ReadHostFile(const std::string& path);
void WriteHostFile(const std::string& path, const std::string& content);

}  // namespace ftctest
