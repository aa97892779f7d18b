// Device events, ready-to-work and AutoDeploy reports as the management server receives them:
// through the real queue library into the spool, or up through the host's callback.
#include "report/events.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/plix.h"
#include "platform/winux.h"
#include "report/deploy_state.h"
#include "report/xq_transport.h"
#include "support/device_root.h"
#include "xq/spool.h"

namespace {

// "Name=text" of each Field of a record, in document order; "=" for a field without a name.
std::vector<std::string> RecordFields(const std::string& xml) {
  CPlixDOM dom;
  std::vector<std::string> fields;
  if (dom.ReadDoc(xml.c_str()) != 1) return fields;
  CPlixIterator it;
  it.BindToDOM(&dom);
  it.ToRootElement();
  it.BeginTraverseHere();
  for (int ev = it.ContinueTraverse(); ev != 0; ev = it.ContinueTraverse()) {
    CPlixElement* el = it.GetElement();
    const char* name = el->GetAttribute("Name");
    if (ev == 1 && !strcmp(el->GetTagName(), "Field"))
      fields.push_back(std::string(name ? name : "") + "=" + el->GetData());
  }
  return fields;
}

// The state templates, spelled out from their white space.
std::string Xml(const std::string& subsystem, const std::string& group, const std::string& fields) {
  std::string t7(7, '\t'), b24(24, ' '), tail = b24 + "\t\t   ";
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + t7 + "<DevInfo Action=\"Set\">" + t7 +
         "   <Subsystem Name=\"" + subsystem + "\">" + tail + "<Group Name=\"" + group + "\">" +
         "\t\t\t" + b24 + fields + tail + "</Group>" + b24 + "</Subsystem>" + t7 + "</DevInfo>";
}
std::string ReadyToWork(const std::string& state, const std::string& reason) {
  return Xml("QV_Client", "Ready-to-Work",
             "<Field Name=\"State\">" + state + "</Field>\t\t\t" + std::string(24, ' ') +
                 "<Field Name=\"Reason\">" + reason + "</Field>");
}
std::string AutoDeploy(const std::string& value) {
  return Xml("AutoDeploy", "Info", "<Field Name=\"Settings Installed\">" + value + "</Field>");
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
  // The reason goes into the state record unescaped: with a "<" it is no document, and the
  // reader refuses it as one.
  const std::string expected[] = {
      "QV_Event_DB event 205181 Demo, 1.0",
      "QV_CLIENT state 4 Device Upgrading",
      "QV_CLIENT autodeploy 101 ",
      "QV_CLIENT message  " + ReadyToWork("1", "Upgrade Failed: <disk> & more"),
      "QV_Event_DB event 205180 ",
  };
  ASSERT_EQ(records.size(), std::size(expected));
  for (size_t i = 0; i < records.size(); ++i) {
    const auto& r = records[i];
    EXPECT_TRUE(r.complete);
    EXPECT_EQ(r.queue + " " + r.kind + " " + r.code + " " + r.text, expected[i]);
    EXPECT_EQ(r.core, r.kind == "event" ? "~MASTERXQ" : "");
  }
  // State texts go out byte for byte, reasons unescaped.
  EXPECT_EQ(records[1].message, ReadyToWork("4", "Device Upgrading"));
  EXPECT_EQ(records[2].message, AutoDeploy("101"));
  EXPECT_EQ(records[3].message, ReadyToWork("1", "Upgrade Failed: <disk> & more"));
  EXPECT_NE(root.Log().find("SetAutoDeployState - via XQ\r\n"), std::string::npos);

  std::vector<std::string> fields = {
      "timestamp=0",    "system=20",     "subsystem=QV_UPGD_SRVR",
      "uniqueId=UID-1", "msgNum=205181", "fcnName=SendDeviceEvent",
      "severity=3",     "lineNum=1",     "optArgArrayElement=Demo, 1.0",
      "systemRc=0"};
  EXPECT_EQ(RecordFields(records[0].message), fields);
  // A null message still sends its one optional argument, empty.
  fields[4] = "msgNum=205180";
  fields[8] = "optArgArrayElement=";
  EXPECT_EQ(RecordFields(records[4].message), fields);
  EXPECT_NE(records[0].message.find("<DevInfo Action=\"Notify\">"), std::string::npos);
  EXPECT_TRUE(std::regex_match(FormatSpoolRecord(records[0]),
                               std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}Z  )"
                                          R"(QV_Event_DB  event 205181  Demo, 1\.0)")))
      << FormatSpoolRecord(records[0]);
}

// Threads report at once: each record keeps its own number with its own text.
TEST_F(ReportTest, ConcurrentReportsKeepTheirOwnTexts) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 6; ++i) {
        std::string text = "t" + std::to_string(t) + "-" + std::to_string(i);
        SendDeviceEvent("U", 20, 205100 + t, text.c_str());
        if (i % 3 == 0) SetIRIStatus(t, text.c_str());
      }
    });
  }
  for (auto& th : threads) th.join();
  auto records = ReadSpool(root.path(), "");
  ASSERT_EQ(records.size(), 36u + 12u);
  for (const auto& r : records) {
    int t = r.text[1] - '0';
    EXPECT_EQ(r.code, std::to_string(r.kind == "event" ? 205100 + t : t)) << r.text;
  }
}

TEST_F(ReportTest, TransportOpensOnceAndReopensWithoutReloading) {
  EXPECT_EQ(XQWriteMessage("QV_CLIENT", "x", nullptr), 0) << "nothing open yet";
  CloseTransferHandle();
  InitXQTransfer();
  XQTransferState first = GetXQTransferState();
  ASSERT_NE(first.handle, nullptr);
  InitXQTransfer();
  EXPECT_EQ(GetXQTransferState().handle, first.handle);
  CloseTransferHandle();
  EXPECT_EQ(XQWriteMessage("QV_CLIENT", "x", nullptr), 0);
  InitXQTransfer();
  EXPECT_NE(GetXQTransferState().handle, nullptr);
  EXPECT_EQ(GetXQTransferState().library, first.library);
  EXPECT_EQ(XQWriteMessage("QV_CLIENT", "x", nullptr), 1);
}

// Without a usable library every send is skipped; a later call retries the load.
TEST_F(ReportTest, MissingLibrarySkipsSendsUntilItAppears) {
  std::string dir = root.path() + "/nolib";
  root.WriteFile("/nolib/xq_clapi_dll", "not a library");  // found first, not loadable
  setenv("WINUX_LIBRARY_PATH", dir.c_str(), 1);
  SendDeviceEvent("U", 20, 205181, "x");
  SetIRIStatus(4, "Device Upgrading");
  SetAutoDeployState("101");
  XQTransferState state = GetXQTransferState();
  EXPECT_TRUE(!state.library && !state.entryPoints && !state.handle);
  EXPECT_TRUE(ReadSpool(root.path(), "").empty());

  setenv("WINUX_LIBRARY_PATH", ftctest::LibDir().c_str(), 1);
  SendDeviceEvent("U", 20, 205182, "y");
  auto records = ReadSpool(root.path(), "");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].code, "205182");
}

}  // namespace
