// A private PostgreSQL server for one test program: Debian's initdb and pg_ctl in a temporary
// folder, on a free loopback port, as the postgres system user when the tests run as root.
#pragma once

#include <string>

namespace ftctest {

class PostgresServer {
 public:
  PostgresServer();  // initialises and starts it; available() says whether that worked
  ~PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  bool available() const { return m_why.empty(); }
  // Why it is not available, for the skip message.
  const std::string& why() const { return m_why; }
  // postgresql://... of its one database.
  std::string url() const;
  // Stops (fast shutdown) and starts it again on the same port; true when done.
  bool Stop();
  bool Start();

 private:
  std::string Run(const std::string& tool, const std::string& args, int* status) const;

  std::string m_bin, m_dir, m_why, m_user;
  int m_port = 0;
};

}  // namespace ftctest
