#include "engine/file_list.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/list_file.h"
#include "config/UpgradeConfig.h"
#include "config/text.h"
#include "engine/job_state.h"
#include "log/LogMsg.h"
#include "log/display.h"
#include "platform/helpers.h"
#include "platform/hostclasses.h"
#include "platform/winux.h"
#include "transfer/CHTTPClient.h"
#include "transfer/FTCCCRC32.h"

// The engine's one HTTP client, created on first use and released by CleanupHTTPClient.
CHTTPClient* client = nullptr;
wchar_t m_szURL[256];
wchar_t m_szDestFile[256];

namespace {

// Bounded copy that always terminates.
void CopyField(char* out, size_t capacity, std::string_view text) {
  size_t length = text.size() < capacity ? text.size() : capacity - 1;
  memcpy(out, text.data(), length);
  out[length] = 0;
}

CHTTPClient* EngineClient() {
  if (client) return client;
  client = new CHTTPClient();
  client->Init();
  client->SetTimeout(20000);
  client->SetPerformChecksum(1);
  client->SetWorkingSemaphore(nullptr);
  client->SetType(const_cast<char*>(m_pUpgCfg->GetType()));
  client->SetFamily(const_cast<char*>(m_pUpgCfg->GetFamily()));
  client->SetModel(const_cast<char*>(m_pUpgCfg->GetModel()));
  client->SetSerialNum(const_cast<char*>(m_pUpgCfg->GetSerialNumber()));
  client->SetStatusFunction(UpdateProgress);
  client->SetCoreName(const_cast<char*>(m_pUpgCfg->GetUniqueId()));
  return client;
}

// A colon at or after the ninth character is a port, not the scheme's.
bool NamesPort(const char* url) {
  const char* colon = strrchr(url, ':');
  return colon && colon - url >= 8;
}

}  // namespace

int IsMCTMaskMatch(const char* mask, const char* mct) {
  if (!mask || !mct || !*mask || !*mct) return 0;
  for (size_t i = 0;; ++i) {
    char m = mask[i], d = mct[i];
    if (m == '\r' || m == '\n' || m == 0 || m == '*') return 1;
    if (d == '\r' || d == '\n' || d == 0) return 1;
    if (m != '?' && m != d) return 0;
  }
}

void trim(char* s) {
  if (!s) return;
  for (size_t i = strlen(s); i-- > 0;)
    if (s[i] >= 10 && s[i] <= 15) s[i] = 0;
}

int Exists(const wchar_t* path) {
  if (!path || !*path) return 0;
  WIN32_FIND_DATA data;
  HANDLE find = FindFirstFile(path, &data);
  if (find == INVALID_HANDLE_VALUE || !find) return 0;
  FindClose(find);
  return 1;
}

int MakeSureFolderExists(wchar_t* folder) {
  if (int found = Exists(folder)) return found;
  if (CreateDirectory(folder, nullptr)) return 1;
  wchar_t parent[256];
  wcsncpy(parent, folder, 255);
  parent[255] = 0;
  wchar_t* cut = wcsrchr(parent, L'\\');
  // Nothing above the root to create.
  if (!cut || cut == parent) return CreateDirectory(folder, nullptr);
  *cut = 0;
  MakeSureFolderExists(parent);
  return CreateDirectory(folder, nullptr);
}

int AttemptToCreateDesinationFolder(wchar_t* filePath) {
  const wchar_t* last = wcsrchr(filePath, L'\\');
  if (!last || last == filePath) return 0;
  wchar_t folder[256] = {};
  size_t n = static_cast<size_t>(last - filePath);
  if (n > 255) n = 255;
  wmemcpy(folder, filePath, n);
  MakeSureFolderExists(folder);
  return 1;
}

int GetFile(char* baseURL, char* source, char* destination, DWORD port, int bOnce) {
  CHTTPClient* http = EngineClient();
  char url[256];
  if (NamesPort(baseURL)) {
    size_t n = strlen(baseURL);
    bool slash = n > 0 && (baseURL[n - 1] == '\\' || baseURL[n - 1] == '/');
    FormatText(url, sizeof url, slash ? "%s%s" : "%s/%s", baseURL, source);
  } else {
    bool slash = source[0] == '\\' || source[0] == '/';
    FormatText(url, sizeof url, slash ? "%s:%d%s:%d,%d" : "%s:%d/%s:%d,%d", baseURL,
               static_cast<int>(port), source, GetTransferedFileCnt(), GetTotalFileCnt());
  }
  QVToTStrW(url, m_szURL, 256);
  QVToTStrW(destination, m_szDestFile, 256);
  if (wcsncmp(m_szDestFile, L"RAM:", 4) != 0) AttemptToCreateDesinationFolder(m_szDestFile);

  char* work = static_cast<char*>(malloc(4096));
  int done = 0;
  while (!done) {
    wchar_t headers[512] = {};  // the request path OpenURL hands to Get
    LogMsg("FileTransferConfiglet - before OpenURL\r\n");
    LogMsg("%s", url);
    LogMsg("\r\n");
    if (http->OpenURL(m_szURL, headers)) {
      int got = http->Get(headers, m_szDestFile);
      if (got)
        done = got;
      else if (bOnce || http->DiskFull())  // the file's check afterwards tells what is missing
        done = 1;
      else
        Sleep(3000);
    } else {
      Sleep(3000);
    }
    BumpTransferedFileCnt();
    http->CloseURL();
    http->CloseFile();
  }
  free(work);
  return done;
}

void ParseFileList(UpgradeConfig* cfg, const char* text, size_t length) {
  ftc::ListFileReader reader(std::string_view(text, length));
  ftc::ListEntry e;
  while (reader.Next(&e)) {
    tagDownloadFile* entry = NewRecord<tagDownloadFile>();
    if (!entry) return;
    CopyField(entry->m_szSourceFile, sizeof entry->m_szSourceFile, e.source);
    CopyField(entry->m_szDestFile, sizeof entry->m_szDestFile, e.dest);
    CopyField(entry->m_szMCTMask, sizeof entry->m_szMCTMask, e.masks);
    CopyField(entry->m_szCRC, sizeof entry->m_szCRC, e.crc);
    CopyField(entry->m_szFileSize, sizeof entry->m_szFileSize, e.size);
    cfg->AddDownloadFile(entry);
  }
}

void LoadFileList(UpgradeConfig* cfg) {
  tagDownloadFile* list = cfg->GetMCFileList();
  if (!list) return;

  DWORD expected = static_cast<DWORD>(strtoul(list->m_szCRC, nullptr, 10));
  wchar_t wideDest[256];
  QVToTStrW(list->m_szDestFile, wideDest, 256);
  FTCCCRC32 crc32;
  DWORD crc = 0;
  if (crc32.FileCRC32(wideDest, crc) != 0) {
    LogMsg("FileTransferConfiglet - LoadFileList - multicast crc error, no file, %s\r\n",
           list->m_szDestFile);
  } else if (crc != expected) {
    LogMsg(
        "FileTransferConfiglet - LoadFileList - multicast list file crc mismatch, %s, %d, %d\r\n",
        list->m_szDestFile, static_cast<int>(expected), static_cast<int>(crc));
    FileIO remover;
    remover.Delete(list->m_szDestFile);
  } else {
    LogMsg("FileTransferConfiglet - LoadFileList - multicast list file crc match\r\n");
  }

  FileIO* file = new FileIO();
  int open = 0;
  for (int round = 0; round < 3 && !open; ++round) {
    LogMsg("FileTransferConfiglet - LoadFileList, src file = !%s!\r\n", list->m_szSourceFile);
    LogMsg("FileTransferConfiglet - LoadFileList, dest file = !%s!\r\n", list->m_szDestFile);
    LogMsg("FileTransferConfiglet - LoadFileList, open for reading1 = !%s!\r\n",
           list->m_szDestFile);
    open = file->Open(list->m_szDestFile, 1);
    if (open) break;
    file->Close();
    if (GetFile(const_cast<char*>(cfg->GetBaseURL()), list->m_szSourceFile, list->m_szDestFile,
                static_cast<DWORD>(cfg->GetHTTPPort()), 0)) {
      LogMsg("FileTransferConfiglet - LoadFileList, open for reading2 = !%s!\r\n",
             list->m_szDestFile);
      open = file->Open(list->m_szDestFile, 1);
    } else {
      LogMsg("FileTransferConfiglet - LoadFileList, error getting multicast list file\r\n");
    }
  }
  if (!open) {
    LogMsg("FileTransferConfiglet - LoadFileList, error getting list file");
    delete file;
    return;
  }

  DWORD size = file->Size();
  if (size > 0) {
    char* text = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
    if (text) {
      DWORD read = file->ReadAll(text, size);
      text[read] = 0;
      ParseFileList(cfg, text, read);
      LocalFree(text);
    }
  }
  file->Close();
  delete file;
}

void ValidateFiles(UpgradeConfig* cfg, int* pUsesRAM) {
  LogMsg("FileTransferConfiglet - ValidateFiles - Entering\r\n");
  const char* mct = m_pUpgCfg->GetMfgString();
  if (!mct[0]) {
    OutputGUIMsgA("No MCT on device");
    return;
  }
  LogMsg("FileTransferConfiglet - ValidateFiles - LoadFileList\r\n");
  LoadFileList(cfg);

  const std::vector<tagDownloadFile*>& files = cfg->GetDownloadFiles();
  for (size_t n = 0; n < files.size(); ++n) {
    tagDownloadFile* entry = files[n];
    if (!entry) continue;
    char* masks = static_cast<char*>(malloc(sizeof entry->m_szMCTMask));
    if (!masks) continue;
    CopyField(masks, sizeof entry->m_szMCTMask,
              std::string_view(entry->m_szMCTMask,
                               strnlen(entry->m_szMCTMask, sizeof entry->m_szMCTMask)));
    bool selected = false;
    char* save = nullptr;
    for (char* mask = strtok_r(masks, " ;", &save); mask; mask = strtok_r(nullptr, " ;", &save)) {
      if (IsMCTMaskMatch(mask, mct)) {
        selected = true;
        break;
      }
    }
    LocalFree(masks);
    if (!selected) continue;

    DWORD expected = static_cast<DWORD>(strtoul(entry->m_szCRC, nullptr, 10));
    if (expected == 0) continue;
    DWORD size = static_cast<DWORD>(strtoul(entry->m_szFileSize, nullptr, 10));
    OutputGUIMsgA("Validating, %s", entry->m_szDestFile);
    LogMsg("FileTransferConfiglet - ValidateFiles - check file !%s!\r\n", entry->m_szDestFile);

    wchar_t wideDest[256];
    QVToTStrW(entry->m_szDestFile, wideDest, 256);
    FTCCCRC32 crc32;
    DWORD crc = 0;
    DWORD rc;
    if (strncmp(entry->m_szDestFile, "RAM:", 4) == 0) {
      *pUsesRAM = 1;
      rc = crc32.RAMFileCRC32(wideDest, crc, size);
    } else {
      rc = crc32.FileCRC32(wideDest, crc);
    }
    bool bad = true;
    if (rc != 0) {
      LogMsg("FileTransferConfiglet - ValidateFiles - crc error, no file, %s\r\n",
             entry->m_szDestFile);
    } else if (crc != expected) {
      LogMsg("FileTransferConfiglet - ValidateFiles - crc mismatch, %s, %d, %d\r\n",
             entry->m_szDestFile, static_cast<int>(expected), static_cast<int>(crc));
    } else {
      bad = false;
      CHTTPClient::BumpBundleRxBytes(size);
    }
    if (!bad) continue;

    OutputGUIMsgA("%s", entry->m_szDestFile);
    SetProgress1(10);
    LogMsg("FileTransferConfiglet - ValidateFiles - http fetching !%s! to !%s!\r\n",
           entry->m_szSourceFile, entry->m_szDestFile);
    if (GetFile(const_cast<char*>(cfg->GetBaseURL()), entry->m_szSourceFile, entry->m_szDestFile,
                static_cast<DWORD>(cfg->GetHTTPPort()), 0)) {
      SetProgress1(100);
      HANDLE f = QVOpenFile(wideDest, 0);
      DWORD fetched = 0;
      if (f != INVALID_HANDLE_VALUE) {
        fetched = QVGetFileSize(f);
        QVCloseFile(f);
      }
      if (fetched != 0) BumpOverallProgress(fetched);
    }
  }
}
