// Store work off the event loops: jobs run on a few threads that own a store connection each,
// so that the database sees as many concurrent transactions as it has connections, however the
// devices are spread over the workers. The queue is bounded by the bytes it holds, not by jobs:
// a fleet's small check-ins and deliveries all wait here while the workers go on serving files;
// only when large bodies fill it does the submitting worker wait for a place, the devices'
// further data waiting in the kernel, so that memory stays bounded.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "store/intake.h"
#include "store/store.h"

namespace ftcserver {

class ReportLog;

struct StoreJob {
  enum Kind { kMessages, kInventory, kReport, kCheckIn, kJob, kResult };
  Kind kind = kMessages;
  std::string body;  // the delivery's request body; for kJob the request target
  ftcstore::ReportRow report;
  std::string received;  // when the report arrived
  // Called on a store thread with the answer; must be thread-safe and quick.
  std::function<void(ftcstore::Answer)> done;
};

class StoreQueue {
 public:
  ~StoreQueue() { Stop(); }
  // Opens `connections` store connections (the schema must be up to date). Completion reports
  // are appended to reports before they are stored. Error text or "".
  std::string Start(const std::string& url, unsigned connections, unsigned checkInSeconds,
                    ReportLog* reports);
  void SetCheckInSeconds(unsigned seconds) { m_checkInSeconds = seconds; }
  // Waits while the queue is full; drops the job once stopped.
  void Submit(StoreJob job);
  // Finishes the jobs in hand, drops the others and joins the threads.
  void Stop();

 private:
  void Run(ftcstore::Store& store);

  std::mutex m_mutex;
  std::condition_variable m_ready;
  std::condition_variable m_space;
  size_t m_bytes = 0;  // request bodies held by m_jobs
  std::atomic<unsigned> m_checkInSeconds{0};
  ReportLog* m_reports = nullptr;
  std::deque<StoreJob> m_jobs;
  bool m_stop = false;
  std::vector<std::unique_ptr<ftcstore::Store>> m_stores;
  std::vector<std::thread> m_threads;
};

}  // namespace ftcserver
