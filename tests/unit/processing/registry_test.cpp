// Registry operations and the image-update fix-up, read back from the hive.
#include "support/registry.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"
#include "support/device_root.h"

namespace {

// "sz:<text>", "dword:<n>", or "" when the value cannot be read.
std::string ReadValue(HKEY root, const wchar_t* subKey, const wchar_t* name) {
  HKEY key = nullptr;
  if (RegOpenKeyEx(root, subKey, 0, KEY_READ, &key) != 0) return "";
  BYTE data[1024] = {};
  DWORD size = sizeof data, type = 0;
  LSTATUS rc = RegQueryValueEx(key, name, nullptr, &type, data, &size);
  RegCloseKey(key);
  if (rc != 0) return "";
  if (type == REG_DWORD) {
    DWORD n;
    memcpy(&n, data, sizeof n);
    return "dword:" + std::to_string(n);
  }
  std::wstring wide(reinterpret_cast<const wchar_t*>(data));
  return "sz:" + std::string(wide.begin(), wide.end());
}

}  // namespace

TEST(RegistryOperations, OnlySetIsCarriedOutWithItsTypeConversions) {
  ftctest::DeviceRoot root;
  ASSERT_TRUE(ftctest::SetRegistryDword(HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"Old", 5));
  ASSERT_TRUE(ftctest::SetRegistryDword(HKEY_CURRENT_USER, L"Software\\Gone", L"Still", 6));

  CQVProcessingHandler handler;
  CQVRegistryHandler* reg = handler.GetRegistryHandler();
  const char* ftc = "HKEY_LOCAL_MACHINE\\Software\\Ftc";
  reg->AddEntry(new CQVRegistryEntry("Set", ftc, "Name", "hello", "REG_SZ"));
  reg->AddEntry(new CQVRegistryEntry("Set", ftc, "Count", "12abc", "REG_DWORD"));
  reg->AddEntry(new CQVRegistryEntry("Set", ftc, "Zero", "abc", "REG_DWORD"));
  reg->AddEntry(new CQVRegistryEntry("Set", ftc, "Minus", "-1", "REG_DWORD"));
  reg->AddEntry(new CQVRegistryEntry("Set", ftc, "Lower", "x", "reg_sz"));
  reg->AddEntry(new CQVRegistryEntry("set", ftc, "WrongCase", "x", "REG_SZ"));
  reg->AddEntry(new CQVRegistryEntry("DeleteValue", ftc, "Old", "", ""));
  reg->AddEntry(new CQVRegistryEntry("DeleteKey", "HKEY_CURRENT_USER\\Software\\Gone", "", "", ""));
  reg->AddEntry(new CQVRegistryEntry("Set", "Software\\NoRoot", "V", "1", "REG_SZ"));
  reg->AddEntry(new CQVRegistryEntry("Set", "", "V", "1", "REG_SZ"));
  reg->AddEntry(new CQVRegistryEntry("Set", "HKEY_USERS", "AtRoot", "r", "REG_SZ"));
  handler.DoRegistry();

  struct Expect {
    HKEY root;
    const wchar_t* key;
    const wchar_t* name;
    const char* value;
  } expected[] = {
      {HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"Name", "sz:hello"},
      {HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"Count", "dword:12"},
      {HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"Zero", "dword:0"},
      {HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"Minus", "dword:4294967295"},
      {HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"Lower", ""},
      {HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"WrongCase", ""},
      {HKEY_LOCAL_MACHINE, L"Software\\Ftc", L"Old", "dword:5"},
      {HKEY_CURRENT_USER, L"Software\\Gone", L"Still", "dword:6"},
      {HKEY_USERS, L"", L"AtRoot", "sz:r"},
  };
  for (const Expect& e : expected) {
    SCOPED_TRACE(testing::Message() << std::string(e.name, e.name + wcslen(e.name)));
    EXPECT_EQ(e.value, ReadValue(e.root, e.key, e.name));
  }

  const std::string log = root.Log();
  const char* block =
      "CQVRegistryEntry.m_szOperation = !Set!\r\n"
      "CQVRegistryEntry.m_szKeyName = !HKEY_LOCAL_MACHINE\\Software\\Ftc!\r\n"
      "CQVRegistryEntry.m_szType = !REG_SZ!\r\n"
      "CQVRegistryEntry.m_szValueName = !Name!\r\n"
      "CQVRegistryEntry.m_szValue = !hello!\r\n\r\n"
      "Set\r\nSet2\r\nSet3\r\nSet4\r\nSet5\r\nSet6\r\n"
      "CQVRegistryHandler::DoIt - Set String";
  EXPECT_NE(std::string::npos, log.find(block));
  for (const char* line : {
           "CQVProcessingHandler::DoReigstry ()\r\n",
           "FileTransferConfiglet - CQVRegistryHandler::DoIt - Unsupported reg type, reg_sz\r\n",
           "FileTransferConfiglet - CQVRegistryHandler::DoIt - CreateKeyError, Software\\NoRoot, ",
       }) {
    EXPECT_NE(std::string::npos, log.find(line)) << line;
  }
}

TEST(RegistryOperations, RootIsFoundAnywhereInThePathEarlierNamesWinning) {
  struct Case {
    const wchar_t* path;
    intptr_t code;          // 0: no root
    const wchar_t* subkey;  // expected when a root matched
  } cases[] = {
      {L"HKEY_LOCAL_MACHINE\\Software\\X", 3, L"Software\\X"},
      {L"HKEY_LOCAL_MACHINE", 3, L""},
      {L"Software\\HKEY_USERS\\X", 4, L"HKEY_USERS\\X"},
      {L"HKEY_USERS\\HKEY_CURRENT_USER", 2, L"HKEY_CURRENT_USER"},
      {L"HKEY_CLASSES_ROOT\\.txt", 1, L".txt"},
      {L"hkey_local_machine\\Software", 0, nullptr},
      {L"Software\\X", 0, nullptr},
      {L"", 0, nullptr},
  };
  for (const Case& c : cases) {
    HKEY root = reinterpret_cast<HKEY>(static_cast<intptr_t>(99));
    const wchar_t* subkey = CQVRegistryHandler::GetRootKeyHandleAndSubkey(c.path, &root);
    SCOPED_TRACE(std::wstring(c.path).size());
    if (!c.subkey) {
      EXPECT_EQ(nullptr, subkey);
      continue;
    }
    ASSERT_NE(nullptr, subkey);
    EXPECT_EQ(std::wstring(c.subkey), std::wstring(subkey));
    EXPECT_EQ(c.code, reinterpret_cast<intptr_t>(root));
  }
  EXPECT_EQ(nullptr, CQVRegistryHandler::GetRootKeyHandleAndSubkey(nullptr, nullptr));
}

TEST(ImageUpdateFixUp, SilentSwitchBecomesBlanksPlusForceAndSetsTheUpdateKeys) {
  ftctest::DeviceRoot root;
  CQVProcessingHandler handler;
  CQVExeHandler* exes = handler.GetExeHandler();
  const std::string longLine = "/QV_Silent " + std::string(240, 'x');
  exes->AddEntry(new CQVExeEntry("\\Windows\\updatebin.exe", "/a /QV_Silent /b", nullptr, 1));
  exes->AddEntry(new CQVExeEntry("\\Windows\\UPDATEBIN", "/QV_Silent", nullptr, 1));
  exes->AddEntry(new CQVExeEntry("\\Windows\\UpdateBin.exe", longLine.c_str(), nullptr, 1));
  exes->AddEntry(new CQVExeEntry("\\Windows\\other.exe", "/QV_Silent", nullptr, 1));
  handler.DoExes();

  const auto& entries = exes->GetEntries();
  EXPECT_STREQ("/a            /b /Force", entries[0]->GetCmdLine());
  EXPECT_STREQ("/QV_Silent", entries[1]->GetCmdLine());
  EXPECT_EQ(longLine, entries[2]->GetCmdLine());
  EXPECT_STREQ("/QV_Silent", entries[3]->GetCmdLine());
  EXPECT_EQ("dword:1",
            ReadValue(HKEY_LOCAL_MACHINE, L"System\\ImageUpdate\\UpdateApp", L"SilentInstall"));
  EXPECT_EQ("sz:nSI.exe", ReadValue(HKEY_LOCAL_MACHINE, L"Init", L"Launch130"));
}

TEST(ImageUpdateFixUp, CommandLineWithoutTheSilentSwitchWritesNoKeys) {
  ftctest::DeviceRoot root;
  CQVProcessingHandler handler;
  handler.GetExeHandler()->AddEntry(
      new CQVExeEntry("\\Windows\\updatebin.exe", "/quiet", "\\Work\\Here", 1));
  handler.DoExes();
  EXPECT_STREQ("/quiet", handler.GetExeHandler()->GetEntries()[0]->GetCmdLine());
  EXPECT_EQ("", ReadValue(HKEY_LOCAL_MACHINE, L"System\\ImageUpdate\\UpdateApp", L"SilentInstall"));
  // A program that is not there is reported and its start-in folder is left alone.
  EXPECT_FALSE(root.Exists("\\Work\\Here"));
  EXPECT_NE(
      std::string::npos,
      root.Log().find("FileTransferConfiglet - Can not start \\Windows\\updatebin.exe, does not "
                      "exist\r\n"));
}
