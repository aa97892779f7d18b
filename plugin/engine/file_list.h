// The job's file list: reading the multicast list file, checking every file meant for this
// device and fetching the missing or damaged ones by HTTP.
#pragma once

#include <cstddef>

#include "platform/wintypes.h"

class UpgradeConfig;

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
