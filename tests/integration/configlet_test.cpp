// The plug-in as a host meets it: loaded with dlopen, driven through configlet.h alone.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "support/device_root.h"
#include "support/plugin_host.h"

namespace {

using ftctest::ConfigletApi;
using ftctest::PluginHost;

TEST(Configlet, InterfaceReportsItsVersionsAndOneUnnamedInstance) {
  ftctest::DeviceRoot root;
  PluginHost host;
  const ConfigletApi& api = host.api();
  EXPECT_EQ(api.GetInterfaceVersion(), 2u);
  uint32_t major = 99, minor = 99;
  EXPECT_EQ(api.GetSchemaVersion(0, &major, &minor), 0u);
  EXPECT_EQ(major, 1u);
  EXPECT_EQ(minor, 0u);

  char first[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(api.GetFirstInstance("Download", first), 0u);
  EXPECT_EQ(first[0], '\0');
  EXPECT_EQ(first[1], 'x');
  char next[4] = {'y', 'y', 'y', 'y'};
  EXPECT_EQ(api.GetNextInstance("Download", next), 1u);  // the end, unlike the first call
  EXPECT_EQ(std::string(next, 4), "yyyy");

  for (auto rangeSet : {api.GetFirstRangeSet, api.GetNextRangeSet}) {
    int32_t a = -7, b = -8, c = -9;
    char t1[4] = "abc", t2[4] = "def";
    EXPECT_EQ(rangeSet("Download", "Source", &a, &b, &c, t1, t2), 0u);
    EXPECT_EQ(a, -7);
    EXPECT_EQ(b, -8);
    EXPECT_EQ(c, -9);
    EXPECT_STREQ(t1, "abc");
    EXPECT_STREQ(t2, "def");
  }
  for (DWORD reason : {0u, 1u, 2u, 3u}) EXPECT_EQ(api.DllMain(nullptr, reason, nullptr), 1);
  EXPECT_EQ(api.Uninitialize(), 0u);
}

TEST(Configlet, OnlyTheInterfaceIsExported) {
  std::string command =
      "nm -D --defined-only " + ftctest::LibDir() + "/libFileTransferConfiglet.so 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> names;
  char line[512];
  while (fgets(line, sizeof(line), pipe)) {
    char address[64], type[8], name[400];
    if (sscanf(line, "%63s %7s %399s", address, type, name) == 3) names.insert(name);
  }
  if (pclose(pipe) != 0 && names.empty()) GTEST_SKIP() << "nm is not available";
  const std::set<std::string> expected = {
      "DllMain",
      "IcfgBeginGroup",
      "IcfgEndGroup",
      "IcfgGetField",
      "IcfgGetFirstInstance",
      "IcfgGetInterfaceVersion",
      "IcfgGetNextInstance",
      "IcfgGetSchemaVersion",
      "IcfgInitialize",
      "IcfgSetCallbacks",
      "IcfgSetField",
      "IcfgUninitialize",
      "_Z19IcfgGetNextRangeSetPKcS0_PiS1_S1_PcS2_",
      "_Z20IcfgGetFirstRangeSetPKcS0_PiS1_S1_PcS2_",
  };
  EXPECT_EQ(names, expected);
}

TEST(Configlet, AJobIsBuiltThroughGroupsAndFieldsAndLogged) {
  ftctest::DeviceRoot root;
  PluginHost host;
  ASSERT_EQ(host.BeginGroup("FileTransferConfiglet"), 0u);
  EXPECT_EQ(host.Group("Syslog", {{"Address", "10.1.2.3"}, {"Port", "514"}}), 0u);
  EXPECT_EQ(host.Group("HTTPServer", {{"IPAddress", "127.0.0.1"},
                                      {"HTTPPort", "8080"},
                                      {"BaseURL", "http://127.0.0.1:8080"}}),
            0u);
  ASSERT_EQ(host.BeginGroup("Download"), 0u);
  EXPECT_EQ(host.Group("File", {{"Source", "os/app.bin"},
                                {"Dest", "\\Flash File Store\\app.bin"},
                                {"CRC", "3632233996"},
                                {"MCTMask", "*"}}),
            0u);
  ASSERT_EQ(host.EndGroup("Download"), 0u);
  EXPECT_EQ(host.SetField("BundleName", "Demo"), 0u);

  EXPECT_EQ(host.BeginGroup("FileProcessing"), ICFG_E_UNKNOWN);
  EXPECT_EQ(host.SetField("Val", "1"), ICFG_E_UNKNOWN);
  EXPECT_EQ(host.SetField("NoSuchField", "1"), ICFG_E_UNKNOWN);
  std::string text;
  EXPECT_EQ(host.GetField("BundleName", &text), ICFG_E_UNKNOWN);
  EXPECT_EQ(host.EndGroup("NoSuchGroup"), 0u);
  ASSERT_EQ(host.EndGroup("FileTransferConfiglet"), 0u);

  std::string log = PluginHost::LogText(root);
  const char* const inOrder[] = {
      "Allocating gpUpgCfg\r\n",       "IcfgSetField - Address, 10.1.2.3\r\n",
      "IcfgSetField - Port, 514\r\n",  "IcfgSetField - BaseURL, http://127.0.0.1:8080\r\n",
      "IcfgSetField - MCTMask, *\r\n", "IcfgSetField - BundleName, Demo\r\n",
      "IcfgSetField - Val, 1\r\n",
  };
  size_t at = 0;
  for (const char* line : inOrder) {
    size_t found = log.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "in:\n" << log;
    at = found + strlen(line);
  }
}

TEST(Configlet, MissingArgumentsAreRefusedWithoutACrash) {
  ftctest::DeviceRoot root;
  // No IcfgInitialize: the host skipped a step; group calls must still be safe.
  PluginHost host(false);
  const ConfigletApi& api = host.api();
  EXPECT_EQ(api.BeginGroup(nullptr, 0, 0), ICFG_E_UNKNOWN);
  EXPECT_EQ(api.BeginGroup("FileTransferConfiglet", 0, 0), 0u);
  EXPECT_EQ(api.SetField(nullptr, nullptr, nullptr, 0, 0), 0u);  // an empty name is Address
  EXPECT_EQ(api.SetField("BundleName", nullptr, nullptr, 0, 0), 0u);
  EXPECT_EQ(api.GetField(nullptr, 0, 0, nullptr, nullptr), ICFG_E_UNKNOWN);  // no buffer
  EXPECT_EQ(api.EndGroup(nullptr, 0, 0), 0u);
  EXPECT_EQ(api.GetFirstInstance(nullptr, nullptr), 0u);
  EXPECT_EQ(api.GetSchemaVersion(0, nullptr, nullptr), 0u);
}

}  // namespace

namespace {

TEST(Configlet, ProvisioningStateGoesUpThroughTheHostCallback) {
  ftctest::DeviceRoot root;
  root.WriteIdentity("uniqueid=DEV-42\n");
  PluginHost host;
  PluginHost::ClearSendUps();
  struct Case {
    const char* value;
    const char* reason;
  };
  for (const Case& c :
       {Case{"true", "Provisioning Started"}, Case{"no", "Provisioning Complete"}}) {
    EXPECT_EQ(host.SetField("Provisioning", c.value), 0u);
    ASSERT_TRUE(PluginHost::WaitForSendUp([&](const ftctest::SendUpCall& call) {
      return call.message.find(c.reason) != std::string::npos;
    })) << c.reason;
  }
  for (const ftctest::SendUpCall& call : PluginHost::SendUps()) {
    EXPECT_EQ(call.context, PluginHost::kContext);
    EXPECT_EQ(call.length, call.message.size() + 1);  // the NUL counts
  }
}

}  // namespace

namespace {

// Any order of groups and fields, balanced or not, with any values: only the two protocol
// answers come back and the sanitizers see no fault or leak.
TEST(Configlet, ArbitrarySequencesAreSafe) {
  ftctest::DeviceRoot root;
  PluginHost host;
  // Upgrade, PullFile and Provisioning start real work; they have their own tests.
  const char* const groups[] = {
      "FileTransferConfiglet",
      "Syslog",
      "MultiCast",
      "MulticastClient",
      "HTTPServer",
      "Download",
      "Store",
      "DiskCleanup",
      "File",
      "FileList",
      "StartProcess",
      "StopProcess",
      "Registry",
      "PreProcessing",
      "PostProcessing",
      "Set",
      "DeleteKey",
      "Save",
      "Copy",
      "CopyDir",
      "Executable",
      "Bogus",
      "",
  };
  const char* const fields[] = {
      "Address",    "P",       "Reboot",   "BaseURL",       "Version", "Proc",
      "Parameters", "Wait",    "ShowGUI",  "Action",        "Name",    "Source",
      "Dest",       "CRC",     "MCTMask",  "RequiredSpace", "Root",    "Key",
      "ValueName",  "Value",   "ErrorMsg", "SrcUrl",        "KeyName", "CmdLine",
      "SourceDir",  "DestDir", "Type",     "Bogus",
  };
  const std::string values[] = {"", "false", "Save", "Delete", "TRUE", std::string(3000, 'v')};
  uint32_t seed = 12345;
  auto next = [&seed](uint32_t n) {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) % n;
  };
  const uint32_t nGroups = sizeof(groups) / sizeof(groups[0]);
  const uint32_t nFields = sizeof(fields) / sizeof(fields[0]);
  for (int i = 0; i < 3000; ++i) {
    uint32_t result = 0;
    switch (next(3)) {
      case 0:
        result = host.BeginGroup(groups[next(nGroups)], next(4) == 0 ? 1 : 0);
        break;
      case 1:
        result = host.SetField(fields[next(nFields)], values[next(6)]);
        break;
      default:
        result = host.EndGroup(groups[next(nGroups)]);
        break;
    }
    ASSERT_TRUE(result == 0 || result == ICFG_E_UNKNOWN) << i << ": " << std::hex << result;
  }
}

}  // namespace
