#include "fleet_view.h"

#include "device_root.h"
#include "helpers.h"

namespace ftctest {

std::string Event(const std::string& code, const std::string& text) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<DevInfo Action=\"Notify\">\n"
         "  <Subsystem Name=\"QV_EVENT_DB\">\n    <Group Name=\"errorLogMsg\">\n"
         "      <Field Name=\"timestamp\">0</Field>\n      <Field Name=\"system\">20</Field>\n"
         "      <Field Name=\"msgNum\">" +
         code + "</Field>\n      <Field Name=\"optArgArrayElement\">" + text +
         "</Field>\n    </Group>\n  </Subsystem>\n</DevInfo>\n";
}

std::vector<nlohmann::json> ServerView(const std::string& args) {
  std::string out = RunCommand(BinDir() + "/ftc-server " + args);
  std::vector<nlohmann::json> rows;
  for (size_t at = 0, end; at < out.size(); at = end + 1) {
    end = out.find('\n', at);
    if (end == std::string::npos) end = out.size();
    rows.push_back(nlohmann::json::parse(out.substr(at, end - at), nullptr, false));
  }
  return rows;
}

std::map<std::string, nlohmann::json> ByDevice(const std::vector<nlohmann::json>& rows) {
  std::map<std::string, nlohmann::json> out;
  for (const nlohmann::json& r : rows) out[r.value("device", "?")] = r;
  return out;
}

}  // namespace ftctest
