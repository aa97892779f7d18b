// Shared internals of libwinux: the handle table, text conversion and path resolution details.
// Not exported; only host/winux/*.cpp include it.
#pragma once

#include <sys/stat.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "base/text.h"
#include "platform/wintypes.h"

namespace winux {

// ---- handles ------------------------------------------------------------------------------
enum class Kind { Thread, Event, Mutex, Semaphore, File, Find, Snapshot, Process, Key, Module };

struct Object {
  explicit Object(Kind k) : kind(k) {}
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  const Kind kind;
};

// Never 0 nor INVALID_HANDLE_VALUE, never one of the registry roots 1..4, never reused.
HANDLE AddHandle(std::shared_ptr<Object> object);
// Null (last error ERROR_INVALID_HANDLE) when the handle is unknown or of another kind.
std::shared_ptr<Object> LookupHandle(HANDLE handle, Kind kind);
std::shared_ptr<Object> LookupAnyHandle(HANDLE handle);
// Removes the entry; false (ERROR_INVALID_HANDLE) when unknown or of another kind.
bool RemoveHandle(HANDLE handle, Kind kind);
bool RemoveAnyHandle(HANDLE handle);

template <typename T>
std::shared_ptr<T> Lookup(HANDLE handle, Kind kind) {
  return std::static_pointer_cast<T>(LookupHandle(handle, kind));
}

// ---- text ---------------------------------------------------------------------------------
// UTF-8 both ways; bytes that are not UTF-8 become the code point of the byte (the default), so
// names round trip as far as they can.
using hostbase::CopyWide;
using hostbase::FromUtf8;
using hostbase::ToUtf8;
bool EqualsNoCase(const std::string& a, const std::string& b);

// ---- paths --------------------------------------------------------------------------------
// An owned descriptor, shared by the lookups that hold it.
struct HostFd {
  explicit HostFd(int d) : fd(d) {}
  ~HostFd();
  HostFd(const HostFd&) = delete;
  HostFd& operator=(const HostFd&) = delete;
  const int fd;
};

struct MappedPath {
  std::string host;            // empty when the path was refused
  bool parentMissing = false;  // some folder on the way does not exist
  bool isStoreRoot = false;    // the path names the device root itself
  bool exists = false;         // found; st describes it (a link's target)
  struct stat st {};
  // The folder holding leaf, opened beneath the root; null when the folder is missing or the
  // leaf is a link (operations then go by host path).
  std::shared_ptr<HostFd> folder;
  std::string leaf;      // as on disk when found, else as spelled
  bool stamped = false;  // folderTime holds the folder's change time seen at lookup
  struct timespec folderTime {};
};
// Resolves a device path under the root (or the memory area for "RAM:"); last error set when
// refused. A name spelled as on disk costs one openat2 and one stat; another spelling is looked
// up in the folder's name index, not by reading the folder.
MappedPath MapDevicePath(const std::string& devicePath);
// The one confined call that both finds and opens a file spelled as on disk (without creating
// or truncating it); *st (when given) its status. -1 when the full lookup must decide.
int OpenExisting(const std::string& devicePath, int flags, struct stat* st);
// fstatat of the path under its base (not following a link in its place), without opening it;
// *key its host path. Only for telling whether the path still names a file already open. A
// null st only sets *key.
int StatBeneath(const std::string& devicePath, struct stat* st, std::string* key);
// open(2) of a mapped path through its folder (never following a link put there since); a file
// it creates is added to the folder's index. -1 with errno.
int OpenMapped(MappedPath& path, int flags, mode_t mode);
// Records the folder's change time before the host changes the folder itself.
void StampFolder(MappedPath& path);
// After the host made (present) or removed name in the mapped path's folder.
void NoteMappedChange(const MappedPath& path, const std::string& name, bool present);
// errno -> last error, reporting a missing file under a missing folder as path-not-found.
void SetErrorForPath(int err, const MappedPath& path);
// The folder holding host state: <root>/.winux (not created).
std::string StateDir();
// Whether a host folder is a mounted store: a store name directly under the root, or a mount.
bool IsMountedStore(const std::string& hostPath);

// Name index of folders (folder_index.cpp). The entry of folder spelled like name ignoring
// ASCII case, "" when none; *ctime gets the folder's change time it checked against.
std::string FindNoCase(int folder, const std::string& name, struct timespec* ctime);
// Keeps an index current after the host's own change; before is the change time seen before
// it (null: unknown, so the next lookup reads the folder again).
void NoteFolderChange(int folder, const struct timespec* before, const std::string& name,
                      bool present);
// Several changes made one after the other; *after (when given) the folder's change time seen
// after them, to serve as before for the next change.
struct FolderChange {
  const std::string& name;
  bool present;
};
void NoteFolderChanges(int folder, const struct timespec* before,
                       std::initializer_list<FolderChange> changes, struct timespec* after);
void NoteHostChange(const std::string& hostPath, bool present, const struct timespec* before);
// How many names the host has removed (renamed away included): a name seen before the count
// last changed may name something else now.
unsigned long Removals();
void CountRemoval();

// ---- threads ------------------------------------------------------------------------------
// Ends the calling platform thread when TerminateThread asked for it (a cancellation point).
void CancellationPoint();

}  // namespace winux
