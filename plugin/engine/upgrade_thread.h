// The upgrade worker: one thread that owns the job and runs every step of it.
#pragma once

#include "platform/wintypes.h"

class UpgradeConfig;

// Starts the worker on cfg. On success the worker owns cfg and the caller closes the handle;
// on failure (null) the caller still owns cfg.
HANDLE StartUpgradeThread(UpgradeConfig* cfg, int bUpgradeClient);
// Destroys a job, and forgets it as the running one when it is.
void DestroyJob(UpgradeConfig* job);
// Thread entry; param is the job (UpgradeConfig*), destroyed here at the end. Returns 0.
DWORD UpgradeThread(LPVOID param);
// Network settings survive a multi-pass restart on devices that lose them; nothing to keep here.
void SaveNetworkSettings();
void LoadNetworkSettings();
