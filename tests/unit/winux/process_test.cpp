// Processes by image name.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"

namespace fs = std::filesystem;

namespace {

DWORD FindByName(const std::wstring& name, DWORD flags = TH32CS_SNAPPROCESS) {
  HANDLE snap = CreateToolhelp32Snapshot(flags, 0);
  EXPECT_NE(snap, INVALID_HANDLE_VALUE);
  PROCESSENTRY32 entry{};
  entry.dwSize = sizeof entry;
  DWORD pid = 0;
  for (BOOL ok = Process32First(snap, &entry); ok; ok = Process32Next(snap, &entry))
    if (name == entry.szExeFile) pid = entry.th32ProcessID;
  EXPECT_TRUE(CloseToolhelp32Snapshot(snap));
  return pid;
}

// A name of its own: the host-class tests end every process named like the transfer agent.
TEST(WinuxProcess, SnapshotFindsALongImageNameAndTerminateEndsIt) {
  ftctest::DeviceRoot root;
  std::string program = root.path() + "/WinuxSnapshotChild.exe";
  fs::copy_file("/bin/sleep", program);
  ftctest::Child child({program, "30"});
  DWORD pid = 0;
  // Flags 0, as the device's plug-ins pass them, list the processes too.
  ASSERT_TRUE(
      ftctest::WaitUntil([&] { return (pid = FindByName(L"WinuxSnapshotChild.exe", 0)) != 0; }));
  ASSERT_EQ(pid, static_cast<DWORD>(child.pid()));

  HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, pid);
  ASSERT_NE(process, nullptr);
  EXPECT_TRUE(TerminateProcess(process, 0));
  EXPECT_EQ(WinuxWaitForSingleObject(process, 1000), WINUX_WAIT_ACQUIRED);
  EXPECT_TRUE(CloseHandle(process));
  EXPECT_EQ(FindByName(L"WinuxSnapshotChild.exe"), 0u);  // gone, even before it is reaped
  EXPECT_EQ(child.Wait(std::chrono::seconds(1)), 128);   // by a signal

  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 entry{};
  entry.dwSize = 8;  // a caller that did not size the entry
  EXPECT_FALSE(Process32First(snap, &entry));
  EXPECT_FALSE(CloseHandle(nullptr));
  EXPECT_TRUE(CloseToolhelp32Snapshot(snap));
}

}  // namespace
