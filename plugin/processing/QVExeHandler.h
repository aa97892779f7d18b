// Programs of a pre/post-processing list, and the image-update command-line fix-up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "processing/QVEntries.h"

class CQVExeHandler {
 public:
  CQVExeHandler();
  ~CQVExeHandler();
  CQVExeHandler(const CQVExeHandler&) = delete;
  CQVExeHandler& operator=(const CQVExeHandler&) = delete;

  // Takes ownership. 0 (nothing stored) for null.
  int AddEntry(CQVExeEntry* entry);
  // ExecFile for each entry; returns the number of entries.
  int DoIt();
  // Prepares a program for start (existence, start-in folder). No process is created in this
  // build (see docs/processing.md). Always 1.
  int ExecFile(const char* file, const char* cmdLine, const char* startIn, int32_t wait);
  // Rewrites the command line of every image-update program (path holding UPDATEBIN.EXE).
  void FixUpImageUpdateEntries();
  // Blanks "/QV_Silent", appends " /Force" and sets the update keys. cmdLine is a buffer of
  // capacity bytes; a rewrite that would not fit is refused and changes nothing.
  void FixUpForImageUpdate(char* cmdLine, size_t capacity = kCmdLineSize);

  const std::vector<CQVExeEntry*>& GetEntries() const { return m_Entries; }

  static const size_t kCmdLineSize = 256;

 private:
  std::vector<CQVExeEntry*> m_Entries;
};
