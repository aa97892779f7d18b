// PullFile closed: one file fetched on a thread of its own.
// CALL POINT for the pull-file transfer: StartPullFile.
#include "configlet/call_points.h"
#include "log/LogMsg.h"
#include "platform/winux.h"

void OnPullFileClose(tagPullFileEntry* entry) {
  // CALL POINT: StartPullFile(entry), which takes the entry.
  LogMsg("FileTransferConfiglet - PullFile - pull-file transfer not available\r\n");
  if (entry) LocalFree(entry);
}
