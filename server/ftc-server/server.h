// The upgrade server: an epoll event loop per worker thread over one listening socket.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "admin.h"
#include "common/crc_cache.h"
#include "metrics.h"
#include "store_queue.h"

namespace ftcserver {

// A setting that SIGHUP may change while worker threads read it.
template <typename T>
class Live {
 public:
  Live(T v = T()) : m_v(v) {}  // NOLINT: reads and assigns like the plain value
  Live(const Live& o) : m_v(o.get()) {}
  Live& operator=(const Live& o) { return *this = o.get(); }
  Live& operator=(T v) {
    m_v.store(v, std::memory_order_relaxed);
    return *this;
  }
  operator T() const { return get(); }  // NOLINT
  T get() const { return m_v.load(std::memory_order_relaxed); }

 private:
  std::atomic<T> m_v;
};

struct Options {
  std::string root;
  std::string bind = "127.0.0.1";
  uint16_t port = 8080;
  std::string reports;   // empty: completion reports go to stdout
  std::string db;        // store URL; empty: an SQLite file beside the root
  unsigned threads = 0;  // 0: one per core
  Live<unsigned> idleTimeoutSec = 120;
  Live<unsigned> checkInSec = 30;  // asked of device agents between check-ins
  std::string adminBind;           // "ADDRESS:PORT" of the fleet page; empty: none
  Live<bool> verbose = false;
};

// A listening socket (non-blocking) on host and port; *address: "HOST:PORT" bound. Error text or
// "".
std::string Listen(const std::string& host, uint16_t port, int* listenFd, std::string* address);

// Appends completion reports, one JSON object per line, each on disk before Append returns.
class ReportLog {
 public:
  ~ReportLog();
  // Empty path: standard output. Returns an error text, empty on success.
  std::string Open(const std::string& path);
  bool Append(const std::string& line);
  // Opens the file again under its name, after it was rotated. Error text or "".
  std::string Reopen();

 private:
  std::mutex m_mutex;
  int m_fd = -1;
  bool m_sync = false;
  std::string m_path;
};

class Worker;

class Server {
 public:
  explicit Server(Options options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Opens the root, the reports file and the listening socket. Returns an error text, empty on
  // success.
  std::string Start();
  // "HOST:PORT" actually bound.
  std::string ListenAddress() const { return m_listenAddress; }
  // "HOST:PORT" of the fleet page, "" when there is none.
  std::string AdminAddress() const { return m_admin.address(); }
  // Starts the workers; returns at once.
  void Run();
  // Whether every worker's loop has turned within the last withinSec seconds.
  bool Responsive(int64_t withinSec) const;
  // Takes the options that can change without a restart and reopens the reports file.
  std::string Reload(const Options& options);
  // Safe from any thread; Wait() then returns once every connection is closed.
  void Stop();
  void Wait();

  const Options& options() const { return m_options; }
  int rootFd() const { return m_rootFd; }
  int listenFd() const { return m_listenFd; }
  int stopFd() const { return m_stopFd; }
  CrcCache& crcCache() { return m_crcCache; }
  StoreQueue& storeQueue() { return m_storeQueue; }
  Metrics& metrics() { return m_metrics; }

 private:
  Options m_options;
  Metrics m_metrics;
  int m_rootFd = -1;
  int m_listenFd = -1;
  int m_stopFd = -1;
  std::string m_listenAddress;
  CrcCache m_crcCache;
  ReportLog m_reports;
  StoreQueue m_storeQueue;
  AdminServer m_admin;
  std::vector<std::unique_ptr<Worker>> m_workers;
  std::vector<std::thread> m_threads;
};

}  // namespace ftcserver
