// Hardware identity and reboot, supplied by the host.
#pragma once

#include "platform/wintypes.h"

class WINUX_API TVLHWID {
 public:
  // Each fills buffer (its usable size in *length on entry; the text's length on return).
  // 0 on success, an error number otherwise.
  static DWORD GetSerialNumber(char* buffer, DWORD* length);
  static DWORD GetHardwareCfg(char* buffer, DWORD* length);
  static DWORD GetUniqueID(char* buffer, DWORD* length);
  // Asks the device to restart. 0 when the request was recorded.
  static DWORD Reboot(DWORD argument);
};
