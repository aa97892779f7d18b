// Pull-file jobs: one file fetched from an HTTP server on a thread of its own, announced as
// device events and recorded as an installed bundle.
#pragma once

#include "config/records.h"
#include "platform/wintypes.h"

// Takes ownership of entry (released with LocalFree by the thread).
void StartPullFile(tagPullFileEntry* entry);
DWORD PullFileThread(LPVOID entry);
// Replaces a server URL holding "%XQ_SERVERIP%" with the registry's server address (port 8789
// when the value names none). Unchanged when the value cannot be read. url holds 256 bytes.
void SubstituteServerIP(char* url);
