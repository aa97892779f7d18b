// The device root: confinement, case-insensitive lookup, the memory area, path vs file errors.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cwchar>
#include <filesystem>
#include <string>

#include "platform/winux.h"
#include "support/device_root.h"
#include "winux/winux_host.h"

namespace fs = std::filesystem;

namespace {

std::string Real(const std::string& p) {
  return fs::weakly_canonical(p).string();
}

TEST(WinuxPaths, DotDotNeverClimbsAboveTheRoot) {
  ftctest::DeviceRoot root;
  const std::string base = Real(root.path());
  struct Case {
    const char* device;
    const char* expected;  // relative to the root
  } cases[] = {
      {"\\..\\..\\etc\\passwd", "/etc/passwd"},
      {"..\\x", "/x"},
      {"\\a\\..\\..\\..\\b", "/b"},
      {"\\a\\.\\b\\..\\c", "/a/c"},
      {"/tmp/FileXfer.txt", "/tmp/FileXfer.txt"},
      {"\\", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(WinuxMapPath(c.device), base + c.expected) << c.device;
}

TEST(WinuxPaths, SymlinksLeavingTheRootAreRefused) {
  ftctest::DeviceRoot root;
  std::string outside = root.path() + "-outside";
  fs::create_directories(outside);
  ftctest::WriteHostFile(outside + "/secret", "x");
  fs::create_directories(root.path() + "/in");
  ftctest::WriteHostFile(root.path() + "/in/f.txt", "inside");
  fs::create_directory_symlink(outside, root.path() + "/out");
  fs::create_symlink("/etc/passwd", root.path() + "/passwd");
  fs::create_directory_symlink("../in", root.path() + "/in/self");  // stays inside

  SetLastError(0);
  EXPECT_EQ(WinuxMapPath("\\out\\secret"), "");
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
  EXPECT_EQ(WinuxMapPath("\\passwd"), "");
  EXPECT_EQ(GetFileAttributes(L"\\out\\secret"), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(WinuxFopen("\\OUT\\secret", "r"), nullptr);
  EXPECT_EQ(WinuxMapPath("\\in\\self\\f.txt"), Real(root.path()) + "/in/f.txt");

  // A folder already looked up and indexed, swapped for a link to outside: nothing follows it.
  fs::create_directories(root.path() + "/swap");
  EXPECT_EQ(GetFileAttributes(L"\\SWAP\\absent.txt"), INVALID_FILE_ATTRIBUTES);
  fs::rename(root.path() + "/swap", root.path() + "/swapped");
  fs::create_directory_symlink(outside, root.path() + "/swap");
  EXPECT_EQ(CreateFile(L"\\swap\\new.txt", GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(WinuxFopen("\\Swap\\secret", "r"), nullptr);
  EXPECT_FALSE(fs::exists(outside + "/new.txt"));
  fs::remove_all(outside);
}

TEST(WinuxPaths, ExistingComponentsMatchAnyCaseNewOnesKeepTheirSpelling) {
  ftctest::DeviceRoot root;
  root.WriteFile("Flash File Store/Data/App.BIN", "1");
  const std::string base = Real(root.path());
  EXPECT_EQ(WinuxMapPath("\\FLASH FILE STORE\\data\\app.bin"),
            base + "/Flash File Store/Data/App.BIN");
  EXPECT_EQ(WinuxMapPath("\\flash file store\\NewDir\\New.Txt"),
            base + "/Flash File Store/NewDir/New.Txt");

  ASSERT_TRUE(CreateDirectory(L"\\flash file store\\Logs", nullptr));
  EXPECT_TRUE(fs::is_directory(base + "/Flash File Store/Logs"));
  FILE* f = WinuxFopen("\\FLASH FILE STORE\\LOGS\\a.txt", "w");
  ASSERT_NE(f, nullptr);
  fclose(f);
  EXPECT_TRUE(fs::exists(base + "/Flash File Store/Logs/a.txt"));
}

// Names in another case come from an index of the folder: read once, then kept current by the
// host's own changes and read again only when something else changed the folder.
TEST(WinuxPaths, FolderIsReadOnceNotPerName) {
  ftctest::DeviceRoot root;
  ASSERT_TRUE(CreateDirectory(L"\\bulk", nullptr));
  const unsigned long before = WinuxFolderReads();
  for (int i = 0; i < 2000; ++i) {
    wchar_t name[64];
    swprintf(name, 64, L"\\BULK\\File%04d.Bin", i);
    HANDLE h = CreateFile(name, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << i;
    CloseHandle(h);
  }
  EXPECT_NE(GetFileAttributes(L"\\bulk\\FILE1999.BIN"), INVALID_FILE_ATTRIBUTES);
  ASSERT_TRUE(DeleteFile(L"\\bulk\\file0001.bin"));
  ASSERT_TRUE(MoveFile(L"\\bulk\\FILE0002.BIN", L"\\bulk\\Renamed.bin"));
  EXPECT_EQ(GetFileAttributes(L"\\bulk\\file0002.bin"), INVALID_FILE_ATTRIBUTES);
  EXPECT_NE(GetFileAttributes(L"\\bulk\\RENAMED.BIN"), INVALID_FILE_ATTRIBUTES);
  HANDLE again =
      CreateFile(L"\\bulk\\FILE0001.BIN", GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
  ASSERT_NE(again, INVALID_HANDLE_VALUE);
  CloseHandle(again);
  EXPECT_TRUE(fs::exists(root.path() + "/bulk/FILE0001.BIN"));
  EXPECT_LE(WinuxFolderReads() - before, 2u);

  // Made by someone else: seen through the folder's change time.
  ftctest::WriteHostFile(root.path() + "/bulk/Outside.TXT", "x");
  EXPECT_NE(GetFileAttributes(L"\\bulk\\OUTSIDE.txt"), INVALID_FILE_ATTRIBUTES);
  fs::remove(root.path() + "/bulk/Outside.TXT");
  EXPECT_EQ(GetFileAttributes(L"\\bulk\\OUTSIDE.txt"), INVALID_FILE_ATTRIBUTES);
}

TEST(WinuxPaths, MissingFolderIsAPathErrorMissingFileIsAFileError) {
  ftctest::DeviceRoot root;
  root.WriteFile("dir/present.txt", "x");
  struct Case {
    const wchar_t* path;
    DWORD error;
  } cases[] = {
      {L"\\dir\\absent.txt", ERROR_FILE_NOT_FOUND},
      {L"\\nodir\\absent.txt", ERROR_PATH_NOT_FOUND},
      {L"\\dir\\present.txt\\under.txt", ERROR_PATH_NOT_FOUND},
  };
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
    const Case& c = cases[i];
    HANDLE h = CreateFile(c.path, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(h, INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), c.error) << "case " << i;
    EXPECT_EQ(GetFileAttributes(c.path), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), c.error) << "case " << i;
  }
  EXPECT_FALSE(CreateDirectory(L"\\nodir\\sub", nullptr));
  EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST(WinuxPaths, RamPathsLiveOutsideTheRootAndApartPerRoot) {
  std::string first;
  {
    ftctest::DeviceRoot root;
    first = WinuxMapPath("RAM:\\os.bin");
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(first.find(Real(root.path())), std::string::npos);
    EXPECT_EQ(WinuxMapPath("ram:os.bin"), first);
    FILE* f = WinuxFopen("RAM:\\os.bin", "w");
    ASSERT_NE(f, nullptr);
    fputs("image", f);
    fclose(f);
    EXPECT_EQ(ftctest::ReadHostFile(first), "image");
    unlink(first.c_str());
  }
  ftctest::DeviceRoot other;
  EXPECT_NE(WinuxMapPath("RAM:\\os.bin"), first);
}

}  // namespace
