// Device events, ready-to-work and AutoDeploy reports as the management server receives them:
// through the real queue library into the spool, or up through the host's callback.
#include "report/events.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "configlet/configlet.h"
#include "platform/plix.h"
#include "platform/winux.h"
#include "report/deploy_state.h"
#include "report/xq_transport.h"
#include "support/device_root.h"
#include "xq/spool.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

// The Field elements of an error record, in document order, as (Name, text).
Fields RecordFields(const std::string& xml, std::string* outline = nullptr) {
  CPlixDOM dom;
  Fields fields;
  if (dom.ReadDoc(xml.c_str()) != 1) return fields;
  CPlixIterator it;
  it.BindToDOM(&dom);
  it.ToRootElement();
  it.BeginTraverseHere();
  for (int ev = it.ContinueTraverse(); ev != 0; ev = it.ContinueTraverse()) {
    if (ev != 1) continue;
    CPlixElement* el = it.GetElement();
    const char* name = el->GetAttribute("Name");
    if (strcmp(el->GetTagName(), "Field") == 0) {
      fields.emplace_back(name ? name : "(none)", el->GetData());
    } else if (outline) {
      const char* action = el->GetAttribute("Action");
      *outline += std::string(el->GetTagName()) + "[" + (name ? name : action ? action : "") + "]";
    }
  }
  return fields;
}

std::string LogFile(const ftctest::DeviceRoot& root) {
  return root.ReadFile("/tmp/FileXfer.txt");
}

std::string Tabs(int n) {
  return std::string(n, '\t');
}
std::string Blanks(int n) {
  return std::string(n, ' ');
}

std::string ReadyToWork(const std::string& state, const std::string& reason) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + Tabs(7) + "<DevInfo Action=\"Set\">" +
         Tabs(7) + Blanks(3) + "<Subsystem Name=\"QV_Client\">" + Blanks(24) + Tabs(2) + Blanks(3) +
         "<Group Name=\"Ready-to-Work\">" + Tabs(3) + Blanks(24) + "<Field Name=\"State\">" +
         state + "</Field>" + Tabs(3) + Blanks(24) + "<Field Name=\"Reason\">" + reason +
         "</Field>" + Blanks(24) + Tabs(2) + Blanks(3) + "</Group>" + Blanks(24) + "</Subsystem>" +
         Tabs(7) + "</DevInfo>";
}

std::string AutoDeploy(const std::string& value) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + Tabs(7) + "<DevInfo Action=\"Set\">" +
         Tabs(7) + Blanks(3) + "<Subsystem Name=\"AutoDeploy\">" + Blanks(24) + Tabs(2) +
         Blanks(3) + "<Group Name=\"Info\">" + Tabs(3) + Blanks(24) +
         "<Field Name=\"Settings Installed\">" + value + "</Field>" + Blanks(24) + Tabs(2) +
         Blanks(3) + "</Group>" + Blanks(24) + "</Subsystem>" + Tabs(7) + "</DevInfo>";
}

class ReportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("WINUX_LIBRARY_PATH", ftctest::LibDir().c_str(), 1);
    root.WriteFile("/tmp/FileXfer.txt", "");
  }
  ftctest::DeviceRoot root;
};

TEST_F(ReportTest, ReportsOfAJobAreReadBackFromTheSpoolInOrder) {
  SendDeviceEvent("UID-1", 20, 205181, "Demo, 1.0");
  SetIRIStatus(4, "Device Upgrading");
  SetAutoDeployState("101");
  SetIRIStatus(1, "Upgrade Failed: <disk> & more");
  SendDeviceEvent("UID-1", 20, 205180, nullptr);

  auto records = ReadSpool(root.path(), "");
  struct Expected {
    const char* queue;
    const char* kind;
    const char* code;
    const char* text;
  } expected[] = {
      {"QV_Event_DB", "event", "205181", "Demo, 1.0"},
      {"QV_CLIENT", "state", "4", "Device Upgrading"},
      {"QV_CLIENT", "autodeploy", "101", ""},
      {"QV_CLIENT", "state", "1", "Upgrade Failed: <disk> & more"},
      {"QV_Event_DB", "event", "205180", ""},
  };
  ASSERT_EQ(records.size(), std::size(expected));
  for (size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(records[i].complete);
    EXPECT_EQ(records[i].queue, expected[i].queue);
    EXPECT_EQ(records[i].kind, expected[i].kind);
    EXPECT_EQ(records[i].code, expected[i].code);
    EXPECT_EQ(records[i].text, expected[i].text);
    EXPECT_EQ(records[i].core, records[i].kind == "event" ? "~MASTERXQ" : "");
  }
  // State texts go out byte for byte, reasons unescaped.
  EXPECT_EQ(records[1].message, ReadyToWork("4", "Device Upgrading"));
  EXPECT_EQ(records[2].message, AutoDeploy("101"));
  EXPECT_EQ(records[3].message, ReadyToWork("1", "Upgrade Failed: <disk> & more"));
  EXPECT_NE(LogFile(root).find("SetAutoDeployState - via XQ\r\n"), std::string::npos);
}

TEST_F(ReportTest, DeviceEventCarriesTheErrorRecordFields) {
  SendDeviceEvent("UID-7", 20, 205182, "Demo, 2.0");
  SendDeviceEvent("UID-7", 20, 205186, nullptr);
  auto records = ReadSpool(root.path(), "QV_Event_DB");
  ASSERT_EQ(records.size(), 2u);
  std::string outline;
  Fields fields = RecordFields(records[0].message, &outline);
  EXPECT_EQ(outline, "DevInfo[Notify]Subsystem[QV_EVENT_DB]Group[errorLogMsg]");
  Fields want = {{"timestamp", "0"},    {"system", "20"},     {"subsystem", "QV_UPGD_SRVR"},
                 {"uniqueId", "UID-7"}, {"msgNum", "205182"}, {"fcnName", "SendDeviceEvent"},
                 {"severity", "3"},     {"lineNum", "1"},     {"optArgArrayElement", "Demo, 2.0"},
                 {"systemRc", "0"}};
  EXPECT_EQ(fields, want);
  // A null message still sends its one optional argument, empty.
  want[4].second = "205186";
  want[8].second = "";
  EXPECT_EQ(RecordFields(records[1].message), want);
}

TEST(ErrorRecord, OptionalFieldsFollowTheArrays) {
  const char* index[4] = {"p1", nullptr, "p3", "p4"};
  const char* opts[3] = {"a", nullptr, "c"};
  struct Case {
    const char* what;
    const char** index;
    const char** opts;
    unsigned count;
    const char* stamp;
    std::vector<std::string> names;
  } cases[] = {
      {"second index entry null",
       index,
       nullptr,
       0,
       "s",
       {"indexableArrayP1Element", "indexableArrayP3Element", "indexableArrayP4Element"}},
      {"count limits the options",
       nullptr,
       opts,
       2,
       "s",
       {"optArgArrayElement", "optArgArrayElement"}},
      {"no stamp text: first field unnamed", nullptr, nullptr, 0, nullptr, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CPlixDOM dom("DevInfo");
    char* xml = nullptr;
    errorToXML(&dom, &xml, 20, "SUB", "U", 3, -5, 0, const_cast<char*>(c.stamp), "F", 9, c.index,
               c.opts, c.count, 0xFFFFFFFFu);
    ASSERT_NE(xml, nullptr);
    Fields fields = RecordFields(xml);
    LocalFree(xml);
    ASSERT_EQ(fields.size(), 9 + c.names.size());
    EXPECT_EQ(fields[0].first, c.stamp ? "timestamp" : "(none)");
    EXPECT_EQ(fields[4], (std::pair<std::string, std::string>("msgNum", "-5")));
    for (size_t i = 0; i < c.names.size(); ++i) EXPECT_EQ(fields[8 + i].first, c.names[i]);
    EXPECT_EQ(fields.back(), (std::pair<std::string, std::string>("systemRc", "-1")));
  }
}

TEST(TimeStamp, FitsOrLeavesAnEmptyText) {
  ftctest::DeviceRoot root;
  char buf[40];
  EXPECT_EQ(getTimeStamp(nullptr, 32, QV_DATE_SLASHES), 0);
  memset(buf, 'z', sizeof buf);
  EXPECT_EQ(getTimeStamp(buf, 0, QV_DATE_SLASHES), 0);
  EXPECT_EQ(buf[0], 'z') << "size 0 must not touch the buffer";
  // yyyy/MM/dd + ':' + hh:mm:ss needs 19 characters and a terminator.
  EXPECT_EQ(getTimeStamp(buf, 19, QV_DATE_SLASHES), 0);
  EXPECT_EQ(buf[0], '\0');
  ASSERT_EQ(getTimeStamp(buf, 20, QV_DATE_SLASHES), 1);
  EXPECT_TRUE(std::regex_match(buf, std::regex(R"(\d{4}/\d\d/\d\d:(0[1-9]|1[0-2]):\d\d:\d\d)")))
      << buf;
  ASSERT_EQ(getTimeStamp(buf, 32, QV_DATE_COLONS), 1);
  EXPECT_TRUE(std::regex_match(buf, std::regex(R"(\d\d:\d\d:\d{4}:\d\d:\d\d:\d\d)"))) << buf;
}

// Threads report at the same time: each record keeps its own event number with its own text.
TEST_F(ReportTest, ConcurrentEventsKeepTheirOwnTexts) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 8; ++i) {
        std::string text = "t" + std::to_string(t) + "-" + std::to_string(i);
        SendDeviceEvent("U", 20, 205100 + t, text.c_str());
        if (i % 3 == 0) SetIRIStatus(t, text.c_str());
      }
    });
  }
  for (auto& th : threads) th.join();
  auto events = ReadSpool(root.path(), "QV_Event_DB");
  ASSERT_EQ(events.size(), 48u);
  for (const auto& r : events)
    EXPECT_EQ(r.code, std::to_string(205100 + (r.text[1] - '0'))) << r.text;
  auto states = ReadSpool(root.path(), "QV_CLIENT");
  ASSERT_EQ(states.size(), 18u);
  for (const auto& r : states) EXPECT_EQ(r.code, std::string(1, r.text[1])) << r.text;
}

TEST_F(ReportTest, TransportOpensOnceAndReopensWithoutReloading) {
  EXPECT_EQ(XQWriteMessage("QV_CLIENT", "x", nullptr), 0) << "nothing open yet";
  CloseTransferHandle();  // nothing open: nothing happens

  InitXQTransfer();
  XQTransferState first = GetXQTransferState();
  ASSERT_NE(first.library, nullptr);
  ASSERT_NE(first.handle, nullptr);
  InitXQTransfer();
  EXPECT_EQ(GetXQTransferState().handle, first.handle);

  CloseTransferHandle();
  EXPECT_EQ(GetXQTransferState().handle, nullptr);
  EXPECT_EQ(GetXQTransferState().library, first.library);
  EXPECT_EQ(XQWriteMessage("QV_CLIENT", "x", nullptr), 0);

  InitXQTransfer();
  XQTransferState again = GetXQTransferState();
  EXPECT_NE(again.handle, nullptr);
  EXPECT_EQ(again.library, first.library);
  EXPECT_EQ(XQWriteMessage("QV_CLIENT", "x", nullptr), 1);
}

// Without a usable library every send is skipped; a later call retries the load.
TEST_F(ReportTest, MissingLibrarySkipsSendsUntilItAppears) {
  std::string dir = root.path() + "/nolib";
  ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0);
  // Found first on the search path and not loadable.
  ftctest::WriteHostFile(dir + "/xq_clapi_dll", "not a library");
  setenv("WINUX_LIBRARY_PATH", dir.c_str(), 1);

  SendDeviceEvent("U", 20, 205181, "x");
  SetIRIStatus(4, "Device Upgrading");
  SetAutoDeployState("101");
  XQTransferState state = GetXQTransferState();
  EXPECT_EQ(state.library, nullptr);
  EXPECT_FALSE(state.entryPoints);
  EXPECT_EQ(state.handle, nullptr);
  EXPECT_TRUE(ReadSpool(root.path(), "").empty());
  EXPECT_NE(LogFile(root).find("SetAutoDeployState - via XQ\r\n"), std::string::npos);

  setenv("WINUX_LIBRARY_PATH", ftctest::LibDir().c_str(), 1);
  SendDeviceEvent("U", 20, 205182, "y");
  auto records = ReadSpool(root.path(), "");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].code, "205182");
}

TEST_F(ReportTest, ManyThreadsOpeningAtOnceShareOneHandle) {
  std::vector<std::thread> threads;
  std::mutex lock;
  std::vector<void*> seen;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      InitXQTransfer();
      std::lock_guard<std::mutex> g(lock);
      seen.push_back(GetXQTransferState().handle);
    });
  }
  for (auto& th : threads) th.join();
  for (void* h : seen) EXPECT_EQ(h, seen.front());
}

// The host's callback takes state reports; the queue library is then never loaded.
std::mutex g_upLock;
std::vector<std::pair<std::string, uint32_t>> g_up;
uint32_t RecordUp(uint32_t context, const char* message, uint32_t length) {
  std::lock_guard<std::mutex> lock(g_upLock);
  g_up.emplace_back(std::to_string(context) + ":" + message, length);
  return 0;  // the host's answer does not matter
}

TEST_F(ReportTest, HostCallbackTakesStateReportsFirst) {
  void* table[8] = {};
  table[ICFG_SENDUP_SLOT] = reinterpret_cast<void*>(&RecordUp);
  IcfgSetCallbacks(7, table);
  SetIRIStatus(1, "Upgrade Complete");
  SetAutoDeployState("0");
  ASSERT_EQ(g_up.size(), 2u);
  EXPECT_EQ(g_up[0].first, "7:" + ReadyToWork("1", "Upgrade Complete"));
  EXPECT_EQ(g_up[0].second, ReadyToWork("1", "Upgrade Complete").size() + 1);
  EXPECT_EQ(g_up[1].first, "7:" + AutoDeploy("0"));
  EXPECT_EQ(GetXQTransferState().library, nullptr);
  EXPECT_TRUE(ReadSpool(root.path(), "").empty());
  EXPECT_EQ(LogFile(root).find("via XQ"), std::string::npos);
}

}  // namespace
