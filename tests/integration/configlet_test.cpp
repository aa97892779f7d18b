// The plug-in as a host meets it: loaded with dlopen, driven through configlet.h alone.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>

#include "support/device_root.h"
#include "support/helpers.h"
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
  int status = -1;
  std::string out = ftctest::RunCommand(
      "nm -D --defined-only " + ftctest::LibDir() + "/libFileTransferConfiglet.so", &status);
  if (status != 0) GTEST_SKIP() << "nm is not available";
  std::set<std::string> names;
  std::istringstream lines(out);
  for (std::string address, type, name; lines >> address >> type >> name;) names.insert(name);
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
    ASSERT_TRUE(ftctest::WaitUntil([&] {
      for (const ftctest::SendUpCall& call : PluginHost::SendUps())
        if (call.message.find(c.reason) != std::string::npos) return true;
      return false;
    })) << c.reason;
  }
  for (const ftctest::SendUpCall& call : PluginHost::SendUps()) {
    EXPECT_EQ(call.context, PluginHost::kContext);
    EXPECT_EQ(call.length, call.message.size() + 1);  // the NUL counts
  }
}

}  // namespace
