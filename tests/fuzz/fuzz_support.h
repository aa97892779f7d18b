// Shared by the fuzz targets: one device root per run, checks that stop with a message, a reader
// that turns fuzz bytes into choices, and the bounds every job record keeps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "config/UpgradeConfig.h"
#include "support/device_root.h"

// A broken property: say which, then abort so the driver keeps the input.
#define FUZZ_EXPECT(cond)                                                                  \
  (void)((cond) ||                                                                         \
         (std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond), \
          std::abort(), false))

namespace ftcfuzz {

// The device root for the whole run, set before any target starts; a tiny time scale so platform
// sleeps cost nothing.
inline ftctest::DeviceRoot& Root() {
  static ftctest::DeviceRoot root(0.0001);
  return root;
}
inline ftctest::DeviceRoot& g_root = Root();

// Consumes fuzz bytes front to back; past the end every read gives zeros or empty texts.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  bool Empty() const { return m_pos >= m_size; }
  uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
  // A number in [0, n).
  size_t Below(size_t n) {
    size_t high = Byte();
    return (high << 8 | Byte()) % (n ? n : 1);
  }
  // Bytes up to the next delimiter (dropped) or the end; NULs are kept.
  std::string Until(uint8_t delimiter) {
    const uint8_t* from = m_data + m_pos;
    while (m_pos < m_size && m_data[m_pos] != delimiter) ++m_pos;
    std::string out(from, m_data + m_pos);
    if (m_pos < m_size) ++m_pos;
    return out;
  }
  std::string Rest() {
    size_t from = std::exchange(m_pos, m_size);
    return std::string(m_data + from, m_data + m_size);
  }
  // One of the blank-separated words.
  std::string Word(const char* words) {
    std::vector<std::string> all;
    std::istringstream in(words);
    for (std::string w; in >> w;) all.push_back(w);
    return all[Below(all.size())];
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
};

inline void Bounded(const char* text, size_t capacity) {
  FUZZ_EXPECT(text && strnlen(text, capacity) < capacity);
}
template <size_t... N>
void Bounded(const char (&... texts)[N]) {
  (Bounded(texts, N), ...);
}

inline void CheckRecord(const tagDownloadFile& f) {
  Bounded(f.m_szSourceFile, f.m_szDestFile, f.m_szCRC, f.m_szMCTMask, f.m_szFileSize);
}
inline void CheckRecord(const tagRegistryEntry& r) {
  Bounded(r.m_szRoot, r.m_szKey, r.m_szValueName, r.m_szValue, r.m_szType, r.m_szErrorMsg,
          r.m_szOperator);
}
inline void CheckRecord(const tagStorageReq& s) {
  Bounded(s.m_szName, s.m_szRequiredSpace);
}
inline void CheckRecord(const tagPullFileEntry& p) {
  Bounded(p.m_szSrcUrl, p.m_szSrcFile, p.m_szDestFile, p.m_szFileID);
}

// Every text of a job and of its lists ends inside its field.
inline void CheckJob(const UpgradeConfig& c) {
  const std::pair<const char*, size_t> fields[] = {
      {c.GetHTTPIPAddress(), 24},   {c.GetBaseURL(), 256},      {c.GetMCIp(), 24},
      {c.GetMCProcessParms(), 256}, {c.GetVersion(), 128},      {c.GetPackageName(), 128},
      {c.GetBundleName(), 256},     {c.GetProcessName(), 256},  {c.GetProcessParms(), 256},
      {c.GetSysLogIP(), 32},        {c.GetFlashFileDir(), 128}, {c.GetInfFilePath(), 256},
      {c.GetInfFileName(), 64},     {c.GetUpgBeginMsg(), 64},   {c.GetUpgEndMsg(), 64},
      {c.GetFlashFileStore(), 64},
  };
  for (const auto& [text, capacity] : fields) Bounded(text, capacity);
  for (const tagDownloadFile* f : c.GetDownloadFiles()) CheckRecord(*f);
  if (const tagDownloadFile* f = c.GetMCFileList()) CheckRecord(*f);
  for (const tagRegistryEntry* r : c.GetRegistryTests()) CheckRecord(*r);
  for (const tagStorageReq* s : c.GetStorageReqs()) CheckRecord(*s);
  for (const FirmwarePackage* p : c.GetFirmwarePkgs())
    for (const char* text : {p->getFragFileBase(), p->getFragFileDestDir(), p->getFragFilePath(),
                             p->getFlashWriterParms(), p->getAdditionalParms()})
      Bounded(text, 256);
  FUZZ_EXPECT(c.GetFirmwarePkgCount() >= static_cast<int32_t>(c.GetFirmwarePkgs().size()));
}

}  // namespace ftcfuzz
