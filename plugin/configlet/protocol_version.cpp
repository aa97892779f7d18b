// The Protocol Version field: the multicast receiver's version.
#include <cstring>

#include "configlet/call_points.h"
#include "log/LogMsg.h"
#include "transfer/multicast.h"

uint32_t OnProtocolVersion(char* out, uint32_t* length) {
  char version[64] = {0};
  int result = GetMClientVersion(version);
  if (result != 0) return static_cast<uint32_t>(result);
  if (out) strcpy(out, version);
  LogMsg("MCFTP Version = %s\r\n", version);
  if (length) *length = static_cast<uint32_t>(strlen(version));
  return 0;
}
