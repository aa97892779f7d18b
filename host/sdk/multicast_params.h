// The multicast receiver's parameter text (see docs/multicast.md).
#pragma once

#include <string>

struct MulticastParams {
  std::string deviceFolder;      // -D, required
  int port = 1044;               // -P, the session's UDP port
  std::string multicastAddress;  // -M, public multicast address (or unicast server in tests)
  std::string interfaceAddress;  // -I, interface to receive on
  int startTimeoutMs = 30000;    // -T seconds: give up when no session starts by then
  int idleTimeoutMs = 60000;     // -W seconds: give up when a started session goes quiet
  std::string statusAddress;     // -UA=, where status datagrams go
  int statusPort = 0;            // -UP=
};

// Words are separated by blanks; double quotes group a word that holds blanks. Backslashes are
// literal, as in device paths. False with a message on an unknown or malformed option.
bool ParseMulticastParams(const std::string& text, MulticastParams& out, std::string& error);
