// One pre- or post-processing list: registry operations, file operations, programs and the
// processes to stop, built through the group/field protocol (AddEntry, AddProcess) or read from
// an XML fragment (LoadData). The caller chooses the order of the Do* calls.
#pragma once

#include <vector>

#include "platform/wintypes.h"
#include "processing/LList.h"
#include "processing/QVEntries.h"
#include "processing/QVExeHandler.h"
#include "processing/QVFileHandler.h"
#include "processing/QVRegistryHandler.h"

class CPlixIterator;

class CQVProcessingHandler {
 public:
  CQVProcessingHandler();
  ~CQVProcessingHandler();
  CQVProcessingHandler(const CQVProcessingHandler&) = delete;
  CQVProcessingHandler& operator=(const CQVProcessingHandler&) = delete;

  // REQUIRES: the iterator stands on the start of the PreProcessing/PostProcessing element.
  // Reads up to that element's end (or the end of the traversal). Returns 0.
  int LoadData(CPlixIterator* iterator);

  void DoRegistry();
  void DoFiles();
  void DoExes();
  // Ends the first running process of each listed name (exact, case-sensitive).
  void StopProcesses();
  void FixUpImageUpdateEntries();

  // 1 when a process of that image name was found; entry is filled.
  int QVFindProcess(HANDLE snapshot, const char* name, PROCESSENTRY32* entry);
  // 1 when the first process of that image name was ended.
  int QVTerminateProc(HANDLE snapshot, const char* name);

  // Appends a copy of name to the processes to stop. 0 for null or when out of memory.
  int AddProcess(const char* name);
  const std::vector<char*>& GetProcessNames() const { return *m_pProcessNames; }

  CQVRegistryHandler* GetRegistryHandler() { return m_pRegistryHandler; }
  CQVFileHandler* GetFileHandler() { return m_pFileHandler; }
  CQVExeHandler* GetExeHandler() { return m_pExeHandler; }

 private:
  CQVRegistryHandler* m_pRegistryHandler;
  CQVFileHandler* m_pFileHandler;
  std::vector<char*>* m_pProcessNames;
  CQVExeHandler* m_pExeHandler;
};
