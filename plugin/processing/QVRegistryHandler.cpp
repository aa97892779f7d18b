#include "processing/QVRegistryHandler.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>

#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/winux.h"

namespace {

const int kWideChars = 4096 / sizeof(wchar_t);
const int kValueNameChars = 1024 / sizeof(wchar_t);

void ReleaseEntry(void* item) {
  delete static_cast<CQVRegistryEntry*>(item);
}

struct RootName {
  const wchar_t* name;
  intptr_t code;
};
// Searched in this order: the first name found anywhere in the path wins.
const RootName kRoots[] = {
    {L"HKEY_CLASSES_ROOT", 1},
    {L"HKEY_CURRENT_USER", 2},
    {L"HKEY_LOCAL_MACHINE", 3},
    {L"HKEY_USERS", 4},
};

}  // namespace

CQVRegistryHandler::CQVRegistryHandler() : m_pList(new LList(ReleaseEntry)) {
  LogMsg("CQVRegistryHandler::CQVRegistryHandler\r\n");
}

CQVRegistryHandler::~CQVRegistryHandler() {
  LogMsg("CQVRegistryHandler::~CQVRegistryHandler !!!!!!!!!!!!!!!!!!\r\n");
  // The list owns the entries and releases them with it.
  delete m_pList;
}

int CQVRegistryHandler::AddEntry(CQVRegistryEntry* entry) {
  if (!entry) return 0;
  return m_pList->additem(entry);
}

int CQVRegistryHandler::GetRootKeyHandle(const wchar_t* path, HKEY* root) {
  if (!path || !path[0]) return 0;
  for (const RootName& r : kRoots) {
    if (wcsstr(path, r.name)) {
      if (root) *root = reinterpret_cast<HKEY>(r.code);
      return 1;
    }
  }
  return 0;
}

const wchar_t* CQVRegistryHandler::GetRootKeyHandleAndSubkey(const wchar_t* path, HKEY* root) {
  if (!path || !path[0]) return nullptr;
  if (root) *root = nullptr;
  const wchar_t* backslash = wcschr(path, L'\\');
  const wchar_t* subkey = backslash ? backslash + 1 : path + wcslen(path);
  if (!GetRootKeyHandle(path, root)) return nullptr;
  return subkey;
}

void CQVRegistryHandler::DoIt() {
  for (LLNode* node = m_pList->first(); node; node = node->next()) {
    CQVRegistryEntry* entry = static_cast<CQVRegistryEntry*>(node->data());
    if (!entry) continue;
    entry->LogIt();
    const char* keyName = entry->GetKeyName();
    const char* value = entry->GetValue();
    const char* valueName = entry->GetValueName();
    if (!keyName[0] || strcmp(entry->GetOperation(), "Set") != 0) continue;

    LogMsg("Set\r\n");
    std::unique_ptr<wchar_t[]> valueW(new (std::nothrow) wchar_t[kWideChars]());
    std::unique_ptr<wchar_t[]> keyW(new (std::nothrow) wchar_t[kWideChars]());
    if (!valueW || !keyW) continue;
    QVToTStrW(keyName, keyW.get(), kWideChars);
    LogMsg("Set2\r\n");

    HKEY root = nullptr;
    const wchar_t* subkey = GetRootKeyHandleAndSubkey(keyW.get(), &root);
    LogMsg("Set3\r\n");

    HKEY key = nullptr;
    DWORD disposition = 0;
    LSTATUS rc = ERROR_INVALID_PARAMETER;
    if (subkey) rc = RegCreateKeyEx(root, subkey, 0, nullptr, 0, 0, nullptr, &key, &disposition);
    LogMsg("Set4\r\n");
    if (rc != static_cast<LSTATUS>(ERROR_SUCCESS)) {
      LogMsg("FileTransferConfiglet - CQVRegistryHandler::DoIt - CreateKeyError, %s, %d\r\n",
             keyName, static_cast<int>(rc));
      continue;
    }

    std::unique_ptr<wchar_t[]> valueNameW(new (std::nothrow) wchar_t[kValueNameChars]());
    if (!valueNameW) {
      RegCloseKey(key);
      continue;
    }
    LogMsg("Set5\r\n");
    QVToTStrW(valueName, valueNameW.get(), kValueNameChars);
    QVToTStrW(value, valueW.get(), kWideChars);
    LogMsg("Set6\r\n");

    const char* type = entry->GetType();
    if (strcmp(type, "REG_SZ") == 0) {
      LogMsg("CQVRegistryHandler::DoIt - Set String");
      DWORD size = static_cast<DWORD>((wcslen(valueW.get()) + 1) * sizeof(wchar_t));
      rc = RegSetValueEx(key, valueNameW.get(), 0, REG_SZ,
                         reinterpret_cast<const BYTE*>(valueW.get()), size);
      if (rc != static_cast<LSTATUS>(ERROR_SUCCESS))
        LogMsg(
            "FileTransferConfiglet - CQVRegistryHandler::DoIt - Error setting REG_SZ, %s, %s, "
            "%d\r\n",
            valueName, value, static_cast<int>(rc));
    } else if (strcmp(type, "REG_DWORD") == 0) {
      LogMsg("CQVRegistryHandler::DoIt - Set DWORD");
      DWORD number = static_cast<DWORD>(static_cast<int32_t>(strtol(value, nullptr, 10)));
      rc = RegSetValueEx(key, valueNameW.get(), 0, REG_DWORD,
                         reinterpret_cast<const BYTE*>(&number), sizeof number);
      if (rc != static_cast<LSTATUS>(ERROR_SUCCESS))
        LogMsg(
            "FileTransferConfiglet - CQVRegistryHandler::DoIt - Error setting REG_DWORD, %s, "
            "%s, %d\r\n",
            valueName, value, static_cast<int>(rc));
    } else {
      LogMsg("FileTransferConfiglet - CQVRegistryHandler::DoIt - Unsupported reg type, %s\r\n",
             type);
    }
    RegCloseKey(key);
  }
}
