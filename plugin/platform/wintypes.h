// Device types shared by the plug-in and the host that supplies its platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cwchar>

#define WINUX_API __attribute__((visibility("default")))

typedef int32_t BOOL;
typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint32_t UINT;
typedef uint64_t ULONGLONG;
typedef wchar_t WCHAR;
typedef char CHAR;
typedef void* HANDLE;
typedef void* HMODULE;
typedef void* HKEY;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef DWORD* LPDWORD;
typedef LONG* LPLONG;
typedef BYTE* LPBYTE;
typedef const BYTE* LPCBYTE;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;
typedef CHAR* LPSTR;
typedef const CHAR* LPCSTR;
typedef LONG LSTATUS;
typedef DWORD (*LPTHREAD_START_ROUTINE)(LPVOID parameter);
typedef void* FARPROC;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef MAX_PATH
#define MAX_PATH 260
#endif

static const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1));
static const DWORD INFINITE = 0xFFFFFFFFu;

// Results of WinuxWaitForSingleObject. The device's layer reports an acquired object as 10000.
static const DWORD WINUX_WAIT_ACQUIRED = 10000;
static const DWORD WAIT_TIMEOUT = 258;
static const DWORD WAIT_FAILED = 0xFFFFFFFFu;

// Last-error codes the host sets.
static const DWORD ERROR_SUCCESS = 0;
static const DWORD ERROR_FILE_NOT_FOUND = 2;
static const DWORD ERROR_PATH_NOT_FOUND = 3;
static const DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
static const DWORD ERROR_ACCESS_DENIED = 5;
static const DWORD ERROR_INVALID_HANDLE = 6;
static const DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
static const DWORD ERROR_NO_MORE_FILES = 18;
static const DWORD ERROR_WRITE_FAULT = 29;
static const DWORD ERROR_READ_FAULT = 30;
static const DWORD ERROR_NOT_SUPPORTED = 50;
static const DWORD ERROR_FILE_EXISTS = 80;
static const DWORD ERROR_INVALID_PARAMETER = 87;
static const DWORD ERROR_DISK_FULL = 112;
static const DWORD ERROR_INSUFFICIENT_BUFFER = 122;
static const DWORD ERROR_MOD_NOT_FOUND = 126;
static const DWORD ERROR_PROC_NOT_FOUND = 127;
static const DWORD ERROR_DIR_NOT_EMPTY = 145;
static const DWORD ERROR_ALREADY_EXISTS = 183;
static const DWORD ERROR_MORE_DATA = 234;
static const DWORD ERROR_NO_MORE_ITEMS = 259;
static const DWORD ERROR_TIMEOUT = 1460;

// File attributes as the device sees them.
static const DWORD FILE_ATTRIBUTE_READONLY = 0x1;
static const DWORD FILE_ATTRIBUTE_DIRECTORY = 0x2;
static const DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
static const DWORD FILE_ATTRIBUTE_TEMPORARY = 0x100;
static const DWORD FILE_ATTRIBUTE_MOUNTED_STORE = 0x80000000u;
static const DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu;

// CreateFile
static const DWORD GENERIC_READ = 0x80000000u;
static const DWORD GENERIC_WRITE = 0x40000000u;
static const DWORD FILE_SHARE_READ = 0x1;
static const DWORD FILE_SHARE_WRITE = 0x2;
static const DWORD CREATE_NEW = 1;
static const DWORD CREATE_ALWAYS = 2;
static const DWORD OPEN_EXISTING = 3;
static const DWORD OPEN_ALWAYS = 4;
static const DWORD TRUNCATE_EXISTING = 5;

// Registry
static const DWORD REG_NONE = 0;
static const DWORD REG_SZ = 1;
static const DWORD REG_BINARY = 3;
static const DWORD REG_DWORD = 4;
static const DWORD KEY_ALL_ACCESS = 0xF003F;
static const DWORD KEY_READ = 0x20019;
static const DWORD KEY_WRITE = 0x20006;
static const DWORD REG_OPTION_NON_VOLATILE = 0;
static const DWORD REG_CREATED_NEW_KEY = 1;
static const DWORD REG_OPENED_EXISTING_KEY = 2;
// Root keys by the device's codes: 1 HKCR, 2 HKCU, 3 HKLM, 4 HKU.
#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<intptr_t>(1)))
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<intptr_t>(2)))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<intptr_t>(3)))
#define HKEY_USERS (reinterpret_cast<HKEY>(static_cast<intptr_t>(4)))

// Processes and snapshots
static const DWORD TH32CS_SNAPPROCESS = 0x2;
static const DWORD PROCESS_TERMINATE = 0x1;
static const DWORD PROCESS_ALL_ACCESS = 0x1F0FFF;

// Code pages: 0 is UTF-8 on this host.
static const UINT CP_ACP = 0;
static const UINT CP_UTF8 = 65001;

struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
};
typedef SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;
  WORD wDayOfWeek;
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};
typedef SYSTEMTIME* LPSYSTEMTIME;

union ULARGE_INTEGER {
  struct {
    DWORD LowPart;
    DWORD HighPart;
  } u;
  ULONGLONG QuadPart;
};
typedef ULARGE_INTEGER* PULARGE_INTEGER;

struct WIN32_FIND_DATA {
  DWORD dwFileAttributes;
  FILETIME ftCreationTime;
  FILETIME ftLastAccessTime;
  FILETIME ftLastWriteTime;
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwOID;
  WCHAR cFileName[MAX_PATH];
};
typedef WIN32_FIND_DATA* LPWIN32_FIND_DATA;

// Laid out as the device's layer has it: size, process id, then the image name.
struct PROCESSENTRY32 {
  DWORD dwSize;
  DWORD th32ProcessID;
  WCHAR szExeFile[256];
};
typedef PROCESSENTRY32* LPPROCESSENTRY32;
static_assert(sizeof(PROCESSENTRY32) == 1032, "PROCESSENTRY32 must be 1,032 bytes");

// The device's memory status has 32-bit fields: 32 bytes in all.
struct MEMORYSTATUS {
  DWORD dwLength;
  DWORD dwMemoryLoad;
  DWORD dwTotalPhys;
  DWORD dwAvailPhys;
  DWORD dwTotalPageFile;
  DWORD dwAvailPageFile;
  DWORD dwTotalVirtual;
  DWORD dwAvailVirtual;
};
typedef MEMORYSTATUS* LPMEMORYSTATUS;
static_assert(sizeof(MEMORYSTATUS) == 32, "MEMORYSTATUS must be 32 bytes");

struct STORE_INFORMATION {
  DWORD dwStoreSize;
  DWORD dwFreeSize;
};
typedef STORE_INFORMATION* LPSTORE_INFORMATION;
