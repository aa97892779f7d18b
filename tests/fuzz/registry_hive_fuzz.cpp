// The registry hive is a text file under the device root that other programs and people edit.
// Any text must load and answer queries for the keys and values it names, into buffers of just
// the size asked for; and a save of what was read, read and saved again, comes out the same.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "platform/winux.h"

namespace {

std::string g_roots[2];
int g_loaded = -1;  // the root whose hive the host has in memory

std::wstring Wide(const std::string& narrow) {
  std::wstring out;
  for (unsigned char c : narrow) out += static_cast<wchar_t>(c);
  return out;
}

HKEY RootKey(const std::string& r) {
  if (r == "HKEY_LOCAL_MACHINE" || r == "HKLM") return HKEY_LOCAL_MACHINE;
  if (r == "HKEY_CURRENT_USER" || r == "HKCU") return HKEY_CURRENT_USER;
  return r == "HKEY_CLASSES_ROOT" || r == "HKCR" ? HKEY_CLASSES_ROOT : HKEY_USERS;
}

// Names of the "[key]" and "value"= lines, read loosely: a name the reader does not know is simply
// not found.
void Query(const std::string& text) {
  std::vector<std::string> keys, values{""};
  std::istringstream lines(text);
  for (std::string l; std::getline(lines, l) && keys.size() + values.size() < 64;) {
    size_t close = l.find(l[0] == '[' ? ']' : '"', 1);
    if ((l[0] == '[' || l[0] == '"') && close != std::string::npos && close > 1)
      (l[0] == '[' ? keys : values).push_back(l.substr(1, close - 1));
  }
  for (const std::string& k : keys) {
    size_t cut = k.find('\\');
    HKEY key = nullptr;
    if (RegOpenKeyEx(RootKey(k.substr(0, cut)),
                     Wide(cut == k.npos ? "" : k.substr(cut + 1)).c_str(), 0, 0,
                     &key) != ERROR_SUCCESS)
      continue;
    for (const std::string& v : values) {
      DWORD type = 0, size = 0;
      if (RegQueryValueEx(key, Wide(v).c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS)
        continue;
      // Exactly the size it asked for, so an overrun shows; then one byte short.
      std::unique_ptr<BYTE[]> data(new BYTE[size]);
      DWORD got = size;
      FUZZ_EXPECT(RegQueryValueEx(key, Wide(v).c_str(), nullptr, &type, data.get(), &got) ==
                      ERROR_SUCCESS &&
                  got == size);
      got = size ? size - 1 : 0;
      RegQueryValueEx(key, Wide(v).c_str(), nullptr, &type, data.get(), &got);
    }
    RegCloseKey(key);
  }
}

// Loads the text from one root or the other in turn (the host re-reads a hive whose path
// changed, whatever its stamp), makes a change so that it is saved, and gives the saved text.
std::string LoadAndSave(const std::string& text) {
  g_loaded = g_loaded == 0 ? 1 : 0;
  ftctest::WriteHostFile(g_roots[g_loaded] + "/.winux/registry.reg", text);
  setenv("WINUX_ROOT", g_roots[g_loaded].c_str(), 1);
  Query(text);
  HKEY key = nullptr;
  DWORD one = 1;
  if (RegCreateKeyEx(HKEY_LOCAL_MACHINE, L"Software\\FuzzProbe", 0, nullptr, 0, 0, nullptr, &key,
                     nullptr) == ERROR_SUCCESS) {
    RegSetValueEx(key, L"Touched", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), sizeof one);
    RegCloseKey(key);
  }
  return ftctest::ReadHostFile(g_roots[g_loaded] + "/.winux/registry.reg");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  for (int r = 0; r < 2; ++r) {
    g_roots[r] = ftcfuzz::Root().path() + (r ? "/b" : "/a");
    mkdir(g_roots[r].c_str(), 0755);
    mkdir((g_roots[r] + "/.winux").c_str(), 0755);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string saved = LoadAndSave(std::string(reinterpret_cast<const char*>(data), size));
  FUZZ_EXPECT(!saved.empty() && LoadAndSave(saved) == saved);
  return 0;
}
