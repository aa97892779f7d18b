#include "processing/QVProcessingHandler.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/plix.h"
#include "platform/winux.h"

namespace {

const int kEventStart = 1;
const int kEventEnd = 2;

// Exact, unlike the host protocol's names.
bool IsTag(const char* tag, const char* name) {
  return tag && strcmp(tag, name) == 0;
}

bool IsOuter(const char* tag) {
  return IsTag(tag, "PreProcessing") || IsTag(tag, "PostProcessing");
}

// Heap copy released with LocalFree, as every heap text of the job is.
char* HeapCopy(const char* text) {
  size_t length = strlen(text);
  char* copy = static_cast<char*>(malloc(length + 1));
  if (copy) memcpy(copy, text, length + 1);
  return copy;
}

const char* Printable(const char* text) {
  return text ? text : "(null)";
}

}  // namespace

CQVProcessingHandler::CQVProcessingHandler()
    : m_pRegistryHandler(new CQVRegistryHandler),
      m_pFileHandler(new CQVFileHandler),
      m_pProcessNames(new std::vector<char*>),
      m_pExeHandler(new CQVExeHandler) {}

CQVProcessingHandler::~CQVProcessingHandler() {
  LogMsg("CQVProcessingHandler::~CQVProcessingHandler !!!!!!!!!!!!!!!!!!\r\n");
  for (char* name : *m_pProcessNames) LocalFree(name);
  delete m_pProcessNames;
  delete m_pRegistryHandler;
  delete m_pFileHandler;
  delete m_pExeHandler;
}

int CQVProcessingHandler::AddProcess(const char* name) {
  if (!name) return 0;
  char* copy = HeapCopy(name);
  if (!copy) return 0;
  try {
    m_pProcessNames->push_back(copy);
  } catch (...) {
    LocalFree(copy);
    return 0;
  }
  return 1;
}

int CQVProcessingHandler::LoadData(CPlixIterator* iterator) {
  if (!iterator) return 0;
  try {
    int event = kEventStart;
    for (;;) {
      CPlixElement* element = iterator->GetElement();
      const char* tag = element ? element->GetTagName() : nullptr;
      if (tag && event == kEventStart) {
        if (IsTag(tag, "Set") || IsTag(tag, "DeleteValue") || IsTag(tag, "DeleteKey")) {
          std::unique_ptr<CQVRegistryEntry> entry(new CQVRegistryEntry(
              tag, element->GetAttribute("KeyName"), element->GetAttribute("ValueName"),
              element->GetAttribute("Value"), element->GetAttribute("Type")));
          if (m_pRegistryHandler->AddEntry(entry.get())) entry.release();
        } else if (IsTag(tag, "Executable")) {
          int32_t wait = IsTag(element->GetAttribute("Wait"), "true") ? 1 : 0;
          std::unique_ptr<CQVExeEntry> entry(
              new CQVExeEntry(element->GetAttribute("Name"), element->GetAttribute("CmdLine"),
                              element->GetAttribute("StartIn"), wait));
          if (m_pExeHandler->AddEntry(entry.get())) entry.release();
        } else if (IsTag(tag, "File")) {
          const char* action = element->GetAttribute("Action");
          const char* name = element->GetAttribute("Name");
          std::unique_ptr<CQVFileEntry> entry;
          if (!action) {
            // No action: nothing to do with this element.
          } else if (IsTag(action, "Save")) {
            if (name) {
              char* copy = HeapCopy(name);
              if (copy && !m_pFileHandler->AddSaveEntry(copy)) LocalFree(copy);
            }
          } else if (IsTag(action, "Delete")) {
            entry.reset(new CQVFileEntry("Delete", name, ""));
          } else if (IsTag(action, "CopyDir")) {
            entry.reset(new CQVFileEntry("CopyDir", element->GetAttribute("SourceDir"),
                                         element->GetAttribute("DestDir")));
          } else {
            const char* dest = element->GetAttribute("Dest");
            LogMsg("File - adding %s, %s, %s\r\n", action, Printable(name), Printable(dest));
            entry.reset(new CQVFileEntry(action, name, dest));
          }
          if (entry && m_pFileHandler->AddEntry(entry.get())) entry.release();
        } else if (IsTag(tag, "StopProcesses")) {
          for (;;) {
            event = iterator->ContinueTraverse();
            if (event != kEventStart && event != kEventEnd) return 0;
            CPlixElement* inner = iterator->GetElement();
            const char* innerTag = inner ? inner->GetTagName() : nullptr;
            if (event == kEventStart && IsTag(innerTag, "Process")) {
              const char* text = inner->GetData();
              if (text) AddProcess(text);
            } else if (event == kEventEnd && IsTag(innerTag, "StopProcesses")) {
              break;
            }
          }
        }
      } else if (tag && event == kEventEnd && IsOuter(tag)) {
        return 0;
      }
      event = iterator->ContinueTraverse();
      // The traversal may end before the outer element closes (a fragment cut short).
      if (event != kEventStart && event != kEventEnd) return 0;
    }
  } catch (...) {
    LogMsg("FileTransferConfiglet - CQVProcessingHandler::LoadData - exception\r\n");
  }
  return 0;
}

void CQVProcessingHandler::DoRegistry() {
  LogMsg("CQVProcessingHandler::DoReigstry ()\r\n");
  try {
    m_pRegistryHandler->DoIt();
  } catch (...) {
    LogMsg("FileTransferConfiglet - CQVProcessingHandler::DoRegistry - exception\r\n");
  }
}

void CQVProcessingHandler::DoFiles() {
  LogMsg("CQVProcessingHandler::DoFiles ()\r\n");
  try {
    m_pFileHandler->DoIt();
  } catch (...) {
    LogMsg("FileTransferConfiglet - CQVProcessingHandler::DoFiles - exception\r\n");
  }
}

void CQVProcessingHandler::DoExes() {
  LogMsg("CQVProcessingHandler::DoExes ()\r\n");
  try {
    FixUpImageUpdateEntries();
    m_pExeHandler->DoIt();
  } catch (...) {
    LogMsg("FileTransferConfiglet - CQVProcessingHandler::DoExes - exception\r\n");
  }
}

void CQVProcessingHandler::FixUpImageUpdateEntries() {
  m_pExeHandler->FixUpImageUpdateEntries();
}

void CQVProcessingHandler::StopProcesses() {
  if (!m_pProcessNames->empty()) {
    HANDLE snapshot = CreateToolhelp32Snapshot(0, 0);
    if (snapshot == INVALID_HANDLE_VALUE || !snapshot) {
      LogMsg("CQVProcessingHandler::QVFindProcesses - CreateToolHelp error, %d\r\n",
             static_cast<int>(GetLastError()));
      return;
    }
    for (const char* name : *m_pProcessNames) QVTerminateProc(snapshot, name);
    LogMsg("CQVProcessingHandler::QVStopProcesses - Closing snapshot\r\n");
    CloseToolhelp32Snapshot(snapshot);
  }
  LogMsg("CQVProcessingHandler::QVStopProcesses - returning\r\n");
}

int CQVProcessingHandler::QVTerminateProc(HANDLE snapshot, const char* name) {
  PROCESSENTRY32 entry;
  memset(&entry, 0, sizeof entry);
  entry.dwSize = sizeof entry;
  LogMsg("CQVProcessingHandler::QVTerminateProc !%s! \r\n", Printable(name));
  if (!QVFindProcess(snapshot, name, &entry)) return 0;
  HANDLE process = OpenProcess(0, FALSE, entry.th32ProcessID);
  if (!process || process == INVALID_HANDLE_VALUE) return 0;
  LogMsg("CQVProcessingHandler::QVTerminateProc, killing it\r\n");
  int ended = TerminateProcess(process, 0) ? 1 : 0;
  CloseHandle(process);
  return ended;
}

int CQVProcessingHandler::QVFindProcess(HANDLE snapshot, const char* name, PROCESSENTRY32* entry) {
  try {
    const char* text = name ? name : "";
    std::vector<wchar_t> wanted(strlen(text) + 1, L'\0');
    QVToTStrW(text, wanted.data(), static_cast<int>(wanted.size()));
    if (!entry) {
      LogMsg("CQVProcessingHandler::QVFindProcesses - entry is null\r\n");
      return 0;
    }
    if (!Process32First(snapshot, entry)) {
      LogMsg("CQVProcessingHandler::QVFindProcesses - Process32First error, %d\r\n",
             static_cast<int>(GetLastError()));
      return 0;
    }
    const size_t capacity = sizeof entry->szExeFile / sizeof entry->szExeFile[0];
    for (;;) {
      size_t length = 0;
      while (length < capacity && entry->szExeFile[length]) ++length;
      // Whole name, exact case: a near miss must never stop the wrong program.
      if (std::wstring(entry->szExeFile, length) == std::wstring(wanted.data())) return 1;
      if (!Process32Next(snapshot, entry)) return 0;
    }
  } catch (...) {
    LogMsg("CQVProcessingHandler::QVFindProcesses - exception\r\n");
  }
  return 0;
}
