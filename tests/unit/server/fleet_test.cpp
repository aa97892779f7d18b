// What devices deliver to the real ftc-server, and what the operator's views then show.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "support/device_root.h"
#include "support/fleet_view.h"
#include "support/helpers.h"
#include "support/http_client.h"
#include "support/postgres.h"

using ftctest::ByDevice;
using ftctest::Connection;
using ftctest::Event;
using ftctest::ServerProcess;
using ftctest::ServerView;
using Json = nlohmann::json;

namespace {

// The documents as the plug-in queues them.
std::string State(const std::string& subsystem, const std::string& group,
                  const std::string& fields) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\t\t<DevInfo Action=\"Set\">   <Subsystem "
         "Name=\"" +
         subsystem + "\">   <Group Name=\"" + group + "\">" + fields +
         "   </Group>   </Subsystem>\t</DevInfo>";
}
std::string ReadyToWork(const std::string& state, const std::string& reason) {
  return State("QV_Client", "Ready-to-Work",
               "<Field Name=\"State\">" + state + "</Field>   <Field Name=\"Reason\">" + reason +
                   "</Field>");
}

Json Message(const std::string& queue, Json seq, const std::string& body,
             const std::string& time = "2026-11-22T04:38:17.123456Z") {
  return {{"queue", queue}, {"seq", seq}, {"time", time}, {"body", body}};
}
std::string Batch(const std::string& device, const std::vector<Json>& messages) {
  return Json{{"device", device}, {"messages", messages}}.dump();
}
std::string Inventory(const std::string& device, const std::string& bundle,
                      const std::string& time) {
  std::string record =
      "<QVInstalledBundles>   <Subsystem Name=\"Installed Bundles\">      "
      "<Group Name=\"" +
      bundle +
      "\">        <Field Name=\"Version\" Type=\"String\">1.0</Field>      "
      "</Group>   </Subsystem></QVInstalledBundles>";
  return Json{{"device", device},  {"serial", "S-" + device},    {"hardware", "HW7"},
              {"bundles", record}, {"version", "Version=3.50d"}, {"time", time}}
      .dump();
}

std::vector<std::string> Statuses(const ftctest::Response& r) {
  std::vector<std::string> out;
  Json j = Json::parse(r.body, nullptr, false);
  if (j.is_object() && j.contains("results"))
    for (const Json& x : j["results"]) out.push_back(x["status"]);
  return out;
}

std::string CompletionReport(const std::string& device, const std::string& error) {
  return "GET HTTP/1.1\r\nCore-name: " + device +
         "\r\nBundle-rx: 0\r\nHTTP-fallback: 1\r\nBundle-transfer: COMPLETE\r\n" +
         (error.empty() ? "" : "Error: " + error + "\r\n") + "\r\n";
}

// `ftc-server deploy ARGS`; its output.
std::string Deploy(const std::string& args, int* status = nullptr) {
  return ftctest::RunCommand(ftctest::BinDir() + "/ftc-server deploy " + args, status);
}

// The job the server offers at this check-in: its deployment id, 0 for none.
int CheckIn(Connection& c, const std::string& device, const std::string& extra = "") {
  ftctest::Response r = c.Post("/agent/checkin", "{\"device\":\"" + device + "\"" + extra + "}");
  Json j = Json::parse(r.body, nullptr, false);
  EXPECT_EQ(r.status, 200) << r.body;
  if (!j.is_object() || !j["job"].is_object()) return 0;
  EXPECT_EQ(j["job"]["url"], "/agent/jobs/" + j["job"]["deployment"].dump());
  return j["job"]["deployment"];
}

// Creates a deployment of bundle/Demo; its id.
int CreateDeployment(const std::string& db, const std::string& bundle, const std::string& args) {
  int status = -1;
  std::string out = Deploy("create --db " + db + " --root " + bundle +
                               " --bundle Demo --server http://127.0.0.1:1 --dest 'A:\\' " + args,
                           &status);
  EXPECT_EQ(status, 0) << out;
  return std::atoi(out.c_str() + out.find(' ') + 1);
}

int FetchJob(Connection& c, int deployment, const std::string& device) {
  return c.Get("/agent/jobs/" + std::to_string(deployment) + "?device=" + device).status;
}

// Per device: state, then the code when there is one, else the text.
std::map<std::string, std::string> DeviceStates(const Json& show) {
  std::map<std::string, std::string> out;
  for (const Json& d : show["devices"])
    out[d["device"]] = d["state"].get<std::string>() + " " +
                       (d["code"].is_null() ? d["text"].get<std::string>() : d["code"].dump());
  return out;
}

class FleetTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(bundle); }
  ftctest::DeviceRoot root;
  std::string bundle = root.path() + "/bundle";
  std::string dbPath = root.path() + "/fleet.db";
  std::string db = "sqlite:" + dbPath;
};

TEST_F(FleetTest, MessagesAreStoredOnceWithTheirKindsAndBadOnesAreRefused) {
  ServerProcess server(bundle, {"--db", db, "--reports", root.path() + "/reports.jsonl"});
  Connection c(server.port());
  const std::string unescaped = ReadyToWork("1", "Upgrade Failed: <disk> & more");
  const std::string autoDeploy =
      State("AutoDeploy", "Info", "<Field Name=\"Settings Installed\">101</Field>");
  const std::vector<Json> batch = {
      Message("QV_Event_DB", 1, Event("205181", "Demo, 1.0")),
      Message("QV_CLIENT", 1, unescaped, "2026-11-22T04:38:18Z"),
      Message("QV_CLIENT", 2, autoDeploy),
      Message("QV_Other", 1, "<Anything><Else/></Anything>"),
      // Refused one by one, never stored, never in the way of the others.
      Message("../QV_CLIENT", 3, autoDeploy),
      Message("QV_CLIENT", 0, autoDeploy),
      Message("QV_CLIENT", -4, autoDeploy),
      Message("QV_CLIENT", 4, autoDeploy, "yesterday"),
      Message("QV_CLIENT", 5, ""),
      Message("QV_CLIENT", 6, "<DevInfo><unclosed>"),
      Message("QV_CLIENT", 7, std::string(256 * 1024 + 1, 'x')),
      Message("QV_Event_DB", 2, State("QV_EVENT_DB", "errorLogMsg", "<Field Name=\"x\"/>")),
  };
  const std::vector<std::string> stored = {"stored", "stored", "stored", "stored"};
  std::vector<std::string> rejected(8, "rejected");
  auto expect = [&](std::vector<std::string> first) {
    first.insert(first.end(), rejected.begin(), rejected.end());
    return first;
  };
  ftctest::Response r = c.Post("/xq/messages", Batch("dev-1", batch));
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(Statuses(r), expect(stored)) << r.body;
  r = c.Post("/xq/messages", Batch("dev-1", batch));
  EXPECT_EQ(Statuses(r), expect({"duplicate", "duplicate", "duplicate", "duplicate"})) << r.body;

  std::vector<Json> events = ServerView("events --json --db " + db);
  ASSERT_EQ(events.size(), 4u);
  const std::pair<std::string, std::vector<std::string>> want[] = {
      {Event("205181", "Demo, 1.0"), {"QV_Event_DB", "event", "205181", "Demo, 1.0"}},
      {autoDeploy, {"QV_CLIENT", "autodeploy", "101", ""}},
      {"<Anything><Else/></Anything>", {"QV_Other", "message", "", ""}},
      {unescaped, {"QV_CLIENT", "state", "1", "Upgrade Failed: <disk> & more"}},
  };
  for (size_t i = 0; i < events.size(); ++i) {
    const Json& e = events[i];
    EXPECT_EQ(e["body"], want[i].first);
    EXPECT_EQ((std::vector<std::string>{e["queue"], e["kind"], e["code"], e["text"]}),
              want[i].second);
  }
  EXPECT_EQ(events[0]["category"], 20);

  // A bad envelope is refused whole, and the connection stays usable.
  std::vector<Json> many;
  for (int i = 1; i <= 501; ++i) many.push_back(Message("QV_CLIENT", i, autoDeploy));
  for (const std::string& body :
       {std::string("not json"), Batch("not a device id!", batch), Batch("dev-1", {}),
        Batch("dev-1", many), Batch("dev-1", {1, 2}), std::string(100, '[') + std::string(100, ']'),
        std::string("{\"device\":\"dev-1\",\"serial\":7}")}) {
    const char* target =
        body.find("serial") != std::string::npos ? "/xq/inventory" : "/xq/messages";
    r = c.Post(target, body);
    EXPECT_EQ(r.status, 400) << body.substr(0, 60);
    EXPECT_TRUE(Json::parse(r.body, nullptr, false).contains("error")) << r.body;
  }
  EXPECT_EQ(ServerView("events --json --db " + db).size(), 4u);

  // The answer comes before the close a client asked for.
  Connection last(server.port());
  std::string body = Batch("dev-1", {batch[0]});
  last.Send("POST /xq/messages HTTP/1.1\r\nConnection: close\r\nContent-Length: " +
            std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_EQ(Statuses(last.Read()), std::vector<std::string>{"duplicate"});
  EXPECT_TRUE(last.ClosedByPeer());

  // Oversized or unmeasured bodies are refused before they are read.
  for (const char* head : {"Content-Length: 4194305\r\n", ""}) {
    Connection big(server.port());
    big.Send(std::string("POST /xq/messages HTTP/1.1\r\n") + head + "\r\n");
    EXPECT_EQ(big.Read().status, *head ? 413 : 411);
    EXPECT_TRUE(big.ClosedByPeer());
  }

  // With the store gone, a device's report is not answered as recorded.
  std::filesystem::rename(dbPath, dbPath + ".away");
  ASSERT_TRUE(c.Send(CompletionReport("dev-1", "")));
  EXPECT_EQ(c.Read().status, 503);
}

TEST_F(FleetTest, MetricsCountRequestsByKindAndShowTheFleetAndDeploymentsByState) {
  std::filesystem::create_directories(bundle + "/Demo");
  ftctest::WriteHostFile(bundle + "/Demo/a.bin", "hello");
  int admin = ftctest::FreeTcpPort();
  ServerProcess server(bundle, {"--db", db, "--reports", root.path() + "/reports", "--admin-bind",
                                "127.0.0.1:" + std::to_string(admin)});
  Connection c(server.port());
  EXPECT_EQ(c.Get("/Demo/a.bin").status, 200);
  EXPECT_EQ(c.Get("/Demo/a.bin").status, 200);
  EXPECT_EQ(c.Get("/none").status, 404);
  ASSERT_TRUE(c.Send(CompletionReport("D1", "")));
  EXPECT_EQ(c.Read().status, 200);
  // The second batch is a duplicate: requests count twice, messages stored once.
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(c.Post("/xq/messages",
                     Batch("D2", {Message("QV_Event_DB", 1, Event("205182", "Demo, 1.0"))}))
                  .status,
              200);
  CreateDeployment(db, bundle, "--devices D1");

  std::string page = Connection(static_cast<uint16_t>(admin)).Get("/metrics").body;
  for (const char* want :
       {"ftc_requests_total{kind=\"file\"} 3\n", "ftc_requests_total{kind=\"messages\"} 2\n",
        "ftc_request_duration_seconds_count{kind=\"file\"} 3\n",
        "ftc_request_duration_seconds_bucket{kind=\"report\",le=\"+Inf\"} 1\n",
        "ftc_files_served_total 2\n", "ftc_completion_reports_total{http_fallback=\"1\"} 1\n",
        "ftc_messages_stored_total 1\n", "ftc_store_errors_total 0\n", "ftc_open_connections 1\n",
        "ftc_devices{state=\"complete\"} 2\n",
        "ftc_deployment_devices{deployment=\"1\",state=\"pending\"} 1\n"})
    EXPECT_NE(page.find(want), std::string::npos) << want << page;
  EXPECT_EQ(ftctest::Count(page, "ftc_deployments{state="), 1) << page;
  // Every sample line is "name{labels} value", as collectors parse it.
  std::regex sample(
      R"(([a-z_]+(\{[a-z_]+="[^"]*"(,[a-z_]+="[^"]*")*\})? (-?[0-9.e+]+|\+Inf))|(# .*))");
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);)
    EXPECT_TRUE(std::regex_match(line, sample)) << line;
}

TEST_F(FleetTest, FleetViewShowsEachDevicesLastJobInventoryAndReport) {
  std::string reports = root.path() + "/reports.jsonl";
  ServerProcess server(bundle, {"--db", db, "--reports", reports});
  Connection c(server.port());
  auto post = [&](const std::string& target, const std::string& body) {
    EXPECT_EQ(c.Post(target, body).status, 200) << body.substr(0, 80);
  };
  auto report = [&](const std::string& device, const std::string& error) {
    ASSERT_TRUE(c.Send(CompletionReport(device, error)));
    ftctest::Response r = c.Read();
    EXPECT_EQ(r.status, 200);  // answered only once recorded
    EXPECT_EQ(r.body, "");
  };
  post("/xq/messages", Batch("dev-done", {Message("QV_Event_DB", 1, Event("205181", "Demo, 1.0")),
                                          Message("QV_Event_DB", 2, Event("205182", "Demo, 1.0"),
                                                  "2026-11-22T04:40:00Z")}));
  post("/xq/inventory", Inventory("dev-done", "Demo", "2026-11-22T05:00:00Z"));
  // Sent earlier, arriving later: it does not replace what the device sent since.
  post("/xq/inventory", Inventory("dev-done", "Older", "2026-11-22T04:00:00Z"));
  report("dev-done", "");
  post("/xq/messages",
       Batch("dev-failed", {Message("QV_Event_DB", 1, Event("205181", "Demo, 2.0")),
                            Message("QV_Event_DB", 2, Event("205180", "CRC, Demo, 2.0"),
                                    "2026-11-22T04:40:00Z")}));
  report("dev-failed", "CRC \"bad\"");
  post("/xq/messages",
       Batch("dev-busy", {Message("QV_Event_DB", 1, Event("205181", "Demo, 3.0"))}));
  post("/xq/inventory", Inventory("dev-new", "Demo", "2026-11-22T05:00:00Z"));
  // A device that hangs up right after sending is still recorded.
  Connection(server.port()).Send(CompletionReport("dev-old", ""));
  ASSERT_TRUE(ftctest::WaitUntil(
      [&] { return ftctest::ReadHostFile(reports).find("dev-old") != std::string::npos; }));

  auto fleet = ByDevice(ServerView("fleet --json --db " + db));
  ASSERT_EQ(fleet.size(), 5u);
  const std::map<std::string, std::vector<std::string>> want = {
      // state, last job, installed
      {"dev-done", {"complete", "Demo, 1.0", "Demo 1.0"}},
      {"dev-failed", {"failed", "Demo, 2.0", ""}},
      {"dev-busy", {"started", "Demo, 3.0", ""}},
      {"dev-new", {"no report", "", "Demo 1.0"}},
      {"dev-old", {"complete", "", ""}},
  };
  for (const auto& [device, fields] : want) {
    const Json& f = fleet[device];
    EXPECT_EQ((std::vector<std::string>{f["state"], f["last_job"], f["installed"]}), fields)
        << device;
  }
  EXPECT_EQ(fleet["dev-failed"]["error"], "CRC \"bad\"");
  EXPECT_EQ(fleet["dev-done"]["http_fallback"], "1");
  EXPECT_TRUE(fleet["dev-busy"]["error"].is_null());

  // A job that has gone quiet for the operator's limit is no longer shown as running.
  EXPECT_EQ(ByDevice(ServerView("fleet --json --stale 0 --db " + db))["dev-busy"]["state"],
            "stale");
  std::string table = ftctest::RunCommand(ftctest::BinDir() + "/ftc-server fleet --db " + db);
  EXPECT_NE(table.find("\n5 devices: 2 complete, 1 failed, 1 started, 0 stale, 1 no report\n"),
            std::string::npos)
      << table;
  EXPECT_EQ(
      ServerView("events --json --device dev-failed --since 2026-11-22T04:39 --db " + db).size(),
      1u);
}

class DeployTest : public FleetTest {
 protected:
  void SetUp() override {
    FleetTest::SetUp();
    std::filesystem::create_directories(bundle + "/Demo");
    ftctest::WriteHostFile(bundle + "/Demo/app.bin", "123456789");
  }
  Json Show(int id) {
    return Json::parse(Deploy("show " + std::to_string(id) + " --json --db " + db), nullptr, false);
  }
};

TEST_F(DeployTest, PhasesOpenAsDevicesFinishAndFailuresPause) {
  ServerProcess server(bundle, {"--db", db});
  Connection c(server.port());
  int id = CreateDeployment(db, bundle, "--devices d1,d2,d3,d4 --phases 25,100 --max-failures 1");
  // Only the first quarter is handed the job until it has an outcome.
  EXPECT_EQ(CheckIn(c, "d1"), id);
  for (const char* d : {"d2", "d3", "d4"}) EXPECT_EQ(CheckIn(c, d), 0) << d;
  EXPECT_EQ(FetchJob(c, id, "d2"), 404);
  EXPECT_EQ(CheckIn(c, "d1", ",\"busy\":true"), 0);
  ftctest::Response job = c.Get("/agent/jobs/" + std::to_string(id) + "?device=d1");
  EXPECT_EQ(job.status, 200);
  EXPECT_EQ(job.headers["Content-Type"], "text/xml");
  EXPECT_EQ(FetchJob(c, id, "d1"), 410);
  // The device's own events account for it, reported or not.
  EXPECT_EQ(
      c.Post("/xq/messages", Batch("d1", {Message("QV_Event_DB", 1, Event("205181", "Demo, 1.0")),
                                          Message("QV_Event_DB", 2, Event("205182", "Demo, 1.0"))}))
          .status,
      200);
  for (const char* d : {"d2", "d3", "d4"}) {
    EXPECT_EQ(CheckIn(c, d), id) << d;
    if (d[1] != '4') {
      EXPECT_EQ(FetchJob(c, id, d), 200) << d;
    }
  }
  auto result = [&](const std::string& device, const std::string& state, uint32_t code) {
    return c.Post("/agent/result", Json{{"device", device},
                                        {"deployment", id},
                                        {"state", state},
                                        {"code", code},
                                        {"text", "why " + device}}
                                       .dump());
  };
  // An agent restarted before it began the job found nothing of it: it may fetch it again.
  const std::string resumed = ",\"resumed\":{\"deployment\":" + std::to_string(id);
  EXPECT_EQ(CheckIn(c, "d2", resumed + ",\"found\":\"none\"}"), id);
  EXPECT_EQ(FetchJob(c, id, "d2"), 200);
  EXPECT_EQ(CheckIn(c, "d2", resumed + ",\"found\":\"started\"}"), 0);
  EXPECT_EQ(result("d2", "failed", 0).body, "{\"status\":\"stored\"}");
  EXPECT_EQ(CheckIn(c, "d4"), id);  // one failure is allowed
  EXPECT_EQ(result("d3", "refused", 3289452545u).status, 200);
  EXPECT_EQ(result("d9", "failed", 0).status, 404);
  EXPECT_EQ(CheckIn(c, "d4"), 0);
  EXPECT_EQ(FetchJob(c, id, "d4"), 404);
  Json show = Show(id);
  EXPECT_EQ(show["state"], "paused");
  EXPECT_EQ(show["phase"], 2);
  EXPECT_EQ(DeviceStates(show), (std::map<std::string, std::string>{{"d1", "complete Demo, 1.0"},
                                                                    {"d2", "failed why d2"},
                                                                    {"d3", "refused 3289452545"},
                                                                    {"d4", "pending "}}));
  // Resumed, the failures so far are accepted; cancelled, what was not fetched is not handed out.
  EXPECT_EQ(Deploy("resume " + std::to_string(id) + " --db " + db), "deployment 1: running\n");
  EXPECT_EQ(CheckIn(c, "d4"), id);
  EXPECT_EQ(Deploy("cancel " + std::to_string(id) + " --db " + db), "deployment 1: cancelled\n");
  EXPECT_EQ(CheckIn(c, "d4"), 0);
  EXPECT_EQ(FetchJob(c, id, "d4"), 404);
  EXPECT_EQ(Show(id)["counts"]["cancelled"], 1);
  int status = 0;
  Deploy("pause " + std::to_string(id) + " --db " + db, &status);
  EXPECT_EQ(status, 1);
  std::string list = Deploy("list --db " + db);
  EXPECT_NE(list.find("cancelled"), std::string::npos) << list;
}

TEST_F(DeployTest, FleetPageShowsTheDeploymentAndItsDevices) {
  int admin = ftctest::FreeTcpPort();
  ServerProcess server(bundle, {"--db", db, "--admin-bind", "127.0.0.1:" + std::to_string(admin)});
  Connection c(server.port());
  c.Post("/xq/inventory", Inventory("d1", "Demo", "2026-11-22T05:00:00Z"));
  int id = CreateDeployment(db, bundle, "--devices d1,d2 --phases 50,100 --deadline 60");
  EXPECT_EQ(CheckIn(c, "d1"), id);
  EXPECT_EQ(FetchJob(c, id, "d1"), 200);
  c.Post("/xq/messages", Batch("d1", {Message("QV_Event_DB", 1, Event("205181", "Demo, 1.0"))}));

  Json fleet = Json::parse(Connection(admin).Get("/api/fleet").body, nullptr, false);
  ASSERT_EQ(fleet["deployments"].size(), 1u) << fleet.dump();
  const Json& d = fleet["deployments"][0];
  EXPECT_EQ(d["id"], id);
  EXPECT_EQ(d["counts"]["pending"], 1);
  EXPECT_EQ(d["counts"]["started"], 1);
  ASSERT_EQ(fleet["devices"].size(), 1u) << fleet.dump();
  const Json& dev = fleet["devices"][0];
  EXPECT_EQ(dev["installed"], "Demo 1.0");
  EXPECT_EQ(dev["last_event"], "Demo, 1.0");
  Json detail = Json::parse(Connection(admin).Get("/api/deployments/" + std::to_string(id)).body,
                            nullptr, false);
  EXPECT_EQ(detail["devices"].size(), 2u);
  ASSERT_GE(detail["history"].size(), 2u) << detail.dump();
  EXPECT_EQ(detail["history"][0]["counts"], (Json{{"pending", 2}}));
  EXPECT_EQ(detail["history"].back()["counts"], (Json{{"pending", 1}, {"started", 1}}));
  EXPECT_EQ(Connection(admin).Get("/api/deployments/99").status, 404);
  // The device port serves no page, and the page's listener no device.
  EXPECT_EQ(c.Get("/api/fleet").status, 404);

  if (ftctest::RunCommand("command -v chromium").empty())
    GTEST_SKIP() << "chromium is not installed (scripts/bootstrap.sh test installs it)";
  std::string dom = ftctest::RunCommand(
      "timeout 120 chromium --headless --no-sandbox --disable-gpu --disable-background-networking "
      "--disable-component-update --disable-sync --no-first-run --user-data-dir=" +
      root.path() + "/chromium --virtual-time-budget=5000 --dump-dom http://127.0.0.1:" +
      std::to_string(admin) + "/ 2>/dev/null");
  size_t table = dom.find("<table id=\"deployment-devices\">");
  ASSERT_NE(table, std::string::npos) << dom;
  std::string rows = dom.substr(table, dom.find("</table>", table) - table);
  EXPECT_NE(rows.find("<tr data-device=\"d1\"><td>d1</td><td>1</td><td class=\"started\">started"
                      "</td><td>-</td><td>Demo, 1.0</td>"),
            std::string::npos)
      << rows;
  EXPECT_NE(rows.find("<tr data-device=\"d2\"><td>d2</td><td>2</td><td class=\"pending\">pending"
                      "</td>"),
            std::string::npos)
      << rows;
  EXPECT_NE(dom.find("<h2 id=\"selected\">Deployment 1: Demo, running</h2>"), std::string::npos);
  // Drawn over time: the devices pending from the start, one started since.
  for (const char* state : {"pending", "started"})
    EXPECT_NE(dom.find("class=\"" + std::string(state) + "\"><title>" + state + "</title>"),
              std::string::npos)
        << state;
}

class FleetPostgresTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { pg = new ftctest::PostgresServer(); }
  static void TearDownTestSuite() { delete pg; }
  void SetUp() override {
    if (!pg->available()) GTEST_SKIP() << pg->why();
    std::filesystem::create_directories(bundle);
  }
  static ftctest::PostgresServer* pg;
  ftctest::DeviceRoot root;
  std::string bundle = root.path() + "/bundle";
};
ftctest::PostgresServer* FleetPostgresTest::pg = nullptr;

// Runs body(port, device) on two threads per device, one through each server.
void ThroughBoth(const ServerProcess& a, const ServerProcess& b, int devices,
                 const std::function<void(uint16_t, int)>& body) {
  std::vector<std::thread> clients;
  for (int t = 0; t < devices * 2; ++t)
    clients.emplace_back([&, t] { body(t % 2 ? a.port() : b.port(), t / 2); });
  for (auto& t : clients) t.join();
}

TEST_F(FleetPostgresTest, TwoServersOnOneDatabaseStoreAndHandOutOnceAndSurviveItsRestart) {
  ServerProcess a(bundle, {"--db", pg->url(), "--threads", "2"});
  ServerProcess b(bundle, {"--db", pg->url(), "--threads", "2"});
  // Every device delivers each batch through both servers at once, as a retry behind a load
  // balancer would: each message must be stored exactly once.
  constexpr int kDevices = 4, kMessages = 40, kBatch = 10;
  std::mutex mutex;
  std::map<std::string, int> storedCount, answers;
  ThroughBoth(a, b, kDevices, [&](uint16_t port, int d) {
    Connection c(port);
    std::string device = "dev-" + std::to_string(d);
    for (int first = 1; first <= kMessages; first += kBatch) {
      std::vector<Json> batch;
      for (int seq = first; seq < first + kBatch; ++seq)
        batch.push_back(Message("QV_Event_DB", seq, Event("205181", "Demo, " + std::to_string(seq)),
                                "2026-11-22T04:" + std::to_string(10 + seq) + ":00Z"));
      ftctest::Response r = c.Post("/xq/messages", Batch(device, batch));
      std::vector<std::string> statuses = Statuses(r);
      std::lock_guard<std::mutex> lock(mutex);
      answers[std::to_string(r.status)]++;
      for (size_t i = 0; i < statuses.size(); ++i)
        if (statuses[i] == "stored") storedCount[device + "/" + std::to_string(first + i)]++;
    }
  });
  EXPECT_EQ(answers["200"], kDevices * 2 * kMessages / kBatch);
  EXPECT_EQ(storedCount.size(), size_t(kDevices * kMessages));
  for (const auto& [key, n] : storedCount) EXPECT_EQ(n, 1) << key;
  EXPECT_EQ(ServerView("events --json --db " + pg->url()).size(), size_t(kDevices * kMessages));
  auto fleet = ServerView("fleet --json --db " + pg->url());
  ASSERT_EQ(fleet.size(), size_t(kDevices));
  EXPECT_EQ(fleet[0]["state"], "started");
  EXPECT_EQ(fleet[0]["last_job"], "Demo, 40");

  // Each device checks in through both servers at once, again and again, and fetches whatever
  // it is offered: it must receive the job exactly once.
  std::filesystem::create_directories(bundle + "/Demo");
  ftctest::WriteHostFile(bundle + "/Demo/app.bin", "123456789");
  constexpr int kJobDevices = 12;
  std::string devices;
  for (int d = 0; d < kJobDevices; ++d) devices += (d ? ",job-" : "job-") + std::to_string(d);
  int id = CreateDeployment(pg->url(), bundle, "--devices " + devices);
  std::map<std::string, int> received;
  ThroughBoth(a, b, kJobDevices, [&](uint16_t port, int d) {
    Connection c(port);
    std::string device = "job-" + std::to_string(d);
    for (int i = 0; i < 3; ++i) {
      int offered = CheckIn(c, device);
      if (offered && FetchJob(c, offered, device) == 200) {
        std::lock_guard<std::mutex> lock(mutex);
        received[device]++;
      }
    }
  });
  EXPECT_EQ(received.size(), size_t(kJobDevices));
  for (const auto& [device, n] : received) EXPECT_EQ(n, 1) << device;
  Json show = Json::parse(Deploy("show " + std::to_string(id) + " --json --db " + pg->url()),
                          nullptr, false);
  EXPECT_EQ(show["counts"]["sent"], kJobDevices);

  Connection c(a.port());
  auto post = [&](int seq) {
    return c.Post("/xq/messages",
                  Batch("dev-9", {Message("QV_CLIENT", seq, ReadyToWork("4", "x"))}));
  };
  ASSERT_TRUE(pg->Stop());
  ftctest::Response r = post(1);
  EXPECT_EQ(r.status, 503);
  EXPECT_EQ(r.headers["Retry-After"], "2");
  ASSERT_TRUE(pg->Start());
  EXPECT_TRUE(ftctest::WaitUntil([&] { return post(1).status == 200; }));
  EXPECT_EQ(a.Stop(), 0);
  EXPECT_EQ(b.Stop(), 0);
}

}  // namespace
