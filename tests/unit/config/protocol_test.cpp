// The group/field protocol against the modules themselves, so the job it builds can be read
// back field by field.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "configlet/configlet.h"
#include "configlet/protocol_state.h"
#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"
#include "report/send_up.h"
#include "support/device_root.h"
#include "support/registry.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

class Protocol : public ::testing::Test {
 protected:
  void SetUp() override { IcfgInitialize(); }

  uint32_t Begin(const char* group, uint32_t instance = 0) {
    return IcfgBeginGroup(group, 0, instance);
  }
  uint32_t Set(const char* field, const char* value) {
    return IcfgSetField(field, "", value, 0, 0);
  }
  uint32_t End(const char* group) { return IcfgEndGroup(group, 0, 0); }
  void Group(const char* group, const Fields& fields = {}) {
    ASSERT_EQ(Begin(group), 0u) << group;
    for (const auto& f : fields) ASSERT_EQ(Set(f.first.c_str(), f.second.c_str()), 0u) << f.first;
    ASSERT_EQ(End(group), 0u) << group;
  }
  UpgradeConfig& Job() { return *gpUpgCfg; }

  ftctest::DeviceRoot m_root;
};

TEST_F(Protocol, ACompleteJobIsBuiltFieldByField) {
  ASSERT_EQ(Begin("FileTransferConfiglet"), 0u);
  ASSERT_EQ(Begin("Tests"), 0u);
  Group("Registry", {{"Key", "Software\\Acme"}, {"Operator", ">="}, {"ErrorMsg", "Too old"}});
  ASSERT_EQ(End("Tests"), 0u);
  ASSERT_EQ(Begin("DiskCleanup"), 0u);
  Group("File", {{"Action", "delete"}, {"Name", "\\Temp"}});
  Group("File", {{"Action", "SAVE"}, {"Name", "\\Temp\\keep.txt"}});
  Group("File", {{"Action", "Move"}, {"Name", "\\Temp\\ignored.txt"}});
  Group("File", {{"Action", "Save"}});
  ASSERT_EQ(End("DiskCleanup"), 0u);
  Group("StartProcess", {{"Process", "\\Windows\\flash.exe"}});
  ASSERT_EQ(Begin("StopProcesses"), 0u);
  Group("StopProcess", {{"Process", "a.exe"}});
  Group("StopProcess", {{"Process", "b.exe"}});
  ASSERT_EQ(End("StopProcesses"), 0u);

  ASSERT_EQ(Begin("PreProcessing"), 0u);
  Group("Executable", {{"Name", "\\Windows\\setup.exe"}, {"StartIn", "\\Windows"}});
  ASSERT_EQ(Begin("FileOperations"), 0u);
  Group("Save", {{"Name", "\\Temp\\spare.txt"}});
  Group("Delete", {{"Name", "\\Temp\\old"}});
  Group("Rename", {{"Name", "\\a.txt"}, {"Dest", "\\b.txt"}});
  ASSERT_EQ(End("FileOperations"), 0u);
  ASSERT_EQ(Begin("Registry"), 0u);
  Group("Set", {{"KeyName", "HKEY_LOCAL_MACHINE\\Software\\Acme"}, {"Type", "REG_DWORD"}});
  ASSERT_EQ(End("Registry"), 0u);
  ASSERT_EQ(Set("Process", "early.exe"), 0u);
  ASSERT_EQ(End("PreProcessing"), 0u);

  ASSERT_EQ(Begin("PostProcessing"), 0u);
  Group("CopyDir", {{"SourceDir", "\\Temp\\a"}, {"DestDir", "\\Temp\\b"}});
  Group("DeleteKey", {{"KeyName", "HKEY_LOCAL_MACHINE\\Software\\Old"}});
  Group("Executable", {{"Name", "\\Windows\\after.exe"}});
  ASSERT_EQ(Set("Process", "late.exe"), 0u);
  ASSERT_EQ(End("PostProcessing"), 0u);
  for (const auto& f : Fields{{"EndText", "Done"}, {"Reboot", "TRUE"}})
    ASSERT_EQ(Set(f.first.c_str(), f.second.c_str()), 0u);

  // One fact per group routes its fields (the server and download groups run in every whole
  // job); the rest is the same copy into a bounded text.
  UpgradeConfig& job = Job();
  ASSERT_EQ(job.GetRegistryTests().size(), 1u);
  const tagRegistryEntry* test = job.GetRegistryTests()[0];
  EXPECT_STREQ(test->m_szRoot, "HKEY_LOCAL_MACHINE");  // preset
  EXPECT_STREQ(test->m_szType, "String");              // preset
  EXPECT_STREQ(test->m_szOperator, ">=");
  EXPECT_STREQ(test->m_szErrorMsg, "Too old");
  // Clean-up actions in any case; anything but delete and save is dropped.
  ASSERT_EQ(job.GetFileDeleteList().size(), 1u);
  EXPECT_STREQ(job.GetFileDeleteList()[0], "\\Temp");
  ASSERT_EQ(job.GetFileSaveList().size(), 1u);
  EXPECT_STREQ(job.GetFileSaveList()[0], "\\Temp\\keep.txt");
  EXPECT_STREQ(job.GetProcessName(), "\\Windows\\flash.exe");
  ASSERT_EQ(job.GetStopProcessList().size(), 2u);
  EXPECT_STREQ(job.GetStopProcessList()[1], "b.exe");

  CQVProcessingHandler* pre = job.GetPreProcessing();
  ASSERT_NE(pre, nullptr);
  ASSERT_EQ(pre->GetExeHandler()->GetEntries().size(), 1u);
  EXPECT_STREQ(pre->GetExeHandler()->GetEntries()[0]->GetStartIn(), "\\Windows");
  ASSERT_EQ(pre->GetFileHandler()->GetSaveEntries().size(), 1u);
  ASSERT_EQ(pre->GetFileHandler()->GetEntries().size(), 2u);
  EXPECT_STREQ(pre->GetFileHandler()->GetEntries()[1]->GetOperation(), "Rename");
  EXPECT_STREQ(pre->GetFileHandler()->GetEntries()[1]->GetDest(), "\\b.txt");
  LLNode* node = pre->GetRegistryHandler()->GetList().first();
  ASSERT_NE(node, nullptr);
  EXPECT_STREQ(static_cast<CQVRegistryEntry*>(node->data())->GetType(), "REG_DWORD");
  EXPECT_EQ(node->next(), nullptr);
  // Processes named under post-processing are stopped before the upgrade as well.
  ASSERT_EQ(pre->GetProcessNames().size(), 2u);
  EXPECT_STREQ(pre->GetProcessNames()[1], "late.exe");

  CQVProcessingHandler* post = job.GetPostProcessing();
  ASSERT_NE(post, nullptr);
  EXPECT_TRUE(post->GetProcessNames().empty());
  ASSERT_EQ(post->GetFileHandler()->GetEntries().size(), 1u);
  EXPECT_STREQ(post->GetFileHandler()->GetEntries()[0]->GetDest(), "\\Temp\\b");
  ASSERT_NE(post->GetRegistryHandler()->GetList().first(), nullptr);
  ASSERT_EQ(post->GetExeHandler()->GetEntries().size(), 1u);
  EXPECT_EQ(post->GetExeHandler()->GetEntries()[0]->GetWait(), 1);
  EXPECT_STREQ(job.GetUpgEndMsg(), "Done");
  EXPECT_EQ(job.GetReboot(), 1);
  EXPECT_NE(m_root.Log().find("IcfgSetField - Process, late.exe\r\n"), std::string::npos);
}

TEST_F(Protocol, KeywordsMatchAsPrefixesInTableOrder) {
  struct Case {
    const char* group;  // opened (and left open) before the field
    const char* field;
    const char* value;
    uint32_t result;
  };
  const Case cases[] = {
      {"Syslog", "P", "515", 0},                   // Port, ahead of Process and Parameters
      {"Syslog", "", "10.0.0.9", 0},               // empty name: Address
      {"Syslog", "ADDR", "10.0.0.7", 0},           // any case
      {"StartProcess", "Proc", "\\flash.exe", 0},  // Process
      {"StartProcess", "Param", "-z", 0},          // Parameters
      {"Registry", "Val", "x", ICFG_E_UNKNOWN},    // ValueName and Value are exact
      {"Registry", "Valu", "x", ICFG_E_UNKNOWN},
      {"Registry", "value", "5", 0},
      {"Syslog", "Portable", "1", ICFG_E_UNKNOWN},  // longer than the keyword
      {"Syslog", "Versio", "1", ICFG_E_UNKNOWN},    // Version is exact
      {"Syslog", "Bogus", "1", ICFG_E_UNKNOWN},
      {"PullFile", "SrcUrl", "http://%XQ_SERVERIP%", 0},  // pull-file names are exact
      {"PullFile", "SrcUr", "x", ICFG_E_UNKNOWN},
      {"PullFile", "FileID", "17", 0},
  };
  ASSERT_EQ(Begin("FileTransferConfiglet"), 0u);
  for (const Case& c : cases) {
    ASSERT_EQ(Begin(c.group), 0u);
    EXPECT_EQ(Set(c.field, c.value), c.result) << c.group << "/" << c.field;
  }
  EXPECT_EQ(Job().GetSysLogPort(), 515);
  EXPECT_STREQ(Job().GetSysLogIP(), "10.0.0.7");
  EXPECT_STREQ(Job().GetProcessName(), "\\flash.exe");
  EXPECT_STREQ(Job().GetProcessParms(), "-z");
  ASSERT_NE(gpRegistryEntry, nullptr);
  EXPECT_STREQ(gpRegistryEntry->m_szValue, "5");
  EXPECT_STREQ(gpRegistryEntry->m_szValueName, "");
  ASSERT_NE(gpPullFileEntry, nullptr);
  EXPECT_STREQ(gpPullFileEntry->m_szFileID, "17");
}

TEST_F(Protocol, WaitAndShowGUIReadTheirValuesByTheirOwnCaseRules) {
  struct Case {
    const char* value;
    int32_t startProcessWait;  // only "false" exactly means no
    int32_t executableWait;    // "FALSE" in any case means no
  };
  const Case cases[] = {{"false", 0, 0}, {"False", 1, 0}, {"FALSE", 1, 0}, {"no", 1, 1}};
  for (const Case& c : cases) {
    ASSERT_EQ(Begin("FileTransferConfiglet"), 0u);
    Group("StartProcess", {{"Wait", c.value}});
    EXPECT_EQ(Job().GetProcessWait(), c.startProcessWait) << c.value;
    ASSERT_EQ(Set("ShowGUI", c.value), 0u);
    EXPECT_EQ(Job().GetShowGUI(), c.startProcessWait) << c.value;
    ASSERT_EQ(Begin("PreProcessing"), 0u);
    Group("Executable", {{"Wait", c.value}});
    ASSERT_EQ(End("PreProcessing"), 0u);
    EXPECT_EQ(Job().GetPreProcessing()->GetExeHandler()->GetEntries()[0]->GetWait(),
              c.executableWait)
        << c.value;
  }
  // Outside StartProcess, Wait changes nothing.
  ASSERT_EQ(Set("Wait", "false"), 0u);
  EXPECT_EQ(Job().GetProcessWait(), 1);
}

TEST_F(Protocol, GroupsAreCheckedTheLastNameKeptAndInstanceZeroStartsAJob) {
  struct Case {
    const char* group;
    uint32_t result;
  };
  const Case cases[] = {
      {"FileProcessing", ICFG_E_UNKNOWN}, {"Bogus", ICFG_E_UNKNOWN}, {"syslog", 0},
      {"ALTERNATERTWREASON", 0},          {"", ICFG_E_UNKNOWN},      {"ClearQVBundles", 0}};
  for (const Case& c : cases) EXPECT_EQ(Begin(c.group), c.result) << c.group;
  EXPECT_EQ(gbFileProcessing, 0);
  // Only instance zero starts a new job.
  ASSERT_EQ(Begin("FileTransferConfiglet"), 0u);
  EXPECT_NE(m_root.Log().find("Allocating gpUpgCfg\r\n"), std::string::npos);
  ASSERT_EQ(Set("BundleName", "First"), 0u);
  char value[64] = {};
  uint32_t length = sizeof value;
  EXPECT_EQ(IcfgGetField("BundleName", 0, 0, value, &length), ICFG_E_UNKNOWN);  // write-only
  ASSERT_EQ(Begin("FileTransferConfiglet", 1), 0u);
  EXPECT_STREQ(Job().GetBundleName(), "First");
  ASSERT_EQ(Begin("FileTransferConfiglet", 0), 0u);
  EXPECT_STREQ(Job().GetBundleName(), "");
}

TEST_F(Protocol, UnbalancedSequencesLeaveFlagsSetButNeverCrash) {
  // Fields with no job and nothing open are accepted and kept nowhere.
  for (const char* field : {"Address", "Port", "BaseURL", "Process", "Name", "RequiredSpace",
                            "Root", "Value", "SrcUrl", "BundleName", "Reboot"})
    EXPECT_EQ(Set(field, "v"), 0u) << field;
  // Groups that need a job do nothing without one.
  EXPECT_EQ(Begin("PreProcessing"), 0u);
  EXPECT_EQ(Set("Process", "p.exe"), 0u);
  EXPECT_EQ(End("PreProcessing"), 0u);
  EXPECT_EQ(End("PullFile"), 0u);  // closing with no entry open

  ASSERT_EQ(Begin("FileTransferConfiglet"), 0u);
  // Download fields outside Download or FileList, or in a clean-up File, make no entry.
  for (const char* field : {"Source", "Dest", "CRC", "MCTMask"}) EXPECT_EQ(Set(field, "x"), 0u);
  Group("File", {{"Source", "x.bin"}});
  EXPECT_TRUE(Job().GetDownloadFiles().empty());
  EXPECT_EQ(Job().GetMCFileList(), nullptr);
  // Download left open: its flag stays, and a File opened twice keeps only the second entry.
  ASSERT_EQ(Begin("Download"), 0u);
  ASSERT_EQ(Begin("File"), 0u);
  ASSERT_EQ(Set("Source", "dropped.bin"), 0u);
  Group("File", {{"Source", "kept.bin"}});
  ASSERT_EQ(Set("Source", "after-close.bin"), 0u);  // no entry open: kept nowhere
  ASSERT_EQ(Job().GetDownloadFiles().size(), 1u);
  EXPECT_STREQ(Job().GetDownloadFiles()[0]->m_szSourceFile, "kept.bin");
  EXPECT_EQ(gbDownload, 1);
  // StartProcess left open: a later StopProcess's Process still names the flash writer.
  ASSERT_EQ(Begin("StartProcess"), 0u);
  Group("StopProcess", {{"Process", "stop.exe"}});
  EXPECT_STREQ(Job().GetProcessName(), "stop.exe");
  EXPECT_TRUE(Job().GetStopProcessList().empty());
  ASSERT_EQ(End("StartProcess"), 0u);
  Group("StopProcess", {{"Process", "stop.exe"}});
  EXPECT_EQ(Job().GetStopProcessList().size(), 1u);
  // Inside pre-processing a Registry group is only a grouping: no test is added.
  ASSERT_EQ(Begin("PreProcessing"), 0u);
  ASSERT_EQ(Begin("Registry"), 0u);
  ASSERT_EQ(End("Registry"), 0u);
  EXPECT_EQ(Set("Key", "x"), ICFG_E_UNKNOWN);  // pre-processing vocabulary only
  ASSERT_EQ(End("PreProcessing"), 0u);
  EXPECT_TRUE(Job().GetRegistryTests().empty());
}

TEST_F(Protocol, BaseURLTakesTheMessageQueueServerAddress) {
  struct Case {
    const wchar_t* serverIp;  // null: no registry value
    const char* url;
    const char* expected;
  };
  const Case cases[] = {
      {nullptr, "http://upgrades.example:8080", "http://upgrades.example:8080"},
      {L"10.9.8.7", "http://upgrades.example:8080/os", "http://10.9.8.7:8080"},
      {L"10.9.8.7", "http://upgrades.example/os", "http://10.9.8.7:8789"},
      {L"10.9.8.7", "ftp://upgrades.example:21", "http://10.9.8.7:8789"},
      {L"127.0.0.1", "http://upgrades.example:8080", "http://upgrades.example:8080"},
      {L"", "http://upgrades.example:8080", "http://upgrades.example:8080"},
  };
  for (const Case& c : cases) {
    ftctest::DeviceRoot root;
    if (c.serverIp) {
      ASSERT_TRUE(ftctest::SetServerIP(c.serverIp));
    }
    ASSERT_EQ(Begin("FileTransferConfiglet"), 0u);
    ASSERT_EQ(Set("BaseURL", c.url), 0u);
    EXPECT_STREQ(Job().GetBaseURL(), c.expected) << c.url;
  }
}

TEST_F(Protocol, PrePostProcessingFieldsBelongToTheOpenEntry) {
  ASSERT_EQ(Begin("FileTransferConfiglet"), 0u);
  ASSERT_EQ(Begin("PostProcessing"), 0u);
  struct Case {
    const char* group;
    const char* field;
    uint32_t result;
  };
  const Case cases[] = {
      {"Executable", "CmdLine", 0}, {"Executable", "Dest", ICFG_E_UNKNOWN},
      {"Copy", "SourceDir", 0},     {"Copy", "KeyName", ICFG_E_UNKNOWN},
      {"DeleteValue", "Type", 0},   {"DeleteValue", "Name", ICFG_E_UNKNOWN},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(Begin(c.group), 0u);
    EXPECT_EQ(Set(c.field, "v"), c.result) << c.group << "/" << c.field;
    ASSERT_EQ(End(c.group), 0u);
  }
  EXPECT_EQ(Set("Name", "v"), ICFG_E_UNKNOWN);  // no entry open
  EXPECT_EQ(Set("process", "v"), 0u);
  ASSERT_EQ(End("PostProcessing"), 0u);
  // Post-processing alone still gets its processes stopped before the upgrade.
  ASSERT_NE(Job().GetPreProcessing(), nullptr);
  EXPECT_EQ(Job().GetPreProcessing()->GetProcessNames().size(), 1u);
  // Operations closed outside pre/post-processing are dropped.
  Group("Executable");
  Group("Rename");
  Group("Set");
  EXPECT_EQ(Job().GetPostProcessing()->GetExeHandler()->GetEntries().size(), 2u);
  EXPECT_EQ(Job().GetPostProcessing()->GetFileHandler()->GetEntries().size(), 2u);
}

namespace {
std::vector<std::string> g_sent;
uint32_t g_context = 0;
uint32_t FailingSendUp(uint32_t context, const char* message, uint32_t length) {
  g_context = context;
  g_sent.emplace_back(message, length);
  return 0xFFFFFFFFu;
}
}  // namespace

TEST(SendUp, GoesThroughSlotFourOnlyOnceCallbacksAreSet) {
  EXPECT_EQ(SendUpMessage("early", 6), 0u);
  void* table[6] = {};
  table[4] = reinterpret_cast<void*>(&FailingSendUp);
  EXPECT_EQ(IcfgSetCallbacks(77, table), 0u);
  EXPECT_EQ(SendUpMessage("hello", 6), 1u);
  ASSERT_EQ(g_sent.size(), 1u);
  EXPECT_EQ(g_sent[0], std::string("hello", 6));
  EXPECT_EQ(g_context, 77u);
}

}  // namespace
