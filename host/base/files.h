// File primitives of the host: whole writes and reads, durable replacement, copies. Plain POSIX
// underneath; errors come back as errno values (the caller maps them, winux in one place).
// Thread-safe; no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace hostbase {

// What a file operation did: error 0 when it succeeded, else the errno of the step that failed.
struct [[nodiscard]] IoStatus {
  int error = 0;
  const char* step = "";  // "open", "write", "fsync", "rename", ...

  bool ok() const { return error == 0; }
  // "cannot <step> <path>: <strerror>", for messages.
  std::string Describe(const std::string& path) const;
};

// All of size bytes, retrying interrupted and short writes.
IoStatus WriteAll(int fd, const void* data, size_t size);
// Up to size bytes, fewer only at the end of the file; *got the count read.
IoStatus ReadFull(int fd, void* data, size_t size, size_t* got);
// The whole file into *out.
IoStatus ReadWholeFile(const std::string& path, std::string* out);

// fsync of a folder, so that entries made, renamed or removed in it survive a crash.
IoStatus SyncDir(const std::string& dir);
// mkdir -p; each folder made is synced into its parent.
IoStatus MakeDirs(const std::string& dir);

// Creates and opens ".<name>.<pid>.<n>" beside path for writing (each library that links this
// counts on its own, so a name another one took is skipped); the descriptor, or -1 with errno.
int CreateTempBeside(const std::string& path, unsigned mode, std::string* temp);
// The name such a temporary of a file called name gets (unique in this process).
std::string TempName(const std::string& name);
// The same inside an open folder, for a file of that folder called name; *temp the bare name.
int CreateTempIn(int folder, const std::string& name, unsigned mode, std::string* temp);
// Removes what CreateTempBeside left beside path for processes no longer running (killed before
// they could rename or remove it).
void RemoveDeadTemps(const std::string& path);
// The same, once per folder and process: reading the folder for every file written in it would
// make each file cost as much as the folder is large.
void RemoveDeadTempsOnce(const std::string& path);

// Creates path, which must not exist yet, with content, synced to disk before it returns.
IoStatus WriteNewFile(const std::string& path, std::string_view content, unsigned mode);
// Replaces path with content: after a crash it holds the old text or the new, whole. A
// temporary ".<name>.<unique>" beside it is written, synced and renamed over it, and the
// folder synced.
IoStatus ReplaceFile(const std::string& path, std::string_view content, unsigned mode = 0644);
// rename(from, to), durable: from is synced first, the folders after. A target is replaced.
// Across file systems (EXDEV) the file is copied as CopyHostFile does and from removed.
IoStatus MoveHostFile(const std::string& from, const std::string& to);
// Copies a regular file the way the device's CopyFile does: the target is replaced whole (as
// ReplaceFile does) and gets the source's permission bits and modification time. A folder as
// source is EISDIR. Checks on the target (exists, read-only) are the caller's.
IoStatus CopyHostFile(const std::string& from, const std::string& to);

// CRC-32 of a whole host file (as the device computes it); empty when it cannot be read.
std::optional<uint32_t> FileCrc32(const std::string& path);

}  // namespace hostbase
