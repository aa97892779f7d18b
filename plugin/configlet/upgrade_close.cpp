// The Upgrade group: refusing a second job and starting the one that was built.
#include <cstdio>

#include "config/text.h"
#include "configlet/call_points.h"
#include "configlet/configlet.h"
#include "configlet/protocol_state.h"
#include "engine/completion.h"
#include "engine/job_state.h"
#include "engine/preflight.h"
#include "engine/upgrade_thread.h"
#include "log/LogMsg.h"
#include "platform/winux.h"
#include "report/deploy_state.h"
#include "report/events.h"
#include "report/xq_transport.h"

namespace {

void SendFailedEvent(UpgradeConfig* job, const char* text) {
  SendDeviceEvent(job->GetUniqueId(), QV_EVENT_SYSTEM, QV_EVENT_UPGRADE_FAILED, text);
}

}  // namespace

uint32_t OnUpgradeGroupOpen() {
  if (IsUpgradeInProgress()) {
    LogMsg("Upgrade already in progress\r\n");
    return ICFG_E_IN_PROGRESS;
  }
  m_bDoUpgrade = 1;
  m_bUpgradeInProgress = 1;
  return 0;
}

uint32_t OnUpgradeGroupClose() {
  char testResult[256] = {};
  char message[256] = {};
  DWORD total = 0;
  if (!m_bDoUpgrade) {
    m_bUpgradeInProgress = 0;
    return 0;
  }
  UpgradeConfig* job = gpUpgCfg;
  if (!job) {
    m_bUpgradeInProgress = 0;
    return 0;
  }

  uint32_t rc = 0;
  if (!IsPowerOK()) {
    rc = ICFG_E_POWER;
    FormatText(message, sizeof message, "Power requirement not met, %s, %s", job->GetBundleName(),
               job->GetVersion());
    SendFailedEvent(job, message);
  } else {
    SysLogInit(job->GetSysLogIP(), job->GetSysLogPort());
    LogMsg("FileTransferConfiglet - PerformTests\r\n");
    if (!PerformTests(job, testResult)) {
      FormatText(message, sizeof message, "Upgrade Failed: %s", testResult);
      SetIRIStatus(1, message);
      rc = ICFG_E_TEST_FAILED;
      FormatText(message, sizeof message, "%s, %s, %s", testResult, job->GetBundleName(),
                 job->GetVersion());
      SendFailedEvent(job, message);
    } else {
      LogMsg("FileTransferConfiglet - Cleanup\r\n");
      CleanupDevice(job);
      LogMsg("FileTransferConfiglet - CheckSpace\r\n");
      if (!CheckSpace(job, &total)) {
        rc = ICFG_E_NO_SPACE;
        FormatText(message, sizeof message, "No space available, %s, %s", job->GetBundleName(),
                   job->GetVersion());
        SendFailedEvent(job, "No space available");
      } else {
        LogMsg("FileTransferConfiglet - SetTransferBytes\r\n");
        SetTotalBytesToTransfer(total);
        LogMsg("FileTransferConfiglet - StartUpgradeThread\r\n");
        if (HANDLE worker = StartUpgradeThread(job, 0)) {
          // The worker owns the job now and runs detached.
          CloseHandle(worker);
          gpUpgCfg = nullptr;
          return 0;
        }
        rc = ICFG_E_NO_SPACE;
        FormatText(message, sizeof message, "Failed to start upgrade thread, %s, %s",
                   job->GetBundleName(), job->GetVersion());
        SendFailedEvent(job, "Failed to start upgrade thread");
      }
    }
  }

  Sleep(3000);
  CloseTransferHandle();
  m_bUpgradeInProgress = 0;
  DestroyJob(job);
  gpUpgCfg = nullptr;
  return rc;
}
