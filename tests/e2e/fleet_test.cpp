// A fleet on one machine: ftc-fleet runs devices in network namespaces that drop multicast
// datagrams at random, against one ftc-server and one multicast deployment. Every device must
// end with its files intact, complete in the store and on the fleet page, also when the sender
// dies halfway and HTTP has to carry the rest.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "e2e_support.h"
#include "support/fleet_view.h"
#include "support/http_client.h"

namespace {

using json = nlohmann::json;

constexpr int kDevices = 5;

class FleetRun : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "network namespaces need root";
    if (ftctest::Count(ftctest::RunCommand("for t in uftp uftpd nft ip; do command -v $t; done"),
                       "\n") != 4)
      GTEST_SKIP() << "uftp, nft or ip missing (scripts/bootstrap.sh test)";
    // Shared files, and one folder per hardware family that only that family takes.
    for (int i = 0; i < 6; ++i)
      files["os/part" + std::to_string(i) + ".bin"] = ftctest::RandomBytes(200000, i + 1);
    files["kiosk/screen.bin"] = ftctest::RandomBytes(150000, 11);
    files["till/drawer.bin"] = ftctest::RandomBytes(150000, 12);
    for (const auto& [rel, content] : files) bundle.Add(rel, content);
  }

  // ftc-fleet at 5% loss; its output.
  std::string Run(int* status) {
    return ftctest::RunCommand(ftctest::BinDir() + "/ftc-fleet --devices " +
                                   std::to_string(kDevices) + " --multicast --loss 0.05 --bundle " +
                                   bundle.dir() + " --work " + work + " --time-scale 0.01" +
                                   " --rate 8000 --timeout 240",
                               status);
  }

  std::string DeviceFile(int i, const std::string& rel) {
    char id[32];
    std::snprintf(id, sizeof id, "fleet-%03d", i + 1);
    return ftctest::ReadHostFile(work + "/devices/" + id + "/Flash File Store/fleet/" + rel);
  }

  // Every device holds exactly its files, and is complete in the store and on the fleet page.
  void ExpectFleetComplete() {
    for (int i = 0; i < kDevices; ++i)
      for (const auto& [rel, content] : files) {
        // Devices take the hardware texts KIOSK-..., TILL-..., SCANNER-... in turn.
        std::string folder = rel.substr(0, rel.find('/'));
        if (folder == "os" || (folder == "kiosk" && i % 3 == 0) ||
            (folder == "till" && i % 3 == 1)) {
          EXPECT_TRUE(DeviceFile(i, rel) == content) << "device " << i << " " << rel;
        }
      }
    std::string db = "sqlite:" + work + "/fleet.db";
    std::vector<json> shown = ftctest::ServerView("deploy show 1 --json --db " + db);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0]["state"], "done");
    EXPECT_EQ(shown[0]["counts"]["complete"], kDevices) << shown[0].dump();

    int admin = ftctest::FreeTcpPort();
    ftctest::ServerProcess page(work + "/bundles",
                                {"--db", db, "--admin-bind", "127.0.0.1:" + std::to_string(admin)});
    json fleet = json::parse(ftctest::Connection(admin).Get("/api/fleet").body, nullptr, false);
    ASSERT_EQ(fleet["devices"].size(), static_cast<size_t>(kDevices)) << fleet.dump();
    for (const json& d : fleet["devices"]) {
      EXPECT_EQ(d["installed"], "fleet 1") << d.dump();
      EXPECT_EQ(d["last_event"], "fleet, 1") << d.dump();
    }
    EXPECT_EQ(fleet["deployments"][0]["counts"]["complete"], kDevices);
  }

  e2e::Bundle bundle;
  std::string work = bundle.dir() + "/../work";
  std::map<std::string, std::string> files;
};

TEST_F(FleetRun, FiveDevicesAtFivePercentLossAllComplete) {
  int status = -1;
  std::string out = Run(&status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_NE(out.find("devices complete: 5, failed: 0"), std::string::npos) << out;
  EXPECT_NE(out.find("multicast session complete"), std::string::npos) << out;
  ExpectFleetComplete();
}

TEST_F(FleetRun, SenderKilledHalfwayTheRestComesOverHttp) {
  auto run = std::async(std::launch::async, [&] {
    int status = -1;
    std::string out = Run(&status);
    return std::make_pair(status, out);
  });
  // Halfway: the first device has begun the fourth of the session's files.
  pid_t sender = 0;
  ASSERT_TRUE(ftctest::WaitUntil(
      [&] {
        std::string log = ftctest::ReadHostFile(work + "/deploy.log");
        size_t at = log.find("uftp pid ");
        if (at != std::string::npos) sender = std::atoi(log.c_str() + at + 9);
        return sender > 0 && ftctest::Count(ftctest::RunCommand("find '" + work +
                                                                "/devices/fleet-001/Flash File "
                                                                "Store/fleet' -type f"),
                                            "\n") >= 4;
      },
      std::chrono::seconds(120)));
  kill(sender, SIGKILL);
  auto [status, out] = run.get();
  ASSERT_EQ(status, 0) << out;
  EXPECT_NE(ftctest::ReadHostFile(work + "/deploy.log").find("stopped by signal 9"),
            std::string::npos);
  for (int i = 0; i < kDevices; ++i) {
    char log[80];
    std::snprintf(log, sizeof log, "/devices/fleet-%03d/tmp/FileXfer.txt", i + 1);
    EXPECT_GT(ftctest::Count(ftctest::ReadHostFile(work + log), "ValidateFiles - http fetching"), 0)
        << "device " << i;
  }
  ExpectFleetComplete();
}

}  // namespace
