// The records of pre/post-processing: one registry operation, one file operation, one program.
// Texts are fixed arrays; a text longer than its field is refused (the field is left empty and
// the setter returns 0), since a cut path or key could name something the job never meant.
#pragma once

#include <cstdint>

class CQVRegistryEntry {
 public:
  static const int kOperationSize = 12;
  static const int kTextSize = 256;

  CQVRegistryEntry();
  // Null arguments leave their fields empty.
  CQVRegistryEntry(const char* operation, const char* keyName, const char* valueName,
                   const char* value, const char* type);

  char* GetOperation() { return m_szOperation; }
  char* GetKeyName() { return m_szKeyName; }
  char* GetValueName() { return m_szValueName; }
  char* GetValue() { return m_szValue; }
  char* GetType() { return m_szType; }

  // 1 when stored; 0 when too long (field emptied). Null empties the field.
  int SetOperation(const char* text);
  int SetKeyName(const char* text);
  int SetValueName(const char* text);
  int SetValue(const char* text);
  int SetType(const char* text);

  // Five log lines describing the entry.
  void LogIt();

 private:
  char m_szOperation[kOperationSize];
  char m_szKeyName[kTextSize];
  char m_szValueName[kTextSize];
  char m_szValue[kTextSize];
  char m_szType[kOperationSize];
};

class CQVFileEntry {
 public:
  static const int kOperationSize = 12;
  static const int kTextSize = 256;

  CQVFileEntry();
  CQVFileEntry(const char* operation, const char* source, const char* dest);

  char* GetOperation() { return m_szOperation; }
  char* GetSource() { return m_szSource; }
  char* GetDest() { return m_szDest; }

  int SetOperation(const char* text);
  int SetSource(const char* text);
  int SetDest(const char* text);

 private:
  char m_szOperation[kOperationSize];
  char m_szSource[kTextSize];
  char m_szDest[kTextSize];
};

class CQVExeEntry {
 public:
  static const int kTextSize = 256;

  // Empty texts, wait 1.
  CQVExeEntry();
  CQVExeEntry(const char* file, const char* cmdLine, const char* startIn, int32_t wait);

  char* GetFile() { return m_szFile; }
  char* GetCmdLine() { return m_szCmdLine; }
  char* GetStartIn() { return m_szStartIn; }
  int32_t GetWait() const { return m_iWait; }

  int SetFile(const char* text);
  int SetCmdLine(const char* text);
  int SetStartIn(const char* text);
  void SetWait(int32_t wait) { m_iWait = wait; }

 private:
  char m_szFile[kTextSize];
  int32_t m_iWait;
  char m_szStartIn[kTextSize];
  char m_szCmdLine[kTextSize];
};
