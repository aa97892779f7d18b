// Device identity, provisioning and reboot requests.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/helpers.h"
#include "platform/hwid.h"
#include "support/device_root.h"

namespace {

struct Identity {
  DWORD rcSerial, rcCfg, rcId;
  std::string serial, cfg, id;
};

Identity Read(DWORD size = 64) {
  Identity r;
  char buf[64];
  DWORD len = size;
  r.rcSerial = TVLHWID::GetSerialNumber(buf, &len);
  r.serial = r.rcSerial == 0 ? std::string(buf, len) : "";
  len = size;
  r.rcCfg = TVLHWID::GetHardwareCfg(buf, &len);
  r.cfg = r.rcCfg == 0 ? std::string(buf, len) : "";
  len = size;
  r.rcId = TVLHWID::GetUniqueID(buf, &len);
  r.id = r.rcId == 0 ? std::string(buf, len) : "";
  return r;
}

TEST(SdkIdentity, ValuesComeFromTheIdentityFile) {
  ftctest::DeviceRoot root;
  root.WriteIdentity("serial=SN-0042\r\nhwcfg=AB12XYZ\nuniqueid=dev-7\nprovisioning=1\n");
  Identity id = Read();
  EXPECT_EQ(id.serial, "SN-0042");
  EXPECT_EQ(id.cfg, "AB12XYZ");
  EXPECT_EQ(id.id, "dev-7");
  EXPECT_EQ(IsProvisioning(), 1);
  root.WriteIdentity("provisioning=0\n");
  EXPECT_EQ(IsProvisioning(), 0);
}

TEST(SdkIdentity, DefaultsDescribeAComputerAndFitThePluginsBuffers) {
  ftctest::DeviceRoot root;
  std::string machineId;
  std::ifstream("/etc/machine-id") >> machineId;

  // The lengths the plug-in passes: 24 for serial and configuration, 64 for the unique id.
  char serial[32], cfg[32], unique[64];
  DWORD len = 24;
  ASSERT_EQ(TVLHWID::GetSerialNumber(serial, &len), 0u);
  EXPECT_EQ(len, std::string(serial).size());
  len = 24;
  ASSERT_EQ(TVLHWID::GetHardwareCfg(cfg, &len), 0u);
  len = 64;
  ASSERT_EQ(TVLHWID::GetUniqueID(unique, &len), 0u);

  EXPECT_EQ(cfg[0], 'Z');  // the plug-in derives type "Computer" from it
  EXPECT_GE(std::string(cfg).size(), 4u);
  if (!machineId.empty()) {
    EXPECT_EQ(std::string(unique), machineId);
  }
  EXPECT_FALSE(std::string(unique).empty());
  // The serial is the unique id's first ten hex digits, upper-case.
  std::string expected;
  for (char c : std::string(unique))
    if (isxdigit(static_cast<unsigned char>(c)) && expected.size() < 10)
      expected += static_cast<char>(toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(std::string(serial), expected);
  EXPECT_EQ(IsProvisioning(), 0);
}

TEST(SdkIdentity, ATooSmallBufferIsLeftAloneAndTheNeededSizeReported) {
  ftctest::DeviceRoot root;
  root.WriteIdentity("serial=123456789\n");
  char buf[16] = "untouched";
  DWORD len = 9;  // nine characters need ten bytes
  EXPECT_EQ(TVLHWID::GetSerialNumber(buf, &len), 122u);
  EXPECT_EQ(len, 10u);
  EXPECT_STREQ(buf, "untouched");
  EXPECT_EQ(TVLHWID::GetSerialNumber(buf, &len), 0u);
  EXPECT_EQ(len, 9u);
  EXPECT_STREQ(buf, "123456789");
  EXPECT_NE(TVLHWID::GetUniqueID(buf, nullptr), 0u);
}

TEST(SdkReboot, IsRecordedAndHandedToTheConfiguredCommand) {
  ftctest::DeviceRoot root;
  EXPECT_EQ(TVLHWID::Reboot(1), 0u);
  std::string marker = root.path() + "/marker";
  setenv("WINUX_REBOOT_COMMAND",
         ("echo \"arg=$WINUX_REBOOT_ARGUMENT\" >> '" + marker + "'").c_str(), 1);
  EXPECT_EQ(TVLHWID::Reboot(7), 0u);
  unsetenv("WINUX_REBOOT_COMMAND");

  std::string log = ftctest::ReadHostFile(root.path() + "/.winux/reboot-requested");
  size_t first = log.find("argument=1\n");
  size_t second = log.find("argument=7\n");
  ASSERT_NE(first, std::string::npos) << log;
  ASSERT_NE(second, std::string::npos) << log;
  EXPECT_LT(first, second);
  EXPECT_EQ(log.find("argument=1\n", first + 1), std::string::npos);  // appended, not duplicated
  EXPECT_EQ(ftctest::ReadHostFile(marker), "arg=7\n");
}

}  // namespace
