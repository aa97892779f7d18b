// Starting programs installed under the device root and ending them by image name; device
// identity, provisioning and reboot requests.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "platform/helpers.h"
#include "platform/hwid.h"
#include "support/device_root.h"

namespace {

using Clock = std::chrono::steady_clock;

// A program as a download leaves it: no execute permission.
void Install(const ftctest::DeviceRoot& root, const std::string& devicePath,
             const std::string& content) {
  root.WriteFile(devicePath, content);
  chmod(root.HostPath(devicePath).c_str(), 0644);
}

// Ends every SdkLongNamedSleeper.exe (a name of its own: tests beside it run the agent's),
// waiting until none is left (a killed child lingers until its reaper has collected it).
// Returns what the first call reported.
int EndAgents() {
  int first = QVTerminateProc("SdkLongNamedSleeper.exe");
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (QVTerminateProc("SdkLongNamedSleeper.exe") && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return first;
}

TEST(SdkStartProcess, RunsAProgramUnderTheRootWithItsParametersAndWaits) {
  ftctest::DeviceRoot root;
  Install(root, "\\Flash File Store\\tools\\record.exe",
          "#!/bin/sh\nsleep 0.1\nfor a in \"$@\"; do echo \"[$a]\"; done > \"$(dirname "
          "\"$0\")/args\"\n");
  struct Case {
    const char* name;
    const char* params;
    const char* expected;
  };
  const Case cases[] = {
      {"\\Flash File Store\\tools\\record.exe", "one \"two words\"  \\Storage Card\\x.bin",
       "[one]\n[two words]\n[\\Storage]\n[Card\\x.bin]\n"},
      {"\\FLASH FILE STORE\\Tools\\RECORD.EXE", "'a b'\"\" c\"d e\"", "[a b]\n[cd e]\n"},
      {"\\Flash File Store\\tools\\record.exe", nullptr, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.params ? c.params : "(null)");
    EXPECT_EQ(QVStartProcessAndWait(c.name, c.params, -1), 0);
    // Waited for: the program has finished writing.
    EXPECT_EQ(root.ReadFile("\\Flash File Store\\tools\\args"), c.expected);
    root.WriteFile("\\Flash File Store\\tools\\args", "<stale>");
  }
  EXPECT_EQ(QVStartProcessAndWait(L"\\Flash File Store\\tools\\record.exe", L"wide", -1), 0);
  EXPECT_EQ(root.ReadFile("\\Flash File Store\\tools\\args"), "[wide]\n");
}

TEST(SdkStartProcess, MissingProgramsAreErrors) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Flash File Store\\folder\\f", "");
  EXPECT_NE(QVStartProcessAndWait("\\Flash File Store\\none.exe", "", -1), 0);
  EXPECT_NE(QVStartProcessAndWait("\\Flash File Store\\folder", "", -1), 0);
  EXPECT_NE(QVStartProcessAndWait("no-such-program-anywhere.exe", "", 0), 0);
  EXPECT_NE(QVStartProcessAndWait(static_cast<const char*>(nullptr), "", 0), 0);
  EXPECT_NE(QVStartProcessAndWait("", "", 0), 0);
}

TEST(SdkStartProcess, NoWaitAndBoundedWaitReturnWhileTheProgramRuns) {
  ftctest::DeviceRoot root;  // time scale 0.001: a 60 s bound is 60 ms
  Install(root, "\\windows\\SdkLongNamedSleeper.exe", ftctest::ReadHostFile("/bin/sleep"));
  for (int wait : {0, 60000}) {
    SCOPED_TRACE(wait);
    auto start = Clock::now();
    // A bare name is found in the device's \windows folder.
    ASSERT_EQ(QVStartProcessAndWait("SdkLongNamedSleeper.exe", "30", wait), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    // Still running, and found only by its exact (longer than 15 characters) image name.
    EXPECT_EQ(QVTerminateProc("sdklongnamedsleeper.exe"), 0);
    EXPECT_EQ(QVTerminateProc(L"SdkLongNamedSleeper"), 0);
    EXPECT_EQ(EndAgents(), 1);
  }
  EXPECT_EQ(QVTerminateProc("SdkLongNamedSleeper.exe"), 0);
}

TEST(SdkStartProcess, BoundedWaitEndsEarlyWhenTheProgramDoes) {
  ftctest::DeviceRoot root(1.0);
  Install(root, "\\bin\\quick.exe", "#!/bin/sh\nexit 3\n");
  auto start = Clock::now();
  EXPECT_EQ(QVStartProcessAndWait("\\bin\\quick.exe", "", 20000), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

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
