// The registry by full paths, over the system interface's registry.

#include <strings.h>

#include <string>

#include "base/text.h"
#include "platform/hostclasses.h"
#include "platform/winux.h"
#include "sdk_internal.h"

namespace {

HKEY RootByName(const std::string& name) {
  static const struct {
    const char* longName;
    const char* shortName;
    HKEY root;
  } kRoots[] = {
      {"HKEY_CLASSES_ROOT", "HKCR", HKEY_CLASSES_ROOT},
      {"HKEY_CURRENT_USER", "HKCU", HKEY_CURRENT_USER},
      {"HKEY_LOCAL_MACHINE", "HKLM", HKEY_LOCAL_MACHINE},
      {"HKEY_USERS", "HKU", HKEY_USERS},
  };
  for (const auto& r : kRoots)
    if (strcasecmp(name.c_str(), r.longName) == 0 || strcasecmp(name.c_str(), r.shortName) == 0)
      return r.root;
  return nullptr;
}

std::wstring Widen(const std::string& text) {
  return hostbase::FromUtf8(text, hostbase::StrayByte::kQuestionMark);
}

struct KeyPath {
  HKEY root = nullptr;
  std::string subKey;
};

// "ROOT\a\b" -> root and "a\b". Leading and trailing backslashes are tolerated; a slash is
// part of a name, as in the registry itself.
bool SplitKeyPath(const std::string& path, KeyPath* out) {
  size_t begin = path.find_first_not_of('\\');
  if (begin == std::string::npos) return false;
  size_t sep = path.find('\\', begin);
  out->root = RootByName(path.substr(begin, sep == std::string::npos ? sep : sep - begin));
  if (!out->root) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return false;
  }
  out->subKey.clear();
  if (sep != std::string::npos) {
    size_t sub = path.find_first_not_of('\\', sep);
    if (sub != std::string::npos) out->subKey = path.substr(sub);
  }
  while (!out->subKey.empty() && out->subKey.back() == '\\') out->subKey.pop_back();
  return true;
}

HKEY CreateKeyAt(const KeyPath& key) {
  HKEY handle = nullptr;
  DWORD disposition = 0;
  LSTATUS rc =
      RegCreateKeyEx(key.root, Widen(key.subKey).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                     KEY_ALL_ACCESS, nullptr, &handle, &disposition);
  if (rc != static_cast<LSTATUS>(ERROR_SUCCESS)) {
    SetLastError(static_cast<DWORD>(rc));
    return nullptr;
  }
  return handle;
}

// Opens (creating when missing) the key holding the value a full value path names.
HKEY CreateKeyOf(const char* valuePath, std::string* valueName) {
  if (!valuePath) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  std::string path(valuePath);
  size_t last = path.rfind('\\');
  if (last == std::string::npos || last + 1 >= path.size()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  *valueName = path.substr(last + 1);
  KeyPath key;
  if (!SplitKeyPath(path.substr(0, last), &key)) return nullptr;
  return CreateKeyAt(key);
}

int SetValue(const char* valuePath, DWORD type, const BYTE* data, DWORD size) {
  std::string name;
  HKEY key = CreateKeyOf(valuePath, &name);
  if (!key) return 0;
  LSTATUS rc = RegSetValueEx(key, Widen(name).c_str(), 0, type, data, size);
  RegCloseKey(key);
  if (rc != static_cast<LSTATUS>(ERROR_SUCCESS)) {
    SetLastError(static_cast<DWORD>(rc));
    return 0;
  }
  return 1;
}

}  // namespace

int Registry::CreateKey(const char* keyPath) {
  return SdkNoThrow<int>(0, [&]() -> int {
    KeyPath key;
    if (!keyPath || !SplitKeyPath(keyPath, &key)) return 0;
    HKEY handle = CreateKeyAt(key);
    if (!handle) return 0;
    RegCloseKey(handle);
    return 1;
  });
}

int Registry::SetNumber(const char* valuePath, DWORD value) {
  return SdkNoThrow<int>(0, [&]() -> int {
    return SetValue(valuePath, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
  });
}

int Registry::SetString(const char* valuePath, const char* value) {
  return SdkNoThrow<int>(0, [&]() -> int {
    std::wstring wide = Widen(value ? value : "");
    return SetValue(valuePath, REG_SZ, reinterpret_cast<const BYTE*>(wide.c_str()),
                    static_cast<DWORD>((wide.size() + 1) * sizeof(wchar_t)));
  });
}
