// The message-queue transport: the device's queue library, loaded by name on first use, and one
// queue handle kept open for the life of the plug-in. Every function here is thread-safe.
#pragma once

#include "platform/wintypes.h"

// Loads the library, looks up its entry points and opens the handle, as far as each step has
// not yet succeeded. Reports nothing: callers send only while the handle is open.
void InitXQTransfer();
// Closes the handle; the library and entry points stay, so the next InitXQTransfer reopens.
void CloseTransferHandle();

// Writes message (with its terminating NUL) to destQueue through the open handle. coreQueue may
// be null. Queue names are copied into zeroed 16-byte fields. Returns 1 when the library took
// the message, 0 when no handle is open or the write failed.
int XQWriteMessage(const char* destQueue, const char* message, const char* coreQueue);

// What InitXQTransfer has reached, for diagnostics and tests.
struct XQTransferState {
  HMODULE library;
  bool entryPoints;  // lapi_open was found
  void* handle;
};
XQTransferState GetXQTransferState();
