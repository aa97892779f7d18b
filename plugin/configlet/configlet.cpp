// The exported entry points around the group/field protocol.
#include "configlet/configlet.h"

#include <cstdlib>

#include "bundles/bundle_records.h"
#include "configlet/protocol_state.h"
#include "report/deploy_state.h"
#include "report/send_up.h"

HANDLE g_hInst = nullptr;
char* gCurrentGroup = nullptr;

extern "C" {

BOOL DllMain(HANDLE module, DWORD reason, void* /*reserved*/) {
  if (reason == ICFG_PROCESS_ATTACH) g_hInst = module;
  return TRUE;
}

uint32_t IcfgGetInterfaceVersion(void) {
  return 2;
}

uint32_t IcfgGetSchemaVersion(uint32_t /*unused*/, uint32_t* major, uint32_t* minor) {
  if (major) *major = 1;
  if (minor) *minor = 0;
  return 0;
}

uint32_t IcfgInitialize(void) {
  try {
    // A second call starts with a fresh, empty group name; the old buffer is released rather
    // than leaked.
    char* previous = gCurrentGroup;
    gCurrentGroup = static_cast<char*>(calloc(1, kCurrentGroupSize));
    free(previous);
    AddVersionForDevMon();
    CheckStartProvisioningGUI();
  } catch (...) {
    // Initialisation has no failure result; the host goes on either way.
  }
  return 0;
}

// The current-group buffer stays: a host may still close groups after this.
uint32_t IcfgUninitialize(void) {
  return 0;
}

uint32_t IcfgSetCallbacks(uint32_t context, void* const* table) {
  gCallBackHandle = context;
  gCallbacks = table;
  return 0;
}

uint32_t IcfgGetFirstInstance(const char* /*group*/, char* instance) {
  if (instance) instance[0] = '\0';
  return 0;
}

uint32_t IcfgGetNextInstance(const char* /*group*/, char* /*instance*/) {
  return 1;
}

}  // extern "C"

uint32_t IcfgGetFirstRangeSet(const char*, const char*, int32_t*, int32_t*, int32_t*, char*,
                              char*) {
  return 0;
}

uint32_t IcfgGetNextRangeSet(const char*, const char*, int32_t*, int32_t*, int32_t*, char*, char*) {
  return 0;
}
