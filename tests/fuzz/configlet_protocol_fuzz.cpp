// The management server builds jobs through the host's groups and fields, and names and values
// are whatever the server sent. Any sequence of opens, fields and closes, with any names and
// over-long values, must leave every record under construction and the job itself bounded,
// and every message sent up terminated as announced.
//
// The PullFile close is never sent: it starts a transfer from whatever server the bytes name.
// The Upgrade close is sent only with a job that is bound to fail its checks.
// Input: a program of operations (open, field, close), each taking its names and values from
// the bytes that follow it.
#include <strings.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>

#include "configlet/configlet.h"
#include "configlet/protocol_state.h"
#include "engine/upgrade.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/job_checks.h"
#include "platform/plix.h"

namespace {

namespace fs = std::filesystem;

const char* const kGroups[] = {"FileTransferConfiglet",
                               "Syslog",
                               "Upgrade",
                               "MultiCast",
                               "MulticastClient",
                               "HTTPServer",
                               "Download",
                               "StorageRequirements",
                               "Store",
                               "DiskCleanup",
                               "File",
                               "FileList",
                               "AlternateRTWReason",
                               "StartProcess",
                               "StopProcess",
                               "StopProcesses",
                               "Process",
                               "Tests",
                               "Test",
                               "Registry",
                               "PreProcessing",
                               "PostProcessing",
                               "FileOperations",
                               "Set",
                               "DeleteValue",
                               "DeleteKey",
                               "Save",
                               "CopyDir",
                               "Delete",
                               "Rename",
                               "Copy",
                               "Executable",
                               "ClearQVBundles",
                               "PullFile"};
const char* const kFields[] = {
    "Name",        "CmdLine",       "StartIn",   "Wait",          "SourceDir",  "Dest",
    "DestDir",     "KeyName",       "ValueName", "Value",         "Type",       "Process",
    "Source",      "CRC",           "MCTMask",   "Provisioning",  "BundleName", "Address",
    "Port",        "Reboot",        "IPAddress", "HTTPPort",      "BaseURL",    "Version",
    "MulticastIP", "EncryptionKey", "UDPPort",   "UDPBlockSize",  "Parameters", "ShowGUI",
    "Action",      "BeginText",     "EndText",   "RequiredSpace", "Root",       "Key",
    "Operator",    "ErrorMsg",      "SrcUrl",    "SrcFile",       "DestFile",   "FileID"};
const char* const kValues[] = {"TRUE",
                               "false",
                               "Delete",
                               "Save",
                               "0",
                               "-1",
                               "4294967296",
                               "http://127.0.0.1:1/bundle",
                               "HKEY_LOCAL_MACHINE",
                               "REG_DWORD"};

template <size_t N>
std::string Pick(ftcfuzz::Reader& in, const char* const (&words)[N]) {
  uint8_t how = in.Byte();
  if (how >= 240) return in.Until(0).substr(0, 300);
  std::string name = words[in.Below(N)];
  // The host's names are matched without case, most fields as prefixes.
  if (how & 1)
    for (char& c : name) c = static_cast<char>(c ^ 0x20);
  if (how & 2) name.resize(in.Below(name.size() + 1));
  return name;
}

std::string Value(ftcfuzz::Reader& in) {
  switch (in.Byte() % 4) {
    case 0:
      return in.Until(0);
    case 1:  // past every field's capacity
      return std::string(1 + in.Below(3000), static_cast<char>(in.Byte() | 1));
    case 2:
      return kValues[in.Below(sizeof kValues / sizeof kValues[0])];
    default:
      return "";
  }
}

// Reports carry the server's texts: each queued message must still be a document.
void CheckSpool() {
  std::error_code ec;
  for (const auto& queue : fs::directory_iterator(ftcfuzz::Root().path() + "/.winux/spool", ec)) {
    for (const auto& record : fs::directory_iterator(queue.path(), ec)) {
      if (record.path().extension() != ".xml") continue;
      std::string text = ftctest::ReadHostFile(record.path().string());
      CPlixDOM dom;
      FUZZ_EXPECT(dom.ReadDoc(text.c_str()) == 1);
      fs::remove(record.path(), ec);
    }
  }
}

// The job's own checks run, reports of the failure go out with the job's texts, and the job is
// released; a registry test that cannot pass keeps the worker from starting, and the log stays
// local.
void CloseFailingUpgrade(const std::string& group) {
  UpgradeConfig* job = gpUpgCfg;
  if (job) {
    job->SetSysLogPort(0);
    if (tagRegistryEntry* test = NewRecord<tagRegistryEntry>()) {
      std::strcpy(test->m_szRoot, "HKEY_LOCAL_MACHINE");
      std::strcpy(test->m_szKey, "Software\\FuzzNoSuchKey");
      std::strcpy(test->m_szOperator, "EQ");
      job->AddRegistryTest(test);
    }
  }
  uint32_t rc = IcfgEndGroup(group.c_str(), 0, 0);
  FUZZ_EXPECT(job ? rc == ICFG_E_TEST_FAILED : rc == ICFG_OK);
  FUZZ_EXPECT(gpUpgCfg == nullptr && !IsUpgradeInProgress());
  CheckSpool();
}

uint32_t SendUp(uint32_t, const char* message, uint32_t length) {
  FUZZ_EXPECT(message && length == std::strlen(message) + 1);
  return 0;
}
void* const g_callbacks[] = {nullptr, nullptr, nullptr, nullptr, reinterpret_cast<void*>(&SendUp)};

void CheckPending() {
  ftcfuzz::Bounded(gCurrentGroup, kCurrentGroupSize);
  ftcfuzz::Bounded(gszFileName, sizeof gszFileName);
  if (gpDLFile) ftcfuzz::CheckDownload(*gpDLFile);
  if (gpStorageReq) ftcfuzz::CheckStorageReq(*gpStorageReq);
  if (gpRegistryEntry) ftcfuzz::CheckRegistryTest(*gpRegistryEntry);
  if (gpPullFileEntry) {
    ftcfuzz::Bounded(gpPullFileEntry->m_szSrcUrl, sizeof gpPullFileEntry->m_szSrcUrl);
    ftcfuzz::Bounded(gpPullFileEntry->m_szSrcFile, sizeof gpPullFileEntry->m_szSrcFile);
    ftcfuzz::Bounded(gpPullFileEntry->m_szDestFile, sizeof gpPullFileEntry->m_szDestFile);
    ftcfuzz::Bounded(gpPullFileEntry->m_szFileID, sizeof gpPullFileEntry->m_szFileID);
  }
  if (gpUpgCfg) ftcfuzz::CheckJob(*gpUpgCfg);
}

// Each input starts as a freshly loaded plug-in would.
void Reset() {
  delete gpUpgCfg;
  gpUpgCfg = nullptr;
  ReleasePendingEntries();
  gbFileList = gbDiskCleanup = gbDownload = gbStartProc = gbPreProcessing = gbPostProcessing = 0;
  gcAction = ' ';
  gszFileName[0] = '\0';
  m_bUpgradeInProgress = 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ftcfuzz::Root();
  IcfgInitialize();
  IcfgSetCallbacks(7, g_callbacks);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  for (int steps = 0; !in.Empty() && steps < 200; ++steps) {
    uint8_t op = in.Byte() % 3;
    if (op == 0) {
      std::string group = Pick(in, kGroups);
      uint32_t instance = in.Byte() & 0x80 ? 1 : 0;
      uint32_t rc = IcfgBeginGroup(group.c_str(), 0, instance);
      FUZZ_EXPECT(rc == ICFG_OK || rc == ICFG_E_UNKNOWN || rc == ICFG_E_IN_PROGRESS);
      FUZZ_EXPECT(std::string(gCurrentGroup) == group.substr(0, kCurrentGroupSize - 1));
    } else if (op == 1) {
      std::string field = Pick(in, kFields);
      std::string value = Value(in);
      uint32_t rc = IcfgSetField(field.c_str(), "", value.c_str(), 0, 0);
      if (strcasecmp(field.c_str(), "Provisioning") != 0)
        FUZZ_EXPECT(rc == ICFG_OK || rc == ICFG_E_UNKNOWN);
    } else {
      std::string group = Pick(in, kGroups);
      if (!strcasecmp(group.c_str(), "Upgrade"))
        CloseFailingUpgrade(group);
      else if (strcasecmp(group.c_str(), "PullFile") != 0)
        FUZZ_EXPECT(IcfgEndGroup(group.c_str(), 0, 0) == ICFG_OK);
    }
    CheckPending();
  }
  CheckSpool();
  Reset();
  return 0;
}
