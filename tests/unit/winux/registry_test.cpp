// The registry hive: values round trip, other processes see changes, a killed save never tears it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "platform/winux.h"
#include "support/device_root.h"

namespace {

std::wstring ReadString(HKEY root, const wchar_t* key, const wchar_t* name,
                        LSTATUS* status = nullptr) {
  HKEY h = nullptr;
  LSTATUS rc = RegOpenKeyEx(root, key, 0, KEY_READ, &h);
  wchar_t buffer[512] = {};
  if (rc == ERROR_SUCCESS) {
    DWORD type = 0, size = sizeof buffer;
    rc = RegQueryValueEx(h, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size);
    if (rc == ERROR_SUCCESS && type != REG_SZ) rc = -1;
    RegCloseKey(h);
  }
  if (status) *status = rc;
  return rc == ERROR_SUCCESS ? buffer : L"";
}

LSTATUS SetString(HKEY key, const wchar_t* name, const std::wstring& value) {
  return RegSetValueEx(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                       static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

HKEY Create(HKEY root, const wchar_t* key) {
  HKEY h = nullptr;
  DWORD disposition = 0;
  EXPECT_EQ(RegCreateKeyEx(root, key, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, &disposition),
            ERROR_SUCCESS);
  return h;
}

TEST(WinuxRegistry, ValuesRoundTripWithDeviceSemantics) {
  ftctest::DeviceRoot root;
  HKEY key = Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tervalon\\XQueue");
  ASSERT_NE(key, nullptr);
  ASSERT_EQ(SetString(key, L"ServerIP", L"10.0.0.5"), ERROR_SUCCESS);
  DWORD two = 2;
  ASSERT_EQ(RegSetValueEx(key, L"KillWaitLoopCnt", 0, REG_DWORD, reinterpret_cast<BYTE*>(&two), 4),
            ERROR_SUCCESS);
  ASSERT_EQ(SetString(key, L"Quote", L"a \"b\" c:\\d"), ERROR_SUCCESS);
  RegCloseKey(key);

  // Names are case-insensitive, a leading backslash is accepted.
  EXPECT_EQ(ReadString(HKEY_LOCAL_MACHINE, L"\\software\\TERVALON\\xqueue", L"serverip"),
            L"10.0.0.5");
  EXPECT_EQ(ReadString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tervalon\\XQueue", L"Quote"),
            L"a \"b\" c:\\d");

  HKEY h = nullptr;
  ASSERT_EQ(RegOpenKeyEx(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tervalon\\XQueue", 0, KEY_READ, &h),
            ERROR_SUCCESS);
  // Too small a buffer reports the size it needs; a missing value is "file not found".
  wchar_t small[4];
  DWORD type = 0, size = sizeof small;
  EXPECT_EQ(RegQueryValueEx(h, L"ServerIP", nullptr, &type, reinterpret_cast<BYTE*>(small), &size),
            static_cast<LSTATUS>(ERROR_MORE_DATA));
  EXPECT_EQ(size, 9 * sizeof(wchar_t));
  EXPECT_EQ(RegQueryValueEx(h, L"Absent", nullptr, &type, reinterpret_cast<BYTE*>(small), &size),
            static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND));
  RegCloseKey(h);

  EXPECT_EQ(RegOpenKeyEx(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Missing", 0, KEY_READ, &h),
            static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, L"SOFTWARE\\Tervalon\\XQueue", 0, KEY_READ, &h),
            static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND));  // roots are separate trees

  const std::string hive = root.ReadHive();
  EXPECT_EQ(hive.rfind("REGEDIT4\n", 0), 0u);
  EXPECT_NE(hive.find("[HKEY_LOCAL_MACHINE\\SOFTWARE\\Tervalon\\XQueue]\n"), std::string::npos);
  EXPECT_NE(hive.find("\"ServerIP\"=\"10.0.0.5\"\n"), std::string::npos);
  EXPECT_NE(hive.find("\"KillWaitLoopCnt\"=dword:00000002\n"), std::string::npos);
  EXPECT_NE(hive.find("\"Quote\"=\"a \\\"b\\\" c:\\\\d\"\n"), std::string::npos);
}

TEST(WinuxRegistry, AHandWrittenHiveIsReadAndAWrongHandleFails) {
  ftctest::DeviceRoot root;
  std::filesystem::create_directories(root.path() + "/.winux");
  ftctest::WriteHostFile(
      root.path() + "/.winux/registry.reg",
      "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Power]\r\n"
      "\"ExtPowerOff\"=dword:0000000a\r\ngarbage line\r\n\"Name\"=\"x\"\r\n"
      "[HKEY_NOWHERE\\A]\r\n\"Lost\"=\"y\"\r\n");
  HKEY h = nullptr;
  ASSERT_EQ(RegOpenKeyEx(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Power", 0,
                         KEY_READ, &h),
            ERROR_SUCCESS);
  DWORD value = 0, size = 4;
  EXPECT_EQ(
      RegQueryValueEx(h, L"ExtPowerOff", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size),
      ERROR_SUCCESS);
  EXPECT_EQ(value, 10u);
  EXPECT_EQ(ReadString(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Power", L"Name"),
            L"x");
  RegCloseKey(h);

  HANDLE event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  EXPECT_EQ(RegQueryValueEx(event, L"x", nullptr, nullptr, nullptr, nullptr),
            static_cast<LSTATUS>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(RegCloseKey(event), static_cast<LSTATUS>(ERROR_INVALID_HANDLE));
  CloseHandle(event);
}

TEST(WinuxRegistry, ChangesReachAnotherProcess) {
  ftctest::DeviceRoot root;
  HKEY key = Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Shared");
  ASSERT_EQ(SetString(key, L"FromParent", L"p"), ERROR_SUCCESS);

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The child inherited the loaded hive; it must still see the parent's later writes.
    int ok = ReadString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Shared", L"FromParent") == L"p";
    for (int i = 0;
         i < 200 && ReadString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Shared", L"Later").empty(); ++i)
      usleep(5000);
    ok = ok && ReadString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Shared", L"Later") == L"l";
    HKEY k = nullptr;
    ok = ok && RegOpenKeyEx(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Shared", 0, KEY_ALL_ACCESS, &k) == 0;
    ok = ok && SetString(k, L"FromChild", L"c") == ERROR_SUCCESS;
    _exit(ok ? 0 : 1);
  }
  ASSERT_EQ(SetString(key, L"Later", L"l"), ERROR_SUCCESS);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(ReadString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Shared", L"FromChild"), L"c");
  EXPECT_EQ(ReadString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Shared", L"FromParent"), L"p");
  RegCloseKey(key);
}

TEST(WinuxRegistry, AProcessKilledWhileSavingLeavesAWholeHive) {
  ftctest::DeviceRoot root;
  HKEY key = Create(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Torture");
  ASSERT_EQ(SetString(key, L"Big", std::wstring(50000, L'0')), ERROR_SUCCESS);
  for (int round = 0; round < 3; ++round) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int i = 1;; ++i)
        SetString(key, L"Big", std::wstring(50000, static_cast<wchar_t>(L'0' + i % 10)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30 + 20 * round));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    const std::string hive = root.ReadHive();
    ASSERT_EQ(hive.rfind("REGEDIT4\n", 0), 0u);
    HKEY h = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Torture", 0, KEY_READ, &h),
              ERROR_SUCCESS);
    std::wstring value(50001, L'\0');
    DWORD size = static_cast<DWORD>(value.size() * sizeof(wchar_t));
    ASSERT_EQ(
        RegQueryValueEx(h, L"Big", nullptr, nullptr, reinterpret_cast<BYTE*>(&value[0]), &size),
        ERROR_SUCCESS);
    RegCloseKey(h);
    ASSERT_EQ(size, 50001 * sizeof(wchar_t));
    EXPECT_EQ(value.substr(0, 50000), std::wstring(50000, value[0])) << "round " << round;
  }
  // The hive still takes writes after a writer died holding the lock.
  EXPECT_EQ(SetString(key, L"After", L"ok"), ERROR_SUCCESS);
  RegCloseKey(key);
}

}  // namespace
