#include "engine/pull_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bundles/bundle_records.h"
#include "config/UpgradeConfig.h"
#include "engine/completion.h"
#include "engine/file_list.h"
#include "engine/settings_store.h"
#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "report/deploy_state.h"
#include "report/events.h"
#include "transfer/CHTTPClient.h"

namespace {
const int kAttempts = 10;
const DWORD kRetryPauseMs = 3000;
const DWORD kTimeoutMs = 20000;
const int kDefaultPort = 8789;

void RunPullFile(tagPullFileEntry* entry) {
  std::unique_ptr<UpgradeConfig> cfg(new UpgradeConfig());
  char status[512];
  snprintf(status, sizeof status, "Transfering file - %s", entry->m_szDestFile);
  SetIRIStatus(1, status);
  Sleep(1000);
  SendDeviceEvent(cfg->GetUniqueId(), QV_EVENT_SYSTEM, QV_EVENT_PULLFILE_STARTED,
                  entry->m_szDestFile);

  SubstituteServerIP(entry->m_szSrcUrl);

  // Each request has a client of its own, so several may run beside an upgrade.
  std::unique_ptr<CHTTPClient> http(new CHTTPClient());
  http->Init();
  http->SetTimeout(kTimeoutMs);
  http->SetPerformChecksum(1);
  http->SetWorkingSemaphore(nullptr);
  http->SetType(cfg->GetType());
  http->SetFamily(cfg->GetFamily());
  http->SetModel(cfg->GetModel());
  http->SetSerialNum(cfg->GetSerialNumber());
  http->SetCoreName(cfg->GetUniqueId());

  wchar_t* url = static_cast<wchar_t*>(malloc(1024));
  wchar_t* path = static_cast<wchar_t*>(malloc(1024));
  bool done = false;
  if (url && path) {
    const size_t chars = 1024 / sizeof(wchar_t);
    for (int attempt = 0; attempt < kAttempts && !done; ++attempt) {
      memset(url, 0, 1024);
      memset(path, 0, 1024);
      wchar_t server[256], file[256];
      QVToTStrW(entry->m_szSrcUrl, server, 256);
      QVToTStrW(entry->m_szSrcFile, file, 256);
      swprintf(url, chars, L"%ls\\%ls", server, file);
      LogMsg("PullFileThread - %s, %s, %s\r\n", entry->m_szSrcUrl, entry->m_szSrcFile,
             entry->m_szDestFile);
      if (!http->OpenURL(url, path)) {
        LogMsg("PullFilethread - retrying 2\r\n");
        Sleep(kRetryPauseMs);
      } else {
        wchar_t local[256];
        QVToTStrW(entry->m_szDestFile, local, 256);
        AttemptToCreateDesinationFolder(local);
        if (http->Get(path, local)) {
          done = true;
          char empty[1] = "";
          SendUpgradeComplete(empty, http.get(), const_cast<char*>(cfg->GetUniqueId()),
                              entry->m_szSrcUrl, 0);
        } else {
          LogMsg("PullFilethread - retrying 1\r\n");
          Sleep(kRetryPauseMs);
        }
      }
      http->CloseURL();
      http->CloseFile();
    }
  }
  if (done) {
    LogMsg("PullFilethread - FileXfer Complete\r\n");
    SetBundleNameForAssetMsg(entry->m_szFileID, entry->m_szDestFile);
    SendDeviceEvent(cfg->GetUniqueId(), QV_EVENT_SYSTEM, QV_EVENT_PULLFILE_COMPLETE,
                    entry->m_szDestFile);
    Sleep(1000);
    SetIRIStatus(1, "File Transfer Complete");
    Sleep(2000);
  }
  free(url);
  free(path);
}
}  // namespace

void SubstituteServerIP(char* url) {
  if (!strstr(url, "%XQ_SERVERIP%")) return;
  wchar_t value[64] = L"";
  DWORD size = sizeof value;
  if (StoreGetString(L"SOFTWARE\\Tervalon\\XQueue", L"ServerIP", value, &size) != ERROR_SUCCESS)
    return;
  value[63] = L'\0';
  char server[200];
  QVToASCIIStringW(value, server, sizeof server);
  int port = 0;
  char host[200];
  // The value may carry its own port ("10.0.0.5:9000"); the address part is the host.
  if (QVParseURL(server, host, sizeof host, &port))
    snprintf(url, 256, "http://%s:%d", host, port);
  else
    snprintf(url, 256, "http://%s:%d", server, kDefaultPort);
}

DWORD PullFileThread(LPVOID parameter) {
  tagPullFileEntry* entry = static_cast<tagPullFileEntry*>(parameter);
  if (!entry) return 0;
  try {
    RunPullFile(entry);
    LocalFree(entry);
  } catch (...) {
    LogMsg("PullFilethread - ExceptionFileXfer Complete\r\n");
  }
  return 0;
}

void StartPullFile(tagPullFileEntry* entry) {
  LogMsg("StartPullFile - Start PullFileThread\r\n");
  DWORD id = 0;
  HANDLE thread = CreateThread(nullptr, 0, PullFileThread, entry, 0, &id);
  if (thread) {
    CloseHandle(thread);
  } else if (entry) {
    LocalFree(entry);
  }
}
