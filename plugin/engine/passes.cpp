#include "engine/passes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/UpgradeConfig.h"
#include "config/text.h"
#include "engine/job_state.h"
#include "platform/winux.h"

namespace {

const char* PassFile() {
  if (m_pUpgCfg && m_pUpgCfg->GetFamily()[0] == 'Z') return "\\Flash File Store\\tvlupgclnt.txt";
  return "\\tvlupgclnt.txt";
}

}  // namespace

DWORD GetCurrentPass() {
  if (!m_pUpgCfg || !m_pUpgCfg->IsMultiPass()) return 1;
  FILE* f = WinuxFopen(PassFile(), "r");
  if (!f) return 0;
  char text[21] = {};
  size_t n = fread(text, 1, 20, f);
  text[n] = 0;
  fclose(f);
  Sleep(500);
  return static_cast<DWORD>(atoi(text));
}

void SetCurrentPass(DWORD pass) {
  FILE* f = WinuxFopen(PassFile(), "w");
  if (!f) return;
  char text[16];
  FormatText(text, sizeof text, "%d", static_cast<int>(pass));
  fwrite(text, 1, strlen(text), f);
  fclose(f);
}

void ClearPassSetting() {
  wchar_t path[64];
  swprintf(path, 64, L"%s", PassFile());
  DeleteFile(path);
}

int GetPassFromParms(const char* parms) {
  if (!parms || !*parms) return 1;
  const char* at = strstr(parms, "Pass=");
  if (!at) return 1;
  char digit = at[5];
  return digit >= '0' && digit <= '9' ? digit - '0' : 0;
}

int GetRAMSizeFromParms(const char* parms, DWORD pass) {
  if (!parms || !*parms) return 0;
  if (static_cast<DWORD>(GetPassFromParms(parms)) != pass) return 0;
  const char* at = strstr(parms, "RAMAllocSize=");
  int size = 0;
  if (at) sscanf(at + 13, "%d", &size);
  return size;
}

DWORD GetFileCountToDownload() {
  DWORD pass = GetCurrentPass();
  DWORD count = 0;
  for (FirmwarePackage* pkg : m_pUpgCfg->GetFirmwarePkgs()) {
    if (!pkg || static_cast<DWORD>(GetPassFromParms(pkg->getAdditionalParms())) != pass) continue;
    int fragments = pkg->getFragFileCount();
    count += fragments > 0 ? static_cast<DWORD>(fragments) : 1;
  }
  count += static_cast<DWORD>(m_pUpgCfg->GetDownloadFiles().size());
  m_iFileCount = 0;
  return count;
}

int IsZetaOSUpgrade() {
  if (!m_pUpgCfg) return 0;
  for (FirmwarePackage* pkg : m_pUpgCfg->GetFirmwarePkgs()) {
    const char* parms = pkg ? pkg->getAdditionalParms() : "";
    if (parms[0] && strstr(parms, "ZetaOSUpgrade=1")) return 1;
  }
  return 0;
}

int GetProgramInformation(DWORD pageSize, DWORD* programUsedPages) {
  MEMORYSTATUS status = {};
  status.dwLength = sizeof status;
  GlobalMemoryStatus(&status);
  if (pageSize == 0) pageSize = 1;
  *programUsedPages = status.dwTotalPhys / pageSize - status.dwAvailPhys / pageSize + 1;
  return 1;
}

int GetMemoryInfo(DWORD* totalPages, DWORD* storeUsedPages, DWORD* programUsedPages,
                  DWORD* storePages) {
  DWORD store = 0, ram = 0, pageSize = 0;
  GetSystemMemoryDivision(&store, &ram, &pageSize);
  if (pageSize == 0) pageSize = 4096;
  STORE_INFORMATION info = {};
  GetStoreInformation(&info);
  *storePages = store;
  *totalPages = store + ram;
  *storeUsedPages = info.dwStoreSize / pageSize - info.dwFreeSize / pageSize;
  GetProgramInformation(pageSize, programUsedPages);
  return 1;
}

int SetMemoryDivision(float storeShare) {
  DWORD total = 0, storeUsed = 0, programUsed = 0, storePages = 0;
  GetMemoryInfo(&total, &storeUsed, &programUsed, &storePages);
  DWORD used = storeUsed + programUsed;
  DWORD free = total > used ? total - used : 0;
  DWORD extra = static_cast<DWORD>(static_cast<float>(free) * storeShare);
  SetSystemMemoryDivision(storeUsed + extra);
  return 1;
}

int InitRAM(UpgradeConfig*) {
  return 1;
}
int InitRAMForUpgClient(UpgradeConfig*, int*) {
  return 1;
}
