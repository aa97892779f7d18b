#include "engine/upgrade_thread.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <mutex>

#include "bundles/bundle_records.h"
#include "config/UpgradeConfig.h"
#include "config/text.h"
#include "engine/completion.h"
#include "engine/file_list.h"
#include "engine/firmware.h"
#include "engine/job_state.h"
#include "engine/multicast_job.h"
#include "engine/passes.h"
#include "engine/preflight.h"
#include "engine/startup.h"
#include "log/LogMsg.h"
#include "log/display.h"
#include "platform/helpers.h"
#include "platform/hwid.h"
#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"
#include "report/deploy_state.h"
#include "report/events.h"
#include "report/xq_transport.h"
#include "transfer/CHTTPClient.h"

namespace {

const char kDeviceUpgrading[] = "Device Upgrading";
// The worker keeps its buffers on its stack.
const DWORD kUpgradeThreadStack = 786432;

// A finishing worker may destroy its job while the host thread hands the next one over.
std::mutex gRunningJobMutex;

// The job is over once the power check has failed: tell the server. The job record stays, as
// does logging; the path is dormant while the power check always passes.
void PowerFailure(UpgradeConfig* job) {
  SetIRIStatus(1, "Upgrade Failed - Power requirement not met");
  char text[256];
  FormatText(text, sizeof text, "Power requirement not met, %s, %s", job->GetBundleName(),
             job->GetVersion());
  SendDeviceEvent(job->GetUniqueId(), QV_EVENT_SYSTEM, QV_EVENT_UPGRADE_FAILED, text);
  m_bUpgradeInProgress = 0;
  SendUpgradeComplete(const_cast<char*>("Upgrade Failed - Power requirement not met"), nullptr,
                      const_cast<char*>(job->GetUniqueId()), const_cast<char*>(job->GetBaseURL()),
                      static_cast<DWORD>(job->GetHTTPPort()));
}

void PreProcessingSteps(CQVProcessingHandler* pre) {
  SetMemoryDivision(0.9f);
  LogMsg("StopProcesses\r\n");
  pre->StopProcesses();
  LogMsg("DoFiles\r\n");
  pre->DoFiles();
  LogMsg("DoExes\r\n");
  pre->DoExes();
  LogMsg("DoReigstry\r\n");
  pre->DoRegistry();
}

void ProbeStorageCard() {
  g_bGoodSDCard = IsSDCardValid(const_cast<char*>("\\SDMMC Disk"));
  if (!g_bGoodSDCard) g_bGoodSDCard = IsSDCardValid(const_cast<char*>("\\Storage Card"));
  if (!g_bGoodSDCard) g_bGoodSDCard = IsSDCardValid(const_cast<char*>("\\SD Card"));
}

// Returns the tests' outcome; the files are fetched only when they pass.
int UpgradeClientSequence(UpgradeConfig* job, char* errorText, int* option) {
  LogMsg("UpgradeClient Mode...");
  if (!PerformTests(job, errorText)) return 0;
  CHTTPClient::SetFallBackMode(0);
  m_iXferedFileCount = 1;
  m_iFileCount = static_cast<int>(GetFileCountToDownload());
  OutputGUIMsgA("Cleaning device...");
  CleanupDevice(job);
  SetMemoryDivision(0.9f);
  if (CQVProcessingHandler* pre = job->GetPreProcessing()) {
    pre->StopProcesses();
    pre->DoRegistry();
    pre->DoFiles();
    pre->DoExes();
  }
  InitRAMForUpgClient(job, option);
  LogMsg("Processing OS files...");
  OutputGUIMsgA("Processing OS files");
  LoadOSFiles();
  if (job->GetShowGUI() == 1) Sleep(2000);
  LogMsg("Processing misc files\r\n");
  OutputGUIMsgA("Processing misc files...");
  LoadSomeFiles();
  if (job->GetShowGUI() == 1) Sleep(2000);
  return 1;
}

void FallbackSequence(UpgradeConfig* job, int* option) {
  LogMsg("Multicast Fallback Mode...");
  CHTTPClient::SetFallBackMode(1);
  m_iXferedFileCount = 1;
  m_iFileCount = 1;
  LogMsg("FileTransferConfiglet - UpgradeThread - Validate Files\r\n");
  OutputGUIMsgA("Validating files");
  ValidateFiles(job, option);
  LogMsg("FileTransferConfiglet - Rename settings file\r\n");
  RenameSettingsFile(job);
}

}  // namespace

HANDLE StartUpgradeThread(UpgradeConfig* cfg, int bUpgradeClient) {
  m_bUpgradeClient = bUpgradeClient;
  if (bUpgradeClient) {
    wchar_t text[128];
    swprintf(text, 128, L"%s, %s", cfg->GetMfgString(), cfg->GetSerialNumber());
    SetStatusText(text);
  }
  {
    std::lock_guard<std::mutex> lock(gRunningJobMutex);
    m_pUpgCfg = cfg;
  }
  DWORD id = 0;
  return CreateThread(nullptr, kUpgradeThreadStack, UpgradeThread, cfg, 0, &id);
}

void DestroyJob(UpgradeConfig* job) {
  {
    std::lock_guard<std::mutex> lock(gRunningJobMutex);
    if (m_pUpgCfg == job) m_pUpgCfg = nullptr;
  }
  delete job;
}

void SaveNetworkSettings() {}
void LoadNetworkSettings() {}

DWORD UpgradeThread(LPVOID param) {
  UpgradeConfig* job = static_cast<UpgradeConfig*>(param);
  int success = 1;
  DWORD pass = 0;
  char errorText[256] = {};
  char finalText[256] = {};
  char passText[64];
  HANDLE idleThread = nullptr;
  int option = 0;
  FormatText(finalText, sizeof finalText, "%s", kDeviceUpgrading);

  SysLogInit(job->GetSysLogIP(), job->GetSysLogPort());
  CHTTPClient::SetBundleRxBytes(0);

  if (!IsPowerOK()) {
    PowerFailure(job);
    return 0;
  }

  AddVersionForDevMon();
  LogMsg("FileTransferConfiglet thread - Started\r\n");
  OutputGUIMsgA("Upgrade Initialization...");
  CreateUpgradeInProgressEvent();
  SetBacklightRequirement(1);

  idleThread = CreateThread(nullptr, 0, ResetIdleTimeThread, nullptr, 0, nullptr);

  m_dwBytesTransfered = 0;
  SetProgress2(2);
  FormatText(finalText, sizeof finalText, "%s", kDeviceUpgrading);

  WaitForStartupProcesses();

  if (!job->IsMultiPass()) {
    ClearPassSetting();
    SetCurrentPass(0);
    pass = 1;
  } else {
    pass = GetCurrentPass() + 1;
    SetCurrentPass(pass);
    FormatText(passText, sizeof passText, "Start, CurrentPass = %d", static_cast<int>(pass));
    OutputGUIMsgA("%s", passText);
  }

  LogMsg("FileTransferConfiglet - UpgradeThread - InitRAM\r\n");
  InitRAM(job);
  LoadNetworkSettings();

  if (m_bUpgradeClient == 0 && job->GetPreProcessing()) PreProcessingSteps(job->GetPreProcessing());

  if (job->GetMCProcessParms()[0]) {
    OutputGUIMsgA("Starting FileXfer");
    LogMsg("FileTransferConfiglet - UpgradeThread - StartMulticastClient\r\n");
    StartMulticastClient(job);
    LogMsg("Multicast complete - main logic...");
    SetProgress1(0);
  }

  ProbeStorageCard();

  if (m_bUpgradeClient)
    success = UpgradeClientSequence(job, errorText, &option);
  else
    FallbackSequence(job, &option);

  if (job->IsMultiPass() && success) {
    if (m_pUpgCfg->GetFamily()[0] == 'Z' && pass == 1) {
      OutputGUIMsgA("Saving Network Parms...");
      SaveNetworkSettings();
    }
  } else {
    ClearPassSetting();
  }

  LogMsg("before SendUpgradeComplete, %s, %d\r\n", job->GetBaseURL(),
         static_cast<int>(job->GetHTTPPort()));
  SendUpgradeComplete(errorText, nullptr, const_cast<char*>(job->GetUniqueId()),
                      const_cast<char*>(job->GetBaseURL()), static_cast<DWORD>(job->GetHTTPPort()));

  if (success) {
    SetBundleNameForAssetMsg(job->GetVersion(), job->GetBundleName());
    if (CQVProcessingHandler* post = job->GetPostProcessing()) {
      post->DoRegistry();
      post->DoFiles();
      post->DoExes();
    }
  }

  if (success) {
    Sleep(10000);
    LogMsg("Local Upgrade Executing - Calling StartUpgrade\r\n");
    StartUpgrade(job);
    LogMsg("Local Upgrade Completed StartUpgrade\r\n");
  } else {
    // Deliberately an argument, never the format: a '%' in a registry test's message would
    // otherwise be read as a conversion.
    OutputGUIMsgA("%s", errorText);
    LogMsg("%s", errorText);
  }

  LogMsg("FileTransferConfiglet - UpgradeThread - Exiting\r\n");
  OutputGUIMsgA("Upgrade Complete");
  CompleteProgress2();
  SysLogClose();

  UpgradeConfig* cfg = m_pUpgCfg;
  if (success) {
    LogMsg("FileTransferConfiglet - UpgradeThread - Send Upgrade complete event\r\n");
    FormatText(finalText, sizeof finalText, "%s, %s", cfg->GetBundleName(), cfg->GetVersion());
    SendDeviceEvent(cfg->GetUniqueId(), QV_EVENT_SYSTEM, QV_EVENT_UPGRADE_COMPLETE, finalText);
    if (cfg->GetUpgEndMsg()[0])
      FormatText(finalText, sizeof finalText, "%s", cfg->GetUpgEndMsg());
    else
      FormatText(finalText, sizeof finalText, "Upgrade Complete");
  } else {
    LogMsg("FileTransferConfiglet - UpgradeThread - Send Upgrade failed event\r\n");
    FormatText(finalText, sizeof finalText, "%s, %s, %s", errorText, cfg->GetBundleName(),
               cfg->GetVersion());
    SendDeviceEvent(cfg->GetUniqueId(), QV_EVENT_SYSTEM, QV_EVENT_UPGRADE_FAILED, finalText);
    FormatText(finalText, sizeof finalText, "Upgrade Failed: %s", errorText);
  }

  if (job->GetReboot() && IsProvisioning()) {
    LogMsg("Setting AutoDeploy to 10\r\n");
    SetAutoDeployState("10");
  }
  Sleep(1000);

  LogMsg("FileTransferConfiglet - UpgradeThread - Send final IRI status\r\n");
  SetIRIStatus(1, finalText);

  m_bUpgradeInProgress = 0;
  SetBacklightRequirement(0);
  // The timer thread is killed, never asked to stop.
  if (idleThread) {
    TerminateThread(idleThread, 0);
    CloseHandle(idleThread);
  }
  DeleteUpgradeInProgressEvent();

  LogMsg("FileTransferConfiglet - UpgradeThread - cleanup http\r\n");
  CleanupHTTPClient();
  CloseTransferHandle();

  int reboot = job->GetReboot();
  if (success && reboot) {
    LogMsg("Rebooting...\r\n");
    TVLHWID::Reboot(1);
  }

  DestroyJob(job);
  Sleep(2000);
  LogMsg("FileTransferConfiglet - UpgradeThread - final exit\r\n");
  return 0;
}
