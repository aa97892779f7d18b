#include "verify.h"

#include <cstdint>
#include <cstdlib>
#include <optional>

#include "base/files.h"
#include "common/list_file.h"
#include "winux/winux_host.h"

namespace ftchost {

namespace {

// The entries of the list file on the device, read as the plug-in reads them.
std::vector<JobFile::File> ListedFiles(const std::string& devicePath) {
  std::string text;
  (void)hostbase::ReadWholeFile(WinuxMapPath(devicePath), &text);
  std::vector<JobFile::File> files;
  ftc::ListFileReader reader(text);
  ftc::ListEntry e;
  while (reader.Next(&e))
    files.push_back(
        {std::string(e.source), std::string(e.dest), std::string(e.crc), std::string(e.masks)});
  return files;
}

}  // namespace

std::vector<FileCheck> CheckFiles(const JobFile& job) {
  std::vector<JobFile::File> files = job.files;
  if (job.hasListFile) {
    std::vector<JobFile::File> listed = ListedFiles(job.listFile.dest);
    files.insert(files.end(), listed.begin(), listed.end());
  }
  std::vector<FileCheck> checks;
  for (const JobFile::File& f : files) {
    uint32_t expected = static_cast<uint32_t>(strtoul(f.crc.c_str(), nullptr, 10));
    if (expected == 0 || f.dest.rfind("RAM:", 0) == 0) continue;
    std::string host = WinuxMapPath(f.dest);
    std::optional<uint32_t> crc;
    if (!host.empty()) crc = hostbase::FileCrc32(host);
    FileCheck::State state = !crc               ? FileCheck::kAbsent
                             : *crc == expected ? FileCheck::kMatch
                                                : FileCheck::kDamaged;
    checks.push_back({f.dest, host, state});
  }
  return checks;
}

}  // namespace ftchost
