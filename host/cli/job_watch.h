// How a host learns that an upgrade job has ended, and how, from what the plug-in reports rather
// than from its log. At its end the worker queues the final device event (205182 complete,
// 205180 failed), sends the final ready-to-work state, and only then deletes the in-progress
// event; so a final event queued since the watch began, with the in-progress event gone, is the
// end of the job and says how it went.
#pragma once

#include <chrono>
#include <set>
#include <string>

namespace ftchost {

enum class JobOutcome {
  kRunning,
  kComplete,
  kFailed,
  // The in-progress event came and went but no final event was queued (no message queue).
  kUnreported,
};

class JobWatch {
 public:
  // Takes note of what the spool under root already holds. Set it up just before the Upgrade
  // group closes: older records, a refusal's among them, are not this job's.
  explicit JobWatch(const std::string& root);

  // Looks once; kRunning until the job has ended.
  [[nodiscard]] JobOutcome Poll();
  // Polls until the job has ended or limit (real time) has passed; kRunning then. After the end
  // it also waits for the plug-in's threads to leave.
  [[nodiscard]] JobOutcome Wait(std::chrono::milliseconds limit);
  // The final event's text: "bundle, version", or "reason, bundle, version" on failure.
  const std::string& text() const { return m_text; }

 private:
  void ReadNewEvents();

  std::string m_root;
  std::set<std::string> m_seen;  // record names in the event queue
  JobOutcome m_outcome = JobOutcome::kRunning;
  std::string m_text;
  bool m_sawInProgress = false;
  bool m_ended = false;
};

// Whether the named in-progress event exists, i.e. a worker holds a job.
bool UpgradeInProgress();

}  // namespace ftchost
