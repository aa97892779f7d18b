// Holding a job until the device's own start-up programs have finished, and the idle timer that
// runs beside a job.
#pragma once

#include "platform/wintypes.h"

// Executable names (compared ignoring case) of the device's installer and start-up programs.
extern const char* const kStartupPrograms[3];
extern const char kTransferAgent[];

// Waits while a start-up program or the transfer agent runs (ending an agent that overstays),
// then reports "Device Upgrading" and the upgrade-started event. Returns 0.
int WaitForStartupProcesses();
// Thread entry; runs until terminated.
DWORD ResetIdleTimeThread(LPVOID unused);
