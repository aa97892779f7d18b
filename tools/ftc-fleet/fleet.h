// ftc-fleet's pieces: child processes, and the network the simulated devices live in.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ftcfleet {

// Starts args with standard output and error appended to logPath ("" for /dev/null).
pid_t Spawn(const std::vector<std::string>& args, const std::string& logPath = "");
// Runs args to the end; the exit code (-1 when it could not run), *output its stdout and stderr.
int Run(const std::vector<std::string>& args, std::string* output = nullptr);
// SIGTERM, then SIGKILL after grace_ms; reaps the child.
void Stop(pid_t pid, int graceMs);

// Counters of one device's namespace.
struct Traffic {
  uint64_t httpBytes = 0;       // what the upgrade server sent it
  uint64_t multicastBytes = 0;  // multicast datagrams that reached it
  uint64_t droppedBytes = 0;    // multicast datagrams dropped on purpose
};

// A hub namespace holding a bridge and the server's address, and one namespace per device joined
// to it by a veth pair. In each device's namespace an nftables table counts the traffic and drops
// the share `loss` of multicast datagrams at random.
class Network {
 public:
  ~Network() { TearDown(); }
  // False with *error when namespaces cannot be made here.
  bool SetUp(int devices, double loss, uint16_t serverPort, std::string* error);
  void TearDown();
  const std::string& Hub() const { return m_hub; }
  const std::string& Device(int i) const { return m_devices[static_cast<size_t>(i)]; }
  std::string ServerAddress() const { return "198.18.0.1"; }
  // Prefixes args so that they run in namespace ns.
  static std::vector<std::string> In(const std::string& ns, std::vector<std::string> args);
  Traffic Count(int device) const;

 private:
  std::string m_hub;
  std::vector<std::string> m_devices;
};

}  // namespace ftcfleet
