// The fault points of a test build: armed from the environment when the host loads, and the
// plug-in's check (platform/faults.h).
#ifdef FTC_FAULTS
#include "platform/faults.h"

#include "base/faults.h"

namespace {

// Every host program links libwinux, so this arms each process once.
__attribute__((constructor)) void ArmFaults() {
  hostbase::ArmFaultsFromEnvironment();
}

}  // namespace

extern "C" WINUX_API int WinuxFault(const char* name) {
  return fiu_fail(name);
}
#endif
