// Store work off the event loops: jobs run on a few threads that own a store connection each,
// so that the database sees as many concurrent transactions as it has connections, however the
// devices are spread over the workers. The queue is short: when it is full, the submitting
// worker waits for a free place (about one commit) while the devices' further data waits in
// the kernel, so that memory does not grow with the number of devices delivering at once.
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
  // Opens `connections` store connections (the schema must be up to date). Error text or "".
  std::string Start(const std::string& url, unsigned connections, unsigned checkInSeconds);
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
  size_t m_capacity = 0;
  std::atomic<unsigned> m_checkInSeconds{0};
  std::deque<StoreJob> m_jobs;
  bool m_stop = false;
  std::vector<std::unique_ptr<ftcstore::Store>> m_stores;
  std::vector<std::thread> m_threads;
};

}  // namespace ftcserver
