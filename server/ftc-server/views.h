// The operator's views of the fleet store: ftc-server fleet, events and deploy.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace ftcserver {

// args: what follows the command name. Returns the exit status.
int FleetView(const std::vector<std::string>& args);
int EventsView(const std::vector<std::string>& args);
int DeployCommand(const std::vector<std::string>& args);

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
