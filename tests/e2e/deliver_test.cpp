// ftc-host deliver against a peer that answers as the fleet server does: the spool drains in
// order and only on acknowledgement, nothing is lost while the server is away or busy, and a
// poison message goes aside without holding up the rest.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "support/scripted_http_peer.h"
#include "support/spool_writer.h"
#include "xq/spool.h"

namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

// The server's side of delivery in memory: each message stored once by its key, answers as
// the server gives them. Faults are set per case.
struct Faults {
  int busy = 0;        // this many requests first get 503 ...
  int retryAfter = 0;  // ... with this Retry-After
  int garbled = 0;     // this many message requests then get a 200 that acknowledges nothing
  std::string poison;  // a request holding a body with this text is refused whole (400)
  std::string reject;  // a message with this text is answered "rejected"
};

class FleetPeer {
 public:
  explicit FleetPeer(Faults faults, uint16_t port = 0)
      : m_faults(std::move(faults)),
        m_peer(
            [this](const std::string& head, const std::string& body) { return Answer(head, body); },
            port) {}

  std::string Url() const { return "http://127.0.0.1:" + std::to_string(m_peer.Port()); }
  // "queue seq body" of every message stored, in the order stored.
  std::vector<std::string> Stored() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_stored;
  }
  std::vector<json> Inventories() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_inventories;
  }
  // When each request came, and what it was answered.
  std::vector<std::pair<Clock::time_point, int>> Log() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_log;
  }

 private:
  static ftctest::Reply Json(int status, const json& body, const std::string& extra = "") {
    std::string text = body.dump();
    return ftctest::Reply::Raw("HTTP/1.1 " + std::to_string(status) +
                               " X\r\nContent-Type: application/json\r\nContent-Length: " +
                               std::to_string(text.size()) + "\r\n" + extra + "\r\n" + text);
  }

  ftctest::Reply Answer(const std::string& head, const std::string& body) {
    std::lock_guard<std::mutex> lock(m_lock);
    int status = 200;
    ftctest::Reply reply = Respond(head, body, &status);
    m_log.emplace_back(Clock::now(), status);
    return reply;
  }

  ftctest::Reply Respond(const std::string& head, const std::string& body, int* status) {
    if (m_faults.busy > 0) {
      --m_faults.busy;
      *status = 503;
      return Json(503, {{"error", "busy"}},
                  "Retry-After: " + std::to_string(m_faults.retryAfter) + "\r\n");
    }
    json doc = json::parse(body, nullptr, false);
    *status = 400;
    if (!doc.is_object() || !doc["device"].is_string()) return Json(400, {{"error", "envelope"}});
    if (head.rfind("POST /xq/inventory ", 0) == 0) {
      m_inventories.push_back(doc);
      *status = 200;
      return Json(200, {{"status", "stored"}});
    }
    const json& messages = doc["messages"];
    if (head.rfind("POST /xq/messages ", 0) != 0 || !messages.is_array() || messages.empty())
      return Json(400, {{"error", "envelope"}});
    *status = 200;
    if (m_faults.garbled > 0 && m_faults.garbled--) return Json(200, {{"results", json::array()}});
    for (const json& m : messages)
      if (!m_faults.poison.empty() &&
          m["body"].get<std::string>().find(m_faults.poison) != std::string::npos)
        return Json(400, {{"error", "poison"}});
    json results = json::array();
    for (const json& m : messages) {
      std::string queue = m["queue"], text = m["body"];
      uint64_t seq = m["seq"];
      json r = {{"queue", queue}, {"seq", seq}};
      std::string key = queue + " " + std::to_string(seq) + " " + m["time"].get<std::string>();
      if (!m_faults.reject.empty() && text.find(m_faults.reject) != std::string::npos) {
        r["status"] = "rejected";
        r["error"] = "not a message";
      } else if (m_keys.count(key)) {
        r["status"] = "duplicate";
      } else {
        m_keys[key] = text;
        m_stored.push_back(queue + " " + std::to_string(seq) + " " + text);
        r["status"] = "stored";
      }
      results.push_back(r);
    }
    *status = 200;
    return Json(200, {{"results", results}});
  }

  Faults m_faults;
  mutable std::mutex m_lock;
  std::map<std::string, std::string> m_keys;
  std::vector<std::string> m_stored;
  std::vector<json> m_inventories;
  std::vector<std::pair<Clock::time_point, int>> m_log;
  ftctest::ScriptedHttpPeer m_peer;  // last: its thread stops before the rest goes
};

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
  // Bodies of the stored messages of one queue, in the order stored, and whether their
  // numbers rose.
  std::string StoredOf(const FleetPeer& peer, const std::string& queue) {
    std::string out;
    uint64_t last = 0;
    for (const std::string& s : peer.Stored()) {
      if (s.rfind(queue + " ", 0) != 0) continue;
      uint64_t seq = std::stoull(s.substr(queue.size() + 1));
      if (seq <= last) out += "(out of order) ";
      last = seq;
      out += s.substr(s.find(' ', queue.size() + 1) + 1) + " ";
    }
    return out;
  }

  ftctest::DeviceRoot root;
  ftctest::SpoolWriter xq;
};

const char kUpgradeComplete[] =
    "<DevInfo Action=\"Notify\"><Subsystem Name=\"QV_UPGD_SRVR\"><Group Name=\"errorLogMsg\">"
    "<Field Name=\"msgNum\">205182</Field></Group></Subsystem></DevInfo>";

TEST_F(Deliver, AServerAwayAndThenBusyLosesNothingAndKeepsEachQueuesOrder) {
  for (int i = 1; i <= 5; ++i) Spool("QV_Event_DB", "e" + std::to_string(i));
  for (int i = 1; i <= 3; ++i) Spool("QV_CLIENT", "c" + std::to_string(i));
  uint16_t port = static_cast<uint16_t>(ftctest::FreeTcpPort());
  ftctest::Child agent({ftctest::BinDir() + "/ftc-host", "deliver", "--follow", "--server",
                        "http://127.0.0.1:" + std::to_string(port), "--root", root.path(),
                        "--time-scale", "0.001"});
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  for (int i = 6; i <= 8; ++i) Spool("QV_Event_DB", "e" + std::to_string(i));
  EXPECT_EQ(Left(), 11u) << "nothing leaves the spool unacknowledged";

  FleetPeer peer({/*busy=*/1, /*retryAfter=*/1, /*garbled=*/1, "", ""}, port);
  ASSERT_TRUE(ftctest::WaitUntil([&] { return Left() == 0; }, std::chrono::seconds(30)));
  EXPECT_EQ(StoredOf(peer, "QV_Event_DB"), "e1 e2 e3 e4 e5 e6 e7 e8 ");
  EXPECT_EQ(StoredOf(peer, "QV_CLIENT"), "c1 c2 c3 ");
  auto log = peer.Log();
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ(log[0].second, 503);
  EXPECT_GE(log[1].first - log[0].first, std::chrono::milliseconds(1000)) << "Retry-After";
  EXPECT_EQ(peer.Inventories().size(), 1u) << "sent once when delivery starts";

  // New records are picked up; a job that installed a bundle brings a fresh inventory.
  root.WriteFile("\\temp\\Quovera\\QVSubSystems\\QVBundles.xml", "<QVInstalledBundles/>");
  Spool("QV_Event_DB", kUpgradeComplete);
  Spool("QV_CLIENT", "c4");
  ASSERT_TRUE(ftctest::WaitUntil([&] { return peer.Inventories().size() == 2; }));
  EXPECT_EQ(peer.Inventories()[1]["bundles"], "<QVInstalledBundles/>");
  EXPECT_EQ(Left(), 0u);
  EXPECT_EQ(StoredOf(peer, "QV_CLIENT"), "c1 c2 c3 c4 ");
  EXPECT_EQ(peer.Stored().size(), 13u);

  kill(agent.pid(), SIGTERM);
  EXPECT_EQ(agent.Wait(std::chrono::seconds(10)), 0);
}

TEST_F(Deliver, APoisonMessageGoesAsideWithoutHoldingUpTheRest) {
  root.WriteIdentity("uniqueid=dev-7\nserial=S123\nhwcfg=HW 1.2\n");
  root.WriteFile("\\temp\\Quovera\\QVSubSystems\\QVBundles.xml", "<QVInstalledBundles/>");
  root.WriteFile("\\Quovera\\QVSubSystems\\FileTransferConfiglet.ini", "Version=3.50d");
  Spool("QV_Event_DB", "e1");
  Spool("QV_Event_DB", "e2 POISON");
  Spool("QV_Event_DB", "e3");
  Spool("QV_CLIENT", "c1 BAD");
  Spool("QV_CLIENT", "c2");
  FleetPeer peer({0, 0, 0, "POISON", "BAD"});
  // The address as the device keeps it.
  std::string port = peer.Url().substr(peer.Url().rfind(':') + 1);
  ASSERT_EQ(e2e::Launch(Args({"reg", "set", "HKLM\\SOFTWARE\\Tervalon\\XQueue", "ServerIP",
                              "127.0.0.1:" + port}))
                .exit,
            0);

  e2e::HostRun run = e2e::Launch(Args({"deliver"}));
  EXPECT_EQ(run.exit, 0) << run.output;
  EXPECT_EQ(StoredOf(peer, "QV_Event_DB"), "e1 e3 ");
  EXPECT_EQ(StoredOf(peer, "QV_CLIENT"), "c2 ");
  EXPECT_EQ(Left(), 0u);
  std::string spool = root.path() + "/.winux/spool/";
  EXPECT_EQ(ftctest::ReadHostFile(spool + "QV_Event_DB/rejected/0000000002.xml").rfind("e2 ", 0),
            0u);
  EXPECT_EQ(ftctest::ReadHostFile(spool + "QV_CLIENT/rejected/0000000001.xml").rfind("c1 ", 0), 0u);
  EXPECT_NE(run.output.find("QV_Event_DB/2 refused (HTTP 400: poison)"), std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("QV_CLIENT/1 rejected (not a message)"), std::string::npos);
  ASSERT_EQ(peer.Inventories().size(), 1u);
  json inventory = peer.Inventories()[0];
  inventory.erase("time");
  EXPECT_EQ(inventory, json({{"device", "dev-7"},
                             {"serial", "S123"},
                             {"hardware", "HW 1.2"},
                             {"bundles", "<QVInstalledBundles/>"},
                             {"version", "Version=3.50d"}}));

  // A bare ServerIP means port 8789; nobody answers there, and a one-shot run gives up
  // (after 300 device seconds, a moment at this time scale) with the records kept.
  Spool("QV_CLIENT", "c3");
  e2e::Launch(Args({"reg", "set", "HKLM\\SOFTWARE\\Tervalon\\XQueue", "ServerIP", "127.0.0.1"}));
  run = e2e::Launch(Args({"deliver"}));
  EXPECT_EQ(run.exit, 1);
  EXPECT_NE(run.output.find("giving up: http://127.0.0.1:8789 took nothing"), std::string::npos)
      << run.output;
  EXPECT_EQ(Left(), 1u);

  root.WriteIdentity("uniqueid=not one\n");
  run = e2e::Launch(Args({"deliver", "--server", peer.Url()}));
  EXPECT_EQ(run.exit, 1);
  EXPECT_NE(run.output.find("unique id \"not one\" cannot name it"), std::string::npos);
}

}  // namespace
