#include "config/flash_size.h"

#include "platform/winux.h"

DWORD ReturnFlashSize() {
  STORE_INFORMATION info = {0, 0};
  if (!GetStoreInformation(&info)) return 0;
  return info.dwStoreSize;
}
