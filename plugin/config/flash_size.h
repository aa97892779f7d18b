// Size of the device's flash store.
#pragma once

#include "platform/wintypes.h"

// The store size in bytes the platform reports, 0 when it cannot be read.
DWORD ReturnFlashSize();
