// The worker's sequence driven directly (no plug-in interface): firmware through the flash
// writer, multi-pass runs and their pass file, the wait for the device's start-up programs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>

#include "config/UpgradeConfig.h"
#include "e2e_support.h"
#include "engine/job_state.h"
#include "engine/startup.h"
#include "engine/upgrade_thread.h"
#include "platform/winux.h"
#include "support/registry.h"

namespace fs = std::filesystem;

namespace {

class Sequence : public ::testing::Test {
 protected:
  Sequence() : root(0.001) { root.WriteIdentity("hwcfg=AB12CD34\nuniqueid=SEQ-DEVICE\n"); }

  // Runs one job to its end on a worker, as the Upgrade close does.
  void Run(UpgradeConfig* job, int upgradeClient) {
    m_bUpgradeInProgress = 1;
    HANDLE worker = StartUpgradeThread(job, upgradeClient);
    ASSERT_NE(worker, nullptr);
    EXPECT_EQ(WinuxWaitForSingleObject(worker, INFINITE), WINUX_WAIT_ACQUIRED);
    CloseHandle(worker);
    EXPECT_EQ(m_bUpgradeInProgress, 0);
    EXPECT_EQ(m_pUpgCfg, nullptr);  // nothing left pointing at the destroyed job
  }

  UpgradeConfig* NewJob(uint16_t port) {
    UpgradeConfig* job = new UpgradeConfig();
    job->SetBaseURL(("http://127.0.0.1:" + std::to_string(port)).c_str());
    job->SetBundleName("Seq");
    job->SetVersion("2.0");
    return job;
  }

  std::vector<std::string> Records(const std::string& kind) { return ftctest::Spooled(root, kind); }

  ftctest::DeviceRoot root;
  e2e::Bundle bundle;
};

FirmwarePackage* Package(int fragments, const char* base, const char* parms, const char* extra) {
  FirmwarePackage* p = new FirmwarePackage();
  p->setFragFileCount(fragments);
  p->setFragFileBase(base);
  p->setFragFilePath("fw/");
  p->setFragFileDestDir("\\Temp\\");
  p->setFlashWriterParms(parms);
  p->setAdditionalParms(extra);
  return p;
}

TEST_F(Sequence, FirmwareFragmentsAreFetchedAndTheFlashWriterStartedOnce) {
  for (int k = 1; k <= 3; ++k)
    bundle.Add("fw/os00" + std::to_string(k) + ".zip", "fragment " + std::to_string(k));
  e2e::Server server(bundle.dir());
  root.WriteFile("\\Windows\\flashwr.sh",
                 "#!/bin/sh\necho \"$@\" > \"$WINUX_ROOT/flash-args.txt\"\n");
  UpgradeConfig* job = NewJob(server.port());
  job->AddFirmwarePkg(Package(3, "os", "-p os", ""));
  job->SetProcessName("\\Windows\\flashwr.sh");
  job->SetProcessParms("-x");
  Run(job, 1);

  for (int k = 1; k <= 3; ++k)
    EXPECT_EQ(root.ReadFile("\\Temp\\os00" + std::to_string(k) + ".zip"),
              "fragment " + std::to_string(k));
  EXPECT_EQ(ftctest::ReadHostFile(root.path() + "/flash-args.txt"), "-x -p os\n");
  EXPECT_NE(root.Log().find("Starting !\\Windows\\flashwr.sh! with !-x -p os!, waiting"),
            std::string::npos);
  EXPECT_EQ(Records("event"), (std::vector<std::string>{"205181 Seq, 2.0", "205182 Seq, 2.0"}));
  auto states = Records("state");
  ASSERT_FALSE(states.empty());
  EXPECT_EQ(states.back(), "1 Upgrade Complete");
  EXPECT_NE(std::find(states.begin(), states.end(), "4 Remote Executable Started"), states.end());
  EXPECT_NE(server.Reports().find("SEQ-DEVICE"), std::string::npos);
}

TEST_F(Sequence, PassFileCarriesAMultiPassJobAndAFailureOrASingleRunClearsIt) {
  bundle.Add("fw/p1.bin", "pass one");
  bundle.Add("fw/p2.bin", "pass two");
  e2e::Server server(bundle.dir());
  auto job = [&](bool failing) {
    UpgradeConfig* j = NewJob(server.port());
    j->SetMultiPass(1);
    j->AddFirmwarePkg(Package(0, "p1.bin", "", "Pass=1"));
    j->AddFirmwarePkg(Package(0, "p2.bin", "", "Pass=2"));
    if (failing) {
      tagRegistryEntry* t = NewRecord<tagRegistryEntry>();
      strcpy(t->m_szRoot, "HKEY_LOCAL_MACHINE");
      strcpy(t->m_szKey, "SOFTWARE\\Absent");
      strcpy(t->m_szValueName, "v");
      strcpy(t->m_szType, "REG_SZ");
      strcpy(t->m_szOperator, "EQ");
      strcpy(t->m_szErrorMsg, "battery low");
      j->AddRegistryTest(t);
    }
    return j;
  };

  Run(job(false), 1);
  EXPECT_EQ(root.ReadFile("\\tvlupgclnt.txt"), "1");
  EXPECT_EQ(root.ReadFile("\\Temp\\p1.bin"), "pass one");
  EXPECT_FALSE(root.Exists("\\Temp\\p2.bin"));

  Run(job(false), 1);
  EXPECT_EQ(root.ReadFile("\\tvlupgclnt.txt"), "2");
  EXPECT_EQ(root.ReadFile("\\Temp\\p2.bin"), "pass two");

  Run(job(true), 1);
  EXPECT_FALSE(root.Exists("\\tvlupgclnt.txt"));
  auto events = Records("event");
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back(), "205180 battery low, Seq, 2.0");
  EXPECT_EQ(Records("state").back(), "1 Upgrade Failed: battery low");

  // A single-run job clears whatever pass file it finds.
  root.WriteFile("\\tvlupgclnt.txt", "5");
  Run(NewJob(server.port()), 0);
  EXPECT_FALSE(root.Exists("\\tvlupgclnt.txt"));
  EXPECT_NE(root.Log().find("Multicast Fallback Mode..."), std::string::npos);
}

// A program named like the transfer agent that never ends is ended after the loop limit.
TEST_F(Sequence, StartupWaitEndsAnOverstayingTransferAgent) {
  ASSERT_TRUE(ftctest::SetRegistryDword(HKEY_LOCAL_MACHINE,
                                        L"\\SOFTWARE\\Tervalon\\DevMgmt\\QVTransferAgent",
                                        L"KillWaitLoopCnt", 2));
  fs::path dir = fs::path(root.path()).parent_path() / ("agent-" + std::to_string(getpid()));
  auto agent = ftctest::StartListedSleeper((dir / "QVTransferAgent.exe").string());
  ASSERT_TRUE(agent);

  UpgradeConfig cfg;
  cfg.SetBundleName("Seq");
  cfg.SetVersion("2.0");
  m_pUpgCfg = &cfg;
  EXPECT_EQ(WaitForStartupProcesses(), 0);
  m_pUpgCfg = nullptr;
  EXPECT_EQ(agent->Wait(std::chrono::seconds(60)), 128);
  fs::remove_all(dir);

  std::string log = root.Log();
  EXPECT_EQ(ftctest::Count(log, "Waiting for device startup"), 3);
  EXPECT_NE(log.find("killing QVTransferAgent\r\n"), std::string::npos);
  EXPECT_EQ(Records("autodeploy"), (std::vector<std::string>{"101", "0"}));
  EXPECT_EQ(Records("state"), (std::vector<std::string>{"4 Device Waiting", "4 Device Upgrading"}));
  EXPECT_EQ(Records("event"), (std::vector<std::string>{"205181 Seq, 2.0"}));
}

}  // namespace
