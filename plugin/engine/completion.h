// Tidying the device before and after a job, and telling the upgrade server the job has ended.
#pragma once

#include "platform/wintypes.h"

class CHTTPClient;
class UpgradeConfig;

// Stops the job's listed programs and empties its listed files and folders, sparing the files
// it says to keep. Returns the last RemoveFiles result (the list length when it is empty).
int CleanupDevice(UpgradeConfig* cfg);
// A path with a dot is one file; otherwise a folder emptied recursively (folders stay).
int RemoveFiles(char* path, UpgradeConfig* cfg);
// Gives download destinations ending in ".rename" their final name.
int RenameSettingsFile(UpgradeConfig* cfg);
// http null: the engine's client (created when missing). Best-effort, never retried.
void SendUpgradeComplete(char* errorText, CHTTPClient* http, char* uniqueId, char* baseURL,
                         DWORD port);
void CleanupHTTPClient();
