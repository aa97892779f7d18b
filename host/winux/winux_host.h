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
// Tells the name index that the host made (present) or removed a file by host path, so that the
// next lookup in that folder reads it again.
WINUX_API void WinuxNoteHostPath(const std::string& hostPath, bool present);
// A device file's place, found once for the few calls a download makes on it: its folder stays
// open beneath the root, so later calls neither resolve the path again nor follow anything put
// in its way meanwhile, and the folder's name index is kept current by each change made here.
class WINUX_API WinuxPlace {
 public:
  WinuxPlace();
  ~WinuxPlace();
  WinuxPlace(const WinuxPlace&) = delete;
  WinuxPlace& operator=(const WinuxPlace&) = delete;

  // 1 something is there (st(), links followed), 0 nothing, -1 refused (last error set).
  int Find(const std::string& devicePath);
  const struct stat& st() const;
  // The host path found (a link's target when the name is a link).
  const std::string& host() const;
  // chmod of what is there, never of a link put in its place; -1 with errno.
  int Chmod(unsigned mode);
  // Creates and opens a new file for writing that takes the place's name only at Commit: an
  // unnamed one (*temp empty) where nothing is there yet, else one beside it (see
  // hostbase::CreateTempBeside). -1 with errno.
  int CreateTemp(unsigned mode, std::string* temp);
  // Puts the new file, still open as fd, in the place's name, replacing what is there; -1
  // with errno.
  int Commit(int fd, const std::string& temp);
  // Drops a new file that is not to be committed (after its descriptor is closed).
  void Remove(const std::string& temp);

 private:
  struct State;
  State* m_state;
};
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
