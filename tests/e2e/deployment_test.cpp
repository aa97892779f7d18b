// Deployments end to end: the real ftc-server and its sqlite store, and a fleet of device roots,
// each with its own ftc-host agent process. Phases reach only the devices chosen, a bad bundle
// stops after the first phase, a killed agent does not run its job twice, and a silent device
// times out.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "support/fleet_view.h"

namespace {

using json = nlohmann::json;
using Map = std::map<std::string, std::string>;

// Generous: six agents and a sanitized server share a loaded machine.
constexpr std::chrono::seconds kPatience(120);

class Deployment : public ::testing::Test {
 protected:
  // The server tells agents to come back every 300 device seconds: 0.3 s at the agents' scale.
  Deployment() : server(bundles.dir(), {"--db", db, "--check-in", "300"}) {}

  // A device root with its identity and its agent, whose output goes to <root>/agent.log.
  struct Device {
    std::unique_ptr<ftctest::DeviceRoot> root = std::make_unique<ftctest::DeviceRoot>();
    std::unique_ptr<ftctest::Child> agent;
    std::string Log() const { return ftctest::ReadHostFile(root->path() + "/agent.log"); }
  };
  Device& AddDevice(const std::string& id, const std::string& hardware) {
    Device& d = devices[id];
    d.root->WriteIdentity("uniqueid=" + id + "\nserial=S-" + id + "\nhwcfg=" + hardware + "\n");
    d.agent = std::make_unique<ftctest::Child>(std::vector<std::string>{
        "sh", "-c",
        "exec '" + ftctest::BinDir() + "/ftc-host' agent --server " + server.url() + " --root '" +
            d.root->path() + "' --plugin '" + ftctest::LibDir() +
            "/libFileTransferConfiglet.so' --interval 1 --time-scale 0.001 >>'" + d.root->path() +
            "/agent.log' 2>&1"});
    return d;
  }
  // `ftc-server deploy ARGS --db DB`; its output, the exit code checked.
  std::string Deploy(const std::string& args) {
    int status = -1;
    std::string out = ftctest::RunCommand(
        ftctest::BinDir() + "/ftc-server deploy " + args + " --db " + db + " 2>&1", &status);
    EXPECT_EQ(status, 0) << args << ": " << out;
    return out;
  }
  // Creates a deployment of a bundle folder, fetched from our server; its id.
  std::string Create(const std::string& bundle, const std::string& args,
                     const e2e::Bundle* from = nullptr) {
    if (!from) from = &bundles;
    std::string out = Deploy("create --root '" + from->dir() + "' --bundle " + bundle +
                             " --server " + server.url() + " --dest '\\Flash File Store' " + args);
    return out.rfind("deployment ", 0) == 0 ? out.substr(11, out.find(':') - 11) : "?";
  }
  json Show(const std::string& id) {
    std::vector<json> rows = ftctest::ServerView("deploy show " + id + " --json --db " + db);
    return rows.empty() ? json() : rows[0];
  }
  // Device id -> state in the deployment.
  Map States(const json& shown) {
    Map out;
    if (shown.is_object())
      for (const json& d : shown["devices"]) out[d["device"]] = d["state"];
    return out;
  }
  std::string Logs() {
    std::string out;
    for (auto& [id, d] : devices) out += "--- " + id + "\n" + d.Log();
    return out;
  }

  e2e::Bundle bundles;
  std::string db = "sqlite:" + bundles.dir() + "/../fleet.db";
  ftctest::ServerProcess server;
  std::map<std::string, Device> devices;
};

TEST_F(Deployment, PhasesReachTheMatchingDevicesAndABadBundleStopsAfterTheFirstPhase) {
  bundles.Add("good/a.bin", "alpha");
  for (int i = 1; i <= 6; ++i)
    AddDevice("dev-" + std::to_string(i), i % 3 == 0 ? "TILL-B" : "KIOSK-A");
  // The hardware pattern picks devices by their inventories.
  ASSERT_TRUE(ftctest::WaitUntil(
      [&] {
        auto fleet = ftctest::ByDevice(ftctest::ServerView("fleet --json --db " + db));
        return fleet.size() == 6 && fleet["dev-6"].value("hardware", "") == "TILL-B";
      },
      kPatience))
      << Logs();

  std::string good = Create("good", "--hardware 'KIOSK-*' --phases 25,100");
  ASSERT_TRUE(
      ftctest::WaitUntil([&] { return Show(good).value("state", "") == "done"; }, kPatience))
      << Show(good).dump() << Logs();
  EXPECT_EQ(States(Show(good)), (Map{{"dev-1", "complete"},
                                     {"dev-2", "complete"},
                                     {"dev-4", "complete"},
                                     {"dev-5", "complete"}}));
  EXPECT_EQ(devices["dev-4"].root->ReadFile("\\Flash File Store\\a.bin"), "alpha");
  EXPECT_FALSE(devices["dev-3"].root->Exists("\\Flash File Store\\a.bin"));

  // The job is written from an older copy of the bundle than the one served, so the file's CRC
  // never matches (changing the served file after the job was written would race the agents).
  e2e::Bundle older;
  older.Add("bad/b.bin", "bravo");
  bundles.Add("bad/b.bin", "changed");
  std::string bad = Create("bad", "--hardware 'KIOSK-*' --phases 50,100 --max-failures 1", &older);
  ASSERT_TRUE(
      ftctest::WaitUntil([&] { return Show(bad).value("state", "") == "paused"; }, kPatience))
      << Show(bad).dump() << Logs();
  // A few more rounds of check-ins hand the later phase nothing.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  json shown = Show(bad);
  EXPECT_EQ(shown["state"], "paused");
  EXPECT_EQ(
      States(shown),
      (Map{{"dev-1", "failed"}, {"dev-2", "failed"}, {"dev-4", "pending"}, {"dev-5", "pending"}}))
      << shown.dump();
  EXPECT_EQ(shown["devices"][0]["text"], "files do not match their CRCs");
  EXPECT_EQ(ftctest::Count(devices["dev-4"].Log(), "deployment " + bad + ": running"), 0);
}

// The deadline is judged whenever the deployment is looked at: a device that never checks in
// times out without anyone running.
TEST_F(Deployment, ASilentDeviceTimesOut) {
  bundles.Add("app/a.bin", "alpha");
  std::string silent = Create("app", "--devices ghost --deadline 0.05");
  ASSERT_TRUE(
      ftctest::WaitUntil([&] { return Show(silent).value("state", "") == "done"; }, kPatience));
  EXPECT_EQ(States(Show(silent)), (Map{{"ghost", "timed out"}}));
}

}  // namespace
