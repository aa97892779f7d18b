// ftc-server as the service manager runs it: readiness and watchdog notices, its settings file
// under the command line, and SIGHUP.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "support/device_root.h"
#include "support/helpers.h"
#include "support/http_client.h"

using ftctest::ServerProcess;

namespace {

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(root.path() + "/bundle");
    ftctest::WriteHostFile(root.path() + "/bundle/a.bin", "abc");
  }
  // The next notice within the time-out, "<none>" when none came.
  std::string Notice(int timeoutMs = 5000) { return ftctest::ReceiveDatagram(m_notify, timeoutMs); }
  // The manager's end of NOTIFY_SOCKET; programs started after this inherit it.
  void ListenForNotices() {
    m_notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::string path = root.path() + "/notify";
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    ASSERT_EQ(bind(m_notify, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    if (m_notify >= 0) close(m_notify);
  }
  int CheckInInterval(uint16_t port) {
    ftctest::Connection c(port);
    auto j =
        nlohmann::json::parse(c.Post("/agent/checkin", R"({"device":"D1"})").body, nullptr, false);
    return j.is_object() && j["next"].is_number() ? j["next"].get<int>() : -1;
  }

  ftctest::DeviceRoot root;
  std::string bundle = root.path() + "/bundle";
  std::string config = root.path() + "/server.conf";
  int m_notify = -1;
};

TEST_F(ServiceTest, ReadyOnceListeningWatchdogWhileAliveReloadAndStop) {
  ListenForNotices();
  setenv("WATCHDOG_USEC", "400000", 1);
  ServerProcess server(bundle);
  EXPECT_EQ(Notice(), "READY=1");
  // Pings every 200 ms while the workers turn.
  EXPECT_EQ(Notice(1000), "WATCHDOG=1");
  EXPECT_EQ(Notice(1000), "WATCHDOG=1");
  kill(server.pid(), SIGHUP);
  std::string seen;
  while (seen.find("READY=1") == std::string::npos) {
    std::string n = Notice();
    if (n == "<none>") break;
    if (n != "WATCHDOG=1") seen += n + ";";
  }
  EXPECT_EQ(seen, "RELOADING=1;READY=1;");
  EXPECT_EQ(server.Stop(), 0);
  std::string last;
  for (std::string n; (n = Notice(500)) != "<none>";) last = n;
  EXPECT_EQ(last, "STOPPING=1");
}

TEST_F(ServiceTest, SettingsFileHoldsTheFlagsTheCommandLineWinsAndSighupRereads) {
  // The file names a port the command line overrides (ServerProcess passes --port 0).
  ftctest::WriteHostFile(config, "# comment\nport = 1\ncheck-in = 7\nverbose = false\n");
  ListenForNotices();
  ServerProcess server(bundle, {"--config", config});
  ASSERT_EQ(Notice(), "READY=1");
  EXPECT_EQ(CheckInInterval(server.port()), 7);

  ftctest::WriteHostFile(config, "port = 1\ncheck-in = 5\n");
  kill(server.pid(), SIGHUP);
  EXPECT_TRUE(ftctest::WaitUntil([&] { return CheckInInterval(server.port()) == 5; }));

  // A broken file is refused at start, and on reload leaves the running settings alone.
  ftctest::WriteHostFile(config, "check-in = 3\n[devices]\nroot = /x\n");
  kill(server.pid(), SIGHUP);
  EXPECT_EQ(Notice(), "RELOADING=1");
  EXPECT_EQ(Notice(), "READY=1");
  EXPECT_EQ(CheckInInterval(server.port()), 5);
  int status = -1;
  std::string out = ftctest::RunCommand(
      ftctest::BinDir() + "/ftc-server --config " + config + " --root " + bundle + " --port 0",
      &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(out.find("server.conf line 3: sections are not used"), std::string::npos) << out;
  for (const char* bad : {"colour = blue\n", "verbose = yes\n"}) {
    ftctest::WriteHostFile(config, bad);
    ftctest::RunCommand(ftctest::BinDir() + "/ftc-server --config " + config, &status);
    EXPECT_EQ(status, 2) << bad;
  }
}

TEST_F(ServiceTest, EveryProgramNamesItsVersionAndHelpGoesToStandardOutput) {
  for (const char* program : {"ftc-server", "ftc-bundle", "ftc-host"}) {
    int status = -1;
    std::string path = ftctest::BinDir() + "/" + program;
    EXPECT_EQ(ftctest::RunCommand("(" + path + " --version 2>/dev/null)", &status),
              std::string(program) + " 3.50d\n");
    EXPECT_EQ(status, 0);
    EXPECT_NE(ftctest::RunCommand("(" + path + " --help 2>/dev/null)", &status).find("usage: "),
              std::string::npos)
        << program;
    EXPECT_EQ(status, 0);
  }
}

}  // namespace
