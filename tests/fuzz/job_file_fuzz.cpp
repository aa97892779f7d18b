// ftc-host replays a job file written by hand or exported from a management server. Any text
// must parse into calls that open and close groups in nesting order, each at a line of the text,
// or fail with a message that says where.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "job_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  ftchost::JobFile job;
  std::string error;
  if (!ftchost::ParseJob(text, &job, &error)) {
    FUZZ_EXPECT(error.rfind("line ", 0) == 0);
    return 0;
  }
  const int lines = 1 + static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  std::vector<std::string> open;
  for (const ftchost::JobCall& call : job.calls) {
    FUZZ_EXPECT(call.line >= 1 && call.line <= lines);
    if (call.kind == ftchost::JobCall::kBeginGroup) {
      open.push_back(call.name);
    } else if (call.kind == ftchost::JobCall::kEndGroup) {
      FUZZ_EXPECT(!open.empty() && open.back() == call.name);
      open.pop_back();
    } else {
      FUZZ_EXPECT(!open.empty());
    }
  }
  FUZZ_EXPECT(open.empty() && !job.calls.empty());
  return 0;
}
