// Stopping real processes by image name, and preparing programs for start.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "processing/QVProcessingHandler.h"
#include "support/device_root.h"
#include "support/helpers.h"

namespace {

// A copy of sleep under the given name (longer than the kernel's 15-character comm), running
// under that name by the time this returns.
std::unique_ptr<ftctest::Child> StartSleeper(const ftctest::DeviceRoot& root,
                                             const std::string& name) {
  std::filesystem::create_directories(root.HostPath("\\bin"));
  const std::string path = root.HostPath("\\bin\\" + name);
  std::filesystem::copy_file("/bin/sleep", path, std::filesystem::copy_options::overwrite_existing);
  auto child = std::make_unique<ftctest::Child>(std::vector<std::string>{path, "30"});
  ftctest::WaitUntil([&] {
    return ftctest::ReadHostFile("/proc/" + std::to_string(child->pid()) + "/cmdline").find(name) !=
           std::string::npos;
  });
  return child;
}

}  // namespace

TEST(StopProcesses, StopsTheExactNameAndLeavesADifferentlyCasedOneRunning) {
  ftctest::DeviceRoot root;
  // An empty list takes no snapshot but still reports returning.
  CQVProcessingHandler().StopProcesses();
  EXPECT_NE(root.Log().find("CQVProcessingHandler::QVStopProcesses - returning\r\n"),
            std::string::npos);
  EXPECT_EQ(root.Log().find("snapshot"), std::string::npos);
  root.WriteFile("/tmp/FileXfer.txt", "");

  auto doomed = StartSleeper(root, "FtcStopMeSleeperLongName");
  auto spared = StartSleeper(root, "FtcKeepMeSleeperLongName");

  CQVProcessingHandler handler;
  handler.AddProcess("FtcStopMeSleeperLongName");
  handler.AddProcess("ftckeepmesleeperlongname");
  handler.AddProcess("FtcKeepMeSleeper");
  handler.StopProcesses();

  EXPECT_NE(doomed->Wait(std::chrono::seconds(5)), -1);
  EXPECT_EQ(spared->Wait(std::chrono::milliseconds(200)), -1);

  const std::string log = root.Log();
  EXPECT_NE(std::string::npos,
            log.find("CQVProcessingHandler::QVTerminateProc !FtcStopMeSleeperLongName! \r\n"
                     "CQVProcessingHandler::QVTerminateProc, killing it\r\n"
                     "CQVProcessingHandler::QVTerminateProc !ftckeepmesleeperlongname! \r\n"
                     "CQVProcessingHandler::QVTerminateProc !FtcKeepMeSleeper! \r\n"
                     "CQVProcessingHandler::QVStopProcesses - Closing snapshot\r\n"
                     "CQVProcessingHandler::QVStopProcesses - returning\r\n"));
}

TEST(ExecFile, AnExistingProgramGetsItsStartInFolderAndIsNotLaunched) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Program Files\\tool.exe", "not a program");
  CQVExeHandler exes;
  exes.AddEntry(new CQVExeEntry("\\Program Files\\tool.exe", "/x", "\\Work\\Area", 1));
  EXPECT_EQ(1, exes.DoIt());
  EXPECT_TRUE(root.Exists("\\Work\\Area"));
  EXPECT_EQ("not a program", root.ReadFile("\\Program Files\\tool.exe"));
}
