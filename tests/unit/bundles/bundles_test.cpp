// The installed-bundle file and the version files, as the device agent and monitor read them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bundles/bundle_records.h"
#include "platform/plix.h"
#include "platform/winux.h"
#include "support/device_root.h"
#include "support/registry.h"

namespace {

const char kBundleFile[] = "\\temp\\Quovera\\QVSubSystems\\QVBundles.xml";

// A device root with the log's folder in place (the log only appends to an existing folder).
struct Device : ftctest::DeviceRoot {
  Device() { WriteFile("/tmp/FileXfer.txt", ""); }
  std::string Log() const { return ReadFile("/tmp/FileXfer.txt"); }
  // "name=version" per bundle, sorted; the file's text when it does not parse.
  std::vector<std::string> Bundles() const {
    std::string text = ReadFile(kBundleFile);
    CPlixDOM dom;
    if (dom.ReadDoc(text.c_str()) != 1) return {"unparsed: " + text};
    CPlixIterator it;
    it.BindToDOM(&dom);
    it.ToRootElement();
    it.BeginTraverseHere();
    std::vector<std::string> out;
    std::string group;
    for (int ev = it.ContinueTraverse(); ev != 0; ev = it.ContinueTraverse()) {
      CPlixElement* el = it.GetElement();
      const char* name = el->GetAttribute("Name");
      if (ev == 1 && !strcmp(el->GetTagName(), "Group")) group = name ? name : "";
      const char* type = el->GetAttribute("Type");
      if (ev == 1 && !strcmp(el->GetTagName(), "Field") && type && !strcmp(type, "String"))
        out.push_back(group + "=" + el->GetData());
    }
    std::sort(out.begin(), out.end());
    return out;
  }
};

using Names = std::vector<std::string>;

TEST(BundleRecords, RecordsAreCreatedReplacedNotDuplicatedAndCleared) {
  Device root;
  SetBundleNameForAssetMsg("1.0", "Demo");
  EXPECT_EQ(root.ReadFile(kBundleFile),
            "<QVInstalledBundles>   <Subsystem Name=\"Installed Bundles\">      <Group "
            "Name=\"Demo\">        <Field Name=\"Version\" Type=\"String\">1.0</Field>      "
            "</Group>   </Subsystem></QVInstalledBundles>");
  EXPECT_EQ(root.Log(), "SetBundleNameForAssetMsg\r\n");
  // Clearing an unlisted bundle does not rewrite the file.
  ClearQVBundleEntry("Unlisted");
  EXPECT_EQ(root.ReadFile(kBundleFile).substr(0, 23), "<QVInstalledBundles>   ");

  SetBundleNameForAssetMsg("5", "Other");
  SetBundleNameForAssetMsg("2.0", "Demo");
  EXPECT_EQ(root.Bundles(), (Names{"Demo=2.0", "Other=5"}));
  ClearQVBundleEntry("demo");  // names match exactly
  EXPECT_EQ(root.Bundles(), (Names{"Demo=2.0", "Other=5"}));
  ClearQVBundleEntry("Demo");
  EXPECT_EQ(root.Bundles(), (Names{"Other=5"}));
  ClearQVBundleEntry("Other");
  SetBundleNameForAssetMsg("6", "Again");
  EXPECT_EQ(root.Bundles(), (Names{"Again=6"}));
}

TEST(BundleRecords, RefusedCallsChangeNothingAndSayWhy) {
  Device root;
  const char* null = nullptr;
  SetBundleNameForAssetMsg("1", null);
  SetBundleNameForAssetMsg("", "B");
  ClearQVBundleEntry(null);
  ClearQVBundleEntry("");
  EXPECT_FALSE(root.Exists(kBundleFile));
  EXPECT_EQ(root.Log(),
            "SetBundleNameForAssetMsg - Version and or bundle are null\r\n"
            "SetBundleNameForAssetMsg - Version and or bundle name are empty\r\n"
            "ClearQVBundleName bundle is null\r\n"
            "ClearQVBundleName - bundle name is empty\r\n");
}

TEST(BundleRecords, FileStaysReadableOrIsLeftAlone) {
  Device root;
  // Markup in a name or version must not make the file unreadable for later records.
  SetBundleNameForAssetMsg("1<2", "R&D \"tools\"");
  SetBundleNameForAssetMsg("3", "Plain");
  EXPECT_EQ(root.Bundles(), (Names{"Plain=3", "R&D \"tools\"=1<2"}));
  // A file that does not parse is not ours to repair.
  root.WriteFile(kBundleFile, "<QVInstalledBundles><Subsystem");
  SetBundleNameForAssetMsg("1", "Demo");
  ClearQVBundleEntry("Demo");
  EXPECT_EQ(root.ReadFile(kBundleFile), "<QVInstalledBundles><Subsystem");
}

// The upgrade thread and pull-file threads record at the same time: nothing is lost.
TEST(BundleRecords, ConcurrentRecordsAreAllKept) {
  Device root;
  std::vector<std::thread> threads;
  Names expected;
  for (int t = 0; t < 8; ++t) {
    expected.push_back("Bundle" + std::to_string(t) + "=2");
    threads.emplace_back([t] {
      std::string name = "Bundle" + std::to_string(t);
      SetBundleNameForAssetMsg("1", name.c_str());
      SetBundleNameForAssetMsg("2", name.c_str());
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(root.Bundles(), expected);
}

TEST(VersionFiles, WrittenWhereTheRegistrySaysAndReplacedWhenReadOnly) {
  const wchar_t* registryPaths[] = {nullptr, L"\\Flash File Store\\Sub"};
  for (const wchar_t* registryPath : registryPaths) {
    Device root;
    std::string folder = "\\Quovera\\QVSubSystems";
    if (registryPath) {
      folder = "\\Flash File Store\\Sub";
      ASSERT_TRUE(ftctest::SetRegistryString(
          HKEY_LOCAL_MACHINE, L"Software\\Tervalon\\QVClient\\Subsystems", L"Path", registryPath));
    }
    std::string ftc = folder + "\\FileTransferConfiglet.ini", mcftp = folder + "\\MCFTP.ini";
    root.WriteFile(ftc, "Version=0.1 old and longer");
    root.WriteFile(mcftp, "Version=0.1");
    std::wstring wide(ftc.begin(), ftc.end());
    ASSERT_TRUE(SetFileAttributes(wide.c_str(), FILE_ATTRIBUTE_READONLY));

    EXPECT_EQ(AddVersionForDevMon(), 1);
    EXPECT_EQ(root.ReadFile(ftc), "Version=3.50d");
    EXPECT_EQ(root.ReadFile(mcftp), "Version=3.50d");
    EXPECT_EQ(GetFileAttributes(wide.c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
    EXPECT_EQ(root.Log(), "Version=3.50d\r\nVersion=3.50d\r\n");
  }
}

}  // namespace
