// The multicast list file comes off the network: any bytes must parse into records whose texts
// stay terminated, five tokens to a record, each token cut at its field's capacity.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "config/UpgradeConfig.h"
#include "engine/upgrade.h"
#include "fuzz/fuzz_support.h"

namespace {

// The list's grammar written out independently: tokens between commas and line ends, up to
// the first NUL.
std::vector<std::string> Tokens(const char* text, size_t size) {
  std::vector<std::string> out;
  std::string token;
  for (size_t i = 0; i < size && text[i]; ++i) {
    char c = text[i];
    if (c == ',' || c == '\r' || c == '\n') {
      if (!token.empty()) out.push_back(token);
      token.clear();
    } else {
      token += c;
    }
  }
  if (!token.empty()) out.push_back(token);
  return out;
}

void ExpectField(const char* field, size_t capacity, const std::string& token) {
  FUZZ_EXPECT(strnlen(field, capacity) < capacity);
  FUZZ_EXPECT(std::string(field) == token.substr(0, capacity - 1));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ftcfuzz::Root();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  UpgradeConfig cfg;
  ParseFileList(&cfg, text, size);

  std::vector<std::string> tokens = Tokens(text, size);
  const std::vector<tagDownloadFile*>& files = cfg.GetDownloadFiles();
  FUZZ_EXPECT(files.size() == tokens.size() / 5);
  for (size_t n = 0; n < files.size(); ++n) {
    const tagDownloadFile* f = files[n];
    const std::string* t = &tokens[n * 5];
    ExpectField(f->m_szSourceFile, sizeof f->m_szSourceFile, t[0]);
    ExpectField(f->m_szDestFile, sizeof f->m_szDestFile, t[1]);
    ExpectField(f->m_szMCTMask, sizeof f->m_szMCTMask, t[2]);
    ExpectField(f->m_szCRC, sizeof f->m_szCRC, t[3]);
    ExpectField(f->m_szFileSize, sizeof f->m_szFileSize, t[4]);
    // The masks are matched against the device's text as the validation does.
    char masks[sizeof f->m_szMCTMask];
    std::memcpy(masks, f->m_szMCTMask, sizeof masks);
    char* save = nullptr;
    for (char* m = strtok_r(masks, " ;", &save); m; m = strtok_r(nullptr, " ;", &save))
      IsMCTMaskMatch(m, "AB12CD");
  }
  return 0;
}
