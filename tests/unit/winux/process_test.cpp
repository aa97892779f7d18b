// Processes by image name, memory figures and dynamic loading.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"

namespace fs = std::filesystem;

namespace {

DWORD FindByName(const std::wstring& name) {
  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  EXPECT_NE(snap, INVALID_HANDLE_VALUE);
  PROCESSENTRY32 entry{};
  entry.dwSize = sizeof entry;
  DWORD pid = 0;
  for (BOOL ok = Process32First(snap, &entry); ok; ok = Process32Next(snap, &entry))
    if (name == entry.szExeFile) pid = entry.th32ProcessID;
  EXPECT_TRUE(CloseToolhelp32Snapshot(snap));
  return pid;
}

TEST(WinuxProcess, SnapshotFindsALongImageNameAndTerminateEndsIt) {
  ftctest::DeviceRoot root;
  std::string program = root.path() + "/QVTransferAgent.exe";
  fs::copy_file("/bin/sleep", program);
  ftctest::Child child({program, "30"});
  DWORD pid = 0;
  ASSERT_TRUE(ftctest::WaitUntil([&] { return (pid = FindByName(L"QVTransferAgent.exe")) != 0; }));
  ASSERT_EQ(pid, static_cast<DWORD>(child.pid()));

  HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, pid);
  ASSERT_NE(process, nullptr);
  EXPECT_TRUE(TerminateProcess(process, 0));
  EXPECT_EQ(WinuxWaitForSingleObject(process, 1000), WINUX_WAIT_ACQUIRED);
  EXPECT_TRUE(CloseHandle(process));
  EXPECT_EQ(FindByName(L"QVTransferAgent.exe"), 0u);    // gone, even before it is reaped
  EXPECT_EQ(child.Wait(std::chrono::seconds(1)), 128);  // by a signal

  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 entry{};
  entry.dwSize = 8;  // a caller that did not size the entry
  EXPECT_FALSE(Process32First(snap, &entry));
  EXPECT_FALSE(CloseHandle(nullptr));
  EXPECT_TRUE(CloseToolhelp32Snapshot(snap));
}

TEST(WinuxMemory, FiguresAreThirtyTwoBitAndTheDivisionIsKept) {
  ftctest::DeviceRoot root;
  root.WriteIdentity("flash_bytes=67108864\n");
  MEMORYSTATUS status{};
  GlobalMemoryStatus(&status);
  EXPECT_LE(status.dwAvailPhys, status.dwTotalPhys);
  STORE_INFORMATION store{};
  ASSERT_TRUE(GetStoreInformation(&store));
  EXPECT_EQ(store.dwStoreSize, 67108864u);
  EXPECT_LE(store.dwFreeSize, store.dwStoreSize);

  DWORD storePages = 0, ramPages = 0, pageSize = 0;
  ASSERT_TRUE(GetSystemMemoryDivision(&storePages, &ramPages, &pageSize));
  EXPECT_EQ(pageSize, 4096u);
  EXPECT_EQ(storePages, 16384u);
  const DWORD total = storePages + ramPages;
  EXPECT_EQ(SetSystemMemoryDivision(storePages + 100), 0u);
  ASSERT_TRUE(GetSystemMemoryDivision(&storePages, &ramPages, &pageSize));
  EXPECT_EQ(storePages, 16484u);
  EXPECT_EQ(storePages + ramPages, total);
  EXPECT_NE(SetSystemMemoryDivision(total + 1), 0u);

  void* block = malloc(16);
  EXPECT_EQ(LocalFree(block), nullptr);  // blocks from malloc are accepted
  EXPECT_EQ(LocalFree(LocalAlloc(0x40, 32)), nullptr);
}

TEST(WinuxLoading, LibrariesAreFoundByShortNameBesideTheHost) {
  ftctest::DeviceRoot root;
  unsetenv("WINUX_LIBRARY_PATH");
  HMODULE self = LoadLibrary(L"winux");  // libwinux.so in the host's own folder
  ASSERT_NE(self, nullptr);
  EXPECT_EQ(GetProcAddress(self, L"Sleep"), reinterpret_cast<FARPROC>(&Sleep));
  EXPECT_EQ(GetProcAddress(self, L"NoSuchEntry"), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
  EXPECT_TRUE(FreeLibrary(self));

  EXPECT_EQ(LoadLibrary(L"xq_no_such_library"), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);

  // WINUX_LIBRARY_PATH comes first.
  fs::create_directories(root.path() + "/libs");
  fs::copy_file(ftctest::LibDir() + "/libwinux.so", root.path() + "/libs/libother.so");
  setenv("WINUX_LIBRARY_PATH", ("/nonexistent:" + root.path() + "/libs").c_str(), 1);
  HMODULE other = LoadLibrary(L"other");
  EXPECT_NE(other, nullptr);
  EXPECT_TRUE(FreeLibrary(other));
  unsetenv("WINUX_LIBRARY_PATH");
  EXPECT_EQ(WSACleanup(), 0);
}

}  // namespace
