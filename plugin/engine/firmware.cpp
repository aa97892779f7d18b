#include "engine/firmware.h"

#include <cstdio>
#include <cstring>

#include "config/UpgradeConfig.h"
#include "config/text.h"
#include "engine/file_list.h"
#include "engine/job_state.h"
#include "engine/passes.h"
#include "log/LogMsg.h"
#include "log/display.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "report/deploy_state.h"

namespace {

bool OnStorageCard(const char* path) {
  return strncmp(path, "\\SDMMC Disk", 11) == 0 || strncmp(path, "\\Storage Card", 13) == 0 ||
         strncmp(path, "\\SD Card", 8) == 0;
}

int Fetch(UpgradeConfig* job, char* source, char* destination) {
  return GetFile(const_cast<char*>(job->GetBaseURL()), source, destination,
                 static_cast<DWORD>(job->GetHTTPPort()), 0);
}

}  // namespace

int LoadOSFiles() {
  UpgradeConfig* job = m_pUpgCfg;
  OutputGUIMsgA("Server = !%s!", job->GetBaseURL());
  LogMsg("Server = !%s!", job->GetBaseURL());
  DWORD pass = GetCurrentPass();
  for (FirmwarePackage* pkg : job->GetFirmwarePkgs()) {
    if (!pkg) continue;
    if (job->IsMultiPass() &&
        static_cast<DWORD>(GetPassFromParms(pkg->getAdditionalParms())) != pass)
      continue;
    char source[512], destination[512];
    int fragments = pkg->getFragFileCount();
    if (fragments == 0) {
      if (!pkg->getFragFileBase()[0]) continue;
      FormatText(source, sizeof source, "%s%s", pkg->getFragFilePath(), pkg->getFragFileBase());
      FormatText(destination, sizeof destination, "%s%s", pkg->getFragFileDestDir(),
                 pkg->getFragFileBase());
      if (OnStorageCard(destination) && !g_bGoodSDCard) continue;
      if (strstr(destination, "RAM:")) SetMemoryDivision(0.5f);
      if (pkg->getFlashWriterParms()[0]) job->AppendFlashWriterParms(pkg->getFlashWriterParms());
      OutputGUIMsgA("%s", destination);
      if (!Fetch(job, source, destination)) LogMsg("Error getting file %s\r\n", source);
      continue;
    }
    for (int k = 1; k <= fragments; ++k) {
      FormatText(source, sizeof source, "%s%s%03d.zip", pkg->getFragFilePath(),
                 pkg->getFragFileBase(), k);
      FormatText(destination, sizeof destination, "%s%s%03d.zip", pkg->getFragFileDestDir(),
                 pkg->getFragFileBase(), k);
      if (k == 1 && pkg->getFlashWriterParms()[0])
        job->AppendFlashWriterParms(pkg->getFlashWriterParms());
      OutputGUIMsgA("%s", destination);
      if (!Fetch(job, source, destination)) LogMsg("Error getting file %s\r\n", source);
    }
  }
  return 1;
}

int LoadSomeFiles() {
  UpgradeConfig* job = m_pUpgCfg;
  int rc = 1;
  for (tagDownloadFile* file : job->GetDownloadFiles()) {
    if (!file) continue;
    OutputGUIMsgA("%s", file->m_szDestFile);
    rc = Fetch(job, file->m_szSourceFile, file->m_szDestFile);
    if (!rc) LogMsg("Error getting some file %s\r\n", file->m_szSourceFile);
  }
  return rc;
}

void StartUpgrade(UpgradeConfig* cfg) {
  char name[256];
  FormatText(name, sizeof name, "%s", cfg->GetProcessName());
  if (!name[0]) return;
  char parms[256];
  FormatText(parms, sizeof parms, "%s", cfg->GetProcessParms());
  LogMsg("%s\r\n", name);
  if (parms[0]) LogMsg("%s\r\n", parms);
  OutputGUIMsgA("%s", name);
  SetIRIStatus(4, "Remote Executable Started");
  if (cfg->GetShowGUI() == 1) Sleep(2000);

  MEMORYSTATUS status = {};
  status.dwLength = sizeof status;
  GlobalMemoryStatus(&status);
  LogMsg("Available physical memory %ld\r\n", static_cast<long>(status.dwAvailPhys));
  LogMsg("Memory Load %ld\r\n", static_cast<long>(status.dwMemoryLoad));

  if (cfg->GetProcessWait()) {
    LogMsg("Starting !%s! with !%s!, waiting\r\n", name, parms);
    if (QVStartProcessAndWait(name, parms, -1) != 0) LogMsg("Start process with wait failed\r\n");
  } else {
    LogMsg("Starting !%s! with !%s!, not waiting\r\n", name, parms);
    if (QVStartProcessAndWait(name, parms, 0) != 0)
      LogMsg("Start process with no wait wait failed\r\n");
  }
}

int KillAnExe(char* path) {
  char drive[16], dir[256], name[256], ext[64];
  TVLFileSplitPathA(path, drive, sizeof drive, dir, sizeof dir, name, sizeof name, ext, sizeof ext);
  if (_stricmp(ext, "exe") == 0) return 0;
  char exe[300];
  FormatText(exe, sizeof exe, "%s.exe", name);
  LogMsg("Killing !%s!\r\n", exe);
  return QVTerminateProc(exe);
}
