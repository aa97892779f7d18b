// BundleName inside ClearQVBundles: the server asks to forget an installed bundle.
// CALL POINT for the bundle records: ClearQVBundleEntry.
#include "configlet/call_points.h"
#include "log/LogMsg.h"

void OnClearQVBundles(const char* /*bundleName*/) {
  // CALL POINT: ClearQVBundleEntry(bundleName).
  LogMsg("FileTransferConfiglet - ClearQVBundles - bundle records not available\r\n");
}
