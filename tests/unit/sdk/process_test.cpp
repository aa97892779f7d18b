// Starting programs installed under the device root, and ending them by image name.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "platform/helpers.h"
#include "support/device_root.h"

namespace {

using Clock = std::chrono::steady_clock;

// A program as a download leaves it: no execute permission.
void Install(const ftctest::DeviceRoot& root, const std::string& devicePath,
             const std::string& content) {
  root.WriteFile(devicePath, content);
  chmod(root.HostPath(devicePath).c_str(), 0644);
}

// Ends every QVTransferAgent.exe, waiting until none is left (a killed child lingers until its
// reaper has collected it). Returns what the first call reported.
int EndAgents() {
  int first = QVTerminateProc("QVTransferAgent.exe");
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (QVTerminateProc("QVTransferAgent.exe") && Clock::now() < deadline)
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
  Install(root, "\\windows\\QVTransferAgent.exe", ftctest::ReadHostFile("/bin/sleep"));
  for (int wait : {0, 60000}) {
    SCOPED_TRACE(wait);
    auto start = Clock::now();
    // A bare name is found in the device's \windows folder.
    ASSERT_EQ(QVStartProcessAndWait("QVTransferAgent.exe", "30", wait), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    // Still running, and found only by its exact (longer than 15 characters) image name.
    EXPECT_EQ(QVTerminateProc("qvtransferagent.exe"), 0);
    EXPECT_EQ(QVTerminateProc(L"QVTransferAgent"), 0);
    EXPECT_EQ(EndAgents(), 1);
  }
  EXPECT_EQ(QVTerminateProc("QVTransferAgent.exe"), 0);
}

TEST(SdkStartProcess, BoundedWaitEndsEarlyWhenTheProgramDoes) {
  ftctest::DeviceRoot root(1.0);
  Install(root, "\\bin\\quick.exe", "#!/bin/sh\nexit 3\n");
  auto start = Clock::now();
  EXPECT_EQ(QVStartProcessAndWait("\\bin\\quick.exe", "", 20000), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

}  // namespace
