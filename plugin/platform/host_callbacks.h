// The callback table the host gives IcfgSetCallbacks.
#pragma once

#include <cstdint>

typedef uint32_t (*IcfgSendUp)(uint32_t context, const char* message, uint32_t length);
// Callback table: an array of function pointers; slot 4 is the send-up function. It is called
// with the context given to IcfgSetCallbacks, the NUL-terminated message and its length
// including the NUL, possibly from the plug-in's worker threads.
#define ICFG_SENDUP_SLOT 4
