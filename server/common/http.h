// Request parsing and the small texts of the upgrade-server protocol. Pure functions: no I/O.
#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ftcserver {

// Longest request head accepted; devices send well under 1 KiB.
constexpr size_t kMaxRequestHead = 8192;

struct Request {
  std::string method;
  std::string target;  // as sent; empty for the device's completion report ("GET HTTP/1.1")
  std::string version;
  std::vector<std::pair<std::string, std::string>> headers;

  // Value of the first header of that name (any case), null when absent.
  const std::string* Header(std::string_view name) const;
  bool KeepAlive() const;
  bool IsCompletionReport() const;
};

enum class ParseStatus { kIncomplete, kComplete, kBad };

struct ParseResult {
  ParseStatus status;
  size_t headLength;  // bytes of the head, blank line included, when complete
  std::string error;  // when bad
};

// Parses the head at the start of `buffer`. Heads end with a blank line ("\r\n\r\n" or bare
// "\n\n"); a head that has not ended within kMaxRequestHead bytes is bad.
ParseResult ParseRequest(std::string_view buffer, Request* out);

enum class TargetStatus { kOk, kBadRequest, kForbidden };

struct ResolvedTarget {
  TargetStatus status;
  std::string path;  // relative to the served root, '/'-separated, no "." or ".." parts
};

// Maps a request target to a file under the root. Accepts origin form ("/a/b"), the device's
// bare form ("a\b"), absolute form ("http://host/a"), percent escapes, and the ":ordinal,count"
// suffix that devices append. Anything that climbs above the root is forbidden.
ResolvedTarget ResolveTarget(std::string_view target);

// "MM-DD-YYYY hh:mm:ss" in UTC, the form devices parse from "Content-timestamp:".
std::string FormatDeviceTimestamp(std::time_t t);

// Strict decimal (digits only, no sign), bounded to 64 bits.
std::optional<unsigned long long> ParseDecimal(std::string_view s);

bool EqualsIgnoreCase(std::string_view a, std::string_view b);

}  // namespace ftcserver
