// Reads of the device registry under HKEY_LOCAL_MACHINE.
#pragma once

#include "platform/wintypes.h"

// A 4-byte value. 0 on success, otherwise the platform's last-error code.
DWORD StoreGetDWORD(const wchar_t* key, const wchar_t* valueName, DWORD* value);
// A string value (REG_SZ) into buffer: *size bytes in, bytes read out. Returns the registry
// call's result (0 on success).
LONG StoreGetString(const wchar_t* key, const wchar_t* valueName, wchar_t* buffer, DWORD* size);
