// The multicast sender sessions of a deployment (deploy create --multicast).
#pragma once

#include <cstdint>
#include <string>

#include "store/store.h"

namespace ftcserver {

struct MulticastPlan {
  std::string group = "239.255.70.1";
  unsigned port = 1044;
  std::string interface;  // address the sender sends from
  unsigned rateKbps = 100000;
};

// The receiver's parameter text that the deployment's job carries.
std::string ReceiverParameters(const MulticastPlan& plan, const std::string& dest);

// Sends the bundle folder once per phase, when the phase's devices have taken the job, until the
// deployment is done or cancelled (0), or SIGINT/SIGTERM or the store stop it (1).
int RunMulticastSessions(ftcstore::Store& store, int64_t id, const MulticastPlan& plan,
                         const std::string& bundleDir);

}  // namespace ftcserver
