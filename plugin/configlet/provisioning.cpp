// The Provisioning field: the device tells the server that provisioning started or ended.
// CALL POINTS for reporting: SetupProvisioning, SetIRIStatus, SendDeviceEvent.
#include "configlet/call_points.h"
#include "log/LogMsg.h"
#include "platform/hwid.h"

uint32_t OnProvisioningField(const char* /*value*/) {
  char uniqueId[64] = "";
  DWORD length = sizeof(uniqueId);
  DWORD result = TVLHWID::GetUniqueID(uniqueId, &length);
  // CALL POINT: SetupProvisioning(value); "TRUE" (any case): SetIRIStatus(4, "Provisioning
  // Started"), Sleep(1000), SendDeviceEvent(uniqueId, 20, 205183, ""); otherwise
  // SetIRIStatus(1, "Provisioning Complete"), Sleep(1000), SendDeviceEvent(uniqueId, 20, 205184,
  // "").
  LogMsg("FileTransferConfiglet - Provisioning - reporting not available\r\n");
  return result;
}
