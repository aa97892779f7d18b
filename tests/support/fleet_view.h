// What devices tell the fleet server, and its operator views read as a script reads them.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ftctest {

// A device event as the plug-in queues it.
std::string Event(const std::string& code, const std::string& text);

// `ftc-server ARGS` (a view with --json): one object per line.
std::vector<nlohmann::json> ServerView(const std::string& args);
// The rows by their "device".
std::map<std::string, nlohmann::json> ByDevice(const std::vector<nlohmann::json>& rows);

}  // namespace ftctest
