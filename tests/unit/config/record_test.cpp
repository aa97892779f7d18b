// The job record: defaults, the identity it derives, its wildcard match, its lists and texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "config/UpgradeConfig.h"
#include "config/flash_size.h"
#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"
#include "support/device_root.h"

namespace {

TEST(UpgradeConfig, IdentityIsReadAndDerivedFromTheDevice) {
  struct Case {
    const char* hwcfg;  // empty: the host's configuration text is too long for the 24 bytes
    const char* type;
    const char* family;
    const char* model;
  };
  const Case cases[] = {
      {"AB12XYZ", "A", "B", "12"},
      {"ZA1C", "Computer", "Zxx", "ZA1C"},
      {"ZL640000000000000000000", "Computer", "Zxx", "ZL64"},
      {"Q7", "Q", "7", ""},
      {"", "", "", ""},
  };
  for (const Case& c : cases) {
    ftctest::DeviceRoot root;
    std::string hwcfg = *c.hwcfg ? c.hwcfg : std::string(30, 'X');
    root.WriteIdentity("uniqueid=0123-4567-89AB\nserial=SN4711\nhwcfg=" + hwcfg + "\n");
    UpgradeConfig cfg;
    EXPECT_STREQ(cfg.GetMfgString(), c.hwcfg);
    EXPECT_STREQ(cfg.GetType(), c.type) << c.hwcfg;
    EXPECT_STREQ(cfg.GetFamily(), c.family) << c.hwcfg;
    EXPECT_STREQ(cfg.GetModel(), c.model) << c.hwcfg;
    EXPECT_STREQ(cfg.GetSerialNumber(), "SN4711");
    EXPECT_NE(root.Log().find("UniqueId = !0123-4567-89AB!\r\n"), std::string::npos);
  }
}

TEST(UpgradeConfig, FlashSizeIsWholeMegabytesOfTheStore) {
  struct Case {
    const char* bytes;
    const char* text;
  };
  const Case cases[] = {
      {"67108864", "64"}, {"1048575", "0"}, {"1048576", "1"}, {"4294967295", "4095"}};
  for (const Case& c : cases) {
    ftctest::DeviceRoot root;
    root.WriteIdentity(std::string("flash_bytes=") + c.bytes + "\n");
    EXPECT_EQ(ReturnFlashSize(), static_cast<DWORD>(std::stoull(c.bytes)));
    UpgradeConfig cfg;
    EXPECT_STREQ(cfg.GetFlashSize(), c.text) << c.bytes;
  }
}

TEST(UpgradeConfig, CompareCfgStrMatchesOverTheCommonLengthOnly) {
  struct Case {
    const char* pattern;
    const char* value;
    int match;
  };
  const Case cases[] = {
      {"A?1*", "AB1", 1},  {"A?1*", "AZ1QQQQ", 1},  {"A?1*", "AB2Q", 0}, {"B?1*", "AB1Q", 0},
      {"ABC", "AB", 1},    {"AB", "ABXYZ", 1},      {"ABC", "ABD", 0},   {"abc", "ABC", 0},
      {"", "anything", 1}, {"AB\r\nZZ", "ABQQ", 1}, {"*", "", 1},        {"A??D", "AxyD", 1},
  };
  for (const Case& c : cases)
    EXPECT_EQ(UpgradeConfig::CompareCfgStr(c.pattern, c.value), c.match)
        << c.pattern << " vs " << c.value;
  // Only 64 characters take part.
  std::string longer(100, 'a');
  EXPECT_EQ(UpgradeConfig::CompareCfgStr(longer.c_str(), (longer + "b").c_str()), 1);
}

TEST(UpgradeConfig, FlashWriterParametersGrowByBlankAndText) {
  ftctest::DeviceRoot root;
  UpgradeConfig cfg;
  cfg.AppendFlashWriterParms("ab");
  EXPECT_STREQ(cfg.GetProcessParms(), " ab");
  cfg.AppendFlashWriterParms(nullptr);
  EXPECT_STREQ(cfg.GetProcessParms(), " ab");
  cfg.AppendFlashWriterParms("");
  EXPECT_STREQ(cfg.GetProcessParms(), " ab ");
  std::string big(400, 'p');
  cfg.AppendFlashWriterParms(big.c_str());
  EXPECT_EQ(std::string(cfg.GetProcessParms()).size(), 255u);
}

TEST(UpgradeConfig, ListsOwnTheirEntriesAndTheListFileIsReplaced) {
  ftctest::DeviceRoot root;
  UpgradeConfig cfg;
  auto* first = NewRecord<tagDownloadFile>();
  auto* second = NewRecord<tagDownloadFile>();
  strcpy(second->m_szSourceFile, "list2.txt");
  cfg.AddMCFileList(first);
  cfg.AddMCFileList(second);
  EXPECT_EQ(cfg.GetMCFileList(), second);

  char name[16] = "proc.exe";
  cfg.AddStopProcess(name);
  name[0] = 'X';  // the record keeps its own copy
  ASSERT_EQ(cfg.GetStopProcessList().size(), 1u);
  EXPECT_STREQ(cfg.GetStopProcessList()[0], "proc.exe");
  cfg.AddDownloadFile(NewRecord<tagDownloadFile>());
  cfg.AddFirmwarePkg(new FirmwarePackage());
  cfg.SetPreProcessing(new CQVProcessingHandler());
  cfg.SetPreProcessing(new CQVProcessingHandler());  // the first is released, not leaked
  cfg.AddFileDelete("\\Temp");
  cfg.AddFileSave("\\Temp\\keep.txt");
  cfg.AddStorageReqEntry(NewRecord<tagStorageReq>());
  cfg.AddRegistryTest(NewRecord<tagRegistryEntry>());
  // Everything above is released by the destructor (the sanitizer's leak check watches).
}

TEST(UpgradeConfig, DumpDataWritesTheRecordInItsBlocks) {
  ftctest::DeviceRoot root;
  UpgradeConfig cfg;
  cfg.SetMCIp("239.1.2.3");
  cfg.SetMulticastPort(1044);
  cfg.SetMulticastBlockSize(8192);
  cfg.SetMCEncryptionKey("key");
  cfg.SetMCProcessParms("-p");
  cfg.SetBaseURL("http://srv:8080");
  cfg.SetHTTPIPAddress("10.0.0.1");
  cfg.SetSysLogIP("10.0.0.2");
  cfg.SetSysLogPort(514);
  cfg.SetProcessName("flash.exe");
  cfg.SetProcessParms("-x");
  cfg.AddFileDelete("\\Temp");
  auto* req = NewRecord<tagStorageReq>();
  strcpy(req->m_szName, "\\Flash File Store");
  strcpy(req->m_szRequiredSpace, "1000");
  cfg.AddStorageReqEntry(req);
  auto* pkg = new FirmwarePackage();
  pkg->setFragFilePath("os\\");
  pkg->setFragFileDestDir("RAM:");
  pkg->setFragFileBase("nk");
  pkg->setFragFileCount(3);
  cfg.AddFirmwarePkg(pkg);
  std::string before = root.Log();
  cfg.DumpData();
  std::string dump = root.Log().substr(before.size());
  EXPECT_EQ(dump,
            "MultiCast IP = 239.1.2.3\r\nUDPPort = 8192\r\nUDPBlockSize=1044\r\n"
            "EncryptionKey = key\r\nParms = -p\r\n"
            "BaseURL = http://srv:8080\r\nHTTPPort = 80\r\nHTTPIPAddr = 10.0.0.1\r\n"
            "PacketSize = 4096\r\n"
            "Syslog Address = 10.0.0.2\r\nSyslog Port = 514\r\n"
            "Flash Writer = flash.exe\r\nFlashWriter CmdLine = -x\r\n"
            "Delete file count = 1\r\nDelete File = \\Temp\r\nSave file count = 0\r\n"
            "Stop Process count = 0\r\n"
            "Storage Req List count = 1\r\nStorage Entry = \\Flash File Store, 1000\r\n"
            "Download File List count = 0\r\n"
            "Firmware List count = 1\r\nSrc = os\\\r\nDest = RAM:\r\nBase = nk\r\nCount = 3\r\n");
}

}  // namespace
