// The job's files on the device against the CRC-32s the job gives them.
#pragma once

#include <string>
#include <vector>

#include "job_file.h"

namespace ftchost {

struct FileCheck {
  enum State { kMatch, kDamaged, kAbsent };
  std::string dest;  // device path
  std::string host;  // where it lives under the root; "" when it cannot be mapped
  State state;
};

// Each file the job names with a CRC, its own and those of its list file as it now stands on
// the device; files held in memory are left out.
std::vector<FileCheck> CheckFiles(const JobFile& job);

}  // namespace ftchost
