// Stopping real processes by image name, and preparing programs for start.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "processing/QVProcessingHandler.h"
#include "support/device_root.h"

namespace {

// A copy of sleep under the given name (longer than the kernel's 15-character comm).
pid_t StartSleeper(const ftctest::DeviceRoot& root, const std::string& name) {
  std::filesystem::create_directories(root.HostPath("\\bin"));
  const std::string path = root.HostPath("\\bin\\" + name);
  std::filesystem::copy_file("/bin/sleep", path, std::filesystem::copy_options::overwrite_existing);
  pid_t pid = fork();
  if (pid == 0) {
    execl(path.c_str(), path.c_str(), "30", static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

// True when the child ended within the time limit (reaped).
bool EndedWithin(pid_t pid, std::chrono::milliseconds limit) {
  auto until = std::chrono::steady_clock::now() + limit;
  do {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  } while (std::chrono::steady_clock::now() < until);
  return false;
}

// The snapshot must see the program under its own name before it can be stopped.
void WaitUntilExecuted(pid_t pid, const std::string& name) {
  for (int i = 0; i < 300; ++i) {
    std::string cmdline = ftctest::ReadHostFile("/proc/" + std::to_string(pid) + "/cmdline");
    if (cmdline.find(name) != std::string::npos) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace

TEST(StopProcesses, StopsTheExactNameAndLeavesADifferentlyCasedOneRunning) {
  ftctest::DeviceRoot root;
  pid_t doomed = StartSleeper(root, "FtcStopMeSleeperLongName");
  pid_t spared = StartSleeper(root, "FtcKeepMeSleeperLongName");
  ASSERT_GT(doomed, 0);
  ASSERT_GT(spared, 0);
  WaitUntilExecuted(doomed, "FtcStopMeSleeperLongName");
  WaitUntilExecuted(spared, "FtcKeepMeSleeperLongName");

  CQVProcessingHandler handler;
  handler.AddProcess("FtcStopMeSleeperLongName");
  handler.AddProcess("ftckeepmesleeperlongname");
  handler.AddProcess("FtcKeepMeSleeper");
  handler.StopProcesses();

  EXPECT_TRUE(EndedWithin(doomed, std::chrono::seconds(5)));
  EXPECT_FALSE(EndedWithin(spared, std::chrono::milliseconds(200)));
  kill(spared, SIGKILL);
  waitpid(spared, nullptr, 0);
  if (!EndedWithin(doomed, std::chrono::milliseconds(0))) {
    kill(doomed, SIGKILL);
    waitpid(doomed, nullptr, 0);
  }

  const std::string log = root.ReadFile("/tmp/FileXfer.txt");
  EXPECT_NE(std::string::npos,
            log.find("CQVProcessingHandler::QVTerminateProc !FtcStopMeSleeperLongName! \r\n"
                     "CQVProcessingHandler::QVTerminateProc, killing it\r\n"
                     "CQVProcessingHandler::QVTerminateProc !ftckeepmesleeperlongname! \r\n"
                     "CQVProcessingHandler::QVTerminateProc !FtcKeepMeSleeper! \r\n"
                     "CQVProcessingHandler::QVStopProcesses - Closing snapshot\r\n"
                     "CQVProcessingHandler::QVStopProcesses - returning\r\n"));
}

TEST(StopProcesses, AnEmptyListTakesNoSnapshotButStillReportsReturning) {
  ftctest::DeviceRoot root;
  CQVProcessingHandler handler;
  handler.StopProcesses();
  const std::string log = root.ReadFile("/tmp/FileXfer.txt");
  EXPECT_NE(std::string::npos, log.find("CQVProcessingHandler::QVStopProcesses - returning\r\n"));
  EXPECT_EQ(std::string::npos, log.find("snapshot"));
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
