// Whole jobs through the plug-in against the real upgrade server.
#include <gtest/gtest.h>

#include <chrono>

#include "e2e_support.h"

namespace {

using ftctest::Count;

class UpgradeJob : public ::testing::Test {
 protected:
  UpgradeJob() : root(0.001) { root.WriteIdentity("hwcfg=AB12CD34\nuniqueid=E2E-DEVICE\n"); }

  std::vector<std::string> Events() const { return ftctest::Spooled(root, "event"); }
  // The worker asks for it after the job's end.
  bool RebootFollows() const {
    return ftctest::WaitUntil([this] { return root.Exists("\\.winux\\reboot-requested"); });
  }

  ftctest::DeviceRoot root;
  e2e::Bundle bundle;
};

TEST_F(UpgradeJob, FetchesEveryFileAndReportsCompletion) {
  std::string big = ftctest::RandomBytes(2 * 1024 * 1024 + 17, 1);
  uint32_t bigCrc = bundle.Add("os/big.bin", big);
  uint32_t aCrc = bundle.Add("a.txt", "alpha\n");
  e2e::Server server(bundle.dir());
  ftctest::PluginHost host;

  e2e::Job job;
  // No port in the base: the server sees the ":ordinal,count" form.
  job.baseUrl = "http://127.0.0.1";
  job.port = server.port();
  job.files = {{"os/big.bin", "\\Flash File Store\\app\\big.bin", std::to_string(bigCrc)},
               {"a.txt", "\\Flash File Store\\app\\a.txt", std::to_string(aCrc)}};
  ASSERT_EQ(e2e::RunJob(host, job), ftchost::JobOutcome::kComplete);

  EXPECT_EQ(root.ReadFile("\\Flash File Store\\app\\big.bin"), big);
  EXPECT_EQ(root.ReadFile("\\Flash File Store\\app\\a.txt"), "alpha\n");
  std::string log = root.Log();
  EXPECT_EQ(Count(log, "ValidateFiles - http fetching"), 2);
  EXPECT_NE(log.find("CretaeUpgradeInProgressEvent - Success"), std::string::npos);
  EXPECT_NE(server.Reports().find("E2E-DEVICE"), std::string::npos);
  EXPECT_EQ(Events(), (std::vector<std::string>{"205181 E2E, 1.0", "205182 E2E, 1.0"}));
  EXPECT_FALSE(root.Exists("\\.winux\\reboot-requested"));
}

TEST_F(UpgradeJob, FetchesOnlyMissingOrDamagedFilesMeantForThisDevice) {
  struct Case {
    const char* name;
    const char* mask;
    const char* onDevice;  // null: absent
    bool crcZero;
    bool fetched;
  } cases[] = {
      {"intact.bin", "*", "same", false, false},
      {"damaged.bin", "AB*", "garbage", false, true},
      {"missing.bin", "A?12", nullptr, false, true},
      {"second.bin", "XY*;AB12", nullptr, false, true},
      {"other.bin", "XY*", nullptr, false, false},
      {"unchecked.bin", "*", nullptr, true, false},
  };
  e2e::Job job;
  for (const Case& c : cases) {
    std::string content = std::string("content of ") + c.name;
    uint32_t crc = bundle.Add(c.name, content);
    std::string dest = std::string("\\Storage\\") + c.name;
    if (c.onDevice) root.WriteFile(dest, std::string(c.onDevice) == "same" ? content : c.onDevice);
    job.files.push_back({c.name, dest, c.crcZero ? "0" : std::to_string(crc), c.mask});
  }
  e2e::Server server(bundle.dir());
  ftctest::PluginHost host;
  job.baseUrl = "http://127.0.0.1:" + std::to_string(server.port());
  ASSERT_EQ(e2e::RunJob(host, job), ftchost::JobOutcome::kComplete);

  std::string log = root.Log();
  for (const Case& c : cases) {
    std::string line = std::string("http fetching !") + c.name + "!";
    EXPECT_EQ(Count(log, line), c.fetched ? 1 : 0) << c.name;
    std::string dest = std::string("\\Storage\\") + c.name;
    if (c.fetched || (c.onDevice && std::string(c.onDevice) == "same"))
      EXPECT_EQ(root.ReadFile(dest), std::string("content of ") + c.name) << c.name;
    else
      EXPECT_FALSE(root.Exists(dest)) << c.name;
  }
}

TEST_F(UpgradeJob, ListFileDeliversTheDownloadList) {
  std::string list;
  for (int i = 0; i < 3; ++i) {
    std::string name = "list" + std::to_string(i) + ".bin";
    uint32_t crc = bundle.Add(name, ftctest::RandomBytes(1000 + i, i));
    list += name + ",\\Flash File Store\\listed\\" + name + "," + (i == 2 ? "ZZ*" : "AB*") + "," +
            std::to_string(crc) + "," + std::to_string(1000 + i) + "\r\n";
  }
  uint32_t listCrc = bundle.Add("files.lst", list);
  e2e::Server server(bundle.dir());
  ftctest::PluginHost host;
  e2e::Job job;
  job.baseUrl = "http://127.0.0.1:" + std::to_string(server.port());
  job.hasList = true;
  job.list = {"files.lst", "\\Flash File Store\\files.lst", std::to_string(listCrc)};
  ASSERT_EQ(e2e::RunJob(host, job), ftchost::JobOutcome::kComplete);

  EXPECT_EQ(root.ReadFile("\\Flash File Store\\files.lst"), list);
  EXPECT_TRUE(root.Exists("\\Flash File Store\\listed\\list0.bin"));
  EXPECT_TRUE(root.Exists("\\Flash File Store\\listed\\list1.bin"));
  EXPECT_FALSE(root.Exists("\\Flash File Store\\listed\\list2.bin"));  // other devices
  EXPECT_NE(root.Log().find("multicast crc error, no file"), std::string::npos);
}

// What the management server hears of whole jobs, in order: events in the spool, states and
// AutoDeploy through the host's callback.
TEST_F(UpgradeJob, ReportsOfARefusedJobAndOfARebootJobUnderProvisioning) {
  root.WriteIdentity("hwcfg=AB12CD34\nuniqueid=E2E-DEVICE\nprovisioning=1\n");
  uint32_t crc = bundle.Add("r.bin", "r");
  uint32_t settingsCrc = bundle.Add("settings.xml", "<settings/>");
  root.WriteFile("\\Windows\\settings.xml", "old");
  e2e::Server server(bundle.dir());
  ftctest::PluginHost host;
  ftctest::PluginHost::ClearSendUps();
  host.BeginGroup("FileTransferConfiglet");
  host.BeginGroup("Tests");
  host.Group("Registry", {{"Key", "SOFTWARE\\Nowhere"},
                          {"ValueName", "v"},
                          {"Value", "1"},
                          {"Type", "REG_SZ"},
                          {"Operator", "EQ"},
                          {"ErrorMsg", "not docked"}});
  host.EndGroup("Tests");
  host.SetField("BundleName", "Refused");
  host.SetField("Version", "9");
  ASSERT_EQ(host.BeginGroup("Upgrade"), 0u);
  ftchost::JobWatch refused(root.path());
  EXPECT_EQ(host.EndGroup("Upgrade"), 0xC4111005u);
  host.EndGroup("FileTransferConfiglet");
  EXPECT_EQ(refused.Poll(), ftchost::JobOutcome::kFailed);
  EXPECT_EQ(refused.text(), "not docked, Refused, 9");
  EXPECT_EQ(Events(), (std::vector<std::string>{"205180 not docked, Refused, 9"}));
  EXPECT_EQ(ftctest::PluginHost::SentUp(""),
            (std::vector<std::string>{"state 1 Upgrade Failed: not docked"}));

  ftctest::PluginHost::ClearSendUps();
  e2e::Job job;
  job.baseUrl = "http://127.0.0.1:" + std::to_string(server.port());
  // A ".rename" destination gets its final name.
  job.files = {{"r.bin", "\\r.bin", std::to_string(crc)},
               {"settings.xml", "\\Windows\\settings.xml.rename", std::to_string(settingsCrc)}};
  job.reboot = 1;
  ASSERT_EQ(e2e::RunJob(host, job), ftchost::JobOutcome::kComplete);
  EXPECT_EQ(root.ReadFile("\\Windows\\settings.xml"), "<settings/>");
  EXPECT_FALSE(root.Exists("\\Windows\\settings.xml.rename"));
  EXPECT_EQ(Events(), (std::vector<std::string>{"205180 not docked, Refused, 9", "205181 E2E, 1.0",
                                                "205182 E2E, 1.0"}));
  EXPECT_EQ(ftctest::PluginHost::SentUp(""),
            (std::vector<std::string>{"state 4 Device Upgrading", "autodeploy 10",
                                      "state 1 Upgrade Complete"}));
  EXPECT_TRUE(RebootFollows());
}

// The worker waits for an absent server for as long as it takes; meanwhile a second job is
// refused and the first one still finishes once the server comes up.
TEST_F(UpgradeJob, WaitsForAnUnreachableServerAndRefusesASecondJob) {
  uint32_t crc = bundle.Add("late.bin", "worth the wait");
  uint16_t port = static_cast<uint16_t>(ftctest::FreeTcpPort());
  ftctest::PluginHost host;
  e2e::Job job;
  job.baseUrl = "http://127.0.0.1:" + std::to_string(port);
  job.files = {{"late.bin", "\\Flash File Store\\late.bin", std::to_string(crc)}};
  ftchost::JobWatch watch(root.path());
  ASSERT_EQ(e2e::Submit(host, job), 0u);

  EXPECT_TRUE(ftctest::WaitUntil([&] { return Count(root.Log(), "before OpenURL") >= 3; },
                                 std::chrono::seconds(20)));
  EXPECT_TRUE(ftchost::UpgradeInProgress());

  host.BeginGroup("FileTransferConfiglet");
  EXPECT_EQ(host.BeginGroup("Upgrade"), 0xC4111001u);
  host.EndGroup("FileTransferConfiglet");
  EXPECT_NE(root.Log().find("Upgrade already in progress"), std::string::npos);

  e2e::Server server(bundle.dir(), port);
  ASSERT_EQ(watch.Wait(std::chrono::seconds(30)), ftchost::JobOutcome::kComplete);
  EXPECT_EQ(root.ReadFile("\\Flash File Store\\late.bin"), "worth the wait");
}

}  // namespace
