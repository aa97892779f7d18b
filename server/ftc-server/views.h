// The operator's views of the fleet store: ftc-server fleet and ftc-server events.
#pragma once

#include <string>
#include <vector>

namespace ftcserver {

// args: what follows the command name. Returns the exit status.
int FleetView(const std::vector<std::string>& args);
int EventsView(const std::vector<std::string>& args);

}  // namespace ftcserver
