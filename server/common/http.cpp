#include "http.h"

#include <cctype>
#include <cstdio>

namespace ftcserver {
namespace {

bool IsTokenChar(unsigned char c) {
  return std::isalnum(c) ||
         std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

bool HasControl(std::string_view s) {
  for (unsigned char c : s)
    if (c < 0x20 && c != '\t') return true;
  return s.find('\x7f') != std::string_view::npos;
}

// Offset just past the blank line that ends the head, or npos.
size_t FindHeadEnd(std::string_view b) {
  for (size_t i = b.find('\n'); i != std::string_view::npos; i = b.find('\n', i + 1)) {
    if (i + 1 < b.size() && b[i + 1] == '\n') return i + 2;
    if (i + 2 < b.size() && b[i + 1] == '\r' && b[i + 2] == '\n') return i + 3;
  }
  return std::string_view::npos;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Strips a trailing ":<digits>,<digits>".
std::string_view StripOrdinalSuffix(std::string_view s) {
  size_t i = s.size();
  size_t countDigits = 0, ordinalDigits = 0;
  while (i > 0 && std::isdigit(static_cast<unsigned char>(s[i - 1]))) --i, ++countDigits;
  if (countDigits == 0 || i == 0 || s[i - 1] != ',') return s;
  --i;
  while (i > 0 && std::isdigit(static_cast<unsigned char>(s[i - 1]))) --i, ++ordinalDigits;
  if (ordinalDigits == 0 || i == 0 || s[i - 1] != ':') return s;
  return s.substr(0, i - 1);
}

}  // namespace

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

const std::string* Request::Header(std::string_view name) const {
  for (const auto& [n, v] : headers)
    if (EqualsIgnoreCase(n, name)) return &v;
  return nullptr;
}

bool Request::KeepAlive() const {
  const std::string* c = Header("Connection");
  bool close = c && EqualsIgnoreCase(Trim(*c), "close");
  bool keep = c && EqualsIgnoreCase(Trim(*c), "keep-alive");
  if (version == "HTTP/1.0") return keep;
  return !close;
}

bool Request::IsCompletionReport() const {
  const std::string* b = Header("Bundle-transfer");
  return target.empty() && b && EqualsIgnoreCase(*b, "COMPLETE");
}

ParseResult ParseRequest(std::string_view buffer, Request* out) {
  // Stray blank lines between requests are tolerated, as HTTP/1.1 asks.
  size_t skip = 0;
  while (skip < buffer.size() && (buffer[skip] == '\r' || buffer[skip] == '\n')) ++skip;
  std::string_view b = buffer.substr(skip);
  size_t end = FindHeadEnd(b.substr(0, kMaxRequestHead));
  if (end == std::string_view::npos) {
    if (b.size() >= kMaxRequestHead) return {ParseStatus::kBad, 0, "request head too long"};
    return {ParseStatus::kIncomplete, 0, {}};
  }
  std::string_view head = b.substr(0, end);
  Request r;

  size_t eol = head.find('\n');
  std::string_view line = Trim(head.substr(0, eol));
  if (HasControl(line)) return {ParseStatus::kBad, 0, "control character in request line"};
  size_t sp1 = line.find(' ');
  size_t sp2 = line.rfind(' ');
  if (sp1 == std::string_view::npos) return {ParseStatus::kBad, 0, "malformed request line"};
  r.method = std::string(line.substr(0, sp1));
  r.version = std::string(line.substr(sp2 + 1));
  if (sp2 > sp1) r.target = std::string(Trim(line.substr(sp1 + 1, sp2 - sp1 - 1)));
  if (r.method.empty()) return {ParseStatus::kBad, 0, "empty method"};
  for (unsigned char c : r.method)
    if (!IsTokenChar(c)) return {ParseStatus::kBad, 0, "malformed method"};
  if (r.version != "HTTP/1.1" && r.version != "HTTP/1.0")
    return {ParseStatus::kBad, 0, "unsupported protocol version"};

  size_t pos = eol + 1;
  while (pos < head.size()) {
    size_t next = head.find('\n', pos);
    std::string_view raw = head.substr(pos, next - pos);
    pos = next + 1;
    if (!raw.empty() && raw.back() == '\r') raw.remove_suffix(1);
    if (raw.empty()) break;
    if (raw.front() == ' ' || raw.front() == '\t')
      return {ParseStatus::kBad, 0, "folded header line"};
    size_t colon = raw.find(':');
    if (colon == std::string_view::npos || colon == 0)
      return {ParseStatus::kBad, 0, "malformed header line"};
    std::string_view name = raw.substr(0, colon);
    for (unsigned char c : name)
      if (!IsTokenChar(c)) return {ParseStatus::kBad, 0, "malformed header name"};
    std::string_view value = Trim(raw.substr(colon + 1));
    if (HasControl(value)) return {ParseStatus::kBad, 0, "control character in header"};
    r.headers.emplace_back(std::string(name), std::string(value));
  }
  *out = std::move(r);
  return {ParseStatus::kComplete, skip + end, {}};
}

ResolvedTarget ResolveTarget(std::string_view target) {
  std::string_view t = target;
  if (t.size() >= 7 && EqualsIgnoreCase(t.substr(0, 7), "http://")) {
    size_t slash = t.find('/', 7);
    t = slash == std::string_view::npos ? std::string_view() : t.substr(slash);
  }
  size_t q = t.find_first_of("?#");
  if (q != std::string_view::npos) t = t.substr(0, q);
  // Before decoding, so that an escaped colon stays part of a file name.
  t = StripOrdinalSuffix(t);

  std::string decoded;
  decoded.reserve(t.size());
  for (size_t i = 0; i < t.size(); ++i) {
    char c = t[i];
    if (c == '%') {
      int hi = i + 2 < t.size() ? HexValue(t[i + 1]) : -1;
      int lo = i + 2 < t.size() ? HexValue(t[i + 2]) : -1;
      if (hi < 0 || lo < 0) return {TargetStatus::kBadRequest, {}};
      c = static_cast<char>(hi * 16 + lo);
      i += 2;
    }
    if (c == '\0') return {TargetStatus::kBadRequest, {}};
    decoded.push_back(c == '\\' ? '/' : c);
  }

  std::vector<std::string_view> parts;
  std::string_view d = decoded;
  size_t pos = 0;
  while (pos <= d.size()) {
    size_t slash = d.find('/', pos);
    if (slash == std::string_view::npos) slash = d.size();
    std::string_view part = d.substr(pos, slash - pos);
    pos = slash + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (parts.empty()) return {TargetStatus::kForbidden, {}};
      parts.pop_back();
      continue;
    }
    parts.push_back(part);
  }
  std::string path;
  for (auto p : parts) {
    if (!path.empty()) path.push_back('/');
    path.append(p);
  }
  return {TargetStatus::kOk, path};
}

std::string FormatDeviceTimestamp(std::time_t t) {
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[80];
  std::snprintf(buf, sizeof buf, "%02d-%02d-%04d %02d:%02d:%02d", tm.tm_mon + 1, tm.tm_mday,
                tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return buf;
}

std::optional<unsigned long long> ParseDecimal(std::string_view s) {
  if (s.empty() || s.size() > 19) return std::nullopt;
  unsigned long long v = 0;
  for (char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  return v;
}

}  // namespace ftcserver
