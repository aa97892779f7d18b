// The multicast list file comes off the network: any bytes must parse into records whose texts
// end inside their fields, and whose masks match against the device's text without harm.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "engine/file_list.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  UpgradeConfig cfg;
  ParseFileList(&cfg, reinterpret_cast<const char*>(data), size);
  // A record takes five tokens with separators between: no more records than that.
  FUZZ_EXPECT(cfg.GetDownloadFiles().size() <= size / 9);
  for (const tagDownloadFile* f : cfg.GetDownloadFiles()) {
    ftcfuzz::CheckRecord(*f);
    char masks[sizeof f->m_szMCTMask];
    std::memcpy(masks, f->m_szMCTMask, sizeof masks);
    char* save = nullptr;
    for (char* m = strtok_r(masks, " ;", &save); m; m = strtok_r(nullptr, " ;", &save))
      IsMCTMaskMatch(m, "AB12CD");
  }
  return 0;
}
