#include "views.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/http.h"
#include "store/store.h"
#include "store/text.h"

namespace ftcserver {
namespace {

using OrderedJson = nlohmann::ordered_json;

// Wider cells are cut: a table line should stay readable in a terminal.
constexpr size_t kMaxCell = 40;
constexpr const char* kStates[] = {"complete", "failed", "started", "stale", "no report"};

struct ViewOptions {
  std::string db;
  bool json = false;
  unsigned long long staleMinutes = 60;
  ftcstore::EventFilter filter;
};

int Usage(const std::string& error) {
  std::fprintf(stderr,
               "ftc-server: %s\n"
               "usage: ftc-server fleet --db URL [--json] [--stale MINUTES]\n"
               "       ftc-server events --db URL [--device ID] [--since TIME] [--json]\n"
               "TIME: YYYY-MM-DD[Thh:mm[:ss]] in UTC, or N followed by m, h or d for that long "
               "ago\n",
               error.c_str());
  return 2;
}

// A --since value as a text that the stored times compare against.
std::optional<std::string> SinceText(std::string s) {
  if (s.size() >= 2 && std::string("mhd").find(s.back()) != std::string::npos) {
    auto n = ParseDecimal(std::string_view(s).substr(0, s.size() - 1));
    if (!n || *n > 100000000) return std::nullopt;
    unsigned long long unit = s.back() == 'm' ? 60 : s.back() == 'h' ? 3600 : 86400;
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec -= static_cast<time_t>(*n * unit);
    return ftcstore::IsoTime(t, 6);
  }
  if (s.size() > 10 && s[10] == ' ') s[10] = 'T';
  if (!s.empty() && s.back() == 'Z') s.pop_back();
  // Any leading part of a full time, cut after a whole field.
  static const std::string kShape = "####-##-##T##:##:##";
  if (s.size() != 10 && s.size() != 16 && s.size() < 19) return std::nullopt;
  for (size_t i = 0; i < s.size(); ++i) {
    char want = i < kShape.size() ? kShape[i] : (i == kShape.size() ? '.' : '#');
    if (want == '#' ? (s[i] < '0' || s[i] > '9') : s[i] != want) return std::nullopt;
  }
  return s;
}

std::optional<ViewOptions> ParseArgs(const std::vector<std::string>& args, bool fleet,
                                     std::string* error) {
  ViewOptions o;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--json") {
      o.json = true;
      continue;
    }
    if (i + 1 >= args.size()) return *error = "missing value for " + a, std::nullopt;
    const std::string& v = args[++i];
    if (a == "--db") {
      o.db = v;
    } else if (fleet && a == "--stale") {
      auto n = ParseDecimal(v);
      if (!n || *n > 1000000) return *error = "bad --stale", std::nullopt;
      o.staleMinutes = *n;
    } else if (!fleet && a == "--device") {
      o.filter.device = v;
    } else if (!fleet && a == "--since") {
      auto since = SinceText(v);
      if (!since) return *error = "bad --since " + v, std::nullopt;
      o.filter.since = *since;
    } else {
      return *error = "unknown option " + a, std::nullopt;
    }
  }
  if (o.db.empty()) return *error = "--db is required", std::nullopt;
  return o;
}

std::unique_ptr<ftcstore::Store> Open(const ViewOptions& o) {
  std::string error;
  auto store = ftcstore::OpenStore(o.db, ftcstore::OpenMode::kRead, &error);
  if (!store)
    std::fprintf(stderr, "ftc-server: cannot open the store %s: %s\n", o.db.c_str(), error.c_str());
  return store;
}

}  // namespace

// "2026-11-22 04:38:17Z" (or with `digits` of the fraction); "-" when there is none.
std::string ShortTime(const std::string& iso, int digits) {
  if (iso.size() < 19) return "-";
  return iso.substr(0, 10) + " " + iso.substr(11, 8 + (digits ? digits + 1 : 0)) + "Z";
}

static size_t Width(const std::string& s) {
  size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

// One line of a table cell: blanks for control characters, cut at kMaxCell characters.
std::string Cell(const std::string& s) {
  std::string out;
  bool blank = false;
  for (char c : s) {
    bool space = static_cast<unsigned char>(c) < 0x20 || c == ' ';
    if (space && (blank || out.empty())) continue;
    blank = space;
    out += space ? ' ' : c;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  if (Width(out) <= kMaxCell) return out.empty() ? "-" : out;
  size_t cut = 0;
  for (size_t chars = 0; cut < out.size() && chars < kMaxCell - 3; ++chars) do
      ++cut;
    while (cut < out.size() && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80);
  return out.substr(0, cut) + "...";
}

void PrintRow(const std::vector<std::string>& row, const std::vector<size_t>& widths) {
  std::string line;
  for (size_t c = 0; c < row.size(); ++c) {
    line += row[c];
    if (c + 1 < row.size())
      line.append(std::max(widths[c], Width(row[c])) - Width(row[c]) + 2, ' ');
  }
  std::printf("%s\n", line.c_str());
}

void PrintTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(rows[0].size(), 0);
  for (const auto& row : rows)
    for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], Width(row[c]));
  for (const auto& row : rows) PrintRow(row, widths);
}

OrderedJson Nullable(const std::optional<std::string>& v) {
  return v ? OrderedJson(*v) : OrderedJson();
}

std::string Dump(const nlohmann::ordered_json& j) {
  return j.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

std::string JobState(const ftcstore::FleetRow& r, unsigned long long staleMinutes, time_t now) {
  if (r.jobCode == "205181") {
    auto seen = ftcstore::ParseIsoTime(r.lastSeen);
    bool quiet = !seen || now - *seen >= static_cast<time_t>(staleMinutes * 60);
    return quiet ? "stale" : "started";
  }
  if (r.jobCode == "205182") return "complete";
  if (r.jobCode == "205180") return "failed";
  // Devices that deliver no events still report the end of a transfer.
  if (r.haveReport) return r.reportError && !r.reportError->empty() ? "failed" : "complete";
  return "no report";
}

int FleetView(const std::vector<std::string>& args) {
  std::string error;
  auto o = ParseArgs(args, true, &error);
  if (!o) return Usage(error);
  auto store = Open(*o);
  if (!store) return 1;
  std::vector<ftcstore::FleetRow> rows;
  if (ftcstore::Status s = store->Fleet(&rows); !s.ok()) {
    std::fprintf(stderr, "ftc-server: %s\n", s.message.c_str());
    return 1;
  }
  time_t now = time(nullptr);
  std::map<std::string, int> counts;
  std::vector<std::vector<std::string>> table = {{"DEVICE", "HARDWARE", "INSTALLED", "LAST JOB",
                                                  "STATE", "LAST MESSAGE", "FALLBACK", "ERROR"}};
  for (const ftcstore::FleetRow& r : rows) {
    std::string state = JobState(r, o->staleMinutes, now);
    counts[state]++;
    if (o->json) {
      OrderedJson j;
      j["device"] = r.device;
      j["serial"] = r.serial;
      j["hardware"] = r.hardware;
      j["installed"] = r.installed;
      j["last_job"] = r.jobText;
      j["state"] = state;
      j["last_message"] = r.lastSeen;
      j["http_fallback"] = Nullable(r.reportFallback);
      j["error"] = Nullable(r.reportError);
      std::printf("%s\n", Dump(j).c_str());
      continue;
    }
    table.push_back({Cell(r.device), Cell(r.hardware), Cell(r.installed), Cell(r.jobText), state,
                     ShortTime(r.lastSeen), Cell(r.reportFallback.value_or("")),
                     Cell(r.reportError.value_or(""))});
  }
  if (o->json) return 0;
  PrintTable(table);
  std::string summary = std::to_string(rows.size()) + (rows.size() == 1 ? " device:" : " devices:");
  const char* separator = " ";
  for (const char* state : kStates) {
    summary += separator + std::to_string(counts[state]) + " " + state;
    separator = ", ";
  }
  std::printf("\n%s\n", summary.c_str());
  return 0;
}

int EventsView(const std::vector<std::string>& args) {
  std::string error;
  auto o = ParseArgs(args, false, &error);
  if (!o) return Usage(error);
  auto store = Open(*o);
  if (!store) return 1;
  // Streamed, so fixed widths: a device id is usually 32 characters.
  const std::vector<size_t> widths = {24, 32, 11, 10, 8, 0};
  if (!o->json) PrintRow({"TIME", "DEVICE", "QUEUE", "KIND", "CODE", "TEXT"}, widths);
  ftcstore::Status s = store->Events(o->filter, [&](const ftcstore::EventRow& e) {
    if (o->json) {
      OrderedJson j;
      j["time"] = e.time;
      j["received"] = e.received;
      j["device"] = e.device;
      j["queue"] = e.queue;
      j["seq"] = e.seq;
      j["kind"] = e.kind;
      j["category"] = e.category ? OrderedJson(*e.category) : OrderedJson();
      j["code"] = e.code;
      j["text"] = e.text;
      j["body"] = e.body;
      std::printf("%s\n", Dump(j).c_str());
    } else {
      // A document of no known kind shows the start of its text instead.
      PrintRow({ShortTime(e.time, 3), e.device, e.queue, e.kind, Cell(e.code),
                e.kind == "message" ? Cell(e.body) : Cell(e.text)},
               widths);
    }
    return true;
  });
  if (!s.ok()) {
    std::fprintf(stderr, "ftc-server: %s\n", s.message.c_str());
    return 1;
  }
  return 0;
}

}  // namespace ftcserver
