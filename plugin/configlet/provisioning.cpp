// The Provisioning field: the device tells the server that provisioning started or ended.
#include "configlet/call_points.h"
#include "platform/hwid.h"
#include "platform/winux.h"
#include "report/deploy_state.h"
#include "report/events.h"

uint32_t OnProvisioningField(const char* value) {
  char uniqueId[64] = "";
  DWORD length = sizeof(uniqueId);
  DWORD result = TVLHWID::GetUniqueID(uniqueId, &length);
  uniqueId[sizeof(uniqueId) - 1] = '\0';
  SetupProvisioning(value);
  if (_stricmp(value, "TRUE") == 0) {
    SetIRIStatus(4, "Provisioning Started");
    Sleep(1000);
    SendDeviceEvent(uniqueId, QV_EVENT_SYSTEM, QV_EVENT_PROVISIONING_STARTED, "");
  } else {
    SetIRIStatus(1, "Provisioning Complete");
    Sleep(1000);
    SendDeviceEvent(uniqueId, QV_EVENT_SYSTEM, QV_EVENT_PROVISIONING_COMPLETE, "");
  }
  return result;
}
