// The upgrade server reads request heads from any device on the network, a segment at a time:
// parsing must be bounded and agree with itself on a prefix, a resolved path never leaves the
// served folder, and every text it records stays inside one JSON line.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "http.h"
#include "store/intake.h"
#include "store/text.h"

namespace {

using ftcserver::ParseRequest;
using ftcserver::ParseStatus;
using ftcserver::Request;

void CheckPath(std::string_view target) {
  ftcserver::ResolvedTarget r = ftcserver::ResolveTarget(target);
  if (r.status != ftcserver::TargetStatus::kOk || r.path.empty()) return;
  const std::string p = "/" + r.path + "/";
  FUZZ_EXPECT(p.find('\\') == std::string::npos && p.find('\0') == std::string::npos);
  FUZZ_EXPECT(p.find("//") == std::string::npos && p.find("/./") == std::string::npos &&
              p.find("/../") == std::string::npos);
}

// A completion report's line is one JSON object holding every header text, whatever its bytes.
void CheckReport(const std::string* value) {
  ftcstore::ReportRow row = ftcstore::MakeReport("T", "peer", value, value, value, value);
  FUZZ_EXPECT(row.line.find('\n') == std::string::npos);
  nlohmann::json j = nlohmann::json::parse(row.line, nullptr, false);
  FUZZ_EXPECT(j.is_object() && j.size() == 6);
  FUZZ_EXPECT(value ? j["Error"] == ftcstore::CleanText(*value) : j["Error"].is_null());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view buffer(reinterpret_cast<const char*>(data), size);
  Request request;
  ftcserver::ParseResult r = ParseRequest(buffer, &request);
  CheckPath(buffer);
  if (r.status != ParseStatus::kComplete) {
    FUZZ_EXPECT(r.headLength == 0);
    // Whatever is incomplete stays so as fewer bytes arrive.
    if (r.status == ParseStatus::kIncomplete && size > 0)
      FUZZ_EXPECT(ParseRequest(buffer.substr(0, size / 2), &request).status ==
                  ParseStatus::kIncomplete);
    return 0;
  }
  // The head alone parses to the same request; cut shorter it is not yet complete.
  FUZZ_EXPECT(r.headLength > 0 && r.headLength <= size);
  Request again;
  ftcserver::ParseResult head = ParseRequest(buffer.substr(0, r.headLength), &again);
  FUZZ_EXPECT(head.status == ParseStatus::kComplete && head.headLength == r.headLength);
  FUZZ_EXPECT(again.method == request.method && again.target == request.target &&
              again.version == request.version && again.headers == request.headers);
  FUZZ_EXPECT(ParseRequest(buffer.substr(0, r.headLength - 1), &again).status !=
              ParseStatus::kComplete);
  CheckPath(request.target);
  CheckReport(nullptr);
  request.KeepAlive();
  request.IsCompletionReport();
  for (const auto& [name, value] : request.headers) {
    CheckReport(&value);
    FUZZ_EXPECT(request.Header(name) != nullptr);
    if (ftcserver::ParseDecimal(value))
      FUZZ_EXPECT(!value.empty() && value.find_first_not_of("0123456789") == std::string::npos);
  }
  return 0;
}
