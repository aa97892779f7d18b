// Host-side services of libwinux that the rest of the host (sdk, xq, cli) shares. The plug-in
// never includes this header.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "platform/wintypes.h"

// The device root: WINUX_ROOT, else the folder set with WinuxSetRoot, else ./device-root.
WINUX_API std::string WinuxRoot();
WINUX_API void WinuxSetRoot(const std::string& root);
// Maps a device path (narrow UTF-8 or wide) to a host path under the root, confined, with
// existing components found case-insensitively. Empty on failure (last error set).
WINUX_API std::string WinuxMapPath(const std::string& devicePath);
WINUX_API std::string WinuxMapPathW(const wchar_t* devicePath);
// open(2) of a device path, resolved as WinuxMapPath does and opened through its folder, so no
// link or rename can carry it outside the root; a new file is spelled as given. -1 with errno
// and the last error set.
WINUX_API int WinuxOpenPath(const std::string& devicePath, int flags, unsigned mode);
// What a device path names (links followed): 1 found (*st, *host), 0 absent, -1 refused (last
// error set).
WINUX_API int WinuxStatPath(const std::string& devicePath, struct stat* st, std::string* host);
// Removes the file a device path names: 0, or the errno (ENOENT absent, EISDIR a folder).
WINUX_API int WinuxUnlinkPath(const std::string& devicePath);
// Tells the name index that the host made (present) or removed a file by host path. With the
// folder's change time from just before (WinuxHostFolderTime), a change that was ours alone keeps
// the index current instead of having the folder read again.
WINUX_API void WinuxNoteHostPath(const std::string& hostPath, bool present,
                                 const struct timespec* before = nullptr);
WINUX_API struct timespec WinuxHostFolderTime(const std::string& hostPath);
// How many times a folder was read to find a name in another case.
WINUX_API unsigned long WinuxFolderReads();
// WINUX_TIME_SCALE (default 1): every platform pause and timed wait is multiplied by it.
WINUX_API double WinuxTimeScale();
WINUX_API DWORD WinuxScaleMs(DWORD milliseconds);
// Waits, in real time, until every thread started by CreateThread has ended: the host's join
// on work the plug-in runs on its own threads. False when some still run at the limit.
WINUX_API bool WinuxWaitForPlatformThreads(DWORD realMilliseconds);
// A value of <root>/.winux/identity (lines key=value); empty when the key is not set.
WINUX_API std::string WinuxIdentityValue(const std::string& key);
// Sets the calling thread's last error from errno (the one errno conversion point).
WINUX_API void WinuxSetLastErrorFromErrno(int err);
