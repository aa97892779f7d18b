#include "processing/QVExeHandler.h"

#include <cstdio>
#include <cstring>

#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/hostclasses.h"
#include "processing/QVFileHandler.h"

namespace {
const int kPathChars = 256;
const char kSilentSwitch[] = "/QV_Silent";
const char kForceSwitch[] = " /Force";
}  // namespace

CQVExeHandler::CQVExeHandler() {}

CQVExeHandler::~CQVExeHandler() {
  for (CQVExeEntry* entry : m_Entries) delete entry;
  m_Entries.clear();
}

int CQVExeHandler::AddEntry(CQVExeEntry* entry) {
  if (!entry) return 0;
  m_Entries.push_back(entry);
  return 1;
}

int CQVExeHandler::DoIt() {
  for (CQVExeEntry* entry : m_Entries) {
    if (entry)
      ExecFile(entry->GetFile(), entry->GetCmdLine(), entry->GetStartIn(), entry->GetWait());
  }
  return static_cast<int>(m_Entries.size());
}

int CQVExeHandler::ExecFile(const char* file, const char* cmdLine, const char* startIn,
                            int32_t wait) {
  wchar_t fileW[kPathChars] = {};
  wchar_t startInW[kPathChars] = {};
  wchar_t cmdLineW[kPathChars] = {};
  if (!file) return 1;
  QVToTStrW(file, fileW, kPathChars);
  if (!CQVFileHandler::Exists(fileW)) {
    LogMsg("FileTransferConfiglet - Can not start %S, does not exist\r\n", fileW);
    return 1;
  }
  if (startIn) {
    QVToTStrW(startIn, startInW, kPathChars);
    CQVFileHandler::MakeSureFolderExists(startInW);
  }
  if (cmdLine) QVToTStrW(cmdLine, cmdLineW, kPathChars);
  // Programs are prepared but not started in this build; docs/processing.md describes the
  // launch a device build adds here.
  (void)wait;
  return 1;
}

void CQVExeHandler::FixUpImageUpdateEntries() {
  for (CQVExeEntry* entry : m_Entries) {
    if (!entry) continue;
    char upper[kPathChars] = {};
    snprintf(upper, sizeof upper, "%s", entry->GetFile());
    for (char* c = upper; *c; ++c)
      if (*c >= 'a' && *c <= 'z') *c = static_cast<char>(*c - 'a' + 'A');
    if (!strstr(upper, "UPDATEBIN.EXE")) continue;
    char cmdLine[kCmdLineSize] = {};
    snprintf(cmdLine, sizeof cmdLine, "%s", entry->GetCmdLine());
    FixUpForImageUpdate(cmdLine, sizeof cmdLine);
    entry->SetCmdLine(cmdLine);
  }
}

void CQVExeHandler::FixUpForImageUpdate(char* cmdLine, size_t capacity) {
  if (!cmdLine || capacity == 0) return;
  char* silent = strstr(cmdLine, kSilentSwitch);
  if (!silent) return;
  if (strlen(cmdLine) + strlen(kForceSwitch) >= capacity) {
    LogMsg("CQVExeHandler::FixUpForImageUpdate - command line too long, left as it is\r\n");
    return;
  }
  memset(silent, ' ', strlen(kSilentSwitch));
  strcat(cmdLine, kForceSwitch);

  Registry registry;
  if (!registry.CreateKey("HKEY_LOCAL_MACHINE\\System\\ImageUpdate\\UpdateApp")) {
    LogMsg(
        "CQVExeHandler::FixUpForImageUpdate - Error creating "
        "System\\ImageupUpdate\\UpdateApp reg key\r\n");
    return;
  }
  if (!registry.SetNumber("HKEY_LOCAL_MACHINE\\System\\ImageUpdate\\UpdateApp\\SilentInstall", 1)) {
    LogMsg("CQVExeHandler::FixUpForImageUpdate - Error setting SilentInstall key value\r\n");
    return;
  }
  if (!registry.SetString("HKEY_LOCAL_MACHINE\\Init\\Launch130", "nSI.exe"))
    LogMsg("CQVExeHandler::FixUpForImageUpdate - Error setting key update launch key\r\n");
}
