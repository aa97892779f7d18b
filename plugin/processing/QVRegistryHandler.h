// Registry operations of a pre/post-processing list. Only "Set" is carried out; "DeleteValue"
// and "DeleteKey" entries are logged and deliberately left undone.
#pragma once

#include "platform/wintypes.h"
#include "processing/LList.h"
#include "processing/QVEntries.h"

class CQVRegistryHandler {
 public:
  CQVRegistryHandler();
  ~CQVRegistryHandler();
  CQVRegistryHandler(const CQVRegistryHandler&) = delete;
  CQVRegistryHandler& operator=(const CQVRegistryHandler&) = delete;

  // Takes ownership. 0 (nothing stored) for null.
  int AddEntry(CQVRegistryEntry* entry);
  // Runs every entry in order; failures are logged and the next entry follows.
  void DoIt();

  // Root code (1 HKCR, 2 HKCU, 3 HKLM, 4 HKU) of the first root name found anywhere in path.
  // 1 on a match, 0 otherwise.
  static int GetRootKeyHandle(const wchar_t* path, HKEY* root);
  // The text after the first backslash (empty without one), pointing into path; null when no
  // root name occurs. *root is 0 unless a root matched.
  static const wchar_t* GetRootKeyHandleAndSubkey(const wchar_t* path, HKEY* root);

  // Entries (CQVRegistryEntry*) in document order.
  const LList& GetList() const { return *m_pList; }

 private:
  LList* m_pList;
};
