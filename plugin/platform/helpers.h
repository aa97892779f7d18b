// Host helper functions. Buffers are bounded by the sizes given; texts are always terminated.
#pragma once

#include "platform/wintypes.h"

// Narrow (UTF-8) to wide into out[outChars]; returns out.
WINUX_API wchar_t* QVToTStrW(const char* text, wchar_t* out, int outChars);
// Wide to narrow (UTF-8) into out[outBytes]; returns out.
WINUX_API char* QVToASCIIStringW(const wchar_t* text, char* out, int outBytes);

// Reads "host:port", "http://host:port/..." or a bare host. Copies the host into host[hostSize]
// when host is not null. Returns 1 and sets *port when the text names a port, else 0.
WINUX_API int QVParseURL(const char* text, char* host, int hostSize, int* port);

// Device paths.
WINUX_API BOOL QVFileExists(const char* path);
WINUX_API BOOL QVFileExists(const wchar_t* path);
// mode 0 opens for reading. INVALID_HANDLE_VALUE on failure.
WINUX_API HANDLE QVOpenFile(const wchar_t* path, int mode);
WINUX_API HANDLE QVOpenFile(const char* path, int mode);
WINUX_API DWORD QVGetFileSize(HANDLE file);
WINUX_API BOOL QVCloseFile(HANDLE file);

// Ends every process whose image name equals name (case-sensitive). 1 when one was ended.
WINUX_API int QVTerminateProc(const char* name);
WINUX_API int QVTerminateProc(const wchar_t* name);
// Starts a program named by a device path with the given parameters. wait: -1 waits for it to
// end, 0 does not wait, otherwise milliseconds (scaled). 0 on success, an error code otherwise.
WINUX_API int QVStartProcessAndWait(const char* name, const char* parameters, int wait);
WINUX_API int QVStartProcessAndWait(const wchar_t* name, const wchar_t* parameters, int wait);

// Splits a path into drive, folder (with its trailing separator), name, and extension (with its
// dot). Any output may be null. Each output is bounded by its size.
WINUX_API void TVLFileSplitPathA(const char* path, char* drive, int driveSize, char* dir,
                                 int dirSize, char* name, int nameSize, char* ext, int extSize);
WINUX_API void TVLFileSplitPathW(const wchar_t* path, wchar_t* drive, int driveSize, wchar_t* dir,
                                 int dirSize, wchar_t* name, int nameSize, wchar_t* ext,
                                 int extSize);
// Replace an existing target. TRUE on success.
WINUX_API BOOL TVLRenameFileW(const wchar_t* existing, const wchar_t* target);
WINUX_API BOOL TVLCopyFileW(const wchar_t* existing, const wchar_t* target);

// Non-zero while the device is in its provisioning phase.
WINUX_API int IsProvisioning();
