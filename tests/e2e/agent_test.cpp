// ftc-host agent against a peer that answers as the fleet server does: jobs handed out are
// fetched once, run, delivered and reported; a refusal carries its code; an agent killed
// mid-job tells the server what it found and runs the job again only when handed it again.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "support/scripted_http_peer.h"
#include "xq/spool.h"

namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

class AgentPeer {
 public:
  explicit AgentPeer(int busy = 0, uint16_t port = 0)
      : m_busy(busy),
        m_peer(
            [this](const std::string& head, const std::string& body) { return Answer(head, body); },
            port) {}

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_peer.Port()); }
  // Hands the job out at check-ins until the device has fetched it.
  void Hand(int deployment, const std::string& xml) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_jobs[deployment] = xml;
  }
  std::vector<json> Checkins() const { return Get(m_checkins); }
  std::vector<json> Results() const { return Get(m_results); }
  std::vector<std::string> Events() const { return Get(m_events); }
  std::vector<std::string> Fetches() const { return Get(m_fetches); }
  std::vector<std::pair<Clock::time_point, int>> Log() const { return Get(m_log); }

 private:
  template <typename T>
  T Get(const T& what) const {
    std::lock_guard<std::mutex> lock(m_lock);
    return what;
  }
  static ftctest::Reply Json(int status, const json& body, const std::string& extra = "") {
    return ftctest::Reply::Json(status, body.dump(), extra);
  }

  ftctest::Reply Answer(const std::string& head, const std::string& body) {
    std::lock_guard<std::mutex> lock(m_lock);
    ftctest::Reply reply = Respond(head, json::parse(body, nullptr, false));
    m_log.emplace_back(Clock::now(), std::stoi(reply.bytes.substr(9, 3)));
    return reply;
  }

  ftctest::Reply Respond(const std::string& head, const json& doc) {
    if (m_busy > 0 && m_busy--) return Json(503, {{"error", "busy"}}, "Retry-After: 1\r\n");
    if (head.rfind("POST /agent/checkin ", 0) == 0) {
      m_checkins.push_back(doc);
      json job = nullptr;
      if (!m_jobs.empty()) {
        int id = m_jobs.begin()->first;
        job = {{"deployment", id}, {"url", "/agent/jobs/" + std::to_string(id)}};
      }
      return Json(200, {{"next", 100}, {"job", job}});
    }
    if (head.rfind("GET /agent/jobs/", 0) == 0) {
      std::string target = head.substr(4, head.find(' ', 4) - 4);
      m_fetches.push_back(target);
      int id = std::stoi(target.substr(12));
      auto it = m_jobs.find(id);
      if (it == m_jobs.end() || target.find("?device=dev-1") == std::string::npos)
        return Json(410, {{"error", "gone"}});
      std::string xml = it->second;
      m_jobs.erase(it);
      return ftctest::Reply::Typed(200, "text/xml", xml);
    }
    if (head.rfind("POST /agent/result ", 0) == 0) {
      m_results.push_back(doc);
      return Json(200, {{"status", "stored"}});
    }
    if (head.rfind("POST /xq/inventory ", 0) == 0) return Json(200, {{"status", "stored"}});
    json results = json::array();
    for (const json& m : doc["messages"]) {
      SpoolRecord r;
      r.message = m["body"];
      xqspool::DecodeMessage(&r);
      if (r.kind == "event") m_events.push_back(r.code);
      results.push_back({{"queue", m["queue"]}, {"seq", m["seq"]}, {"status", "stored"}});
    }
    return Json(200, {{"results", results}});
  }

  int m_busy;
  mutable std::mutex m_lock;
  std::map<int, std::string> m_jobs;
  std::vector<json> m_checkins, m_results;
  std::vector<std::string> m_events, m_fetches;
  std::vector<std::pair<Clock::time_point, int>> m_log;
  ftctest::ScriptedHttpPeer m_peer;  // last: its thread stops before the rest goes
};

class Agent : public ::testing::Test {
 protected:
  Agent() { root.WriteIdentity("uniqueid=dev-1\nserial=S1\nhwcfg=HW-A\n"); }
  // The agent in the background, its output in the root's agent.log.
  // env: "NAME=value ..." for the agent alone.
  std::unique_ptr<ftctest::Child> Start(const std::string& server, const std::string& env = "") {
    std::string command = "exec env " + env + " '" + ftctest::BinDir() +
                          "/ftc-host' agent --server " + server + " --root '" + root.path() +
                          "' --plugin '" + ftctest::LibDir() +
                          "/libFileTransferConfiglet.so' --time-scale 0.001 --metrics-file '" +
                          Figures() + "' >>'" + root.path() + "/agent.log' 2>&1";
    return std::make_unique<ftctest::Child>(std::vector<std::string>{"sh", "-c", command});
  }
  std::string Output() { return ftctest::ReadHostFile(root.path() + "/agent.log"); }
  std::string Figures() const { return root.path() + "/metrics/agent.prom"; }
  static std::vector<std::string> States(const std::vector<json>& results) {
    std::vector<std::string> out;
    for (const json& r : results)
      out.push_back(r["deployment"].dump() + " " + r["state"].get<std::string>());
    return out;
  }

  ftctest::DeviceRoot root;
  e2e::Bundle bundle;
};

TEST_F(Agent, RunsWhatItIsHandedOnceAndReportsRefusalsWithTheirCode) {
  bundle.Add("a.bin", "alpha");
  e2e::Server files(bundle.dir());
  const std::string good = e2e::MakeJob(bundle.dir(), files.url());

  // The server is away when the agent starts, then busy once.
  uint16_t port = static_cast<uint16_t>(ftctest::FreeTcpPort());
  std::string url = "http://127.0.0.1:" + std::to_string(port);
  auto agent = Start(url);
  ASSERT_TRUE(
      ftctest::WaitUntil([&] { return Output().find("checking in") != std::string::npos; }));
  e2e::HostRun second = e2e::Launch({"agent", "--server", url, "--root", root.path()});
  EXPECT_EQ(second.exit, 1);
  EXPECT_NE(second.output.find("another agent runs on"), std::string::npos) << second.output;

  AgentPeer peer(/*busy=*/1, port);
  peer.Hand(7, good);
  peer.Hand(8, e2e::kRefusedJob);
  ASSERT_TRUE(
      ftctest::WaitUntil([&] { return peer.Results().size() >= 3; }, std::chrono::seconds(60)))
      << Output();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  std::vector<json> results = peer.Results();
  EXPECT_EQ(States(results), (std::vector<std::string>{"7 started", "7 complete", "8 refused"}));
  EXPECT_EQ(results[1]["text"], "files, ") << "the final event's text";
  EXPECT_EQ(results[2]["code"], 0xC4111005u);
  EXPECT_EQ(results[2]["text"], "a pre-flight test failed");
  EXPECT_EQ(root.ReadFile("\\Flash File Store\\a.bin"), "alpha");
  EXPECT_EQ(peer.Fetches(),
            (std::vector<std::string>{"/agent/jobs/7?device=dev-1", "/agent/jobs/8?device=dev-1"}));
  // The figures a textfile collector reads, once delivery has emptied the spool.
  EXPECT_TRUE(ftctest::WaitUntil([&] {
    std::string f = ftctest::ReadHostFile(Figures());
    return f.find("ftc_agent_jobs_total{outcome=\"refused\"} 1\n") != std::string::npos &&
           f.find("ftc_agent_jobs_total{outcome=\"complete\"} 1\n") != std::string::npos &&
           f.find("ftc_agent_fetched_bytes_total 5\n") != std::string::npos &&
           f.find("ftc_agent_delivery_backlog 0\n") != std::string::npos;
  })) << ftctest::ReadHostFile(Figures());
  auto log = peer.Log();
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ(log[0].second, 503);
  EXPECT_GE(log[1].first - log[0].first, std::chrono::milliseconds(1000)) << "Retry-After";
  json first = peer.Checkins().at(0);
  EXPECT_EQ(first, json({{"device", "dev-1"},
                         {"serial", "S1"},
                         {"hardware", "HW-A"},
                         {"busy", false},
                         {"resumed", nullptr}}));

  kill(agent->pid(), SIGTERM);
  EXPECT_EQ(agent->Wait(std::chrono::seconds(10)), 0);
  EXPECT_NE(Output().find("agent stopped"), std::string::npos);
}

// The agent killed as it checks in, right after fetching its job, while the job runs and
// between the server's acknowledgement of the job's reports and their removal from the spool.
struct KilledAt {
  const char* state;
  const char* point;
  json resumed;  // what the first check-in after the restart says
  std::vector<std::string> results;
};

void PrintTo(const KilledAt& at, std::ostream* out) {
  *out << at.point;
}

class AgentKilled : public Agent, public ::testing::WithParamInterface<KilledAt> {};

TEST_P(AgentKilled, ResumesWithoutRunningTheJobTwiceOrLosingAReport) {
#ifndef FTC_FAULTS
  GTEST_SKIP() << "needs a build with FTC_FAULTS";
#else
  const KilledAt& at = GetParam();
  bundle.Add("a.bin", ftctest::RandomBytes(100000, 5));
  e2e::Server files(bundle.dir());
  std::string job = e2e::MakeJob(bundle.dir(), files.url());
  AgentPeer peer;
  peer.Hand(9, job);
  auto agent = Start(peer.Url(), std::string("FTC_FAULT_POINTS=") + at.point +
                                     " FTC_FAULT_NTH=1 FTC_FAULT_ACTION=kill");
  ASSERT_EQ(agent->Wait(std::chrono::seconds(60)), 128) << Output();
  size_t before = peer.Checkins().size();

  agent = Start(peer.Url());
  ASSERT_TRUE(ftctest::WaitUntil([&] { return peer.Checkins().size() >= before + 2; },
                                 std::chrono::seconds(60)))
      << Output();
  std::vector<json> checkins = peer.Checkins();
  EXPECT_EQ(checkins[before]["resumed"], at.resumed);
  EXPECT_TRUE(checkins[before + 1]["resumed"].is_null()) << "told once";
  EXPECT_EQ(States(peer.Results()), at.results);
  EXPECT_EQ(peer.Fetches().size(), 1u);
  EXPECT_LE(ftctest::Count(Output(), "running its job"), 1) << Output();
  // Whatever the job queued reaches the server.
  ASSERT_TRUE(ftctest::WaitUntil([&] { return ReadSpool(root.path(), "").empty(); })) << Output();
  std::vector<std::string> events = peer.Events();
  if (!at.results.empty()) {
    EXPECT_NE(std::find(events.begin(), events.end(), "205181"), events.end());
  }

  // Handed out again, it runs again.
  size_t reported = peer.Results().size();
  peer.Hand(9, job);
  EXPECT_TRUE(ftctest::WaitUntil(
      [&] {
        std::vector<std::string> s = States(peer.Results());
        return s.size() >= reported + 2 && s.back() == "9 complete";
      },
      std::chrono::seconds(60)))
      << Output();
  EXPECT_EQ(peer.Fetches().size(), 2u);
#endif
}

INSTANTIATE_TEST_SUITE_P(
    , AgentKilled,
    ::testing::Values(
        KilledAt{"CheckingIn", "ftc/agent/checkin", nullptr, {"9 started", "9 complete"}},
        KilledAt{"Fetched", "ftc/agent/fetched", {{"deployment", 9}, {"found", "none"}}, {}},
        KilledAt{"Running",
                 "ftc/download/write",
                 {{"deployment", 9}, {"found", "started"}},
                 {"9 started"}},
        KilledAt{"Delivering",
                 "ftc/deliver/acknowledged",
                 {{"deployment", 9}, {"found", "complete"}},
                 {"9 started"}}),
    [](const ::testing::TestParamInfo<KilledAt>& info) { return info.param.state; });

}  // namespace
