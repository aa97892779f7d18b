// Device identity, provisioning and reboot requests.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "platform/helpers.h"
#include "platform/hwid.h"
#include "support/device_root.h"

namespace {

std::string Get(DWORD (*get)(char*, DWORD*), DWORD size = 64) {
  char buf[64] = "";
  DWORD len = size;
  DWORD rc = get(buf, &len);
  if (rc != 0) return "error " + std::to_string(rc) + ", need " + std::to_string(len);
  return len == std::string(buf).size() ? buf : "wrong length";
}

TEST(SdkIdentity, ValuesComeFromTheIdentityFileBoundedByTheBuffer) {
  ftctest::DeviceRoot root;
  root.WriteIdentity("serial=SN-0042\r\nhwcfg=AB12XYZ\nuniqueid=dev-7\nprovisioning=1\n");
  // The job record reads and derives these; here the buffer rules and provisioning.
  EXPECT_EQ(IsProvisioning(), 1);
  // Seven characters need eight bytes; a short buffer is left alone.
  EXPECT_EQ(Get(TVLHWID::GetSerialNumber, 8), "SN-0042");
  EXPECT_EQ(Get(TVLHWID::GetSerialNumber, 7), "error 122, need 8");
  EXPECT_NE(TVLHWID::GetUniqueID(nullptr, nullptr), 0u);
  root.WriteIdentity("provisioning=0\n");
  EXPECT_EQ(IsProvisioning(), 0);
}

TEST(SdkIdentity, DefaultsDescribeAComputerAndFitThePluginsBuffers) {
  ftctest::DeviceRoot root;
  // The lengths the plug-in passes: 24 for serial and configuration, 64 for the unique id.
  std::string serial = Get(TVLHWID::GetSerialNumber, 24);
  std::string cfg = Get(TVLHWID::GetHardwareCfg, 24);
  std::string unique = Get(TVLHWID::GetUniqueID, 64);
  ASSERT_GE(cfg.size(), 4u);
  EXPECT_EQ(cfg[0], 'Z');  // the plug-in derives type "Computer" from it
  std::string machineId;
  std::ifstream("/etc/machine-id") >> machineId;
  EXPECT_EQ(unique, machineId.empty() ? unique : machineId);
  // The serial is the unique id's first ten hex digits, upper-case.
  std::string expected;
  for (char c : unique)
    if (isxdigit(static_cast<unsigned char>(c)) && expected.size() < 10)
      expected += static_cast<char>(toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(serial, expected);
  EXPECT_EQ(IsProvisioning(), 0);
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
  EXPECT_LT(first, second);  // appended
  EXPECT_EQ(ftctest::ReadHostFile(marker), "arg=7\n");
}

}  // namespace
