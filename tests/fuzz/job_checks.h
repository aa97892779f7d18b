// Checks shared by the targets that build a job: every text of the record and of its lists
// ends inside its field.
#pragma once

#include <cstddef>
#include <cstring>

#include "config/UpgradeConfig.h"
#include "fuzz/fuzz_support.h"
#include "processing/QVProcessingHandler.h"

namespace ftcfuzz {

inline void Bounded(const char* text, size_t capacity) {
  FUZZ_EXPECT(text && strnlen(text, capacity) < capacity);
}

inline void CheckDownload(const tagDownloadFile& f) {
  Bounded(f.m_szSourceFile, sizeof f.m_szSourceFile);
  Bounded(f.m_szDestFile, sizeof f.m_szDestFile);
  Bounded(f.m_szCRC, sizeof f.m_szCRC);
  Bounded(f.m_szMCTMask, sizeof f.m_szMCTMask);
  Bounded(f.m_szFileSize, sizeof f.m_szFileSize);
}

inline void CheckRegistryTest(const tagRegistryEntry& r) {
  Bounded(r.m_szRoot, sizeof r.m_szRoot);
  Bounded(r.m_szKey, sizeof r.m_szKey);
  Bounded(r.m_szValueName, sizeof r.m_szValueName);
  Bounded(r.m_szValue, sizeof r.m_szValue);
  Bounded(r.m_szType, sizeof r.m_szType);
  Bounded(r.m_szErrorMsg, sizeof r.m_szErrorMsg);
  Bounded(r.m_szOperator, sizeof r.m_szOperator);
}

inline void CheckStorageReq(const tagStorageReq& s) {
  Bounded(s.m_szName, sizeof s.m_szName);
  Bounded(s.m_szRequiredSpace, sizeof s.m_szRequiredSpace);
}

inline void CheckJob(const UpgradeConfig& c) {
  const struct {
    const char* text;
    size_t capacity;
  } fields[] = {
      {c.GetHTTPIPAddress(), 24},   {c.GetBaseURL(), 256},      {c.GetMCIp(), 24},
      {c.GetMCProcessParms(), 256}, {c.GetVersion(), 128},      {c.GetPackageName(), 128},
      {c.GetBundleName(), 256},     {c.GetProcessName(), 256},  {c.GetProcessParms(), 256},
      {c.GetSysLogIP(), 32},        {c.GetFlashFileDir(), 128}, {c.GetInfFilePath(), 256},
      {c.GetInfFileName(), 64},     {c.GetUpgBeginMsg(), 64},   {c.GetUpgEndMsg(), 64},
      {c.GetFlashFileStore(), 64},
  };
  for (const auto& f : fields) Bounded(f.text, f.capacity);
  for (const tagDownloadFile* f : c.GetDownloadFiles()) CheckDownload(*f);
  if (const tagDownloadFile* f = c.GetMCFileList()) CheckDownload(*f);
  for (const tagRegistryEntry* r : c.GetRegistryTests()) CheckRegistryTest(*r);
  for (const tagStorageReq* s : c.GetStorageReqs()) CheckStorageReq(*s);
  for (const FirmwarePackage* p : c.GetFirmwarePkgs()) {
    Bounded(p->getFragFileBase(), 256);
    Bounded(p->getFragFileDestDir(), 256);
    Bounded(p->getFragFilePath(), 256);
    Bounded(p->getFlashWriterParms(), 256);
    Bounded(p->getAdditionalParms(), 256);
  }
  FUZZ_EXPECT(c.GetFirmwarePkgCount() >= static_cast<int32_t>(c.GetFirmwarePkgs().size()));
  for (const auto* list : {&c.GetFileDeleteList(), &c.GetFileSaveList(), &c.GetStopProcessList()})
    for (const char* text : *list) FUZZ_EXPECT(text != nullptr);
  for (CQVProcessingHandler* h : {c.GetPreProcessing(), c.GetPostProcessing()})
    if (h)
      for (const char* name : h->GetProcessNames()) FUZZ_EXPECT(name != nullptr);
}

}  // namespace ftcfuzz
