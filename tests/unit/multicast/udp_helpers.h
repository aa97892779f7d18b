// The multicast sender the cases run against the receiver.
#pragma once

#include <string>
#include <vector>

#include "support/helpers.h"

namespace mctest {

// The uftp sender of a unicast session on loopback.
inline std::vector<std::string> SenderArgs(int port, const std::vector<std::string>& files) {
  std::vector<std::string> args = {"uftp",      "-p", std::to_string(port), "-M", "127.0.0.1", "-I",
                                   "127.0.0.1", "-H", "127.0.0.1",          "-R", "100000"};
  args.insert(args.end(), files.begin(), files.end());
  return args;
}

}  // namespace mctest
