#include "job_watch.h"

#include <fstream>
#include <iterator>
#include <thread>

#include "platform/winux.h"
#include "winux/winux_host.h"
#include "xq/spool.h"

namespace ftchost {

namespace {

// Where the plug-in queues device events, and the codes of a job's final one.
constexpr char kEventQueue[] = "QV_Event_DB";
constexpr char kUpgradeFailed[] = "205180";
constexpr char kUpgradeComplete[] = "205182";
// The worker's last steps take seconds at most.
constexpr std::chrono::milliseconds kTailLimit{120000};

}  // namespace

JobWatch::JobWatch(const std::string& root) : m_root(root) {
  for (const std::string& name : xqspool::ListDir(xqspool::SpoolDir(m_root) + "/" + kEventQueue))
    m_seen.insert(name);
}

JobOutcome JobWatch::Poll() {
  if (m_ended) return m_outcome;
  // The event first: once it is seen gone, the final event queued before its deletion is read.
  bool inProgress = UpgradeInProgress();
  ReadNewEvents();
  if (inProgress) {
    m_sawInProgress = true;
    return JobOutcome::kRunning;
  }
  if (m_outcome == JobOutcome::kRunning && !m_sawInProgress) return JobOutcome::kRunning;
  if (m_outcome == JobOutcome::kRunning) m_outcome = JobOutcome::kUnreported;
  m_ended = true;
  return m_outcome;
}

void JobWatch::ReadNewEvents() {
  std::string dir = xqspool::SpoolDir(m_root) + "/" + kEventQueue;
  // Only new names are read: a long-lived device root keeps every record it ever queued.
  for (const std::string& name : xqspool::ListDir(dir)) {
    uint64_t sequence = 0;
    if (m_seen.count(name) || !xqspool::ParseRecordName(name, &sequence)) continue;
    std::ifstream in(dir + "/" + name, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    SpoolRecord r;
    if (!xqspool::ParseRecord(content, &r)) continue;
    m_seen.insert(name);
    // The first final event is this job's: the watch began just before the job could start.
    if (r.kind != "event" || m_outcome != JobOutcome::kRunning) continue;
    if (r.code == kUpgradeComplete) m_outcome = JobOutcome::kComplete;
    if (r.code == kUpgradeFailed) m_outcome = JobOutcome::kFailed;
    if (m_outcome != JobOutcome::kRunning) m_text = r.text;
  }
}

JobOutcome JobWatch::Wait(std::chrono::milliseconds limit) {
  auto until = std::chrono::steady_clock::now() + limit;
  for (;;) {
    JobOutcome outcome = Poll();
    if (outcome != JobOutcome::kRunning) {
      // The worker's tail (clean-up, a reboot request, closing the queue) follows the end; the
      // host must not unload or exit under it.
      (void)WinuxWaitForPlatformThreads(static_cast<DWORD>(kTailLimit.count()));
      return outcome;
    }
    if (std::chrono::steady_clock::now() >= until) return outcome;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

bool UpgradeInProgress() {
  HANDLE h = OpenEvent(0, FALSE, L"QV_UPGRADE_IN_PROGRESS");
  if (!h) return false;
  CloseHandle(h);
  return true;
}

}  // namespace ftchost
