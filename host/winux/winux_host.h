// Host-side services of libwinux that the rest of the host (sdk, xq, cli) shares. The plug-in
// never includes this header.
#pragma once

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
