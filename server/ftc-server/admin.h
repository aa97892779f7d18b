// The fleet page: a read-only HTML page and the JSON it is drawn from, on a listener of its own
// so that the device network never reaches it. One thread, one store connection: it serves an
// operator or two, not the fleet.
#pragma once

#include <memory>
#include <string>
#include <thread>

namespace ftcstore {
class Store;
}

namespace ftcserver {

class Metrics;

class AdminServer {
 public:
  AdminServer();
  ~AdminServer();
  AdminServer(const AdminServer&) = delete;
  AdminServer& operator=(const AdminServer&) = delete;

  // bind: "ADDRESS:PORT" ("[::1]:PORT" for IPv6); metrics: served on /metrics, outlives this.
  // Error text or "".
  std::string Start(const std::string& bind, const std::string& db,
                    const Metrics* metrics = nullptr);
  std::string address() const { return m_address; }
  // Starts its thread when started; Stop is safe from any thread, Wait joins.
  void Run();
  void Stop();
  void Wait();

 private:
  void Loop();
  void Serve(int fd);

  int m_listenFd = -1;
  int m_stopFd = -1;
  std::string m_address;
  std::unique_ptr<ftcstore::Store> m_store;
  const Metrics* m_metrics = nullptr;
  std::thread m_thread;
};

}  // namespace ftcserver
