// Multi-pass jobs: the pass reached survives a restart in a small pass file; each pass installs
// the firmware packages tagged with it. Also the store/program memory division.
#pragma once

#include "platform/wintypes.h"

class UpgradeConfig;

// 1 for a single-pass job; else the stored pass, 0 when none can be read.
DWORD GetCurrentPass();
void SetCurrentPass(DWORD pass);
void ClearPassSetting();
// The one digit after "Pass=" (1 when absent; a non-digit gives 0).
int GetPassFromParms(const char* parms);
// "RAMAllocSize=" of a package of this pass, else 0.
int GetRAMSizeFromParms(const char* parms, DWORD pass);
// Files the current pass fetches: fragments (at least one per package) plus download files.
// Also zeroes m_iFileCount; the caller stores the result there.
DWORD GetFileCountToDownload();
int IsZetaOSUpgrade();
// Gives storeShare of the free pages to the store. Returns 1.
int SetMemoryDivision(float storeShare);
int GetMemoryInfo(DWORD* totalPages, DWORD* storeUsedPages, DWORD* programUsedPages,
                  DWORD* storePages);
int GetProgramInformation(DWORD pageSize, DWORD* programUsedPages);
// Hooks for reserving memory before a transfer; nothing to reserve here.
int InitRAM(UpgradeConfig* cfg);
int InitRAMForUpgClient(UpgradeConfig* cfg, int* p);
