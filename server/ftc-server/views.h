// The operator's views of the fleet store: ftc-server fleet, events and deploy.
#pragma once

#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "store/store.h"

namespace ftcserver {

// args: what follows the command name. Returns the exit status.
int FleetView(const std::vector<std::string>& args);
int EventsView(const std::vector<std::string>& args);
int DeployCommand(const std::vector<std::string>& args);

// A device's last job as the fleet view names it: complete, failed, started, stale, no report.
std::string JobState(const ftcstore::FleetRow& r, unsigned long long staleMinutes, time_t now);
// A deployment as `deploy list --json` prints it.
nlohmann::ordered_json DeploymentJson(const ftcstore::DeploymentRow& d);
nlohmann::ordered_json DeploymentDevicesJson(
    const std::vector<ftcstore::DeploymentDeviceRow>& devices);

// Table and JSON-line output shared by the views.
// "2026-11-22 04:38:17Z" (or with `digits` of the fraction); "-" when there is none.
std::string ShortTime(const std::string& iso, int digits = 0);
// One line of a table cell: blanks for control characters, cut to a readable width.
std::string Cell(const std::string& s);
void PrintRow(const std::vector<std::string>& row, const std::vector<size_t>& widths);
void PrintTable(const std::vector<std::vector<std::string>>& rows);
nlohmann::ordered_json Nullable(const std::optional<std::string>& v);
std::string Dump(const nlohmann::ordered_json& j);

}  // namespace ftcserver
