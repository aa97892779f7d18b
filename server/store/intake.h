// What devices deliver over HTTP, apart from the socket: a request body in, the answer out.
// The answer is given only after the store has committed what it acknowledges.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "store.h"

namespace ftcstore {

constexpr size_t kMaxDeliveryBody = 4 << 20;
constexpr size_t kMaxMessageBytes = 256 << 10;
constexpr size_t kMaxBatch = 500;
// Asked of devices when the store cannot commit.
constexpr unsigned kRetryAfterSeconds = 2;

struct Answer {
  int status = 200;
  std::string body;  // JSON unless type says otherwise
  std::string type = "application/json";
  std::vector<std::string> log;  // why something was refused or could not be stored
  size_t stored = 0;             // messages newly stored
};

// A refusal: {"error": why}, and why for the log.
Answer Refusal(int status, const std::string& why);

// POST /xq/messages: a device's batch of spooled messages.
Answer AcceptMessages(std::string_view body, Store& store);
// POST /xq/inventory: what a device has installed.
Answer AcceptInventory(std::string_view body, Store& store);

// The device agent's endpoints. next: seconds until the agent's next check-in.
Answer AgentCheckIn(std::string_view body, Store& store, unsigned next);
// GET /agent/jobs/<deployment>?device=<id>: the job file, handed out once.
Answer AgentJob(std::string_view target, Store& store);
Answer AgentResult(std::string_view body, Store& store);

// A completion request's headers (null when absent) as the reports file's JSON line and the
// store's row. time: when it arrived, as the line shows it.
ReportRow MakeReport(const std::string& time, const std::string& peer, const std::string* core,
                     const std::string* bundleRx, const std::string* fallback,
                     const std::string* error);

}  // namespace ftcstore
