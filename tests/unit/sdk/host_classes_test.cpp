// The download writer, the UDP sender and the file helpers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "platform/helpers.h"
#include "platform/hostclasses.h"
#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"
#include "winux/winux_host.h"

namespace {

std::string ReadAll(const char* path) {
  FileIO f;
  if (f.Open(path, 1) != 1) return "<not opened>";
  std::string s(f.Size(), '\0');
  s.resize(f.ReadAll(&s[0], static_cast<DWORD>(s.size())));
  return s;
}

TEST(SdkFileIO, WriteSeekAppendReadRoundTrip) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Flash File Store\\keep.txt", "");
  const char* path = "\\Flash File Store\\app.bin";
  FileIO f;
  ASSERT_EQ(f.OpenForWriting(path, 0, 11), 1);
  ASSERT_EQ(f.Write("hello world", 11), 1);
  ASSERT_EQ(f.Seek(6), 1);
  ASSERT_EQ(f.Write("WORLD", 5), 1);
  f.Close();

  ASSERT_EQ(f.OpenForWriting(path, 1, 0), 1);  // append keeps what is there
  ASSERT_EQ(f.Write("!", 1), 1);
  f.Close();
  EXPECT_EQ(ReadAll(path), "hello WORLD!");

  ASSERT_EQ(f.Open(path, 1), 1);
  char part[6] = {};
  EXPECT_EQ(f.Read(part, 5), 5u);
  EXPECT_STREQ(part, "hello");
  ASSERT_EQ(f.Seek(11), 1);
  EXPECT_EQ(f.Read(part, 5), 1u);
  EXPECT_EQ(f.Read(part, 5), 0u);
  EXPECT_EQ(f.Write("x", 1), 0);  // opened for reading
  f.Close();

  ASSERT_EQ(f.OpenForWriting(path, 0, 0), 1);  // without append the old bytes go
  f.Close();
  EXPECT_EQ(root.ReadFile(path), "");
  // ... but only once the new file has its announced length: a short one leaves the old.
  root.WriteFile(path, "old");
  ASSERT_EQ(f.OpenForWriting(path, 0, 5), 1);
  ASSERT_EQ(f.Write("new", 3), 1);
  EXPECT_EQ(root.ReadFile(path), "old");
  f.Close();
  EXPECT_EQ(root.ReadFile(path), "old");
  ASSERT_EQ(f.OpenForWriting(path, 0, 5), 1);
  ASSERT_EQ(f.Write("new!!", 5), 1);
  f.Close();
  EXPECT_EQ(root.ReadFile(path), "new!!");
  // A file made under the name while a new one was written is replaced like an old one.
  const char* raced = "\\Flash File Store\\raced.bin";
  ASSERT_EQ(f.OpenForWriting(raced, 0, 3), 1);
  root.WriteFile(raced, "other");
  ASSERT_EQ(f.Write("new", 3), 1);
  f.Close();
  EXPECT_EQ(root.ReadFile(raced), "new");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.HostPath("\\Flash File Store")),
                          std::filesystem::directory_iterator()),
            3)
      << "app.bin, raced.bin and keep.txt, nothing beside them";

  EXPECT_EQ(f.OpenForWriting("\\No Such Folder\\a.bin", 0, 0), 0);
  EXPECT_EQ(f.Open("\\Flash File Store\\missing.bin", 1), 0);
  EXPECT_EQ(f.Size(), 0u);
}

TEST(SdkFileIO, StaleReadOnlyFileIsPreparedKeptAndDeleted) {
  ftctest::DeviceRoot root;
  const char* path = "\\Flash File Store\\old.bin";
  root.WriteFile(path, "stale");
  FileIO f;
  auto writable = [&] {
    struct stat st;
    return stat(root.HostPath(path).c_str(), &st) == 0 && (st.st_mode & 0222) != 0;
  };
  ASSERT_EQ(f.SetAttributes(path, FILE_ATTRIBUTE_READONLY), 1);
  EXPECT_FALSE(writable());
  EXPECT_EQ(f.PrepareForWriting(path), 1);
  EXPECT_TRUE(writable());
  ASSERT_EQ(f.OpenForWriting(path, 0, 0), 1);
  f.Close();

  EXPECT_EQ(f.RemoveStale(path), 1);
  EXPECT_TRUE(root.Exists(path)) << "replaced only by a whole new file";
  EXPECT_EQ(f.RemoveStale("\\Flash File Store"), 0);
  EXPECT_EQ(FileIO::Delete(path), 1);
  EXPECT_EQ(f.RemoveStale(path), 1);  // nothing stale is fine
  EXPECT_EQ(f.PrepareForWriting(path), 1);

  root.WriteFile(path, "x");
  EXPECT_EQ(FileIO::Delete(path), 1);
  EXPECT_EQ(FileIO::Delete(path), 0);
  EXPECT_EQ(FileIO::Delete("\\Flash File Store"), 0);  // folders are not files
}

// A download writes beside its file and renames it in; the folder's index follows both, so
// filling a folder does not read it once per file.
TEST(SdkFileIO, ReplacingFilesKeepsTheFolderIndexCurrent) {
  ftctest::DeviceRoot root;
  ASSERT_TRUE(CreateDirectory(L"\\bulk", nullptr));
  const unsigned long before = WinuxFolderReads();
  for (int i = 0; i < 300; ++i) {
    std::string path = "\\BULK\\File" + std::to_string(i) + ".Bin";
    FileIO f;
    ASSERT_EQ(f.OpenForWriting(path.c_str(), 0, 1), 1) << i;
    ASSERT_EQ(f.Write("x", 1), 1);
    f.Close();
  }
  EXPECT_EQ(ftctest::ReadHostFile(root.path() + "/bulk/File299.Bin"), "x");
  EXPECT_LE(WinuxFolderReads() - before, 2u);
}

TEST(SdkFileHelpers, ExistOpenSizeRenameAndCopy) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\temp\\a.bin", "12345");
  root.WriteFile("\\other\\b.bin", "old");
  EXPECT_TRUE(QVFileExists("\\TEMP\\A.BIN"));
  EXPECT_TRUE(QVFileExists(L"\\temp"));
  EXPECT_FALSE(QVFileExists("\\temp\\none"));

  HANDLE h = QVOpenFile("\\temp\\a.bin", 0);
  ASSERT_NE(h, INVALID_HANDLE_VALUE);
  EXPECT_EQ(QVGetFileSize(h), 5u);
  EXPECT_TRUE(QVCloseFile(h));
  EXPECT_EQ(QVOpenFile(L"\\temp\\none", 0), INVALID_HANDLE_VALUE);

  // Copy is the device's CopyFile: a read-only target is refused, a writable one replaced by
  // the source with its write time. Rename replaces across folders.
  const std::string target = root.HostPath("\\other\\b.bin");
  ASSERT_EQ(chmod(target.c_str(), 0444), 0);
  EXPECT_FALSE(TVLCopyFileW(L"\\temp\\a.bin", L"\\other\\b.bin"));
  EXPECT_EQ(GetLastError(), DWORD(ERROR_ACCESS_DENIED));
  ASSERT_EQ(chmod(target.c_str(), 0644), 0);
  struct timespec past[2] = {{0, UTIME_OMIT}, {1000000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, root.HostPath("\\temp\\a.bin").c_str(), past, 0), 0);
  EXPECT_TRUE(TVLCopyFileW(L"\\temp\\a.bin", L"\\other\\b.bin"));
  EXPECT_EQ(root.ReadFile("\\other\\b.bin"), "12345");
  struct stat st {};
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1000000000);
  root.WriteFile("\\temp\\c.bin", "renamed");
  EXPECT_TRUE(TVLRenameFileW(L"\\temp\\c.bin", L"\\other\\b.bin"));
  EXPECT_EQ(root.ReadFile("\\other\\b.bin"), "renamed");
  EXPECT_FALSE(root.Exists("\\temp\\c.bin"));
  EXPECT_FALSE(TVLRenameFileW(L"\\temp\\none", L"\\other\\x.bin"));
  EXPECT_FALSE(TVLRenameFileW(L"\\temp\\a.bin", L"\\other"));
  EXPECT_TRUE(root.Exists("\\temp\\a.bin"));

  // Into the memory-backed area, which may be another file system.
  EXPECT_TRUE(TVLRenameFileW(L"\\temp\\a.bin", L"RAM:a.bin"));
  EXPECT_FALSE(root.Exists("\\temp\\a.bin"));
  EXPECT_EQ(ReadAll("RAM:a.bin"), "12345");
}

}  // namespace
