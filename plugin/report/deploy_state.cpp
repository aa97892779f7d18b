#include "report/deploy_state.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "log/LogMsg.h"
#include "report/send_up.h"
#include "report/xq_transport.h"

namespace {

#define TABS7 "\t\t\t\t\t\t\t"
#define BLANKS24 "                        "
#define BLANKS3 "   "

// The server's parser has always seen this exact white space.
const char kAutoDeployTemplate[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" TABS7 "<DevInfo Action=\"Set\">" TABS7 BLANKS3
    "<Subsystem Name=\"AutoDeploy\">" BLANKS24 "\t\t" BLANKS3
    "<Group Name=\"Info\">"
    "\t\t\t" BLANKS24 "<Field Name=\"Settings Installed\">%s</Field>" BLANKS24 "\t\t" BLANKS3
    "</Group>" BLANKS24 "</Subsystem>" TABS7 "</DevInfo>";
static_assert(sizeof(kAutoDeployTemplate) - 1 == 314, "AutoDeploy template changed");

const char kReadyToWorkTemplate[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>" TABS7 "<DevInfo Action=\"Set\">" TABS7 BLANKS3
    "<Subsystem Name=\"QV_Client\">" BLANKS24 "\t\t" BLANKS3
    "<Group Name=\"Ready-to-Work\">"
    "\t\t\t" BLANKS24
    "<Field Name=\"State\">%d</Field>"
    "\t\t\t" BLANKS24 "<Field Name=\"Reason\">%s</Field>" BLANKS24 "\t\t" BLANKS3
    "</Group>" BLANKS24 "</Subsystem>" TABS7 "</DevInfo>";
static_assert(sizeof(kReadyToWorkTemplate) - 1 == 367, "ready-to-work template changed");

#undef TABS7
#undef BLANKS24
#undef BLANKS3

// Holds either template with the longest reason a caller builds (error text, bundle name and
// version); longer values are cut rather than overrun.
char g_szCfgData[4096];
std::mutex g_cfgLock;

void SendCfgData(bool logViaXQ) {
  uint32_t length = static_cast<uint32_t>(strlen(g_szCfgData) + 1);
  if (SendUpMessage(g_szCfgData, length) != 0) return;
  if (logViaXQ) LogMsg("SetAutoDeployState - via XQ\r\n");
  InitXQTransfer();
  XQWriteMessage("QV_CLIENT", g_szCfgData, nullptr);
}

}  // namespace

void SetAutoDeployState(const char* value) {
  try {
    std::lock_guard<std::mutex> lock(g_cfgLock);
    snprintf(g_szCfgData, sizeof g_szCfgData, kAutoDeployTemplate, value ? value : "");
    SendCfgData(true);
  } catch (...) {
  }
}

void SetIRIStatus(DWORD state, const char* reason) {
  try {
    std::lock_guard<std::mutex> lock(g_cfgLock);
    snprintf(g_szCfgData, sizeof g_szCfgData, kReadyToWorkTemplate, static_cast<int32_t>(state),
             reason ? reason : "");
    SendCfgData(false);
  } catch (...) {
  }
}

void SetupProvisioning(const char*) {}

void CheckStartProvisioningGUI() {}
