// ftc-host delivering to the real ftc-server and its store: nothing lost or stored twice while
// the server is away or its store is gone, a poison message set aside without holding up the
// rest, and a device that ran a job as the operator sees it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "support/fleet_view.h"
#include "support/scripted_http_peer.h"
#include "support/spool_writer.h"
#include "xq/spool.h"

namespace fs = std::filesystem;

namespace {

using json = nlohmann::json;
using ftctest::Reply;
using ftctest::ServerView;

// Generous: a loaded machine may take its time, a failure still ends.
constexpr std::chrono::seconds kPatience(90);

const char kBundles[] =
    "<QVInstalledBundles>   <Subsystem Name=\"Installed Bundles\">      <Group Name=\"E2E\">"
    "        <Field Name=\"Version\" Type=\"String\">1.0</Field>      </Group>   </Subsystem>"
    "</QVInstalledBundles>";

class Deliver : public ::testing::Test {
 protected:
  std::vector<std::string> Args(std::vector<std::string> args) {
    for (const char* a : {"--root", "", "--time-scale", "0.001"})
      args.push_back(*a ? a : root.path());
    return args;
  }
  void Spool(const char* queue, const std::string& message) {
    ASSERT_EQ(xq.Write(queue, message), 0);
  }
  size_t Left() { return ReadSpool(root.path(), "").size(); }
  std::unique_ptr<ftctest::ServerProcess> StartServer(int port = 0) {
    return std::make_unique<ftctest::ServerProcess>(
        bundle.dir(), std::vector<std::string>{"--port", std::to_string(port), "--db", db});
  }
  std::vector<json> Events() { return ServerView("events --json --db " + db); }
  // The stored bodies of one queue, in the order of their numbers; a number stored twice shows.
  std::string StoredOf(const std::string& queue) {
    std::string out;
    uint64_t last = 0;
    for (const json& e : Events()) {
      if (e.value("queue", "") != queue) continue;
      uint64_t seq = e.value("seq", uint64_t(0));
      if (seq <= last) out += "(out of order) ";
      last = seq;
      out += e.value("body", "?") + " ";
    }
    return out;
  }

  ftctest::DeviceRoot root;
  ftctest::SpoolWriter xq;
  e2e::Bundle bundle;
  std::string dbPath = bundle.dir() + "/../fleet.db";
  std::string db = "sqlite:" + dbPath;
};

TEST_F(Deliver, AStoreGoneAndAServerAwayLoseNothingAndStoreEachMessageOnce) {
  root.WriteIdentity("uniqueid=dev-1\n");
  for (int i = 1; i <= 5; ++i) Spool("QV_Event_DB", "<e" + std::to_string(i) + "/>");
  for (int i = 1; i <= 3; ++i) Spool("QV_CLIENT", "<c" + std::to_string(i) + "/>");
  auto server = StartServer();
  uint16_t port = server->port();
  fs::rename(dbPath, dbPath + ".away");
  std::string log = bundle.dir() + "/../deliver.log";
  ftctest::Child agent({"/bin/sh", "-c",
                        "exec '" + ftctest::BinDir() + "/ftc-host' deliver --follow --server " +
                            server->url() + " --root '" + root.path() + "' --time-scale 0.001 2>'" +
                            log + "'"});
  // The store's 503 asks for 2 s, and that is honoured though the device's own waits are short.
  ASSERT_TRUE(ftctest::WaitUntil(
      [&] { return ftctest::ReadHostFile(log).find(" s\n") != std::string::npos; }, kPatience));
  std::string said = ftctest::ReadHostFile(log);
  EXPECT_NE(said.find("HTTP 503"), std::string::npos) << said;
  size_t at = said.find("next attempt in ");
  ASSERT_NE(at, std::string::npos) << said;
  EXPECT_GE(std::atof(said.c_str() + at + 16), 2.0) << said;

  server.reset();
  for (int i = 6; i <= 8; ++i) Spool("QV_Event_DB", "<e" + std::to_string(i) + "/>");
  EXPECT_EQ(Left(), 11u) << "nothing leaves the spool unacknowledged";
  fs::rename(dbPath + ".away", dbPath);
  server = StartServer(port);
  ASSERT_TRUE(ftctest::WaitUntil([&] { return Left() == 0; }, kPatience));
  EXPECT_EQ(StoredOf("QV_Event_DB"), "<e1/> <e2/> <e3/> <e4/> <e5/> <e6/> <e7/> <e8/> ");
  EXPECT_EQ(StoredOf("QV_CLIENT"), "<c1/> <c2/> <c3/> ");

  // A job that installed a bundle brings a fresh inventory.
  root.WriteFile("\\temp\\Quovera\\QVSubSystems\\QVBundles.xml", kBundles);
  Spool("QV_Event_DB", ftctest::Event("205182", "E2E, 1.0"));
  Spool("QV_CLIENT", "<c4/>");
  ASSERT_TRUE(ftctest::WaitUntil(
      [&] {
        return ftctest::ByDevice(ServerView("fleet --json --db " + db))["dev-1"].value(
                   "installed", "") == "E2E 1.0";
      },
      kPatience));
  ASSERT_TRUE(ftctest::WaitUntil([&] { return Left() == 0; }, kPatience));
  EXPECT_EQ(StoredOf("QV_CLIENT"), "<c1/> <c2/> <c3/> <c4/> ");
  EXPECT_EQ(Events().size(), 13u);

  kill(agent.pid(), SIGTERM);
  EXPECT_EQ(agent.Wait(kPatience), 0);
}

// The server failed or killed while it reads a delivery, before its commit and right after it:
// restarted, it holds every message once, and the agent let go of none it had not stored.
TEST_F(Deliver, AServerFailedOrKilledMidDeliveryKeepsEveryMessageOnce) {
#ifndef FTC_FAULTS
  GTEST_SKIP() << "needs a build with FTC_FAULTS";
#else
  root.WriteIdentity("uniqueid=dev-k\n");
  auto server = StartServer();
  const uint16_t port = server->port();
  ftctest::Child agent({ftctest::BinDir() + "/ftc-host", "deliver", "--follow", "--server",
                        server->url(), "--root", root.path(), "--time-scale", "0.001"});
  std::string expected;
  int message = 0;
  // The store's first commit is its schema check at start.
  const struct {
    const char* point;
    int nth;
    const char* action;
  } faults[] = {{"ftc/server/read", 1, "kill"},  {"ftc/server/read", 2, "kill"},
                {"ftc/server/read", 2, "fail"},  {"ftc/store/commit", 2, "kill"},
                {"ftc/store/commit", 2, "fail"}, {"ftc/store/committed", 2, "kill"}};
  for (const auto& f : faults) {
    SCOPED_TRACE(std::string(f.action) + " at " + f.point + " hit " + std::to_string(f.nth));
    server.reset();
    setenv("FTC_FAULT_POINTS", f.point, 1);
    setenv("FTC_FAULT_NTH", std::to_string(f.nth).c_str(), 1);
    setenv("FTC_FAULT_ACTION", f.action, 1);
    server = StartServer(port);
    for (const char* v : {"FTC_FAULT_POINTS", "FTC_FAULT_NTH", "FTC_FAULT_ACTION"}) unsetenv(v);
    for (int i = 0; i < 3; ++i) {
      std::string body = "<e" + std::to_string(++message) + "/>";
      Spool("QV_Event_DB", body);
      expected += body + " ";
    }
    if (std::string(f.action) == "kill") {
      ASSERT_EQ(server->Wait(kPatience), 128);
      server = StartServer(port);
    }
    ASSERT_TRUE(ftctest::WaitUntil([&] { return Left() == 0; }, kPatience));
    EXPECT_EQ(StoredOf("QV_Event_DB"), expected);
  }
  kill(agent.pid(), SIGTERM);
  EXPECT_EQ(agent.Wait(kPatience), 0);
#endif
}

TEST_F(Deliver, APoisonMessageGoesAsideWithoutHoldingUpTheRest) {
  root.WriteIdentity("uniqueid=dev-7\nserial=S123\nhwcfg=HW 1.2\n");
  root.WriteFile("\\temp\\Quovera\\QVSubSystems\\QVBundles.xml", kBundles);
  Spool("QV_Event_DB", "<e1/>");
  Spool("QV_Event_DB", "e2 is no document");
  Spool("QV_Event_DB", "<e3/>");
  Spool("QV_CLIENT", "<DevInfo><unclosed>");
  Spool("QV_CLIENT", "<c2/>");
  auto server = StartServer();
  // The address as the device keeps it.
  ASSERT_EQ(e2e::Launch(Args({"reg", "set", "HKLM\\SOFTWARE\\Tervalon\\XQueue", "ServerIP",
                              "127.0.0.1:" + std::to_string(server->port())}))
                .exit,
            0);

  e2e::HostRun run = e2e::Launch(Args({"deliver"}));
  EXPECT_EQ(run.exit, 0) << run.output;
  EXPECT_EQ(StoredOf("QV_Event_DB"), "<e1/> <e3/> ");
  EXPECT_EQ(StoredOf("QV_CLIENT"), "<c2/> ");
  EXPECT_EQ(Left(), 0u);
  std::string spool = root.path() + "/.winux/spool/";
  EXPECT_EQ(ftctest::ReadHostFile(spool + "QV_Event_DB/rejected/0000000002.xml").rfind("e2 ", 0),
            0u);
  EXPECT_EQ(
      ftctest::ReadHostFile(spool + "QV_CLIENT/rejected/0000000001.xml").rfind("<DevInfo>", 0), 0u);
  EXPECT_NE(run.output.find("QV_Event_DB/2 rejected (not an XML document"), std::string::npos)
      << run.output;
  json device = ftctest::ByDevice(ServerView("fleet --json --db " + db))["dev-7"];
  EXPECT_EQ((std::vector<std::string>{device.value("serial", ""), device.value("hardware", ""),
                                      device.value("installed", "")}),
            (std::vector<std::string>{"S123", "HW 1.2", "E2E 1.0"}));

  // A bare ServerIP means port 8789; nobody answers there, and a one-shot run gives up
  // (after 300 device seconds, a moment at this time scale) with the records kept.
  Spool("QV_CLIENT", "<c3/>");
  e2e::Launch(Args({"reg", "set", "HKLM\\SOFTWARE\\Tervalon\\XQueue", "ServerIP", "127.0.0.1"}));
  run = e2e::Launch(Args({"deliver"}));
  EXPECT_EQ(run.exit, 1);
  EXPECT_NE(run.output.find("giving up: http://127.0.0.1:8789 took nothing"), std::string::npos)
      << run.output;
  EXPECT_EQ(Left(), 1u);

  root.WriteIdentity("uniqueid=not one\n");
  run = e2e::Launch(Args({"deliver", "--server", server->url()}));
  EXPECT_EQ(run.exit, 1);
  EXPECT_NE(run.output.find("unique id \"not one\" cannot name it"), std::string::npos);
}

// Answers the real server never gives: a batch refused whole, a 200 that acknowledges nothing.
TEST_F(Deliver, ABatchRefusedWholeGoesAgainOneByOne) {
  Spool("QV_CLIENT", "<c1/>");
  Spool("QV_CLIENT", "<c2/>");
  ftctest::ScriptedHttpPeer peer({
      Reply::Json(200, R"({"status":"stored"})"),
      Reply::Json(200, R"({"results":[]})"),
      Reply::Json(400, R"({"error":"poison"})"),
      Reply::Json(200, R"({"results":[{"queue":"QV_CLIENT","seq":1,"status":"stored"}]})"),
      Reply::Json(400, R"({"error":"poison"})"),
  });
  e2e::HostRun run =
      e2e::Launch(Args({"deliver", "--server", "http://127.0.0.1:" + std::to_string(peer.Port())}));
  EXPECT_EQ(run.exit, 0) << run.output;
  EXPECT_EQ(peer.Requests().size(), 5u);
  EXPECT_NE(run.output.find("a batch of 2 was refused (HTTP 400: poison); sending each alone"),
            std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("QV_CLIENT/2 refused (HTTP 400: poison)"), std::string::npos);
  EXPECT_EQ(Left(), 0u);
  EXPECT_TRUE(fs::exists(root.path() + "/.winux/spool/QV_CLIENT/rejected/0000000002.xml"));
}

// A device that ran a job is one complete row with its bundle installed.
TEST_F(Deliver, ADeviceThatRanAJobShowsComplete) {
  bundle.Add("app/a.bin", ftctest::RandomBytes(20000, 5));
  bundle.Add("readme.txt", "fleet");
  auto server = StartServer();
  std::string job = bundle.dir() + "/../job.xml";
  ftctest::WriteHostFile(job,
                         e2e::MakeJob(bundle.dir(), server->url(), "--bundle E2E --version 1.0"));
  root.WriteIdentity("uniqueid=dev-a\nhwcfg=HW-a\n");
  e2e::HostRun run = e2e::Launch({"run", job, "--root", root.path(), "--plugin",
                                  ftctest::LibDir() + "/libFileTransferConfiglet.so",
                                  "--time-scale", "0.001", "--deliver", server->url()});
  ASSERT_EQ(run.exit, 0) << run.output;
  auto fleet = ftctest::ByDevice(ServerView("fleet --json --db " + db));
  ASSERT_EQ(fleet.size(), 1u);
  const json& row = fleet["dev-a"];
  EXPECT_EQ((std::vector<std::string>{row.value("hardware", ""), row.value("installed", ""),
                                      row.value("last_job", ""), row.value("state", "")}),
            (std::vector<std::string>{"HW-a", "E2E 1.0", "E2E, 1.0", "complete"}))
      << row.dump();
}

}  // namespace
