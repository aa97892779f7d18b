#include <cstdio>
#include <cstring>

#include "config/UpgradeConfig.h"
#include "config/flash_size.h"
#include "config/text.h"
#include "log/LogMsg.h"
#include "platform/hwid.h"

int UpgradeConfig::GetDeviceInfo() {
  DWORD length = 24;
  TVLHWID::GetSerialNumber(m_szSerialNumber, &length);
  m_szSerialNumber[sizeof(m_szSerialNumber) - 1] = '\0';

  length = 24;
  TVLHWID::GetHardwareCfg(m_szMfgString, &length);
  m_szMfgString[sizeof(m_szMfgString) - 1] = '\0';

  // The configuration text starts with type, family and a two-character model; "Z" marks a
  // computer, whose model is the first four characters.
  char four[5] = "";
  CopyText(four, m_szMfgString);
  CopyText(m_szModel, four);
  if (m_szMfgString[0] != '\0') {
    if (m_szMfgString[0] != 'Z') {
      const char type[2] = {m_szMfgString[0], '\0'};
      const char family[2] = {m_szMfgString[1], '\0'};
      CopyText(m_szType, type);
      CopyText(m_szFamily, family);
      m_szModel[0] = '\0';
      if (strlen(four) > 2) CopyText(m_szModel, 3, four + 2);
    } else {
      CopyText(m_szType, "Computer");
      CopyText(m_szFamily, "Zxx");
    }
  }

  length = 64;
  DWORD error = TVLHWID::GetUniqueID(m_szUniqueId, &length);
  m_szUniqueId[sizeof(m_szUniqueId) - 1] = '\0';
  if (error != 0)
    LogMsg("Error getting UniqueId, %d, !%s!\r\n", static_cast<int>(error), m_szUniqueId);
  else
    LogMsg("UniqueId = !%s!\r\n", m_szUniqueId);

  DWORD megabytes = ReturnFlashSize() / 1024 / 1024;
  return snprintf(m_szFlashSize, sizeof(m_szFlashSize), "%d", static_cast<int>(megabytes));
}
