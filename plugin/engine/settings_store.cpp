#include "engine/settings_store.h"

#include "platform/winux.h"

// Registry results are last-error codes, so they are returned as they come.
static DWORD ErrorOf(LSTATUS status) {
  return static_cast<DWORD>(status);
}

DWORD StoreGetDWORD(const wchar_t* key, const wchar_t* valueName, DWORD* value) {
  HKEY handle = nullptr;
  LSTATUS status = RegOpenKeyEx(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &handle);
  if (status != ERROR_SUCCESS) return ErrorOf(status);
  DWORD type = REG_DWORD;
  DWORD size = sizeof(DWORD);
  DWORD result = ERROR_SUCCESS;
  status =
      RegQueryValueEx(handle, valueName, nullptr, &type, reinterpret_cast<LPBYTE>(value), &size);
  if (status != ERROR_SUCCESS) result = ErrorOf(status);
  RegCloseKey(handle);
  return result;
}

LONG StoreGetString(const wchar_t* key, const wchar_t* valueName, wchar_t* buffer, DWORD* size) {
  HKEY handle = nullptr;
  LONG result = RegOpenKeyEx(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &handle);
  if (result != ERROR_SUCCESS) return result;
  DWORD type = REG_SZ;
  result =
      RegQueryValueEx(handle, valueName, nullptr, &type, reinterpret_cast<LPBYTE>(buffer), size);
  RegCloseKey(handle);
  return result;
}
