// The Upgrade group: refusing a second job and starting the one that was built.
// CALL POINTS for the engine: IsUpgradeInProgress / m_bUpgradeInProgress, IsPowerOK,
// SysLogInit, PerformTests, CleanupDevice, CheckSpace, SetTotalBytesToTransfer,
// StartUpgradeThread, SendDeviceEvent, SetIRIStatus, CloseTransferHandle.
#include "configlet/call_points.h"
#include "configlet/configlet.h"
#include "configlet/protocol_state.h"
#include "log/LogMsg.h"

namespace {
// Stands in for the engine's m_bUpgradeInProgress until the engine is wired here.
int32_t s_bUpgradeInProgress = 0;
}  // namespace

uint32_t OnUpgradeGroupOpen() {
  if (s_bUpgradeInProgress) {
    LogMsg("Upgrade already in progress\r\n");
    return ICFG_E_IN_PROGRESS;
  }
  m_bDoUpgrade = 1;
  s_bUpgradeInProgress = 1;
  return 0;
}

uint32_t OnUpgradeGroupClose() {
  if (!m_bDoUpgrade) {
    s_bUpgradeInProgress = 0;
    return 0;
  }
  // CALL POINT: the start sequence (power check, pre-flight tests, clean-up, space check, byte
  // total, StartUpgradeThread, failure ending). Until the engine provides it the job stays with
  // the protocol and no upgrade is counted as running.
  LogMsg("FileTransferConfiglet - Upgrade - start sequence not available\r\n");
  s_bUpgradeInProgress = 0;
  return 0;
}
