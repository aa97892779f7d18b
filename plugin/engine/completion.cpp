#include "engine/completion.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include "config/UpgradeConfig.h"
#include "config/text.h"
#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "transfer/CHTTPClient.h"

extern CHTTPClient* client;

namespace {

std::wstring Wide(const char* text) {
  wchar_t w[1024];
  QVToTStrW(text, w, 1024);
  return w;
}

int DeleteOrClearReadOnly(const wchar_t* path) {
  int rc = DeleteFile(path);
  if (rc) return rc;
  DWORD attributes = GetFileAttributes(path);
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY)) {
    if (SetFileAttributes(path, attributes & ~FILE_ATTRIBUTE_READONLY)) rc = DeleteFile(path);
  }
  return rc;
}

bool IsSaved(const char* path, UpgradeConfig* cfg) {
  for (const char* saved : cfg->GetFileSaveList())
    if (saved && _stricmp(saved, path) == 0) return true;
  return false;
}

void ChildPath(char* out, size_t capacity, const char* parent, const char* name) {
  if (strcmp(parent, "\\") == 0)
    FormatText(out, capacity, "\\%s", name);
  else
    FormatText(out, capacity, "%s\\%s", parent, name);
}

}  // namespace

int RemoveFiles(char* path, UpgradeConfig* cfg) {
  bool oneFile = strchr(path, '.') != nullptr;
  char pattern[1024];
  if (oneFile) {
    FormatText(pattern, sizeof pattern, "%s", path);
  } else {
    size_t n = strlen(path);
    bool slash = n > 0 && path[n - 1] == '\\';
    FormatText(pattern, sizeof pattern, slash ? "%s*.*" : "%s\\*.*", path);
  }
  std::wstring widePattern = Wide(pattern);
  WIN32_FIND_DATA data;
  HANDLE find = FindFirstFile(widePattern.c_str(), &data);
  if (find == INVALID_HANDLE_VALUE || !find) return 0;

  if (oneFile) {
    FindClose(find);
    return DeleteOrClearReadOnly(widePattern.c_str());
  }

  char store[64];
  if (cfg->GetFlashFileStore()[0])
    FormatText(store, sizeof store, "%s", cfg->GetFlashFileStore());
  else if (cfg->GetType()[0] == 'R' && cfg->GetFamily()[0] == 'X')
    FormatText(store, sizeof store, "RX_FFS");
  else
    FormatText(store, sizeof store, "Flash File Store");
  size_t storeLength = strlen(store);

  do {
    char name[MAX_PATH * 4];
    QVToASCIIStringW(data.cFileName, name, sizeof name);
    char child[1024];
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
      if ((data.dwFileAttributes & FILE_ATTRIBUTE_MOUNTED_STORE) &&
          strncmp(name, store, storeLength) != 0)
        continue;
      ChildPath(child, sizeof child, path, name);
      RemoveFiles(child, cfg);
    } else if (!(data.dwFileAttributes & FILE_ATTRIBUTE_READONLY)) {
      ChildPath(child, sizeof child, path, name);
      if (IsSaved(child, cfg)) continue;
      DeleteOrClearReadOnly(Wide(child).c_str());
    }
  } while (FindNextFile(find, &data));
  return FindClose(find);
}

int CleanupDevice(UpgradeConfig* cfg) {
  for (char* name : cfg->GetStopProcessList()) {
    LogMsg("FileTransferConfiglet - CleanupDevice - Stopping process = %s\r\n", name);
    QVTerminateProc(name);
  }
  int rc = static_cast<int>(cfg->GetFileDeleteList().size());
  for (char* path : cfg->GetFileDeleteList()) {
    LogMsg("FileTransferConfiglet - CleanupDevice - removing file = %s\r\n", path);
    rc = RemoveFiles(path, cfg);
  }
  return rc;
}

int RenameSettingsFile(UpgradeConfig* cfg) {
  int rc = 0;
  for (tagDownloadFile* file : cfg->GetDownloadFiles()) {
    if (!file) continue;
    std::wstring dest = Wide(file->m_szDestFile);
    if (dest.size() < 7) continue;
    rc = dest.compare(dest.size() - 7, 7, L".rename") == 0;
    if (!rc) continue;
    std::wstring target = dest.substr(0, dest.size() - 7);
    rc = TVLRenameFileW(dest.c_str(), target.c_str());
  }
  return rc;
}

void SendUpgradeComplete(char* errorText, CHTTPClient* http, char* uniqueId, char* baseURL,
                         DWORD port) {
  if (!http) {
    if (!client) {
      LogMsg("SendUpgradeComplete - no http client\r\n");
      client = new CHTTPClient();
      client->Init();
      client->SetCoreName(uniqueId);
    }
    http = client;
  }
  wchar_t* headers = static_cast<wchar_t*>(calloc(1, 1024));
  wchar_t* url = static_cast<wchar_t*>(calloc(1, 1024));
  if (headers && url) {
    const char* colon = strrchr(baseURL, ':');
    bool namesPort = colon && colon - baseURL >= 8;
    if (port == 0 || namesPort)
      swprintf(url, 256, L"%s", baseURL);
    else
      swprintf(url, 256, L"%s:%d", baseURL, static_cast<int>(port));
    if (http->OpenURL(url, headers))
      http->SendUpgradeComplete(errorText);
    else
      LogMsg("SendUpgradeComplete - error opening url, %s\r\n", baseURL);
  }
  free(headers);
  free(url);
}

void CleanupHTTPClient() {
  if (!client) return;
  delete client;
  client = nullptr;
}
