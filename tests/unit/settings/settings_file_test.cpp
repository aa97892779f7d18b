// A job read from a settings file on the device, matched to the device's hardware.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/UpgradeConfig.h"
#include "processing/QVProcessingHandler.h"
#include "support/device_root.h"

namespace {

const char kSettings[] = R"(<?xml version="1.0"?>
<Settings>
  <PackageName>Pkg</PackageName>
  <Version>3.1</Version>
  <BundleName>FromFile</BundleName>
  <HTTPPort>8081</HTTPPort>
  <BaseUrl>http://file-server:8081</BaseUrl>
  <Syslog Address="127.0.0.1" Port="5514"/>
  <FlashWriter Name="\Windows\flashwr.exe" CmdLine="-q" Wait="False"/>
  <FlashFileDir>\Flash File Store\os</FlashFileDir>
  <FilePacketXferSize>4096</FilePacketXferSize>
  <InfFile>\Storage\os\image.inf</InfFile>
  <BeginText>Starting</BeginText>
  <EndText>Done</EndText>
  <DownloadLoopCnt>4</DownloadLoopCnt>
  <Reboot>FALSE</Reboot>
  <ShowGUI>true</ShowGUI>
  <Version></Version>
  <PreProcessing>
    <Executable Name="\Windows\pre.exe" CmdLine="-x" Wait="true"/>
  </PreProcessing>
  <StopProcesses><Process>app.exe</Process><Process>svc.exe</Process></StopProcesses>
  <Downloads>
    <File SourceDir="all.bin" DestDir="\Flash File Store\all.bin"/>
    <File SourceDir="mine.bin" DestDir="\Flash File Store\mine.bin" HardwareVersion="XX*,AB1?CD*"/>
    <File SourceDir="other.bin" DestDir="\Flash File Store\other.bin" HardwareVersion="ZZ*"/>
    <File SourceDir="nodest.bin"/>
  </Downloads>
  <DiskCleanup>
    <File Action="Delete">\temp\old.log</File>
    <File Action="SAVE">\temp\keep.txt</File>
    <File Action="Move">\temp\moved.txt</File>
  </DiskCleanup>
  <Registry><Key>SOFTWARE\Acme</Key><ValueName>Level</ValueName><Operator>GE</Operator><Value>3</Value></Registry>
  <OSFirmware>
    <Package HardwareVersion="QQ*,AB12*" SourceDir="\Storage\os" Base="nk" DestDir="ram:" Count="3" CmdLine="-w" AdditionalParms="Pass=2"/>
    <Package HardwareVersion="AB*" FLASH="99999" SourceDir="\Storage\big" DestDir="\Flash File Store\os"/>
    <Package SourceDir="\Storage\any" DestDir="\Flash File Store\any"/>
  </OSFirmware>
</Settings>
)";

std::vector<std::string> Texts(const std::vector<char*>& list) {
  return std::vector<std::string>(list.begin(), list.end());
}

class SettingsFile : public ::testing::Test {
 protected:
  SettingsFile() { root.WriteIdentity("hwcfg=AB12CD34\nuniqueid=SET-DEVICE\n"); }
  ftctest::DeviceRoot root;
};

TEST_F(SettingsFile, FillsTheJobWithWhatMatchesThisDevice) {
  root.WriteFile("\\Flash File Store\\job.xml", kSettings);
  UpgradeConfig cfg;
  ASSERT_EQ(cfg.LoadFromFile(L"job.xml"), 1);

  EXPECT_STREQ(cfg.GetVersion(), "3.1");  // an empty element leaves the field
  EXPECT_EQ(cfg.GetHTTPPort(), 8081);
  EXPECT_EQ(cfg.GetSysLogPort(), 5514);
  EXPECT_STREQ(cfg.GetProcessParms(), "-q");
  EXPECT_EQ(cfg.GetProcessWait(), 1);  // only "false" in exact case clears it
  EXPECT_EQ(cfg.GetReboot(), 0);       // any case
  EXPECT_EQ(cfg.GetShowGUI(), 1);
  EXPECT_EQ(cfg.GetPacketSize(), 4096);
  EXPECT_STREQ(cfg.GetInfFileName(), "image.inf");
  EXPECT_STREQ(cfg.GetUpgEndMsg(), "Done");
  EXPECT_EQ(cfg.GetDownloadLoopCnt(), 4);
  ASSERT_NE(cfg.GetPreProcessing(), nullptr);
  EXPECT_EQ(cfg.GetPostProcessing(), nullptr);
  EXPECT_EQ(Texts(cfg.GetStopProcessList()), (std::vector<std::string>{"app.exe", "svc.exe"}));

  std::vector<std::string> downloads;
  for (const tagDownloadFile* f : cfg.GetDownloadFiles())
    downloads.push_back(std::string(f->m_szSourceFile) + ">" + f->m_szDestFile);
  EXPECT_EQ(downloads, (std::vector<std::string>{"all.bin>\\Flash File Store\\all.bin",
                                                 "mine.bin>\\Flash File Store\\mine.bin"}));
  EXPECT_EQ(Texts(cfg.GetFileDeleteList()), (std::vector<std::string>{"\\temp\\old.log"}));
  EXPECT_EQ(Texts(cfg.GetFileSaveList()), (std::vector<std::string>{"\\temp\\keep.txt"}));

  ASSERT_EQ(cfg.GetRegistryTests().size(), 1u);
  const tagRegistryEntry* r = cfg.GetRegistryTests()[0];
  EXPECT_STREQ(r->m_szRoot, "");  // no preset, unlike the protocol's group
  EXPECT_STREQ(r->m_szOperator, "GE");

  // Three packages counted; only the first fits this device (the second needs more flash,
  // the third names no hardware).
  EXPECT_EQ(cfg.GetFirmwarePkgCount(), 3);
  ASSERT_EQ(cfg.GetFirmwarePkgs().size(), 1u);
  const FirmwarePackage* p = cfg.GetFirmwarePkgs()[0];
  EXPECT_STREQ(p->getFragFilePath(), "\\Storage\\os\\");  // a separator added
  EXPECT_EQ(p->getFragFileCount(), 3);
  EXPECT_STREQ(p->getFlashWriterParms(), "-w");
  EXPECT_EQ(cfg.IsMultiPass(), 1);
}

TEST_F(SettingsFile, FlashSizeDecidesBetweenPackages) {
  UpgradeConfig probe;
  const std::string flash = probe.GetFlashSize();
  ASSERT_FALSE(flash.empty());
  root.WriteFile("\\Flash File Store\\fw.xml",
                 "<S><OSFirmware>"
                 "<Package HardwareVersion=\"AB*\" FLASH=\"1" +
                     flash +
                     "\" Base=\"small\"/>"
                     "<Package HardwareVersion=\"AB*\" FLASH=\"" +
                     flash +
                     "\" Base=\"exact\" "
                     "DestDir=\"\\Flash File Store\\os\"/>"
                     "</OSFirmware></S>");
  UpgradeConfig cfg;
  ASSERT_EQ(cfg.LoadFromFile(L"fw.xml"), 1);
  ASSERT_EQ(cfg.GetFirmwarePkgs().size(), 1u);
  EXPECT_STREQ(cfg.GetFirmwarePkgs()[0]->getFragFileBase(), "exact");
  EXPECT_STREQ(cfg.GetFirmwarePkgs()[0]->getFragFileDestDir(), "\\Flash File Store\\os\\");
  EXPECT_EQ(cfg.IsMultiPass(), 0);
}

TEST_F(SettingsFile, PatternsMeetTheHardwareTextTheJobHolds) {
  // Too long for the record's read, so the job holds no text; over no common length every
  // pattern matches.
  root.WriteIdentity("hwcfg=AB12CD34EF56GH78IJ90KL12MN\nuniqueid=SET-DEVICE\n");
  root.WriteFile("\\Flash File Store\\hw.xml",
                 "<S><Downloads><File SourceDir=\"a.bin\" DestDir=\"\\a.bin\" "
                 "HardwareVersion=\"ZZ*\"/></Downloads></S>");
  UpgradeConfig cfg;
  ASSERT_STREQ(cfg.GetMfgString(), "");
  ASSERT_EQ(cfg.LoadFromFile(L"hw.xml"), 1);
  EXPECT_EQ(cfg.GetDownloadFiles().size(), 1u);
}

TEST_F(SettingsFile, WindowsCopyIsConsumedAndFlashStoreCopyKept) {
  struct Case {
    const char* name;
    bool inWindows, inFlash;
    const char* presetBase;  // set through the protocol before loading
    const char* bundle;      // expected
    const char* base;        // expected
  } cases[] = {
      {"windows only", true, false, nullptr, "Win", "http://file-server:8081"},
      {"flash store only", false, true, nullptr, "Flash", "http://file-server:8081"},
      {"both: windows first", true, true, nullptr, "Win", "http://file-server:8081"},
      {"protocol base kept", true, false, "http://proto:1", "Win", "http://proto:1"},
      {"neither", false, false, nullptr, "", ""},
  };
  for (const Case& c : cases) {
    ftctest::DeviceRoot caseRoot;
    auto body = [](const char* bundle) {
      return std::string("<S><BundleName>") + bundle +
             "</BundleName><BaseUrl>http://file-server:8081</BaseUrl></S>";
    };
    if (c.inWindows) caseRoot.WriteFile("\\windows\\job.xml", body("Win"));
    if (c.inFlash) caseRoot.WriteFile("\\Flash File Store\\job.xml", body("Flash"));
    UpgradeConfig cfg;
    if (c.presetBase) cfg.SetBaseURL(c.presetBase);
    EXPECT_EQ(cfg.LoadFromFile(L"job.xml"), (c.inWindows || c.inFlash) ? 1 : 0) << c.name;
    EXPECT_STREQ(cfg.GetBundleName(), c.bundle) << c.name;
    EXPECT_STREQ(cfg.GetBaseURL(), c.base) << c.name;
    EXPECT_FALSE(caseRoot.Exists("\\windows\\job.xml")) << c.name;
    EXPECT_EQ(caseRoot.Exists("\\Flash File Store\\job.xml"), c.inFlash) << c.name;
  }
}

}  // namespace
