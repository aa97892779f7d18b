#include "engine/startup.h"

#include <cstdio>

#include "config/UpgradeConfig.h"
#include "config/text.h"
#include "engine/file_list.h"
#include "engine/job_state.h"
#include "engine/settings_store.h"
#include "log/LogMsg.h"
#include "log/display.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "report/deploy_state.h"
#include "report/events.h"

// The device configuration names these; each fits the device's 11-character limit.
const char* const kStartupPrograms[3] = {"Setup.exe", "Install.exe", "Startup.exe"};
const char kTransferAgent[] = "QVTransferAgent.exe";

namespace {

const wchar_t kAgentKey[] = L"\\SOFTWARE\\Tervalon\\DevMgmt\\QVTransferAgent";
const wchar_t kAgentMarker[] = L"\\Flash File Store\\QVPB\\_qvTransferAgent.xml";

bool IsStartupProgram(const char* name) {
  for (const char* program : kStartupPrograms)
    if (_stricmp(name, program) == 0) return true;
  return false;
}

void EndProcess(DWORD id) {
  HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, id);
  if (!process) return;
  TerminateProcess(process, 0);
  CloseHandle(process);
}

}  // namespace

int WaitForStartupProcesses() {
  DWORD limit = 9;
  DWORD configured = 0;
  if (StoreGetDWORD(kAgentKey, L"KillWaitLoopCnt", &configured) == 0 && configured != 0)
    limit = configured;
  DWORD agentWaits = 0;
  bool waited = false;
  bool busy;
  do {
    busy = false;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE || !snapshot) {
      LogMsg("AreStartupProcessesRunning - CreateToolHelp error, %d\r\n",
             static_cast<int>(GetLastError()));
      return 0;
    }
    LogMsg("RunningProcesses...\r\n");
    PROCESSENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32First(snapshot, &entry); more;
         more = Process32Next(snapshot, &entry)) {
      char name[256 * 4];
      QVToASCIIStringW(entry.szExeFile, name, sizeof name);
      LogMsg("%s\r\n", name);
      if (IsStartupProgram(name)) {
        busy = true;
        break;
      }
      if (_stricmp(name, kTransferAgent) == 0) {
        busy = true;
        if (++agentWaits > limit) {
          if (Exists(kAgentMarker)) {
            DWORD complete = 0;
            StoreGetDWORD(kAgentKey, L"Complete", &complete);
            if (complete) {
              LogMsg("AreStartupProcessesRunning, killing QVTransferAgent after QVPB\r\n");
              EndProcess(entry.th32ProcessID);
            }
          } else {
            LogMsg("AreStartupProcessesRunning, killing QVTransferAgent\r\n");
            EndProcess(entry.th32ProcessID);
          }
        }
        break;
      }
    }
    if (busy) {
      if (!waited) {
        waited = true;
        LogMsg("Setting Autodeply to 101 to restart provisioning\r\n");
        SetAutoDeployState("101");
        SetIRIStatus(4, "Device Waiting");
        Sleep(1000);
      }
      OutputGUIMsgA("Waiting for device");
      LogMsg("Waiting for device startup\r\n");
      Sleep(10000);
    }
    CloseToolhelp32Snapshot(snapshot);
  } while (busy);

  if (waited) SetAutoDeployState("0");
  SetIRIStatus(4, "Device Upgrading");
  char text[512];
  FormatText(text, sizeof text, "%s, %s", m_pUpgCfg->GetBundleName(), m_pUpgCfg->GetVersion());
  SendDeviceEvent(m_pUpgCfg->GetUniqueId(), QV_EVENT_SYSTEM, QV_EVENT_UPGRADE_STARTED, text);
  Sleep(1000);
  return 0;
}

DWORD ResetIdleTimeThread(LPVOID) {
  const wchar_t kPowerKey[] = L"\\SYSTEM\\CurrentControlSet\\Control\\Power";
  DWORD interval = 45;
  DWORD first = 0, second = 0;
  StoreGetDWORD(kPowerKey, L"ExtPowerOff", &first);
  StoreGetDWORD(kPowerKey, L"ExtPowerOff", &second);
  if (second < interval) interval = second;
  if (first < interval) interval = first;
  if (interval == 0) interval = 15;
  interval *= 1000;
  for (;;) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    wchar_t text[24];
    GetTimeFormat(0, 0, &now, L"hh:mm:ss tt", text, 24);
    Sleep(interval);
  }
}
