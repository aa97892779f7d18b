// Pre-flight registry tests, storage-card requests, passes, clean-up and progress arithmetic.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/UpgradeConfig.h"
#include "engine/completion.h"
#include "engine/file_list.h"
#include "engine/job_state.h"
#include "engine/passes.h"
#include "engine/preflight.h"
#include "platform/display.h"
#include "platform/winux.h"
#include "support/device_root.h"
#include "support/registry.h"

namespace {

tagRegistryEntry* RegTest(const char* key, const char* name, const char* value, const char* type,
                          const char* op, const char* message) {
  tagRegistryEntry* t = NewRecord<tagRegistryEntry>();
  strcpy(t->m_szRoot, "HKEY_LOCAL_MACHINE");
  strcpy(t->m_szKey, key);
  strcpy(t->m_szValueName, name);
  strcpy(t->m_szValue, value);
  strcpy(t->m_szType, type);
  strcpy(t->m_szOperator, op);
  strcpy(t->m_szErrorMsg, message);
  return t;
}

TEST(PerformTests, EachOperatorAndTypeDecidesAsTheDeviceDoes) {
  ftctest::DeviceRoot root;
  ASSERT_TRUE(ftctest::SetRegistryString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Test", L"Text", L"b"));
  ASSERT_TRUE(ftctest::SetRegistryDword(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Test", L"Number", 7));
  struct Case {
    const char* key;
    const char* name;
    const char* value;
    const char* type;
    const char* op;
    int pass;
  } cases[] = {
      {"SOFTWARE\\Test", "Text", "b", "REG_SZ", "EQ", 1},
      {"SOFTWARE\\Test", "Text", "a", "REG_SZ", "NEQ", 1},
      {"SOFTWARE\\Test", "Text", "a", "REG_SZ", "GT", 1},
      {"SOFTWARE\\Test", "Text", "a", "REG_SZ", "GTE", 1},
      {"SOFTWARE\\Test", "Text", "a", "REG_SZ", "LT", 0},
      {"SOFTWARE\\Test", "Text", "c", "REG_SZ", "LT", 1},
      {"SOFTWARE\\Test", "Text", "b", "REG_SZ", "LTE", 1},
      {"SOFTWARE\\Test", "Text", "b", "REG_SZ", "XX", 0},
      {"SOFTWARE\\Test", "Text", "b", "REG_DWORD", "EQ", 0},  // stored as text
      {"SOFTWARE\\Test", "Number", "7", "REG_DWORD", "EQ", 1},
      {"SOFTWARE\\Test", "Number", "8", "REG_DWORD", "LT", 1},
      {"SOFTWARE\\Test", "Number", "7", "REG_DWORD", "LTE", 1},
      {"SOFTWARE\\Test", "Number", "-1", "REG_DWORD", "GT", 0},  // unsigned comparison
      {"SOFTWARE\\Test", "Number", "6", "REG_DWORD", "GTE", 1},
      {"SOFTWARE\\Test", "Number", "7", "REG_SZ", "EQ", 0},
      {"SOFTWARE\\Missing", "Text", "b", "REG_SZ", "NEQ", 1},
      {"SOFTWARE\\Missing", "Text", "b", "REG_SZ", "EQ", 0},
      {"SOFTWARE\\Test", "Absent", "b", "REG_SZ", "NEQ", 1},
      {"SOFTWARE\\Test", "Absent", "b", "REG_SZ", "EQ", 0},
  };
  for (const Case& c : cases) {
    UpgradeConfig cfg;
    cfg.AddRegistryTest(RegTest(c.key, c.name, c.value, c.type, c.op, "the reason"));
    char error[256] = {};
    EXPECT_EQ(PerformTests(&cfg, error), c.pass) << c.name << " " << c.op << " " << c.value;
    EXPECT_STREQ(error, c.pass ? "" : "the reason") << c.name << " " << c.op;
  }
}

TEST(PerformTests, StopsAtTheFirstFailureAndReportsItsMessage) {
  ftctest::DeviceRoot root;
  UpgradeConfig cfg;
  cfg.AddRegistryTest(RegTest("SOFTWARE\\Missing", "x", "1", "REG_SZ", "NEQ", "first"));
  cfg.AddRegistryTest(RegTest("SOFTWARE\\Missing", "x", "1", "REG_SZ", "EQ", "second"));
  cfg.AddRegistryTest(RegTest("SOFTWARE\\Missing", "x", "1", "REG_SZ", "EQ", "third"));
  char error[256] = {};
  EXPECT_EQ(PerformTests(&cfg, error), 0);
  EXPECT_STREQ(error, "second");
  UpgradeConfig none;
  EXPECT_EQ(PerformTests(&none, nullptr), 1);
}

TEST(PackageParameters, PassAndDiskSizeItems) {
  EXPECT_EQ(GetPassFromParms("Pass=12"), 1);
  EXPECT_EQ(GetPassFromParms("x,Pass="), 0);
  EXPECT_EQ(GetPassFromParms("DiskSize=a:1"), 1);
  EXPECT_EQ(GetPassFromParms(""), 1);
  EXPECT_EQ(GetPassFromParms(nullptr), 1);

  UpgradeConfig cfg;
  m_pUpgCfg = &cfg;
  char card[128] = {};
  EXPECT_EQ(GetDiskSizeCheckFromParms("DiskSize=\\SDMMC Disk:5000000", 1, card), 5000000);
  EXPECT_STREQ(card, "\\SDMMC Disk");
  EXPECT_EQ(GetDiskSizeCheckFromParms("DiskSize=\\SD Card:10,Pass=2", 1, card), 10);
  cfg.SetMultiPass(1);
  EXPECT_EQ(GetDiskSizeCheckFromParms("Pass=2,DiskSize=\\SD Card:10", 1, card), 0);
  EXPECT_EQ(GetDiskSizeCheckFromParms("Pass=2,DiskSize=\\SD Card:10", 2, card), 10);
  EXPECT_EQ(GetDiskSizeCheckFromParms("Pass=2", 2, card), 0);
  m_pUpgCfg = nullptr;
}

// The Zeta series keeps the pass file in its flash store.
TEST(PassFile, ZetaSeriesKeepsItInTheFlashStore) {
  ftctest::DeviceRoot root;
  root.WriteIdentity("hwcfg=ZB12CD\n");
  root.WriteFile("\\Flash File Store\\x", "");
  UpgradeConfig zeta;
  zeta.SetMultiPass(1);
  m_pUpgCfg = &zeta;
  SetCurrentPass(2);
  EXPECT_EQ(root.ReadFile("\\Flash File Store\\tvlupgclnt.txt"), "2");
  m_pUpgCfg = nullptr;
}

TEST(FileCount, FragmentsOfThisPassPlusDownloads) {
  ftctest::DeviceRoot root;
  UpgradeConfig cfg;
  m_pUpgCfg = &cfg;
  auto pkg = [&](int fragments, const char* parms) {
    FirmwarePackage* p = new FirmwarePackage();
    p->setFragFileCount(fragments);
    p->setAdditionalParms(parms);
    cfg.AddFirmwarePkg(p);
  };
  pkg(3, "");
  pkg(0, "Pass=1");
  pkg(5, "Pass=2");
  cfg.AddDownloadFile(NewRecord<tagDownloadFile>());
  m_iFileCount = 9;
  EXPECT_EQ(GetFileCountToDownload(), 3u + 1u + 1u);
  EXPECT_EQ(m_iFileCount, 0);
  m_pUpgCfg = nullptr;
}

TEST(Cleanup, EmptiesFoldersButSparesSavedAndReadOnlyFiles) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Temp\\a.txt", "a");
  root.WriteFile("\\Temp\\keep.txt", "k");
  root.WriteFile("\\Temp\\sub\\b.bin", "b");
  root.WriteFile("\\Temp\\sub\\locked.bin", "l");
  root.WriteFile("\\Other\\c.txt", "c");
  SetFileAttributes(L"\\Temp\\sub\\locked.bin", FILE_ATTRIBUTE_READONLY);
  UpgradeConfig cfg;
  cfg.AddFileSave("\\TEMP\\KEEP.TXT");
  cfg.AddFileDelete("\\Temp");
  cfg.AddFileDelete("\\Other\\c.txt");
  CleanupDevice(&cfg);
  EXPECT_FALSE(root.Exists("\\Temp\\a.txt"));
  EXPECT_TRUE(root.Exists("\\Temp\\keep.txt"));
  EXPECT_FALSE(root.Exists("\\Temp\\sub\\b.bin"));
  EXPECT_TRUE(root.Exists("\\Temp\\sub\\locked.bin"));
  EXPECT_TRUE(root.Exists("\\Temp\\sub"));
  EXPECT_FALSE(root.Exists("\\Other\\c.txt"));
  SetFileAttributes(L"\\Temp\\sub\\locked.bin", 0);
}

TEST(Cleanup, RenamesOnlyDestinationsEndingInRename) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Apps\\app.exe.rename", "new");
  root.WriteFile("\\Apps\\app.exe", "old");
  root.WriteFile("\\Apps\\other.exe", "other");
  UpgradeConfig cfg;
  for (const char* dest : {"\\Apps\\app.exe.rename", "\\Apps\\other.exe", ".rena"}) {
    tagDownloadFile* f = NewRecord<tagDownloadFile>();
    strcpy(f->m_szDestFile, dest);
    cfg.AddDownloadFile(f);
  }
  RenameSettingsFile(&cfg);
  EXPECT_EQ(root.ReadFile("\\Apps\\app.exe"), "new");
  EXPECT_FALSE(root.Exists("\\Apps\\app.exe.rename"));
  EXPECT_EQ(root.ReadFile("\\Apps\\other.exe"), "other");
}

std::vector<int> g_file, g_overall;

TEST(Progress, ClampedBetweenFiveAndOneHundredAndZeroTotalIsDone) {
  WinuxStatusDisplay d{};
  d.progress1 = [](void*, int p) { g_file.push_back(p); };
  d.progress2 = [](void*, int p) { g_overall.push_back(p); };
  WinuxRegisterStatusDisplay(&d);
  UpdateProgress(0, 1000);
  UpdateProgress(500, 1000);
  UpdateProgress(2000, 1000);
  UpdateProgress(0, 0);
  EXPECT_EQ(g_file, (std::vector<int>{5, 50, 100, 100}));

  SetTotalBytesToTransfer(1000);
  m_dwBytesTransfered = 0;
  BumpOverallProgress(0);
  BumpOverallProgress(333);
  BumpOverallProgress(5000);
  SetTotalBytesToTransfer(0);
  BumpOverallProgress(1);
  EXPECT_EQ(g_overall, (std::vector<int>{5, 33, 100, 100}));
  WinuxRegisterStatusDisplay(nullptr);
  EXPECT_EQ(GetTransferedFileCnt(), 1);  // one-based before any transfer
}

TEST(StorageCard, ValidOnlyWhenAPackageAsksForSpaceThatIsFree) {
  ftctest::DeviceRoot root;
  UpgradeConfig cfg;
  m_pUpgCfg = &cfg;
  auto ask = [&](const char* parms) {
    FirmwarePackage* p = new FirmwarePackage();
    p->setAdditionalParms(parms);
    cfg.AddFirmwarePkg(p);
  };
  char sdmmc[] = "\\SDMMC Disk", sd[] = "\\SD Card";
  ask("DiskSize=\\SDMMC Disk:1000");
  EXPECT_EQ(IsSDCardValid(sdmmc), 0);  // no card at all
  root.WriteFile("\\SDMMC Disk\\SubFolder\\x", "");
  EXPECT_EQ(IsSDCardValid(sdmmc), 1);
  EXPECT_EQ(IsSDCardValid(sd), 0);  // nobody asked for that card
  EXPECT_EQ(IsSpaceAvailableOnSDCard(0xFFFFFFFFFFFFFFFFull), 0);
  m_pUpgCfg = nullptr;
}

}  // namespace
