// Threads, waits and processes: the 10000 result, scaled time-outs, mutex ownership,
// TerminateThread reaching a thread that sleeps or waits, and processes by image name.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"

namespace {

using Clock = std::chrono::steady_clock;
using ftctest::ElapsedMs;

TEST(WinuxSync, EventsReportAcquiredAs10000ResetAsAskedAndWaitScaledTime) {
  ftctest::DeviceRoot root(0.001);
  HANDLE autoReset = CreateEvent(nullptr, FALSE, TRUE, nullptr);
  HANDLE manual = CreateEvent(nullptr, TRUE, TRUE, nullptr);
  EXPECT_EQ(WinuxWaitForSingleObject(autoReset, 0), 10000u);
  EXPECT_EQ(WinuxWaitForSingleObject(manual, 0), WINUX_WAIT_ACQUIRED);
  EXPECT_EQ(WinuxWaitForSingleObject(manual, 0), WINUX_WAIT_ACQUIRED);
  EXPECT_TRUE(ResetEvent(manual));
  EXPECT_EQ(WinuxWaitForSingleObject(manual, 0), WAIT_TIMEOUT);
  // Ten seconds each, scaled, not skipped.
  auto start = Clock::now();
  EXPECT_EQ(WinuxWaitForSingleObject(autoReset, 10000), WAIT_TIMEOUT);
  Sleep(10000);
  EXPECT_LT(ElapsedMs(start), 500);
  EXPECT_GE(ElapsedMs(start), 15);
  EXPECT_TRUE(SetEvent(autoReset));
  EXPECT_EQ(WinuxWaitForSingleObject(autoReset, INFINITE), WINUX_WAIT_ACQUIRED);

  EXPECT_EQ(WinuxWaitForSingleObject(nullptr, 0), WAIT_FAILED);
  EXPECT_EQ(WinuxWaitForSingleObject(INVALID_HANDLE_VALUE, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_TRUE(CloseHandle(autoReset));
  EXPECT_EQ(WinuxWaitForSingleObject(autoReset, 0), WAIT_FAILED);
  CloseHandle(manual);
}

struct MutexProbe {
  HANDLE mutex;
  DWORD result = 0;
};

DWORD TryMutex(LPVOID p) {
  auto* probe = static_cast<MutexProbe*>(p);
  HANDLE own = CreateMutex(nullptr, FALSE, L"FILELOG_MUTEX");
  probe->result = WinuxWaitForSingleObject(own, 0);
  if (probe->result == WINUX_WAIT_ACQUIRED) WinuxReleaseSemaphore(own, 1, nullptr);
  CloseHandle(own);
  return 0;
}

DWORD RunProbe(MutexProbe& probe) {
  HANDLE t = CreateThread(nullptr, 0, TryMutex, &probe, 0, nullptr);
  EXPECT_EQ(WinuxWaitForSingleObject(t, INFINITE), WINUX_WAIT_ACQUIRED);
  CloseHandle(t);
  return probe.result;
}

TEST(WinuxSync, NamedMutexIsRecursiveForItsOwnerAndExclusiveForOthers) {
  ftctest::DeviceRoot root;
  HANDLE m = CreateMutex(nullptr, FALSE, L"FILELOG_MUTEX");
  MutexProbe probe{m};
  ASSERT_EQ(WinuxWaitForSingleObject(m, 0), WINUX_WAIT_ACQUIRED);
  ASSERT_EQ(WinuxWaitForSingleObject(m, 0), WINUX_WAIT_ACQUIRED);
  EXPECT_EQ(RunProbe(probe), WAIT_TIMEOUT);
  EXPECT_TRUE(WinuxReleaseSemaphore(m, 1, nullptr));
  EXPECT_EQ(RunProbe(probe), WAIT_TIMEOUT);  // still held once
  EXPECT_TRUE(WinuxReleaseSemaphore(m, 1, nullptr));
  EXPECT_EQ(RunProbe(probe), WINUX_WAIT_ACQUIRED);
  EXPECT_FALSE(WinuxReleaseSemaphore(m, 1, nullptr));  // not held any more

  HANDLE s = CreateSemaphore(nullptr, 1, 2, nullptr);
  LONG previous = -1;
  EXPECT_EQ(WinuxWaitForSingleObject(s, 0), WINUX_WAIT_ACQUIRED);
  EXPECT_EQ(WinuxWaitForSingleObject(s, 0), WAIT_TIMEOUT);
  EXPECT_TRUE(WinuxReleaseSemaphore(s, 2, &previous));
  EXPECT_EQ(previous, 0);
  EXPECT_FALSE(WinuxReleaseSemaphore(s, 1, nullptr));  // above the maximum
  CloseHandle(s);
  CloseHandle(m);
}

std::atomic<int> g_reached{0};

DWORD SleepForever(LPVOID) {
  g_reached = 1;
  Sleep(INFINITE);
  g_reached = 2;  // never
  return 7;
}

DWORD WaitForever(LPVOID event) {
  g_reached = 1;
  WinuxWaitForSingleObject(event, INFINITE);
  g_reached = 2;
  return 7;
}

TEST(WinuxSync, TerminateThreadEndsAThreadThatSleepsOrWaits) {
  ftctest::DeviceRoot root(1.0);  // real time: the thread must not just time out
  HANDLE never = CreateEvent(nullptr, TRUE, FALSE, nullptr);
  for (LPTHREAD_START_ROUTINE body : {SleepForever, WaitForever}) {
    g_reached = 0;
    DWORD id = 0;
    HANDLE t = CreateThread(nullptr, 786432, body, never, 0, &id);
    ASSERT_NE(t, nullptr);
    EXPECT_NE(id, 0u);
    while (g_reached == 0) std::this_thread::yield();
    EXPECT_EQ(WinuxWaitForSingleObject(t, 20), WAIT_TIMEOUT);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(t, &code));
    EXPECT_EQ(code, 259u);  // still active
    auto start = Clock::now();
    EXPECT_TRUE(TerminateThread(t, 3));
    EXPECT_EQ(WinuxWaitForSingleObject(t, 5000), WINUX_WAIT_ACQUIRED);
    EXPECT_LT(ElapsedMs(start), 1000);
    EXPECT_EQ(g_reached, 1);
    EXPECT_TRUE(GetExitCodeThread(t, &code));
    EXPECT_EQ(code, 3u);
    EXPECT_FALSE(SetEvent(t));  // a thread handle is not an event
    CloseHandle(t);
  }
  CloseHandle(never);
}

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
  auto child = ftctest::StartListedSleeper(root.path() + "/WinuxSnapshotChild.exe");
  ASSERT_TRUE(child);
  // Flags 0, as the device's plug-ins pass them, list the processes too.
  DWORD pid = FindByName(L"WinuxSnapshotChild.exe", 0);
  ASSERT_EQ(pid, static_cast<DWORD>(child->pid()));

  HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, pid);
  ASSERT_NE(process, nullptr);
  EXPECT_TRUE(TerminateProcess(process, 0));
  EXPECT_EQ(WinuxWaitForSingleObject(process, 1000), WINUX_WAIT_ACQUIRED);
  EXPECT_TRUE(CloseHandle(process));
  EXPECT_EQ(FindByName(L"WinuxSnapshotChild.exe"), 0u);  // gone, even before it is reaped
  EXPECT_EQ(child->Wait(std::chrono::seconds(1)), 128);  // by a signal

  HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32 entry{};
  entry.dwSize = 8;  // a caller that did not size the entry
  EXPECT_FALSE(Process32First(snap, &entry));
  EXPECT_FALSE(CloseHandle(nullptr));
  EXPECT_TRUE(CloseToolhelp32Snapshot(snap));
}

}  // namespace
