// The upgrade server reads request heads from any device on the network, a segment at a time:
// parsing must be bounded, agree with itself on a prefix, never resolve a path above the served
// folder, and the texts it logs must stay valid JSON.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "http.h"

namespace {

using ftcserver::ParseRequest;
using ftcserver::ParseStatus;
using ftcserver::Request;

bool ValidUtf8(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t extra = c < 0x80             ? 0
                   : (c & 0xE0) == 0xC0 ? 1
                   : (c & 0xF0) == 0xE0 ? 2
                   : (c & 0xF8) == 0xF0 ? 3
                                        : 9;
    if (extra == 9 || i + extra >= s.size()) return false;
    for (size_t k = 1; k <= extra; ++k)
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
    i += extra + 1;
  }
  return true;
}

// A JSON string literal: quoted, no raw control characters, only JSON's escapes.
bool ValidJsonString(std::string_view s) {
  if (s.size() < 2 || s.front() != '"' || s.back() != '"') return false;
  std::string_view body = s.substr(1, s.size() - 2);
  for (size_t i = 0; i < body.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(body[i]);
    if (c < 0x20 || c == '"') return false;
    if (c != '\\') continue;
    if (++i >= body.size()) return false;
    char e = body[i];
    if (e == 'u') {
      if (i + 4 >= body.size()) return false;
      for (int k = 1; k <= 4; ++k)
        if (!isxdigit(static_cast<unsigned char>(body[i + k]))) return false;
      i += 4;
    } else if (std::string_view("\"\\/bfnrt").find(e) == std::string_view::npos) {
      return false;
    }
  }
  return ValidUtf8(body);
}

void CheckPath(std::string_view target) {
  ftcserver::ResolvedTarget r = ftcserver::ResolveTarget(target);
  if (r.status != ftcserver::TargetStatus::kOk) return;
  const std::string& p = r.path;
  FUZZ_EXPECT(p.find('\0') == std::string::npos);
  FUZZ_EXPECT(p.find('\\') == std::string::npos);
  FUZZ_EXPECT(p.empty() || (p.front() != '/' && p.back() != '/'));
  size_t pos = 0;
  while (pos <= p.size() && !p.empty()) {
    size_t cut = p.find('/', pos);
    if (cut == std::string::npos) cut = p.size();
    std::string_view part(p.data() + pos, cut - pos);
    FUZZ_EXPECT(!part.empty() && part != "." && part != "..");
    pos = cut + 1;
  }
}

bool Same(const Request& a, const Request& b) {
  return a.method == b.method && a.target == b.target && a.version == b.version &&
         a.headers == b.headers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view buffer(reinterpret_cast<const char*>(data), size);
  Request request;
  ftcserver::ParseResult r = ParseRequest(buffer, &request);
  CheckPath(buffer);
  FUZZ_EXPECT(ValidJsonString(ftcserver::JsonString(buffer)));
  if (r.status != ParseStatus::kComplete) {
    FUZZ_EXPECT(r.headLength == 0);
    // Whatever is incomplete stays so as fewer bytes arrive.
    if (r.status == ParseStatus::kIncomplete && size > 0)
      FUZZ_EXPECT(ParseRequest(buffer.substr(0, size / 2), &request).status ==
                  ParseStatus::kIncomplete);
    return 0;
  }

  FUZZ_EXPECT(r.headLength > 0 && r.headLength <= size);
  // The head alone parses to the same request; cut shorter it is not yet complete.
  Request again;
  ftcserver::ParseResult whole = ParseRequest(buffer.substr(0, r.headLength), &again);
  FUZZ_EXPECT(whole.status == ParseStatus::kComplete && whole.headLength == r.headLength);
  FUZZ_EXPECT(Same(request, again));
  Request shorter;
  FUZZ_EXPECT(ParseRequest(buffer.substr(0, r.headLength - 1), &shorter).status !=
              ParseStatus::kComplete);

  CheckPath(request.target);
  request.KeepAlive();
  request.IsCompletionReport();
  for (const auto& [name, value] : request.headers) {
    FUZZ_EXPECT(ValidJsonString(ftcserver::JsonString(value)));
    FUZZ_EXPECT(request.Header(name) != nullptr);
    if (auto n = ftcserver::ParseDecimal(value))
      FUZZ_EXPECT(!value.empty() && value.find_first_not_of("0123456789") == std::string::npos);
  }
  return 0;
}
