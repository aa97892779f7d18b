// The plug-in's exported interface: the header a host includes. The host loads
// libFileTransferConfiglet.so, checks IcfgGetInterfaceVersion (2) and IcfgGetSchemaVersion (1.0),
// calls IcfgInitialize and IcfgSetCallbacks, then builds jobs through groups and fields:
// IcfgBeginGroup, IcfgSetField / IcfgGetField, IcfgEndGroup, innermost group closed first.
// Every export is called from one host thread at a time.
#pragma once

#include <cstdint>

#include "platform/host_callbacks.h"
#include "platform/wintypes.h"

#define ICFG_EXPORT __attribute__((visibility("default")))

// Result codes of the group/field calls.
#define ICFG_OK 0u
#define ICFG_E_UNKNOWN 0x822B0003u      // unknown group or field
#define ICFG_E_IN_PROGRESS 0xC4111001u  // an upgrade is already running
#define ICFG_E_NO_SPACE 0xC4111002u     // no space, or the worker could not be started
#define ICFG_E_POWER 0xC4111003u        // power requirement not met
#define ICFG_E_TEST_FAILED 0xC4111005u  // a pre-flight test failed

// DllMain's reason codes.
#define ICFG_PROCESS_ATTACH 0u

extern "C" {
ICFG_EXPORT BOOL DllMain(HANDLE module, DWORD reason, void* reserved);
ICFG_EXPORT uint32_t IcfgGetInterfaceVersion(void);
ICFG_EXPORT uint32_t IcfgGetSchemaVersion(uint32_t unused, uint32_t* major, uint32_t* minor);
ICFG_EXPORT uint32_t IcfgInitialize(void);
ICFG_EXPORT uint32_t IcfgUninitialize(void);
ICFG_EXPORT uint32_t IcfgSetCallbacks(uint32_t context, void* const* table);
// One unnamed instance of every group: the first call writes "" and returns 0, the next
// returns 1 (no more).
ICFG_EXPORT uint32_t IcfgGetFirstInstance(const char* group, char* instance);
ICFG_EXPORT uint32_t IcfgGetNextInstance(const char* group, char* instance);
// instance: 0 lets the FileTransferConfiglet group start a new job.
ICFG_EXPORT uint32_t IcfgBeginGroup(const char* group, uint32_t unused, uint32_t instance);
// instance is passed through to pre/post-processing and not used.
ICFG_EXPORT uint32_t IcfgSetField(const char* field, const char* instance, const char* value,
                                  uint32_t unused1, uint32_t unused2);
// The only readable field is "Protocol Version". *length receives the text's length.
ICFG_EXPORT uint32_t IcfgGetField(const char* field, uint32_t unused1, uint32_t unused2, char* out,
                                  uint32_t* length);
ICFG_EXPORT uint32_t IcfgEndGroup(const char* group, uint32_t unused1, uint32_t unused2);
}

// C++ linkage, so exported under type-decorated names. No field declares ranges: both return 0
// and write nothing.
ICFG_EXPORT uint32_t IcfgGetFirstRangeSet(const char* group, const char* field, int32_t* a,
                                          int32_t* b, int32_t* c, char* text1, char* text2);
ICFG_EXPORT uint32_t IcfgGetNextRangeSet(const char* group, const char* field, int32_t* a,
                                         int32_t* b, int32_t* c, char* text1, char* text2);
