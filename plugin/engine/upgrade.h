// The upgrade engine: the one job the plug-in runs at a time, its worker thread, the file list
// and its validation. The job state is module-wide; the host thread writes it before the worker
// exists and the worker afterwards, so plain atomic words suffice.
#pragma once

#include <atomic>
#include <cstdio>

#include "platform/wintypes.h"

class UpgradeConfig;

// ---- job state ----------------------------------------------------------------------------
extern UpgradeConfig* m_pUpgCfg;  // left dangling after the worker deletes the job
extern std::atomic<int> m_bUpgradeClient;
extern std::atomic<int> m_bUpgradeInProgress;
extern std::atomic<DWORD> m_dwTotalBytes;
extern std::atomic<DWORD> m_dwBytesTransfered;
extern std::atomic<int> m_iFileCount;
extern std::atomic<int> m_iXferedFileCount;
extern std::atomic<int> g_bGoodSDCard;
extern HANDLE g_hInProgressEvent;

// Starts the worker on cfg. On success the worker owns cfg and the caller closes the handle;
// on failure (null) the caller still owns cfg.
HANDLE StartUpgradeThread(UpgradeConfig* cfg, int bUpgradeClient);

// The named event other programs open to learn that an upgrade runs.
void CreateUpgradeInProgressEvent();
void DeleteUpgradeInProgressEvent();

int GetTotalFileCnt();
void BumpTransferedFileCnt();
int GetTransferedFileCnt();
void SetTotalBytesToTransfer(DWORD bytes);
int IsUpgradeInProgress();

// Per-file progress; the HTTP client's status function.
void UpdateProgress(DWORD done, DWORD total);
// Overall progress; bytes is what was just received.
void BumpOverallProgress(DWORD bytes);

int32_t GetFilesize(FILE* f);

// ---- worker -------------------------------------------------------------------------------
// Thread entry; param is the job (UpgradeConfig*), destroyed here at the end. Returns 0.
DWORD UpgradeThread(LPVOID param);
// Network settings survive a multi-pass restart on devices that lose them; nothing to keep here.
void SaveNetworkSettings();
void LoadNetworkSettings();

// ---- file list and validation -------------------------------------------------------------
// Fetches one file by HTTP. Retries every 3 s until done unless bOnce. Non-zero when finished.
// Not re-entrant: one engine client and one pair of URL buffers.
int GetFile(char* baseURL, char* source, char* destination, DWORD port, int bOnce);
// Adds the entries of the multicast list file to cfg, fetching the list file when it is absent
// or damaged.
void LoadFileList(UpgradeConfig* cfg);
// Checks every file meant for this device and fetches the bad ones. Sets *pUsesRAM when a
// checked file lives in memory; never clears it.
void ValidateFiles(UpgradeConfig* cfg, int* pUsesRAM);
int IsMCTMaskMatch(const char* mask, const char* mct);
// Cuts the string at every control character from 10 to 15, searching from the end.
void trim(char* s);
int Exists(const wchar_t* path);
int MakeSureFolderExists(wchar_t* folder);
int AttemptToCreateDesinationFolder(wchar_t* filePath);
// Parses list-file text (any bytes; need not be terminated) into entries added to cfg.
void ParseFileList(UpgradeConfig* cfg, const char* text, size_t length);

// printf into a fixed text, cut at its capacity (the device's texts are bounded by design).
void FormatText(char* out, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
