// The one job the plug-in runs at a time: module-wide state and progress counters. The host
// thread writes them before the worker exists and the worker afterwards, so plain atomic words
// suffice.
#pragma once

#include <atomic>
#include <cstdio>

#include "platform/wintypes.h"

class UpgradeConfig;

extern UpgradeConfig* m_pUpgCfg;  // the running job; null once it is destroyed
extern std::atomic<int> m_bUpgradeClient;
extern std::atomic<int> m_bUpgradeInProgress;
extern std::atomic<DWORD> m_dwTotalBytes;
extern std::atomic<DWORD> m_dwBytesTransfered;
extern std::atomic<int> m_iFileCount;
extern std::atomic<int> m_iXferedFileCount;
extern std::atomic<int> g_bGoodSDCard;
extern HANDLE g_hInProgressEvent;

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
