// The Protocol Version field: the multicast receiver's version.
// CALL POINT for the multicast transfer: GetMClientVersion.
#include <cstring>

#include "configlet/call_points.h"
#include "log/LogMsg.h"

uint32_t OnProtocolVersion(char* out, uint32_t* length) {
  // CALL POINT: GetMClientVersion(out); a non-zero result is returned as it is.
  LogMsg("FileTransferConfiglet - Protocol Version - multicast receiver not available\r\n");
  if (out) out[0] = '\0';
  if (length) *length = 0;
  return 0;
}
