// The delivery agent: sends the spooled reports and the device's inventory to the fleet server
// and retires each record once the server has acknowledged it (see docs/delivery.md).
#pragma once

#include <random>
#include <string>

#include "commands.h"

namespace ftchost {

struct DeliverOptions {
  std::string root;     // device root; WINUX_ROOT must point at it
  std::string server;   // "http://host:port"; empty: the device's ServerIP registry value
  bool follow = false;  // keep delivering new records until SIGTERM or SIGINT
};

struct DeviceIdentity {
  std::string device, serial, hardware;  // unique id, serial number, hardware text
};
DeviceIdentity ReadIdentity();
// Whether the unique id can name the device to the server; else false with the reason.
bool UsableDeviceId(const std::string& device, std::string* error);
// "http://host:port" from --server, or from the device's ServerIP when given is empty.
bool ResolveServer(const std::string& given, std::string* base, std::string* error);

// SIGTERM and SIGINT ask delivery (and the device agent) to stop between requests.
void StopOnSignals();
bool StopRequested();
// Sleeps (real time) until seconds have passed or a stop was asked for.
void PauseUnlessStopped(double seconds);
// The wait before the next attempt after failures failed ones in a row: doubling from a second
// up to longest (device seconds, scaled by the time scale), spread by jitter; or the server's
// Retry-After (real seconds, capped) when it gave one (> 0).
double RetryWait(int failures, double longest, long retryAfter, std::mt19937& random);

// One-shot: kExitOk once the spool is empty and the inventory is sent; kExitFailed when the
// server took nothing for the give-up time or the device has no usable id; kExitUsage for a bad
// server address. With follow it returns only after a stop signal (kExitOk).
int DeliverOnce(const DeliverOptions& opt);

// `ftc-host deliver [--server URL] [--follow]`.
int DeliverCommand(const Options& opt);

// The end of `ftc-host run`: delivers when --deliver was given. A failed delivery fails the run.
int DeliverAfterJob(const Options& opt, int jobExit);

}  // namespace ftchost
