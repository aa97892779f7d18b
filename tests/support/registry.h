// Registry values for a case's world, written through the platform as the device would.
#pragma once

#include <string>

#include "platform/winux.h"

namespace ftctest {

// Creates key under root when needed and sets name to the given value; false on any failure.
inline bool SetRegistryValue(HKEY root, const wchar_t* key, const wchar_t* name, DWORD type,
                             const void* data, DWORD size) {
  HKEY h = nullptr;
  if (RegCreateKeyEx(root, key, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr) != 0)
    return false;
  LSTATUS rc = RegSetValueEx(h, name, 0, type, static_cast<const BYTE*>(data), size);
  RegCloseKey(h);
  return rc == ERROR_SUCCESS;
}

inline bool SetRegistryString(HKEY root, const wchar_t* key, const wchar_t* name,
                              const std::wstring& value) {
  return SetRegistryValue(root, key, name, REG_SZ, value.c_str(),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

inline bool SetRegistryDword(HKEY root, const wchar_t* key, const wchar_t* name, DWORD value) {
  return SetRegistryValue(root, key, name, REG_DWORD, &value, sizeof value);
}

// The message-queue server address the plug-in takes its upgrade and pull servers from.
inline bool SetServerIP(const std::wstring& value) {
  return SetRegistryString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tervalon\\XQueue", L"ServerIP", value);
}

}  // namespace ftctest
