// What every program shares to run as a service: its version, a configuration file that holds
// its flags, log lines journald can rank, readiness and watchdog notices to the service manager,
// and figures in the text form metrics collectors read.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ftcservice {

extern const char kVersion[];

// "PROGRAM VERSION" on standard output, the form help2man expects.
void PrintVersion(const char* program);

enum class Level { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

// One line on standard error. When standard error is the journal the line starts with the
// journal's level prefix; elsewhere it is written as given.
void Log(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Takes "--config PATH" out of args. The file named, else fallback when that file exists, else
// "" (no file). Error text when --config has no value.
std::string TakeConfigPath(std::vector<std::string>* args, const std::string& fallback,
                           std::string* path);

// The flags a configuration file holds, as if typed before the command line's own (which thus
// override them). The file is "key = value" lines without sections, '#' or ';' comments; each
// key is a long option's name without its dashes; switches take true or false. Error text or "".
std::string ConfigFlags(const std::string& path, const std::set<std::string>& switches,
                        std::vector<std::string>* flags);

// The service manager's notices; each does nothing when no manager listens.
void NotifyReady();
void NotifyReloading();
void NotifyStopping();
void NotifyWatchdog();
// How often to ping the watchdog, in microseconds: half the manager's limit; 0 when none is set.
uint64_t WatchdogPingUsec();

// Builds a metrics page in the text exposition format.
class MetricsText {
 public:
  // Starts a family: its # HELP and # TYPE lines.
  void Family(const std::string& name, const char* type, const char* help);
  // labels: {"kind","file"} pairs; values are escaped here.
  void Sample(const std::string& name,
              const std::vector<std::pair<std::string, std::string>>& labels, double value);
  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
};

}  // namespace ftcservice
