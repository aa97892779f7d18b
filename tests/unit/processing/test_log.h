// The plug-in's log file inside a test's device root.
#pragma once

#include <filesystem>
#include <string>

#include "support/device_root.h"

namespace proctest {

// The log's folder exists on a device; a fresh root needs it made.
inline void MakeLogFolder(const ftctest::DeviceRoot& root) {
  std::filesystem::create_directories(root.HostPath("/tmp"));
}

inline std::string ReadLog(const ftctest::DeviceRoot& root) {
  return root.ReadFile("/tmp/FileXfer.txt");
}

}  // namespace proctest
