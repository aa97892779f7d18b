#include "engine/preflight.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/UpgradeConfig.h"
#include "config/text.h"
#include "engine/job_state.h"
#include "engine/passes.h"
#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/winux.h"

namespace {

HKEY RootKey(const char* name) {
  if (strcmp(name, "HKEY_CLASSES_ROOT") == 0) return HKEY_CLASSES_ROOT;
  if (strcmp(name, "HKEY_CURRENT_USER") == 0) return HKEY_CURRENT_USER;
  if (strcmp(name, "HKEY_USERS") == 0) return HKEY_USERS;
  return HKEY_LOCAL_MACHINE;
}

int Sign(int v) {
  return v < 0 ? -1 : (v > 0 ? 1 : 0);
}

bool Compare(const char* op, int cmp, bool unsignedLess, bool unsignedGreater, bool number) {
  bool equal = cmp == 0;
  if (strcmp(op, "EQ") == 0) return equal;
  if (strcmp(op, "NEQ") == 0) return !equal;
  if (number) {
    if (strcmp(op, "LT") == 0) return unsignedLess;
    if (strcmp(op, "LTE") == 0) return unsignedLess || equal;
    if (strcmp(op, "GT") == 0) return unsignedGreater;
    if (strcmp(op, "GTE") == 0) return unsignedGreater || equal;
    return false;
  }
  if (strcmp(op, "LT") == 0) return cmp == -1;
  if (strcmp(op, "LTE") == 0) return cmp <= 0;
  if (strcmp(op, "GT") == 0) return cmp == 1;
  if (strcmp(op, "GTE") == 0) return cmp >= 0;
  return false;
}

bool RunTest(const tagRegistryEntry* test) {
  bool neq = strcmp(test->m_szOperator, "NEQ") == 0;
  wchar_t key[256];
  QVToTStrW(test->m_szKey, key, 256);
  HKEY hKey = nullptr;
  if (RegOpenKeyEx(RootKey(test->m_szRoot), key, 0, 0, &hKey) != ERROR_SUCCESS) {
    LogMsg("FileTransferConfiglet - PerformTests - No such key\r\n");
    return neq;
  }
  bool wantDword = strcmp(test->m_szType, "REG_DWORD") == 0;
  bool wantString = strcmp(test->m_szType, "REG_SZ") == 0;
  BYTE data[1024 + sizeof(wchar_t)] = {};
  DWORD type = wantDword ? REG_DWORD : REG_SZ;
  DWORD size = wantDword ? 4 : 1024;
  wchar_t name[256];
  QVToTStrW(test->m_szValueName, name, 256);
  LSTATUS rc = RegQueryValueEx(hKey, name, nullptr, &type, data, &size);
  // The device leaves the key open; the host's handles are not so plentiful.
  RegCloseKey(hKey);
  if (rc != ERROR_SUCCESS) {
    LogMsg("FileTransferConfiglet - PerformTests - No such valuename\r\n");
    return neq;
  }
  if (type == REG_SZ) {
    if (!wantString) return false;
    char value[256];
    QVToASCIIStringW(reinterpret_cast<const wchar_t*>(data), value, sizeof value);
    return Compare(test->m_szOperator, Sign(strcmp(value, test->m_szValue)), false, false, false);
  }
  if (type == REG_DWORD) {
    if (!wantDword) return false;
    DWORD value;
    memcpy(&value, data, sizeof value);
    DWORD expected = static_cast<DWORD>(atoi(test->m_szValue));
    return Compare(test->m_szOperator, value == expected ? 0 : 1, value<expected, value> expected,
                   true);
  }
  LogMsg("FileTransferConfiglet - PerformTests - Unsupported reg type\r\n");
  return false;
}

}  // namespace

int PerformTests(UpgradeConfig* cfg, char* errorText) {
  const auto& tests = cfg->GetRegistryTests();
  LogMsg("PerformTests - %d\r\n", static_cast<int>(tests.size()));
  int result = 1;
  const tagRegistryEntry* failed = nullptr;
  for (const tagRegistryEntry* test : tests) {
    if (!test) {
      LogMsg("PerformTests - invalid registry item pointer\r\n");
      continue;
    }
    if (!RunTest(test)) {
      result = 0;
      failed = test;
      break;
    }
  }
  if (result) return 1;
  LogMsg("FileTransferConfiglet - PerformTests - failed test\r\n");
  if (errorText) {
    FormatText(errorText, 256, "%s", failed->m_szErrorMsg);
    LogMsg("%s\r\n", errorText);
  }
  return 0;
}

int GetDiskSizeCheckFromParms(const char* parms, DWORD pass, char* cardName) {
  if (!parms || !*parms) return 0;
  if (m_pUpgCfg && m_pUpgCfg->IsMultiPass() && static_cast<DWORD>(GetPassFromParms(parms)) != pass)
    return 0;
  const char* at = strstr(parms, "DiskSize=");
  if (!at) return 0;
  at += 9;
  char item[129];
  size_t n = strcspn(at, ",");
  if (n > 128) n = 128;
  memcpy(item, at, n);
  item[n] = 0;
  char* colon = strchr(item, ':');
  int size = 0;
  if (colon) {
    *colon = 0;
    sscanf(colon + 1, "%d", &size);
  }
  FormatText(cardName, 128, "%s", item);
  return size;
}

int IsSpaceAvailableOnSDCard(ULONGLONG bytes) {
  ULARGE_INTEGER caller, total, free;
  if (!GetDiskFreeSpaceEx(L"\\SDMMC Disk\\SubFolder", &caller, &total, &free) &&
      !GetDiskFreeSpaceEx(L"\\Storage Card\\SubFolder", &caller, &total, &free))
    return 0;
  return bytes < free.QuadPart ? 1 : 0;
}

int IsSDCardValid(char* cardName) {
  if (!m_pUpgCfg) return 0;
  DWORD pass = GetCurrentPass();
  size_t n = strlen(cardName);
  int result = 0;
  for (FirmwarePackage* pkg : m_pUpgCfg->GetFirmwarePkgs()) {
    if (!pkg || !pkg->getAdditionalParms()[0]) continue;
    char name[128] = {};
    int size = GetDiskSizeCheckFromParms(pkg->getAdditionalParms(), pass, name);
    if (size != 0 && strncmp(name, cardName, n) == 0) {
      result = IsSpaceAvailableOnSDCard(static_cast<ULONGLONG>(static_cast<DWORD>(size)));
      if (result == 1) break;
    }
  }
  return result;
}

int IsPowerOK() {
  return 1;
}

int CheckSpace(UpgradeConfig*, DWORD*) {
  return 1;
}
