#include "processing/QVEntries.h"

#include <cstring>

#include "log/LogMsg.h"

namespace {

// Bounded copy that refuses rather than cuts.
int CopyField(char* field, size_t capacity, const char* text) {
  field[0] = '\0';
  if (!text) return 1;
  size_t length = 0;
  while (length < capacity && text[length]) ++length;
  if (length >= capacity) {
    LogMsg("FileTransferConfiglet - CQVEntry - text longer than %d characters refused\r\n",
           static_cast<int>(capacity - 1));
    return 0;
  }
  memcpy(field, text, length + 1);
  return 1;
}

}  // namespace

CQVRegistryEntry::CQVRegistryEntry() {
  m_szOperation[0] = m_szKeyName[0] = m_szValueName[0] = m_szValue[0] = m_szType[0] = '\0';
}

CQVRegistryEntry::CQVRegistryEntry(const char* operation, const char* keyName,
                                   const char* valueName, const char* value, const char* type) {
  SetOperation(operation);
  SetKeyName(keyName);
  SetValueName(valueName);
  SetValue(value);
  SetType(type);
}

int CQVRegistryEntry::SetOperation(const char* text) {
  return CopyField(m_szOperation, sizeof m_szOperation, text);
}
int CQVRegistryEntry::SetKeyName(const char* text) {
  return CopyField(m_szKeyName, sizeof m_szKeyName, text);
}
int CQVRegistryEntry::SetValueName(const char* text) {
  return CopyField(m_szValueName, sizeof m_szValueName, text);
}
int CQVRegistryEntry::SetValue(const char* text) {
  return CopyField(m_szValue, sizeof m_szValue, text);
}
int CQVRegistryEntry::SetType(const char* text) {
  return CopyField(m_szType, sizeof m_szType, text);
}

void CQVRegistryEntry::LogIt() {
  LogMsg("CQVRegistryEntry.m_szOperation = !%s!\r\n", m_szOperation);
  LogMsg("CQVRegistryEntry.m_szKeyName = !%s!\r\n", m_szKeyName);
  // Type before value name: readers of existing logs expect this order.
  LogMsg("CQVRegistryEntry.m_szType = !%s!\r\n", m_szType);
  LogMsg("CQVRegistryEntry.m_szValueName = !%s!\r\n", m_szValueName);
  LogMsg("CQVRegistryEntry.m_szValue = !%s!\r\n\r\n", m_szValue);
}

CQVFileEntry::CQVFileEntry() {
  m_szOperation[0] = m_szSource[0] = m_szDest[0] = '\0';
}

CQVFileEntry::CQVFileEntry(const char* operation, const char* source, const char* dest) {
  SetOperation(operation);
  SetSource(source);
  SetDest(dest);
}

int CQVFileEntry::SetOperation(const char* text) {
  return CopyField(m_szOperation, sizeof m_szOperation, text);
}
int CQVFileEntry::SetSource(const char* text) {
  return CopyField(m_szSource, sizeof m_szSource, text);
}
int CQVFileEntry::SetDest(const char* text) {
  return CopyField(m_szDest, sizeof m_szDest, text);
}

CQVExeEntry::CQVExeEntry() : m_iWait(1) {
  m_szFile[0] = m_szStartIn[0] = m_szCmdLine[0] = '\0';
}

CQVExeEntry::CQVExeEntry(const char* file, const char* cmdLine, const char* startIn, int32_t wait)
    : m_iWait(wait) {
  SetFile(file);
  SetStartIn(startIn);
  SetCmdLine(cmdLine);
}

int CQVExeEntry::SetFile(const char* text) {
  return CopyField(m_szFile, sizeof m_szFile, text);
}
int CQVExeEntry::SetCmdLine(const char* text) {
  return CopyField(m_szCmdLine, sizeof m_szCmdLine, text);
}
int CQVExeEntry::SetStartIn(const char* text) {
  return CopyField(m_szStartIn, sizeof m_szStartIn, text);
}
