#include "daemon.h"

#include <ini.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace ftcservice {

const char kVersion[] = FTC_VERSION_TEXT;

void PrintVersion(const char* program) {
  std::printf("%s %s\n", program, kVersion);
}

namespace {

// journald sets JOURNAL_STREAM to the device and inode of the stream it hands a service.
bool StderrIsJournal() {
  static const bool journal = [] {
    const char* stream = getenv("JOURNAL_STREAM");
    struct stat st {};
    unsigned long long dev = 0, ino = 0;
    if (!stream || std::sscanf(stream, "%llu:%llu", &dev, &ino) != 2 || fstat(2, &st) != 0)
      return false;
    return st.st_dev == dev && st.st_ino == ino;
  }();
  return journal;
}

struct Parse {
  const std::set<std::string>* switches;
  std::vector<std::string>* flags;
  std::string error;
};

int OnEntry(void* user, const char* section, const char* name, const char* value) {
  auto* p = static_cast<Parse*>(user);
  std::string key = name;
  if (*section) {
    p->error = "sections are not used: [" + std::string(section) + "]";
    return 0;
  }
  if (key.empty() || key[0] == '-' || key == "config") {
    p->error = "no option named '" + key + "'";
    return 0;
  }
  std::string v = value ? value : "";
  if (p->switches->count(key)) {
    if (v != "true" && v != "false") {
      p->error = key + " takes true or false";
      return 0;
    }
    if (v == "true") p->flags->push_back("--" + key);
    return 1;
  }
  p->flags->push_back("--" + key);
  p->flags->push_back(v);
  return 1;
}

std::string Escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

}  // namespace

void Log(Level level, const char* format, ...) {
  char line[2048];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  if (StderrIsJournal())
    std::fprintf(stderr, "<%d>%s\n", static_cast<int>(level), line);
  else
    std::fprintf(stderr, "%s\n", line);
}

std::string TakeConfigPath(std::vector<std::string>* args, const std::string& fallback,
                           std::string* path) {
  path->clear();
  bool given = false;
  for (size_t i = 0; i < args->size();) {
    if ((*args)[i] != "--config") {
      ++i;
      continue;
    }
    if (i + 1 >= args->size()) return "--config needs a file";
    *path = (*args)[i + 1];
    given = true;
    args->erase(args->begin() + static_cast<std::ptrdiff_t>(i),
                args->begin() + static_cast<std::ptrdiff_t>(i) + 2);
  }
  if (!given && access(fallback.c_str(), F_OK) == 0) *path = fallback;
  return {};
}

std::string ConfigFlags(const std::string& path, const std::set<std::string>& switches,
                        std::vector<std::string>* flags) {
  Parse p{&switches, flags, {}};
  int rc = ini_parse(path.c_str(), OnEntry, &p);
  if (rc < 0) return "cannot read " + path;
  if (rc > 0)
    return path + " line " + std::to_string(rc) + ": " +
           (p.error.empty() ? std::string("not key = value") : p.error);
  return {};
}

void NotifyReady() {
  sd_notify(0, "READY=1");
}

void NotifyReloading() {
  sd_notify(0, "RELOADING=1");
}

void NotifyStopping() {
  sd_notify(0, "STOPPING=1");
}

void NotifyWatchdog() {
  sd_notify(0, "WATCHDOG=1");
}

uint64_t WatchdogPingUsec() {
  uint64_t usec = 0;
  return sd_watchdog_enabled(0, &usec) > 0 ? usec / 2 : 0;
}

void MetricsText::Family(const std::string& name, const char* type, const char* help) {
  m_text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void MetricsText::Sample(const std::string& name,
                         const std::vector<std::pair<std::string, std::string>>& labels,
                         double value) {
  m_text += name;
  if (!labels.empty()) {
    m_text += '{';
    for (size_t i = 0; i < labels.size(); ++i)
      m_text += (i ? "," : "") + labels[i].first + "=\"" + Escape(labels[i].second) + "\"";
    m_text += '}';
  }
  char number[64];
  if (std::isinf(value))
    std::snprintf(number, sizeof number, value > 0 ? "+Inf" : "-Inf");
  else if (value == std::floor(value) && std::fabs(value) < 1e15)
    std::snprintf(number, sizeof number, "%" PRId64, static_cast<int64_t>(value));
  else
    std::snprintf(number, sizeof number, "%.6g", value);
  m_text += ' ';
  m_text += number;
  m_text += '\n';
}

}  // namespace ftcservice
