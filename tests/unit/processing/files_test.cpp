// File operations on a device root, stopping real processes by image name, and preparing
// programs for start.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"
#include "support/device_root.h"
#include "support/helpers.h"

namespace {

char* HeapCopy(const char* text) {
  char* copy = static_cast<char*>(malloc(strlen(text) + 1));
  strcpy(copy, text);
  return copy;
}

void MakeReadOnly(const wchar_t* path) {
  ASSERT_TRUE(SetFileAttributes(path, FILE_ATTRIBUTE_READONLY)) << GetLastError();
}

}  // namespace

TEST(FileOperations, AJobsFileListLeavesExactlyTheExpectedTree) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Data\\a.txt", "a");
  root.WriteFile("\\Data\\Keep.TXT", "keep");
  root.WriteFile("\\Data\\ro.txt", "ro");
  root.WriteFile("\\Data\\sub\\deep.txt", "deep");
  root.WriteFile("\\Data\\sub\\Inner\\x.bin", "x");
  root.WriteFile("\\Data\\sub\\Inner\\saved.bin", "saved");
  root.WriteFile("\\v1.0\\inside.txt", "dotted folder");
  root.WriteFile("\\Single\\doomed.txt", "doomed");
  root.WriteFile("\\Single\\locked.txt", "locked");
  root.WriteFile("\\old.txt", "old");
  root.WriteFile("\\src.bin", "src");
  root.WriteFile("\\Tree\\one.txt", "new one");
  root.WriteFile("\\Tree\\Nested\\two.txt", "two");
  root.WriteFile("\\TreeCopy\\one.txt", "stale one");
  std::filesystem::create_directories(root.HostPath("\\Tree\\Empty"));
  MakeReadOnly(L"\\Data\\ro.txt");
  MakeReadOnly(L"\\Single\\locked.txt");

  CQVProcessingHandler handler;
  CQVFileHandler* files = handler.GetFileHandler();
  files->AddSaveEntry(HeapCopy("\\data\\keep.txt"));
  files->AddSaveEntry(HeapCopy("\\Data\\sub\\Inner\\saved.bin"));
  files->AddSaveEntry(HeapCopy("\\Single\\doomed.txt"));
  files->AddEntry(new CQVFileEntry("Delete", "\\Data", ""));
  files->AddEntry(new CQVFileEntry("Delete", "\\v1.0", ""));
  files->AddEntry(new CQVFileEntry("Delete", "\\Single\\doomed.txt", ""));
  files->AddEntry(new CQVFileEntry("Delete", "\\Single\\locked.txt", ""));
  files->AddEntry(new CQVFileEntry("Delete", "", ""));
  files->AddEntry(new CQVFileEntry("Rename", "\\old.txt", "\\New\\Deeper\\new.txt"));
  files->AddEntry(new CQVFileEntry("Copy", "\\src.bin", "\\Copies\\src.bin"));
  files->AddEntry(new CQVFileEntry("CopyDir", "\\Tree", "\\TreeCopy"));
  files->AddEntry(new CQVFileEntry("rename", "\\src.bin", "\\lower.bin"));
  handler.DoFiles();

  struct Expect {
    const char* path;
    const char* content;  // null: must be gone
  } expected[] = {
      {"\\Data\\a.txt", nullptr},
      {"\\Data\\Keep.TXT", "keep"},  // saved, named in another case
      {"\\Data\\ro.txt", "ro"},      // read-only inside a folder: kept
      {"\\Data\\sub\\deep.txt", nullptr},
      {"\\Data\\sub\\Inner\\x.bin", nullptr},
      {"\\Data\\sub\\Inner\\saved.bin", "saved"},  // and so its folders stay
      {"\\v1.0\\inside.txt", "dotted folder"},     // a dotted path names a single file
      {"\\Single\\doomed.txt", nullptr},           // named directly: saving does not apply
      {"\\Single\\locked.txt", nullptr},           // named directly: read-only is cleared
      {"\\old.txt", nullptr},
      {"\\New\\Deeper\\new.txt", "old"},
      {"\\src.bin", "src"},
      {"\\Copies\\src.bin", "src"},
      {"\\TreeCopy\\one.txt", "new one"},
      {"\\TreeCopy\\Nested\\two.txt", "two"},
      {"\\lower.bin", nullptr},
  };
  for (const Expect& e : expected) {
    SCOPED_TRACE(e.path);
    EXPECT_EQ(e.content != nullptr, root.Exists(e.path));
    if (e.content) {
      EXPECT_EQ(e.content, root.ReadFile(e.path));
    }
  }
  EXPECT_TRUE(root.Exists("\\Data"));
  EXPECT_TRUE(root.Exists("\\TreeCopy\\Empty"));
  // The empty request touched nothing at the top of the device.
  EXPECT_TRUE(root.Exists("\\Single"));

  const std::string log = root.Log();
  for (const char* line : {
           "CQVProcessingHandler::DoFiles ()\r\nRemoving files !\\Data!\r\n"
           "FileTransferConfiglet - CQVFileHandler::RemoveFiles, \\Data\r\n",
           "Fiile, a.txt\r\n",
           "Deleting File 3, \\Data\\a.txt\r\n",
           "Deleting File 2, \\Single\\locked.txt\r\n",
           "Rename !\\old.txt! to !\\New\\Deeper\\new.txt!\r\n",
       }) {
    EXPECT_NE(std::string::npos, log.find(line)) << line;
  }
}

TEST(FileOperations, FolderHelpersCreateLevelsAndACopyOfNothingMakesNothing) {
  ftctest::DeviceRoot root;
  EXPECT_EQ(1, CQVFileHandler::MakeSureFolderExists(L"\\One\\Two\\Three"));
  EXPECT_TRUE(root.Exists("\\One\\Two\\Three"));
  EXPECT_EQ(0, CQVFileHandler::MakeSureFolderExists(L""));
  EXPECT_EQ(0, CQVFileHandler::Exists(nullptr));
  EXPECT_EQ(0, CQVFileHandler().CopyDirectory(L"\\Missing", L"\\Target"));
  EXPECT_FALSE(root.Exists("\\Target"));
  // A copy into its own subfolder ends.
  root.WriteFile("\\Loop\\file.txt", "f");
  CQVFileHandler().CopyDirectory(L"\\Loop", L"\\Loop\\Inner");
  EXPECT_EQ("f", root.ReadFile("\\Loop\\Inner\\file.txt"));
}

TEST(FileOperations, NoOperationReachesOutsideTheDeviceRoot) {
  ftctest::DeviceRoot root;
  std::string outside = (std::filesystem::temp_directory_path() / "ftc-outside-XXXXXX").string();
  ASSERT_NE(nullptr, mkdtemp(outside.data()));
  ftctest::WriteHostFile(outside + "/victim.txt", "victim");
  std::filesystem::create_directories(outside + "/folder");
  ftctest::WriteHostFile(outside + "/folder/inner", "inner");
  const std::string name = std::filesystem::path(outside).filename().string();
  const std::string up = "\\..\\..\\" + name;

  CQVFileHandler files;
  files.AddEntry(new CQVFileEntry("Delete", (up + "\\victim.txt").c_str(), ""));
  files.AddEntry(new CQVFileEntry("Delete", (up + "\\folder").c_str(), ""));
  files.AddEntry(new CQVFileEntry("Rename", (up + "\\victim.txt").c_str(), "\\stolen.txt"));
  files.AddEntry(new CQVFileEntry("CopyDir", (up + "\\folder").c_str(), "\\copied"));
  root.WriteFile("\\planted.txt", "planted");
  files.AddEntry(new CQVFileEntry("Copy", "\\planted.txt", (up + "\\planted.txt").c_str()));
  files.DoIt();

  EXPECT_EQ("victim", ftctest::ReadHostFile(outside + "/victim.txt"));
  EXPECT_EQ("inner", ftctest::ReadHostFile(outside + "/folder/inner"));
  EXPECT_FALSE(std::filesystem::exists(outside + "/planted.txt"));
  EXPECT_FALSE(root.Exists("\\copied\\inner"));
  std::filesystem::remove_all(outside);
}

TEST(StopProcesses, StopsTheExactNameAndLeavesADifferentlyCasedOneRunning) {
  ftctest::DeviceRoot root;
  // An empty list takes no snapshot but still reports returning.
  CQVProcessingHandler().StopProcesses();
  EXPECT_NE(root.Log().find("CQVProcessingHandler::QVStopProcesses - returning\r\n"),
            std::string::npos);
  EXPECT_EQ(root.Log().find("snapshot"), std::string::npos);
  root.WriteFile("/tmp/FileXfer.txt", "");

  auto doomed = ftctest::StartListedSleeper(root.HostPath("\\bin\\FtcStopMeSleeperLongName"));
  auto spared = ftctest::StartListedSleeper(root.HostPath("\\bin\\FtcKeepMeSleeperLongName"));
  ASSERT_TRUE(doomed && spared);

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
