// The multicast receiver's parameters are a text the management server sets on the job. Any
// text is either refused with a reason or gives a receiver set-up within its limits.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "multicast_params.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MulticastParams p;
  std::string error;
  if (!ParseMulticastParams(std::string(reinterpret_cast<const char*>(data), size), p, error)) {
    FUZZ_EXPECT(!error.empty());
    return 0;
  }
  FUZZ_EXPECT(!p.deviceFolder.empty() && p.port >= 1 && p.port <= 65535);
  FUZZ_EXPECT(p.statusPort >= 0 && p.statusPort <= 65535);
  FUZZ_EXPECT(p.startTimeoutMs >= 1000 && p.startTimeoutMs <= 86400000);
  FUZZ_EXPECT(p.idleTimeoutMs >= 1000 && p.idleTimeoutMs <= 86400000);
  return 0;
}
