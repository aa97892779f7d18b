#include "postgres.h"

#include <glob.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "helpers.h"

namespace ftctest {
namespace {

// The newest installed server's programs, "" when there is none.
std::string ServerBinDir() {
  glob_t g{};
  std::string dir;
  if (glob("/usr/lib/postgresql/*/bin/initdb", 0, nullptr, &g) == 0 && g.gl_pathc > 0) {
    dir = g.gl_pathv[g.gl_pathc - 1];
    dir.resize(dir.size() - 7);  // "/initdb"
  }
  globfree(&g);
  return dir;
}

}  // namespace

PostgresServer::PostgresServer() {
  m_bin = ServerBinDir();
  if (m_bin.empty()) {
    m_why = "PostgreSQL server programs are not installed (scripts/bootstrap.sh test)";
    return;
  }
  char dir[] = "/tmp/ftc-pg-XXXXXX";
  if (!mkdtemp(dir)) {
    m_why = "cannot make a folder for PostgreSQL";
    return;
  }
  m_dir = dir;
  // PostgreSQL refuses to run as root.
  if (geteuid() == 0) {
    passwd* pw = getpwnam("postgres");
    if (!pw || chown(dir, pw->pw_uid, pw->pw_gid) != 0) {
      m_why = "running as root and there is no postgres user to run PostgreSQL as";
      return;
    }
    m_user = "postgres";
  }
  int status = -1;
  std::string out =
      Run("initdb", "-D " + m_dir + "/data -U ftc -A trust --no-sync -E UTF8 --locale=C", &status);
  if (status != 0) {
    m_why = "initdb failed: " + out;
    return;
  }
  m_port = FreeTcpPort();
  if (!Start()) m_why = "PostgreSQL did not start: " + RunCommand("cat " + m_dir + "/log");
}

PostgresServer::~PostgresServer() {
  if (m_dir.empty()) return;
  int status;
  if (m_port) Run("pg_ctl", "-D " + m_dir + "/data -m immediate stop", &status);
  RunCommand("rm -rf " + m_dir);
}

std::string PostgresServer::url() const {
  return "postgresql://ftc@127.0.0.1:" + std::to_string(m_port) + "/postgres";
}

bool PostgresServer::Start() {
  int status = -1;
  // Durability is not what these tests are about: no fsync keeps them fast.
  Run("pg_ctl",
      "-D " + m_dir + "/data -l " + m_dir + "/log -w -t 30 -o \"-p " + std::to_string(m_port) +
          " -c listen_addresses=127.0.0.1 -c unix_socket_directories=" + m_dir +
          " -c fsync=off -c full_page_writes=off\" start",
      &status);
  return status == 0;
}

bool PostgresServer::Stop() {
  int status = -1;
  Run("pg_ctl", "-D " + m_dir + "/data -m fast -w stop", &status);
  return status == 0;
}

std::string PostgresServer::Run(const std::string& tool, const std::string& args,
                                int* status) const {
  std::string command = m_bin + "/" + tool + " " + args;
  if (!m_user.empty()) command = "runuser -u " + m_user + " -- " + command;
  return RunCommand(command, status);
}

}  // namespace ftctest
