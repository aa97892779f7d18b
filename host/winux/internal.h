// Shared internals of libwinux: the handle table, text conversion and path resolution details.
// Not exported; only host/winux/*.cpp include it.
#pragma once

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
struct MappedPath {
  std::string host;            // empty when the path was refused
  bool parentMissing = false;  // some folder on the way does not exist
  bool isStoreRoot = false;    // the path names the device root itself
};
// Resolves a device path under the root (or the memory area for "RAM:"); last error set when
// refused.
MappedPath MapDevicePath(const std::string& devicePath);
// errno -> last error, reporting a missing file under a missing folder as path-not-found.
void SetErrorForPath(int err, const MappedPath& path);
// The folder holding host state: <root>/.winux (not created).
std::string StateDir();
// Whether a host folder is a mounted store: a store name directly under the root, or a mount.
bool IsMountedStore(const std::string& hostPath);

// ---- threads ------------------------------------------------------------------------------
// Ends the calling platform thread when TerminateThread asked for it (a cancellation point).
void CancellationPoint();

}  // namespace winux
