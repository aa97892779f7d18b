// File operations of a pre/post-processing list: rename, copy, folder-tree copy, and deletion
// of a file or of everything under a folder, sparing the "Save" paths.
#pragma once

#include <vector>

#include "processing/QVEntries.h"

class CQVFileHandler {
 public:
  CQVFileHandler();
  ~CQVFileHandler();
  CQVFileHandler(const CQVFileHandler&) = delete;
  CQVFileHandler& operator=(const CQVFileHandler&) = delete;

  // Take ownership. 0 (nothing stored) for null. A save path must come from malloc/strdup
  // (it is released with LocalFree).
  int AddEntry(CQVFileEntry* entry);
  int AddSaveEntry(char* path);

  // Runs every entry in order; returns the number of entries.
  int DoIt();
  // Deletes one file (a path holding '.'), or everything under a folder except read-only files
  // and save paths; the folder itself stays.
  void RemoveFiles(const char* path);
  // Copies the tree under from into to, overwriting. 1 on success; stops at the first failure.
  int CopyDirectory(const wchar_t* from, const wchar_t* to);

  static int Exists(const wchar_t* path);
  // Creates the folder and any missing parents. 1 when it exists afterwards.
  static int MakeSureFolderExists(const wchar_t* path);
  static int IsDots(const wchar_t* name);

  const std::vector<CQVFileEntry*>& GetEntries() const { return m_Entries; }
  const std::vector<char*>& GetSaveEntries() const { return m_SaveEntries; }

 private:
  std::vector<CQVFileEntry*> m_Entries;
  std::vector<char*> m_SaveEntries;
};
