// The one path from the plug-in up to its host: slot 4 of the host's callback table.
#pragma once

#include <atomic>
#include <cstdint>

// Set by IcfgSetCallbacks on the host's thread; read by senders on any thread.
extern std::atomic<uint32_t> gCallBackHandle;  // host context for the callback table
extern std::atomic<void* const*> gCallbacks;   // host callback table, null until set

// Sends a NUL-terminated message (length in bytes including the NUL) to the host. Returns 1 when
// a callback table was set (whatever the host's function answered), 0 when there is none and
// nothing was sent; callers then use their own transport. Safe from any thread once the host
// has set its callbacks.
uint32_t SendUpMessage(const char* message, uint32_t length);
