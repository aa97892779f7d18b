// The multicast list file comes from the network: any bytes must parse without overrunning a
// record. Built as a libFuzzer target with clang; otherwise replays the files it is given.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>

#include "config/UpgradeConfig.h"
#include "engine/upgrade.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  UpgradeConfig cfg;
  ParseFileList(&cfg, reinterpret_cast<const char*>(data), size);
  for (const tagDownloadFile* f : cfg.GetDownloadFiles()) {
    // Every field must stay terminated inside its record.
    if (strnlen(f->m_szSourceFile, sizeof f->m_szSourceFile) == sizeof f->m_szSourceFile ||
        strnlen(f->m_szMCTMask, sizeof f->m_szMCTMask) == sizeof f->m_szMCTMask ||
        strnlen(f->m_szFileSize, sizeof f->m_szFileSize) == sizeof f->m_szFileSize)
      __builtin_trap();
    char masks[sizeof f->m_szMCTMask];
    memcpy(masks, f->m_szMCTMask, sizeof masks);
    for (char* m = strtok(masks, " ;"); m; m = strtok(nullptr, " ;")) IsMCTMaskMatch(m, "AB12CD");
  }
  return 0;
}

#ifndef FTC_LIBFUZZER
int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    std::string bytes = s.str();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  return 0;
}
#endif
