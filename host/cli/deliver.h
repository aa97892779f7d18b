// The delivery agent: sends the spooled reports and the device's inventory to the fleet server
// and retires each record once the server has acknowledged it (see docs/delivery.md).
#pragma once

#include <string>

#include "commands.h"

namespace ftchost {

struct DeliverOptions {
  std::string root;     // device root; WINUX_ROOT must point at it
  std::string server;   // "http://host:port"; empty: the device's ServerIP registry value
  bool follow = false;  // keep delivering new records until SIGTERM or SIGINT
};

// One-shot: kExitOk once the spool is empty and the inventory is sent; kExitFailed when the
// server took nothing for the give-up time or the device has no usable id; kExitUsage for a bad
// server address. With follow it returns only after a stop signal (kExitOk).
int DeliverOnce(const DeliverOptions& opt);

// `ftc-host deliver [--server URL] [--follow]`.
int DeliverCommand(const Options& opt);

// The end of `ftc-host run`: delivers when --deliver was given. A failed delivery fails the run.
int DeliverAfterJob(const Options& opt, int jobExit);

}  // namespace ftchost
