// The registry hive is a text file under the device root that other programs and people edit.
// Any text must load, answer queries for the keys and values it names, and survive being saved
// and read again: a save of what was read reads back to the same save.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/helpers.h"
#include "platform/winux.h"

namespace {

std::string g_roots[2];
int g_loaded = -1;  // the root whose hive the host has in memory

void UseRoot(int r) {
  setenv("WINUX_ROOT", g_roots[r].c_str(), 1);
}

std::string HivePath(int r) {
  return g_roots[r] + "/.winux/registry.reg";
}

std::wstring Wide(const std::string& narrow) {
  std::wstring out;
  for (unsigned char c : narrow) out += static_cast<wchar_t>(c);
  return out;
}

// Key paths of the "[...]" lines and value names of the quoted ones, read loosely: a name the
// reader does not know is simply not found.
void Names(const std::string& text, std::vector<std::string>& keys,
           std::vector<std::string>& values) {
  size_t pos = 0;
  while (pos < text.size() && keys.size() + values.size() < 64) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    if (line.size() > 2 && line[0] == '[') {
      size_t close = line.rfind(']');
      if (close != std::string::npos && close > 1) keys.push_back(line.substr(1, close - 1));
    } else if (line.size() > 2 && line[0] == '"') {
      size_t close = line.find('"', 1);
      if (close != std::string::npos) values.push_back(line.substr(1, close - 1));
    }
  }
}

HKEY RootKey(const std::string& name, std::string& rest) {
  size_t cut = name.find('\\');
  std::string root = name.substr(0, cut);
  rest = cut == std::string::npos ? "" : name.substr(cut + 1);
  if (root == "HKEY_LOCAL_MACHINE" || root == "HKLM") return HKEY_LOCAL_MACHINE;
  if (root == "HKEY_CURRENT_USER" || root == "HKCU") return HKEY_CURRENT_USER;
  if (root == "HKEY_CLASSES_ROOT" || root == "HKCR") return HKEY_CLASSES_ROOT;
  return HKEY_USERS;
}

void Query(const std::vector<std::string>& keys, const std::vector<std::string>& values) {
  for (const std::string& k : keys) {
    std::string sub;
    HKEY root = RootKey(k, sub);
    HKEY key = nullptr;
    if (RegOpenKeyEx(root, Wide(sub).c_str(), 0, 0, &key) != ERROR_SUCCESS) continue;
    std::vector<std::string> names = values;
    names.push_back("");
    for (const std::string& v : names) {
      DWORD type = 0, size = 0;
      if (RegQueryValueEx(key, Wide(v).c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
        continue;
      // Exactly the size it asked for, so an overrun shows; then one byte short.
      std::vector<BYTE> data(size + 1);
      DWORD got = size;
      FUZZ_EXPECT(RegQueryValueEx(key, Wide(v).c_str(), nullptr, &type, data.data(), &got) ==
                  ERROR_SUCCESS);
      FUZZ_EXPECT(got == size);
      if (size > 0) {
        std::vector<BYTE> small(size - 1 + 1);
        DWORD less = size - 1;
        RegQueryValueEx(key, Wide(v).c_str(), nullptr, &type, small.data(), &less);
      }
      if (type == REG_SZ) {
        wchar_t text[64];
        DWORD bytes = sizeof text;
        RegQueryValueEx(key, Wide(v).c_str(), nullptr, &type, reinterpret_cast<BYTE*>(text),
                        &bytes);
      }
    }
    RegCloseKey(key);
  }
}

// Forces a save of the loaded hive.
void Touch() {
  HKEY key = nullptr;
  if (RegCreateKeyEx(HKEY_LOCAL_MACHINE, L"Software\\FuzzProbe", 0, nullptr, 0, 0, nullptr, &key,
                     nullptr) != ERROR_SUCCESS)
    return;
  DWORD one = 1;
  RegSetValueEx(key, L"Touched", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), sizeof one);
  RegCloseKey(key);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Two roots taken in turn: the host re-reads a hive whose path changed, whatever its stamp.
  g_roots[0] = ftcfuzz::Root().path() + "/a";
  g_roots[1] = ftcfuzz::Root().path() + "/b";
  for (const std::string& r : g_roots) {
    mkdir(r.c_str(), 0755);
    mkdir((r + "/.winux").c_str(), 0755);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  int here = g_loaded == 0 ? 1 : 0, there = 1 - here;
  ftctest::WriteHostFile(HivePath(here), text);
  UseRoot(here);
  std::vector<std::string> keys, values;
  Names(text, keys, values);
  Query(keys, values);
  Touch();
  g_loaded = here;
  std::string saved = ftctest::ReadHostFile(HivePath(here));
  FUZZ_EXPECT(!saved.empty());

  // The saved text, read in the other root and saved again, comes out the same.
  ftctest::WriteHostFile(HivePath(there), saved);
  UseRoot(there);
  Touch();
  g_loaded = there;
  FUZZ_EXPECT(ftctest::ReadHostFile(HivePath(there)) == saved);
  Query(keys, values);
  return 0;
}
