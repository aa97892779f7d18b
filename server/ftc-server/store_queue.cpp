#include "store_queue.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "server.h"

namespace ftcserver {

// Four of the largest deliveries; a thousand devices' check-ins take a few hundred KiB.
constexpr size_t kMaxQueuedBytes = 16 << 20;
constexpr size_t kMaxQueuedJobs = 65536;

std::string StoreQueue::Start(const std::string& url, unsigned connections, unsigned checkInSeconds,
                              ReportLog* reports) {
  m_checkInSeconds = checkInSeconds;
  m_reports = reports;
  for (unsigned i = 0; i < connections; ++i) {
    std::string error;
    auto store = ftcstore::OpenStore(url, ftcstore::OpenMode::kRead, &error);
    if (!store) return "cannot open the store " + url + ": " + error;
    m_stores.push_back(std::move(store));
  }
  for (auto& store : m_stores) m_threads.emplace_back([this, s = store.get()] { Run(*s); });
  return {};
}

void StoreQueue::Submit(StoreJob job) {
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    // One job always fits, however large.
    m_space.wait(lock, [&] {
      return m_stop || m_jobs.empty() ||
             (m_bytes + job.body.size() <= kMaxQueuedBytes && m_jobs.size() < kMaxQueuedJobs);
    });
    if (m_stop) return;
    m_bytes += job.body.size();
    m_jobs.push_back(std::move(job));
  }
  m_ready.notify_one();
}

void StoreQueue::Stop() {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
    m_jobs.clear();
    m_bytes = 0;
  }
  m_ready.notify_all();
  m_space.notify_all();
  for (auto& t : m_threads)
    if (t.joinable()) t.join();
  m_threads.clear();
}

void StoreQueue::Run(ftcstore::Store& store) {
  for (;;) {
    StoreJob job;
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_ready.wait(lock, [&] { return m_stop || !m_jobs.empty(); });
      if (m_stop) return;
      job = std::move(m_jobs.front());
      m_jobs.pop_front();
      m_bytes -= job.body.size();
    }
    m_space.notify_all();  // a large job may wait behind several small ones
    ftcstore::Answer answer;
    // Nothing may escape a thread's top; a job that throws is answered as not stored.
    try {
      if (job.kind == StoreJob::kMessages) {
        answer = ftcstore::AcceptMessages(job.body, store);
      } else if (job.kind == StoreJob::kInventory) {
        answer = ftcstore::AcceptInventory(job.body, store);
      } else if (job.kind == StoreJob::kCheckIn) {
        answer = ftcstore::AgentCheckIn(job.body, store, m_checkInSeconds);
      } else if (job.kind == StoreJob::kJob) {
        answer = ftcstore::AgentJob(job.body, store);
      } else if (job.kind == StoreJob::kResult) {
        answer = ftcstore::AgentResult(job.body, store);
      } else if (!m_reports->Append(job.report.line)) {
        // Its fsync here rather than on a worker: one slow disk holds up no device's files.
        std::string why = std::strerror(errno);
        answer = ftcstore::Refusal(500, "cannot record completion report");
        answer.log = {"cannot record completion report: " + why};
      } else if (ftcstore::Status s = store.AddReport(job.report, job.received); !s.ok()) {
        answer = ftcstore::Refusal(503, "cannot store completion report");
        answer.log = {"cannot store completion report: " + s.message};
      }
    } catch (const std::exception& e) {
      answer = ftcstore::Refusal(503, std::string("store failure: ") + e.what());
    }
    job.done(std::move(answer));
  }
}

}  // namespace ftcserver
