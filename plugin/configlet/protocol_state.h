// Module-wide state of the host interface and of the group/field protocol. Written by the
// exports on the host's thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "config/UpgradeConfig.h"
#include "config/records.h"
#include "platform/wintypes.h"

class CQVExeEntry;
class CQVFileEntry;
class CQVRegistryEntry;

// ---- host interface ----
extern HANDLE g_hInst;       // module handle given to DllMain
extern char* gCurrentGroup;  // 128 bytes, allocated by IcfgInitialize
const int kCurrentGroupSize = 128;

// ---- the job being built ----
// Owned by the protocol until the Upgrade close hands it to the worker; whoever takes it over
// sets gpUpgCfg to null, so that the next job does not release it.
extern UpgradeConfig* gpUpgCfg;
extern int32_t m_bDoUpgrade;  // starts at 1, never cleared

// Set while the group of that name is open (cleared only by closing it).
extern int32_t gbFileList;
extern int32_t gbDiskCleanup;
extern int32_t gbDownload;
extern int32_t gbStartProc;
extern int32_t gbPreProcessing;
extern int32_t gbPostProcessing;
extern int32_t gbFileProcessing;  // that group is refused, so this stays 0

// Entries under construction: owned by the protocol until their group closes, null otherwise.
extern tagDownloadFile* gpDLFile;
extern tagStorageReq* gpStorageReq;
extern tagRegistryEntry* gpRegistryEntry;
extern tagPullFileEntry* gpPullFileEntry;
extern CQVExeEntry* gpExecutable;
extern CQVFileEntry* gpFileEntry;
extern CQVRegistryEntry* gpRegEntry;
extern char gcAction;          // disk clean-up action of the current File: ' ', 'S' or 'D'
extern char gszFileName[256];  // file name of the current disk clean-up File

// Releases every entry under construction (the job itself is left alone).
void ReleasePendingEntries();
