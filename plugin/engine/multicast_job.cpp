#include "engine/multicast_job.h"

#include <cstdio>

#include "config/UpgradeConfig.h"
#include "engine/job_state.h"
#include "log/LogMsg.h"
#include "transfer/multicast.h"

void StartMulticastClient(UpgradeConfig* config) {
  char parameters[256] = {0};
  snprintf(parameters, sizeof parameters, "%s", config ? config->GetMCProcessParms() : "");
  if (parameters[0]) RunMulticastReceiver(parameters, sizeof parameters, BumpOverallProgress);
  LogMsg("FileTransferConfiglet - StartMulticastClient - Exiting\r\n");
}
