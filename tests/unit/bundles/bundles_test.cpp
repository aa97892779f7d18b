// The installed-bundle file and the version files, as the device agent and monitor read them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bundles/bundle_records.h"
#include "platform/plix.h"
#include "platform/winux.h"
#include "support/device_root.h"

namespace {

const char kBundleFile[] = "\\temp\\Quovera\\QVSubSystems\\QVBundles.xml";

// Group name -> version, in document order; "(unparsed)" when the file is not a document.
std::vector<std::pair<std::string, std::string>> Bundles(const ftctest::DeviceRoot& root) {
  std::vector<std::pair<std::string, std::string>> out;
  std::string text = root.ReadFile(kBundleFile);
  CPlixDOM dom;
  if (dom.ReadDoc(text.c_str()) != 1) return {{"(unparsed)", text}};
  CPlixIterator it;
  it.BindToDOM(&dom);
  it.ToRootElement();
  it.BeginTraverseHere();
  std::string group;
  for (int ev = it.ContinueTraverse(); ev != 0; ev = it.ContinueTraverse()) {
    if (ev != 1) continue;
    CPlixElement* el = it.GetElement();
    const char* name = el->GetAttribute("Name");
    if (!strcmp(el->GetTagName(), "Group")) group = name ? name : "";
    if (!strcmp(el->GetTagName(), "Field") && name && !strcmp(name, "Version")) {
      const char* type = el->GetAttribute("Type");
      EXPECT_STREQ(type, "String");
      out.emplace_back(group, el->GetData());
    }
  }
  return out;
}

// A device root with the log file in place (the log only appends to an existing folder).
struct Device : ftctest::DeviceRoot {
  Device() { WriteFile("/tmp/FileXfer.txt", ""); }
};

using List = std::vector<std::pair<std::string, std::string>>;

std::string Log(const ftctest::DeviceRoot& root) {
  return root.ReadFile("/tmp/FileXfer.txt");
}

TEST(BundleRecords, FirstBundleCreatesTheFileFromTheTemplate) {
  Device root;
  SetBundleNameForAssetMsg("1.0", "Demo");
  EXPECT_EQ(root.ReadFile(kBundleFile),
            "<QVInstalledBundles>   <Subsystem Name=\"Installed Bundles\">      <Group "
            "Name=\"Demo\">        <Field Name=\"Version\" Type=\"String\">1.0</Field>      "
            "</Group>   </Subsystem></QVInstalledBundles>");
  EXPECT_EQ(Log(root), "SetBundleNameForAssetMsg\r\n");
}

TEST(BundleRecords, RecordsAreReplacedNotDuplicatedAndCleared) {
  Device root;
  SetBundleNameForAssetMsg("1.0", "Demo");
  SetBundleNameForAssetMsg("5", "Other");
  SetBundleNameForAssetMsg("2.0", "Demo");
  List got = Bundles(root);
  std::map<std::string, std::string> byName(got.begin(), got.end());
  EXPECT_EQ(got.size(), 2u);
  EXPECT_EQ(byName["Demo"], "2.0");
  EXPECT_EQ(byName["Other"], "5");

  // Names match exactly: a different case is another bundle.
  ClearQVBundleEntry("demo");
  EXPECT_EQ(Bundles(root).size(), 2u);
  ClearQVBundleEntry("Demo");
  EXPECT_EQ(Bundles(root), (List{{"Other", "5"}}));
  ClearQVBundleEntry("Other");
  EXPECT_TRUE(Bundles(root).empty());
  SetBundleNameForAssetMsg("6", "Again");
  EXPECT_EQ(Bundles(root), (List{{"Again", "6"}}));
}

TEST(BundleRecords, RefusedCallsChangeNothingAndSayWhy) {
  Device root;
  struct Case {
    const char* version;
    const char* bundle;
    const char* log;
  } cases[] = {
      {nullptr, "B", "SetBundleNameForAssetMsg - Version and or bundle are null\r\n"},
      {"1", nullptr, "SetBundleNameForAssetMsg - Version and or bundle are null\r\n"},
      {"", "B", "SetBundleNameForAssetMsg - Version and or bundle name are empty\r\n"},
      {"1", "", "SetBundleNameForAssetMsg - Version and or bundle name are empty\r\n"},
  };
  std::string expectedLog;
  for (const Case& c : cases) {
    SetBundleNameForAssetMsg(c.version, c.bundle);
    expectedLog += c.log;
  }
  ClearQVBundleEntry(nullptr);
  ClearQVBundleEntry("");
  expectedLog += "ClearQVBundleName bundle is null\r\nClearQVBundleName - bundle name is empty\r\n";
  EXPECT_FALSE(root.Exists(kBundleFile));
  EXPECT_EQ(Log(root), expectedLog);

  // Clearing an unlisted bundle does not rewrite the file (its template text stays as is).
  SetBundleNameForAssetMsg("1", "Demo");
  std::string before = root.ReadFile(kBundleFile);
  ClearQVBundleEntry("Unlisted");
  EXPECT_EQ(root.ReadFile(kBundleFile), before);
}

TEST(BundleRecords, DamagedFileIsLeftUntouched) {
  Device root;
  root.WriteFile(kBundleFile, "<QVInstalledBundles><Subsystem");
  SetBundleNameForAssetMsg("1", "Demo");
  ClearQVBundleEntry("Demo");
  EXPECT_EQ(root.ReadFile(kBundleFile), "<QVInstalledBundles><Subsystem");
}

TEST(BundleRecords, MarkupInNamesDoesNotBreakLaterRecords) {
  Device root;
  SetBundleNameForAssetMsg("1<2", "R&D \"tools\"");
  SetBundleNameForAssetMsg("3", "Plain");
  List got = Bundles(root);
  ASSERT_EQ(got.size(), 2u);
  std::map<std::string, std::string> byName(got.begin(), got.end());
  EXPECT_EQ(byName["R&D \"tools\""], "1<2");
}

// The upgrade thread and pull-file threads record at the same time: nothing is lost.
TEST(BundleRecords, ConcurrentRecordsAreAllKept) {
  Device root;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      std::string name = "Bundle" + std::to_string(t);
      SetBundleNameForAssetMsg("1", name.c_str());
      SetBundleNameForAssetMsg("2", name.c_str());
    });
  }
  for (auto& th : threads) th.join();
  List got = Bundles(root);
  ASSERT_EQ(got.size(), 8u);
  for (const auto& b : got) EXPECT_EQ(b.second, "2") << b.first;
}

TEST(BundleRecords, SubSysDirIsFixed) {
  char dir[32];
  memset(dir, 'x', sizeof dir);
  GetSubSysDir(dir);
  EXPECT_STREQ(dir, "\\temp\\Quovera");
}

void SetSubsystemsPath(const wchar_t* folder) {
  HKEY key = nullptr;
  ASSERT_EQ(RegCreateKeyEx(HKEY_LOCAL_MACHINE, L"Software\\Tervalon\\QVClient\\Subsystems", 0,
                           nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
            ERROR_SUCCESS);
  ASSERT_EQ(RegSetValueEx(key, L"Path", 0, REG_SZ, reinterpret_cast<const BYTE*>(folder),
                          static_cast<DWORD>((wcslen(folder) + 1) * sizeof(wchar_t))),
            ERROR_SUCCESS);
  RegCloseKey(key);
}

TEST(VersionFiles, WrittenWhereTheRegistrySaysAndReplacedWhenReadOnly) {
  struct Case {
    const wchar_t* registryPath;  // null: no value
    const char* folder;
  } cases[] = {{nullptr, "\\Quovera\\QVSubSystems"},
               {L"\\Flash File Store\\Sub", "\\Flash File Store\\Sub"}};
  for (const Case& c : cases) {
    Device root;
    if (c.registryPath) SetSubsystemsPath(c.registryPath);
    std::string ftc = std::string(c.folder) + "\\FileTransferConfiglet.ini";
    std::string mcftp = std::string(c.folder) + "\\MCFTP.ini";
    root.WriteFile(ftc, "Version=0.1 old and long");
    root.WriteFile(mcftp, "Version=0.1");
    std::wstring wide(ftc.begin(), ftc.end());
    ASSERT_TRUE(SetFileAttributes(wide.c_str(), FILE_ATTRIBUTE_READONLY));

    EXPECT_EQ(AddVersionForDevMon(), 1);
    EXPECT_EQ(root.ReadFile(ftc), "Version=3.50d");
    EXPECT_EQ(root.ReadFile(mcftp), "Version=3.50d");
    EXPECT_EQ(GetFileAttributes(wide.c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
    EXPECT_EQ(Log(root), "Version=3.50d\r\nVersion=3.50d\r\n");
  }
}

}  // namespace
