// The server's own figures for /metrics: counters bumped by the workers and store threads,
// read by the admin listener. Every member is safe from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace ftcstore {
class Store;
}

namespace ftcserver {

// What a request asked for.
enum class RequestKind { kFile, kReport, kMessages, kInventory, kCheckIn, kJob, kResult, kOther };
constexpr size_t kRequestKinds = 8;

class Metrics {
 public:
  // Seconds; the last bucket is +Inf.
  static constexpr std::array<double, 10> kBuckets = {0.001, 0.0025, 0.005, 0.01, 0.025,
                                                      0.05,  0.1,    0.25,  1,    5};

  void Request(RequestKind kind, uint64_t bodyBytes);
  // A response queued: its bytes, and the time since its request was read.
  void Response(RequestKind kind, uint64_t bytes, double seconds);
  void FileServed() { m_filesServed.fetch_add(1, std::memory_order_relaxed); }
  // fallback: the device says it fetched by HTTP after multicast.
  void CompletionReport(bool fallback) {
    m_reports[fallback].fetch_add(1, std::memory_order_relaxed);
  }
  void MessagesStored(uint64_t n) { m_messagesStored.fetch_add(n, std::memory_order_relaxed); }
  void StoreError() { m_storeErrors.fetch_add(1, std::memory_order_relaxed); }
  void Opened() { m_open.fetch_add(1, std::memory_order_relaxed); }
  void Closed(int64_t n = 1) { m_open.fetch_sub(n, std::memory_order_relaxed); }

  // The page: these counters, then devices and deployments by state from the store (a store
  // that cannot answer is itself a figure, not a failed page).
  std::string Render(ftcstore::Store* store, unsigned long long staleMinutes) const;

 private:
  struct PerKind {
    std::atomic<uint64_t> requests{0}, bodyBytes{0}, responseBytes{0}, responses{0};
    std::atomic<uint64_t> buckets[kBuckets.size()] = {};
    std::atomic<uint64_t> microseconds{0};
  };
  std::array<PerKind, kRequestKinds> m_kinds;
  std::atomic<uint64_t> m_filesServed{0}, m_messagesStored{0}, m_storeErrors{0};
  std::atomic<uint64_t> m_reports[2] = {};
  std::atomic<int64_t> m_open{0};
};

}  // namespace ftcserver
