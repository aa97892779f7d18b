// The device's system interface, supplied by the host (libwinux.so on Linux).
// Every path is a device path ("\Flash File Store\a.bin"); the host maps it under its device
// root. Wide-only: file and registry functions take wide strings under their plain names.
#pragma once

#include <cstdio>

#include "platform/wintypes.h"

extern "C" {

// ---- errors -----------------------------------------------------------------------------
// Per thread.
WINUX_API DWORD GetLastError(void);
WINUX_API void SetLastError(DWORD error);

// ---- threads and synchronisation ---------------------------------------------------------
// stackSize 0 takes the host's default; otherwise it is honoured.
WINUX_API HANDLE CreateThread(LPSECURITY_ATTRIBUTES attributes, DWORD stackSize,
                              LPTHREAD_START_ROUTINE start, LPVOID parameter, DWORD flags,
                              LPDWORD threadId);
// Ends the thread at its next cancellation point (every platform wait and Sleep is one).
WINUX_API BOOL TerminateThread(HANDLE thread, DWORD exitCode);
WINUX_API BOOL GetExitCodeThread(HANDLE thread, LPDWORD exitCode);
WINUX_API DWORD GetCurrentThreadId(void);
// Scaled by WINUX_TIME_SCALE.
WINUX_API void Sleep(DWORD milliseconds);
WINUX_API DWORD GetTickCount(void);

// Named objects are process-wide; a second create of a name opens the same object and sets
// ERROR_ALREADY_EXISTS.
WINUX_API HANDLE CreateEvent(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                             LPCWSTR name);
WINUX_API HANDLE OpenEvent(DWORD access, BOOL inherit, LPCWSTR name);
WINUX_API BOOL SetEvent(HANDLE event);
WINUX_API BOOL ResetEvent(HANDLE event);
WINUX_API HANDLE CreateMutex(LPSECURITY_ATTRIBUTES attributes, BOOL initialOwner, LPCWSTR name);
WINUX_API HANDLE CreateSemaphore(LPSECURITY_ATTRIBUTES attributes, LONG initialCount,
                                 LONG maximumCount, LPCWSTR name);
// Returns WINUX_WAIT_ACQUIRED (10000) when the object was acquired, WAIT_TIMEOUT, or
// WAIT_FAILED. A thread handle is acquired when the thread has ended. The time-out is scaled.
WINUX_API DWORD WinuxWaitForSingleObject(HANDLE object, DWORD milliseconds);
// Releases a semaphore by count, or a mutex held by the calling thread.
WINUX_API BOOL WinuxReleaseSemaphore(HANDLE object, LONG count, LPLONG previousCount);
WINUX_API BOOL CloseHandle(HANDLE object);

// ---- files --------------------------------------------------------------------------------
WINUX_API HANDLE CreateFile(LPCWSTR path, DWORD access, DWORD shareMode,
                            LPSECURITY_ATTRIBUTES attributes, DWORD disposition,
                            DWORD flagsAndAttributes, HANDLE templateFile);
WINUX_API BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD toRead, LPDWORD read, LPVOID overlapped);
WINUX_API BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD toWrite, LPDWORD written,
                         LPVOID overlapped);
WINUX_API DWORD GetFileSize(HANDLE file, LPDWORD sizeHigh);
WINUX_API DWORD SetFilePointer(HANDLE file, LONG distance, LPLONG distanceHigh, DWORD method);
// Narrow and wide stdio opens of device paths.
WINUX_API FILE* WinuxFopen(const char* path, const char* mode);
WINUX_API FILE* _wfopen(LPCWSTR path, LPCWSTR mode);

// Patterns use * and ?; "*.*" matches every name.
WINUX_API HANDLE FindFirstFile(LPCWSTR pattern, LPWIN32_FIND_DATA data);
WINUX_API BOOL FindNextFile(HANDLE find, LPWIN32_FIND_DATA data);
WINUX_API BOOL FindClose(HANDLE find);

WINUX_API BOOL CreateDirectory(LPCWSTR path, LPSECURITY_ATTRIBUTES attributes);
WINUX_API BOOL RemoveDirectory(LPCWSTR path);
WINUX_API BOOL DeleteFile(LPCWSTR path);
WINUX_API BOOL CopyFile(LPCWSTR existing, LPCWSTR target, BOOL failIfExists);
WINUX_API BOOL MoveFile(LPCWSTR existing, LPCWSTR target);
WINUX_API DWORD GetFileAttributes(LPCWSTR path);
WINUX_API BOOL SetFileAttributes(LPCWSTR path, DWORD attributes);
WINUX_API BOOL GetDiskFreeSpaceEx(LPCWSTR path, PULARGE_INTEGER freeToCaller, PULARGE_INTEGER total,
                                  PULARGE_INTEGER totalFree);

// ---- registry -----------------------------------------------------------------------------
// Results are ERROR_SUCCESS or an error code. REG_SZ data are wide strings (4-byte characters)
// with their terminator; sizes are in bytes.
WINUX_API LSTATUS RegOpenKeyEx(HKEY root, LPCWSTR subKey, DWORD options, DWORD access,
                               HKEY* result);
WINUX_API LSTATUS RegCreateKeyEx(HKEY root, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass,
                                 DWORD options, DWORD access, LPSECURITY_ATTRIBUTES attributes,
                                 HKEY* result, LPDWORD disposition);
WINUX_API LSTATUS RegQueryValueEx(HKEY key, LPCWSTR valueName, LPDWORD reserved, LPDWORD type,
                                  LPBYTE data, LPDWORD dataSize);
WINUX_API LSTATUS RegSetValueEx(HKEY key, LPCWSTR valueName, DWORD reserved, DWORD type,
                                const BYTE* data, DWORD dataSize);
WINUX_API LSTATUS RegDeleteValue(HKEY key, LPCWSTR valueName);
WINUX_API LSTATUS RegDeleteKey(HKEY root, LPCWSTR subKey);
WINUX_API LSTATUS RegCloseKey(HKEY key);

// ---- processes ----------------------------------------------------------------------------
WINUX_API HANDLE CreateToolhelp32Snapshot(DWORD flags, DWORD processId);
WINUX_API BOOL Process32First(HANDLE snapshot, LPPROCESSENTRY32 entry);
WINUX_API BOOL Process32Next(HANDLE snapshot, LPPROCESSENTRY32 entry);
WINUX_API BOOL CloseToolhelp32Snapshot(HANDLE snapshot);
WINUX_API HANDLE OpenProcess(DWORD access, BOOL inherit, DWORD processId);
WINUX_API BOOL TerminateProcess(HANDLE process, DWORD exitCode);

// ---- memory -------------------------------------------------------------------------------
WINUX_API void GlobalMemoryStatus(LPMEMORYSTATUS status);
// Non-zero on success, 0 on failure.
WINUX_API BOOL GetStoreInformation(LPSTORE_INFORMATION info);
WINUX_API BOOL GetSystemMemoryDivision(LPDWORD storePages, LPDWORD ramPages, LPDWORD pageSize);
// 0 on success (SYSMEM_CHANGED), as the device's call does.
WINUX_API DWORD SetSystemMemoryDivision(DWORD storePages);
// Accepts blocks from malloc as well as the host's own allocations.
WINUX_API HANDLE LocalFree(HANDLE memory);
WINUX_API HANDLE LocalAlloc(UINT flags, size_t bytes);

// ---- dynamic loading ----------------------------------------------------------------------
// Searches WINUX_LIBRARY_PATH, then the host's own folder; tries NAME, NAME.so and libNAME.so.
WINUX_API HMODULE LoadLibrary(LPCWSTR name);
WINUX_API FARPROC GetProcAddress(HMODULE module, LPCWSTR procName);
WINUX_API BOOL FreeLibrary(HMODULE module);

// ---- time and text ------------------------------------------------------------------------
WINUX_API void GetLocalTime(LPSYSTEMTIME time);
// Pictures: "yyyy/MM/dd", "MM:dd:yyyy", "hh:mm:ss", "hh:mm:ss tt" and their parts.
// Results are the characters written including the terminator, 0 on failure.
WINUX_API int GetDateFormat(DWORD locale, DWORD flags, const SYSTEMTIME* date, LPCWSTR picture,
                            LPWSTR out, int outChars);
WINUX_API int GetTimeFormat(DWORD locale, DWORD flags, const SYSTEMTIME* time, LPCWSTR picture,
                            LPWSTR out, int outChars);
// The device's wide convention: %s takes a wide string, %S a narrow one. Writes at most 1,024
// characters with the terminator, as the device's call does.
WINUX_API int wsprintf(LPWSTR out, LPCWSTR format, ...);
WINUX_API int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideChars,
                                  LPSTR out, int outBytes, LPCSTR defaultChar, BOOL* usedDefault);
WINUX_API int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR text, int bytes, LPWSTR out,
                                  int outChars);
WINUX_API void OutputDebugString(LPCWSTR text);
// The runtime's case-insensitive comparisons: ASCII letters fold, every other byte or
// character compares as it is. 0 when equal.
WINUX_API int _stricmp(const char* a, const char* b);
WINUX_API int _strnicmp(const char* a, const char* b, size_t count);
WINUX_API int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t count);

// ---- sockets ------------------------------------------------------------------------------
WINUX_API int WSACleanup(void);

}  // extern "C"
