#include "verify.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "winux/winux_host.h"

namespace ftchost {

namespace {

uint32_t Crc32Of(const std::string& path, bool* ok) {
  static uint32_t table[256];
  static bool built = false;
  if (!built) {
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      table[n] = c;
    }
    built = true;
  }
  std::ifstream in(path, std::ios::binary);
  *ok = static_cast<bool>(in);
  uint32_t crc = 0xFFFFFFFFu;
  char buf[65536];
  while (in) {
    in.read(buf, sizeof buf);
    for (std::streamsize i = 0; i < in.gcount(); ++i)
      crc = table[(crc ^ static_cast<uint8_t>(buf[i])) & 0xFF] ^ (crc >> 8);
  }
  return crc ^ 0xFFFFFFFFu;
}

// The entries of the list file on the device: source, destination, masks, CRC, size.
std::vector<JobFile::File> ListedFiles(const std::string& devicePath) {
  std::ifstream in(WinuxMapPath(devicePath), std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  std::vector<std::string> tokens;
  std::string cur;
  for (char c : s.str() + ",") {
    if (c == ',' || c == '\r' || c == '\n') {
      if (!cur.empty()) tokens.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  std::vector<JobFile::File> files;
  for (size_t i = 0; i + 5 <= tokens.size(); i += 5)
    files.push_back({tokens[i], tokens[i + 1], tokens[i + 3], tokens[i + 2]});
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
    bool ok = false;
    uint32_t crc = host.empty() ? 0 : Crc32Of(host, &ok);
    FileCheck::State state = !ok               ? FileCheck::kAbsent
                             : crc == expected ? FileCheck::kMatch
                                               : FileCheck::kDamaged;
    checks.push_back({f.dest, host, state});
  }
  return checks;
}

}  // namespace ftchost
