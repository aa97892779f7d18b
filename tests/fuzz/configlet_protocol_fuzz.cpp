// The management server builds jobs through the host's groups and fields, with any names and
// values. Any program of opens, fields and closes must keep every record under construction and
// the job bounded, and every message sent up terminated as announced. No worker may reach the
// network: PullFile is never closed, and Upgrade only on a job bound to fail its checks.
#include <strings.h>

#include <filesystem>

#include "configlet/configlet.h"
#include "configlet/protocol_state.h"
#include "engine/job_state.h"
#include "fuzz/fuzz_support.h"
#include "platform/plix.h"

namespace {

namespace fs = std::filesystem;

const char kGroups[] =
    "FileTransferConfiglet Syslog Upgrade MultiCast MulticastClient HTTPServer Download "
    "StorageRequirements Store DiskCleanup File FileList AlternateRTWReason StartProcess "
    "StopProcess StopProcesses Process Tests Test Registry PreProcessing PostProcessing "
    "FileOperations Set DeleteValue DeleteKey Save CopyDir Delete Rename Copy Executable "
    "ClearQVBundles PullFile";
const char kFields[] =
    "Name CmdLine StartIn Wait SourceDir Dest DestDir KeyName ValueName Value Type Process Source "
    "CRC MCTMask Provisioning BundleName Address Port Reboot IPAddress HTTPPort BaseURL Version "
    "MulticastIP EncryptionKey UDPPort UDPBlockSize Parameters ShowGUI Action BeginText EndText "
    "RequiredSpace Root Key Operator ErrorMsg SrcUrl SrcFile DestFile FileID";

const char kValues[] =
    "TRUE false Delete Save 0 -1 4294967296 http://127.0.0.1:1/bundle HKEY_LOCAL_MACHINE REG_DWORD";

// A known name, maybe with its case flipped or cut short (the host matches names without case,
// most fields as prefixes), or any text.
std::string Name(ftcfuzz::Reader& in, const char* words) {
  uint8_t how = in.Byte();
  if (how >= 240) return in.Until(0).substr(0, 300);
  std::string name = in.Word(words);
  if (how & 1)
    for (char& c : name) c = static_cast<char>(c ^ 0x20);
  if (how & 2) name.resize(in.Below(name.size() + 1));
  return name;
}

std::string Value(ftcfuzz::Reader& in) {
  uint8_t kind = in.Byte() % 4;
  if (kind == 0) return in.Until(0);
  if (kind == 1) return std::string(1 + in.Below(3000), static_cast<char>(in.Byte() | 1));
  return kind == 3 ? "" : in.Word(kValues);
}

// Reports carry the server's texts: each queued message must still be a document.
void CheckSpool() {
  std::error_code ec;
  for (const auto& queue : fs::directory_iterator(ftcfuzz::Root().path() + "/.winux/spool", ec))
    for (const auto& record : fs::directory_iterator(queue.path(), ec)) {
      if (record.path().extension() != ".xml") continue;
      CPlixDOM dom;
      FUZZ_EXPECT(dom.ReadDoc(ftctest::ReadHostFile(record.path().string()).c_str()) == 1);
      fs::remove(record.path(), ec);
    }
}

// The job's own checks run and the failure is reported with the job's texts. A registry test
// that cannot pass keeps the worker from starting; the log stays local.
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
}

uint32_t SendUp(uint32_t, const char* message, uint32_t length) {
  FUZZ_EXPECT(message && length == std::strlen(message) + 1);
  return 0;
}
void* const g_callbacks[] = {nullptr, nullptr, nullptr, nullptr, reinterpret_cast<void*>(&SendUp)};

void CheckPending() {
  ftcfuzz::Bounded(gCurrentGroup, kCurrentGroupSize);
  ftcfuzz::Bounded(gszFileName);
  if (gpDLFile) ftcfuzz::CheckRecord(*gpDLFile);
  if (gpStorageReq) ftcfuzz::CheckRecord(*gpStorageReq);
  if (gpRegistryEntry) ftcfuzz::CheckRecord(*gpRegistryEntry);
  if (gpPullFileEntry) ftcfuzz::CheckRecord(*gpPullFileEntry);
  if (gpUpgCfg) ftcfuzz::CheckJob(*gpUpgCfg);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  IcfgInitialize();
  IcfgSetCallbacks(7, g_callbacks);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  for (int steps = 0; !in.Empty() && steps < 200; ++steps) {
    uint8_t op = in.Byte() % 3;
    std::string name = Name(in, op == 1 ? kFields : kGroups);
    if (op == 0) {
      uint32_t rc = IcfgBeginGroup(name.c_str(), 0, in.Byte() & 0x80 ? 1 : 0);
      FUZZ_EXPECT(rc == ICFG_OK || rc == ICFG_E_UNKNOWN || rc == ICFG_E_IN_PROGRESS);
      FUZZ_EXPECT(std::string(gCurrentGroup) == name.substr(0, kCurrentGroupSize - 1));
    } else if (op == 1) {
      uint32_t rc = IcfgSetField(name.c_str(), "", Value(in).c_str(), 0, 0);
      if (strcasecmp(name.c_str(), "Provisioning") != 0)
        FUZZ_EXPECT(rc == ICFG_OK || rc == ICFG_E_UNKNOWN);
    } else if (!strcasecmp(name.c_str(), "Upgrade")) {
      CloseFailingUpgrade(name);
    } else if (strcasecmp(name.c_str(), "PullFile") != 0) {
      FUZZ_EXPECT(IcfgEndGroup(name.c_str(), 0, 0) == ICFG_OK);
    }
    CheckPending();
  }
  CheckSpool();
  // Each input starts as a freshly loaded plug-in would.
  delete gpUpgCfg;
  gpUpgCfg = nullptr;
  ReleasePendingEntries();
  gbFileList = gbDiskCleanup = gbDownload = gbStartProc = gbPreProcessing = gbPostProcessing = 0;
  gcAction = ' ';
  gszFileName[0] = '\0';
  m_bUpgradeInProgress = 0;
  return 0;
}
