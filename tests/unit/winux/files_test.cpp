// Files and search as the device sees them: patterns, attribute bits, read-only rules, copies.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/winux.h"
#include "support/device_root.h"

namespace fs = std::filesystem;

namespace {

struct Found {
  std::wstring name;
  DWORD attributes;
};

std::vector<Found> FindAll(const wchar_t* pattern) {
  std::vector<Found> out;
  WIN32_FIND_DATA data;
  HANDLE h = FindFirstFile(pattern, &data);
  if (h == INVALID_HANDLE_VALUE) return out;
  do out.push_back({data.cFileName, data.dwFileAttributes});
  while (FindNextFile(h, &data));
  EXPECT_EQ(GetLastError(), ERROR_NO_MORE_FILES);
  EXPECT_TRUE(FindClose(h));
  return out;
}

std::set<std::wstring> Names(const std::vector<Found>& found) {
  std::set<std::wstring> names;
  for (const Found& f : found) names.insert(f.name);
  return names;
}

TEST(WinuxFind, PatternsMatchNamesWithoutRegardToCase) {
  ftctest::DeviceRoot root;
  for (const char* name : {"a.bin", "B.BIN", "readme", "ab.txt", "abc.txt", "x.y.z"})
    root.WriteFile(std::string("d/") + name, "x");
  fs::create_directories(root.path() + "/d/Sub.Dir");
  struct Case {
    const wchar_t* pattern;
    std::set<std::wstring> names;
  } cases[] = {
      {L"\\d\\*.*", {L"a.bin", L"B.BIN", L"readme", L"ab.txt", L"abc.txt", L"x.y.z", L"Sub.Dir"}},
      {L"\\d\\*", {L"a.bin", L"B.BIN", L"readme", L"ab.txt", L"abc.txt", L"x.y.z", L"Sub.Dir"}},
      {L"\\D\\*.bin", {L"a.bin", L"B.BIN"}},
      {L"\\d\\a?.txt", {L"ab.txt"}},
      {L"\\d\\*c.*", {L"abc.txt"}},
      {L"\\d\\*.*.z", {L"x.y.z"}},
      {L"\\d\\README", {L"readme"}},
      {L"\\d\\sub.dir", {L"Sub.Dir"}},
      {L"\\d\\", {L"d"}},
  };
  for (const Case& c : cases) EXPECT_EQ(Names(FindAll(c.pattern)), c.names);

  WIN32_FIND_DATA data;
  EXPECT_EQ(FindFirstFile(L"\\d\\*.exe", &data), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(FindFirstFile(L"\\nowhere\\*.*", &data), INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST(WinuxFind, AttributeBitsAndHostStateHidden) {
  ftctest::DeviceRoot root;
  root.WriteFile("Flash File Store/rw.txt", "x");
  root.WriteFile("Flash File Store/ro.txt", "x");
  root.WriteFile("plain/f", "x");
  fs::create_directories(root.path() + "/Storage Card");
  fs::create_directories(root.path() + "/temp/Flash File Store");  // not directly under the root
  chmod(root.HostPath("Flash File Store/ro.txt").c_str(), 0444);
  root.WriteIdentity("serial=1\n");

  std::vector<Found> top = FindAll(L"\\*.*");
  for (const wchar_t* hidden : {L".winux", L".", L".."}) EXPECT_EQ(Names(top).count(hidden), 0u);
  auto attributesOf = [&](const std::vector<Found>& list, const std::wstring& name) {
    auto it =
        std::find_if(list.begin(), list.end(), [&](const Found& f) { return f.name == name; });
    return it == list.end() ? INVALID_FILE_ATTRIBUTES : it->attributes;
  };
  const DWORD store = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_MOUNTED_STORE;
  EXPECT_EQ(attributesOf(top, L"Flash File Store"), store);
  EXPECT_EQ(attributesOf(top, L"Storage Card"), store);
  EXPECT_EQ(attributesOf(top, L"plain"), FILE_ATTRIBUTE_DIRECTORY);
  EXPECT_EQ(attributesOf(FindAll(L"\\temp\\*"), L"Flash File Store"), FILE_ATTRIBUTE_DIRECTORY);

  std::vector<Found> files = FindAll(L"\\flash file store\\*.txt");
  EXPECT_EQ(attributesOf(files, L"ro.txt") & FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_READONLY);
  EXPECT_EQ(attributesOf(files, L"rw.txt") & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY),
            0u);
  EXPECT_EQ(GetFileAttributes(L"\\Storage Card"), store);
  EXPECT_EQ(GetFileAttributes(L"\\FLASH FILE STORE\\RO.TXT") & FILE_ATTRIBUTE_READONLY,
            FILE_ATTRIBUTE_READONLY);
}

TEST(WinuxFiles, ReadOnlyFilesAndFullFoldersRefuseRemoval) {
  ftctest::DeviceRoot root;
  root.WriteFile("ro.txt", "x");
  ASSERT_TRUE(SetFileAttributes(L"\\ro.txt", FILE_ATTRIBUTE_READONLY));
  EXPECT_FALSE(DeleteFile(L"\\ro.txt"));
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(CreateFile(L"\\ro.txt", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  ASSERT_TRUE(
      SetFileAttributes(L"\\ro.txt", GetFileAttributes(L"\\ro.txt") & ~FILE_ATTRIBUTE_READONLY));
  EXPECT_TRUE(DeleteFile(L"\\ro.txt"));
  EXPECT_FALSE(root.Exists("ro.txt"));
  EXPECT_FALSE(DeleteFile(L"\\ro.txt"));
  EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);

  // Folders are made once and removed only when empty; the root never.
  EXPECT_TRUE(CreateDirectory(L"\\temp", nullptr));
  EXPECT_FALSE(CreateDirectory(L"\\TEMP", nullptr));
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  root.WriteFile("temp/f", "x");
  EXPECT_FALSE(RemoveDirectory(L"\\temp"));
  EXPECT_EQ(GetLastError(), ERROR_DIR_NOT_EMPTY);
  EXPECT_FALSE(DeleteFile(L"\\temp"));
  EXPECT_TRUE(DeleteFile(L"\\temp\\F"));
  EXPECT_TRUE(RemoveDirectory(L"\\Temp"));
  EXPECT_FALSE(RemoveDirectory(L"\\"));
  EXPECT_TRUE(fs::exists(root.path()));
}

TEST(WinuxFiles, CopyHonoursFailIfExistsAndMoveRefusesATarget) {
  ftctest::DeviceRoot root;
  root.WriteFile("a.txt", "new");
  root.WriteFile("b.txt", "old");
  EXPECT_FALSE(CopyFile(L"\\a.txt", L"\\b.txt", TRUE));
  EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);
  EXPECT_EQ(root.ReadFile("b.txt"), "old");
  EXPECT_TRUE(CopyFile(L"\\A.TXT", L"\\B.TXT", FALSE));
  EXPECT_EQ(root.ReadFile("b.txt"), "new");
  EXPECT_FALSE(CopyFile(L"\\missing", L"\\c.txt", FALSE));
  EXPECT_FALSE(CopyFile(L"\\a.txt", L"\\nodir\\c.txt", FALSE));
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);

  EXPECT_FALSE(MoveFile(L"\\a.txt", L"\\b.txt"));
  EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
  EXPECT_TRUE(MoveFile(L"\\a.txt", L"\\c.txt"));
  EXPECT_EQ(root.ReadFile("c.txt"), "new");
  EXPECT_TRUE(MoveFile(L"\\c.txt", L"\\C.Txt"));  // a change of case only
  EXPECT_EQ(Names(FindAll(L"\\c.*")), std::set<std::wstring>{L"C.Txt"});
  EXPECT_TRUE(MoveFile(L"\\c.txt", L"RAM:\\c.txt"));  // across file systems
  EXPECT_FALSE(root.Exists("c.txt"));
  EXPECT_TRUE(DeleteFile(L"RAM:\\c.txt"));
}

TEST(WinuxFiles, HandleReadWriteSeekAndStaleHandles) {
  ftctest::DeviceRoot root;
  HANDLE h =
      CreateFile(L"\\f.bin", GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  DWORD n = 0;
  ASSERT_TRUE(WriteFile(h, "hello world", 11, &n, nullptr));
  EXPECT_EQ(GetFileSize(h, nullptr), 11u);
  EXPECT_EQ(SetFilePointer(h, -5, nullptr, 2), 6u);
  char buffer[16] = {};
  ASSERT_TRUE(ReadFile(h, buffer, sizeof buffer, &n, nullptr));
  EXPECT_EQ(std::string(buffer, n), "world");
  ASSERT_TRUE(ReadFile(h, buffer, sizeof buffer, &n, nullptr));
  EXPECT_EQ(n, 0u);            // end of file is success with nothing read
  EXPECT_FALSE(FindClose(h));  // a file handle is not a search handle
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_TRUE(CloseHandle(h));
  EXPECT_FALSE(CloseHandle(h));
  EXPECT_FALSE(ReadFile(h, buffer, 1, &n, nullptr));
  EXPECT_EQ(CreateFile(L"\\f.bin", GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_FILE_EXISTS);
}

}  // namespace

// An append stream keeps its descriptor between opens while the path still names the file: a
// log the host removes is made anew at once, one replaced from outside within a moment.
TEST(WinuxFiles, AppendOpensFollowARemovedOrReplacedFile) {
  ftctest::DeviceRoot root;
  ASSERT_TRUE(CreateDirectory(L"\\tmp", nullptr));
  auto line = [](const char* text) {
    FILE* f = WinuxFopen("\\tmp\\log.txt", "a");
    ASSERT_NE(f, nullptr);
    fputs(text, f);
    fclose(f);
  };
  line("a");
  line("b");
  EXPECT_EQ(root.ReadFile("\\tmp\\log.txt"), "ab");
  ASSERT_TRUE(DeleteFile(L"\\tmp\\log.txt"));
  line("c");
  EXPECT_EQ(root.ReadFile("\\tmp\\log.txt"), "c");
  fs::rename(root.HostPath("\\tmp\\log.txt"), root.HostPath("\\tmp\\old.txt"));
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  line("d");
  EXPECT_EQ(root.ReadFile("\\tmp\\log.txt"), "d");
  EXPECT_EQ(root.ReadFile("\\tmp\\old.txt"), "c");
}
