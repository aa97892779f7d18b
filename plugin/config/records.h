// The job's plain list records: fixed-size, NUL-terminated narrow texts. They are allocated
// zero-filled with calloc (NewRecord) and released with the platform's LocalFree.
#pragma once

#include <cstdlib>

#include "platform/wintypes.h"

// One file of the job (a download or the multicast list file).
struct tagDownloadFile {
  char m_szSourceFile[256];  // relative to the base URL
  char m_szDestFile[256];    // device path; "RAM:..." names a file held in memory
  char m_szCRC[32];          // decimal CRC-32; 0 means not checked
  char m_szMCTMask[2048];    // device masks separated by blanks or semicolons
  char m_szFileSize[32];     // decimal bytes
};
static_assert(sizeof(tagDownloadFile) == 2624, "tagDownloadFile is 2,624 bytes");

// Space a store must have before the job starts.
struct tagStorageReq {
  char m_szName[256];
  char m_szRequiredSpace[32];
};
static_assert(sizeof(tagStorageReq) == 288, "tagStorageReq is 288 bytes");

// A registry test run before the job starts.
struct tagRegistryEntry {
  char m_szRoot[256];
  char m_szKey[256];
  char m_szValueName[256];
  char m_szValue[256];
  char m_szType[24];
  char m_szErrorMsg[256];
  char m_szOperator[12];
};
static_assert(sizeof(tagRegistryEntry) == 1316, "tagRegistryEntry is 1,316 bytes");

// One pull-file request.
struct tagPullFileEntry {
  char m_szSrcUrl[256];
  char m_szSrcFile[256];
  char m_szDestFile[256];
  char m_szFileID[256];
};
static_assert(sizeof(tagPullFileEntry) == 1024, "tagPullFileEntry is 1,024 bytes");

// A zero-filled record, or null when memory is short. Release with LocalFree.
template <typename T>
T* NewRecord() {
  return static_cast<T*>(calloc(1, sizeof(T)));
}
