#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "fleet.h"

extern char** environ;

namespace ftcfleet {
namespace {

// Children get their own process group, so a terminal's Ctrl-C reaches only ftc-fleet, which
// then stops them in order.
pid_t SpawnWith(const std::vector<std::string>& args, int in, int out) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (in >= 0)
    posix_spawn_file_actions_adddup2(&actions, in, 0);
  else
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out, 1);
  posix_spawn_file_actions_adddup2(&actions, out, 2);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attr, 0);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  return rc == 0 ? pid : -1;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs args with `input` on standard input.
int RunWith(const std::vector<std::string>& args, const std::string& input, std::string* output) {
  int outPipe[2], inPipe[2] = {-1, -1};
  if (pipe2(outPipe, O_CLOEXEC) != 0) return -1;
  if (!input.empty() && pipe2(inPipe, O_CLOEXEC) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return -1;
  }
  pid_t pid = SpawnWith(args, inPipe[0], outPipe[1]);
  close(outPipe[1]);
  if (inPipe[0] >= 0) close(inPipe[0]);
  if (inPipe[1] >= 0) {
    // Small rule sets only: they fit the pipe, so the write cannot wait on our reading.
    if (pid > 0) {
      ssize_t w = write(inPipe[1], input.data(), input.size());
      (void)w;  // a short write shows as the command's own error
    }
    close(inPipe[1]);
  }
  std::string text;
  char buf[4096];
  for (ssize_t n; (n = read(outPipe[0], buf, sizeof buf)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    text.append(buf, static_cast<size_t>(n));
  }
  close(outPipe[0]);
  if (output) *output = text;
  return pid < 0 ? -1 : Wait(pid);
}

uint64_t CounterBytes(const std::string& ns, const char* name) {
  std::string out;
  if (Run(Network::In(ns, {"nft", "list", "counter", "ip", "ftcfleet", name}), &out) != 0) return 0;
  size_t at = out.find("bytes ");
  return at == std::string::npos ? 0 : std::strtoull(out.c_str() + at + 6, nullptr, 10);
}

}  // namespace

pid_t Spawn(const std::vector<std::string>& args, const std::string& logPath) {
  int fd = open(logPath.empty() ? "/dev/null" : logPath.c_str(),
                O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  pid_t pid = SpawnWith(args, -1, fd);
  close(fd);
  return pid;
}

int Run(const std::vector<std::string>& args, std::string* output) {
  return RunWith(args, "", output);
}

void Stop(pid_t pid, int graceMs) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  for (int waited = 0; waited < graceMs; waited += 20) {
    int status;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid || (r < 0 && errno == ECHILD)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill(pid, SIGKILL);
  Wait(pid);
}

std::vector<std::string> Network::In(const std::string& ns, std::vector<std::string> args) {
  args.insert(args.begin(), {"ip", "netns", "exec", ns});
  return args;
}

bool Network::SetUp(int devices, double loss, uint16_t serverPort, std::string* error) {
  std::string prefix = "ftcf" + std::to_string(getpid());
  std::string out;
  auto step = [&](const std::vector<std::string>& args, const std::string& input = "") {
    if (RunWith(args, input, &out) == 0) return true;
    std::string cmd;
    for (const std::string& a : args) cmd += (cmd.empty() ? "" : " ") + a;
    while (!out.empty() && out.back() == '\n') out.pop_back();
    *error = cmd + ": " + (out.empty() ? "failed" : out);
    return false;
  };
  if (!step({"ip", "netns", "add", prefix + "-hub"})) return false;
  m_hub = prefix + "-hub";
  // No snooping: every port floods multicast, as a plain switch does without a querier.
  if (!step({"ip", "-n", m_hub, "-batch", "-"},
            "link set lo up\n"
            "link add br0 type bridge mcast_snooping 0\n"
            "addr add " +
                ServerAddress() +
                "/16 dev br0\n"
                "link set br0 up\n"))
    return false;
  // Drop decisions in ten-thousandths.
  long share = std::lround(loss * 10000);
  std::string hubLinks;
  for (int i = 0; i < devices; ++i) {
    std::string ns = prefix + "-" + std::to_string(i + 1);
    std::string veth = "ff" + std::to_string(getpid()) + "v" + std::to_string(i + 1);
    std::string address =
        "198.18." + std::to_string(1 + i / 250) + "." + std::to_string(1 + i % 250);
    if (!step({"ip", "netns", "add", ns})) return false;
    m_devices.push_back(ns);
    if (!step({"ip", "link", "add", veth, "netns", m_hub, "type", "veth", "peer", "name", "eth0",
               "netns", ns}) ||
        !step({"ip", "-n", ns, "-batch", "-"}, "link set lo up\naddr add " + address +
                                                   "/16 dev eth0\nlink set eth0 up\n"
                                                   "route add 224.0.0.0/4 dev eth0\n"))
      return false;
    std::string rules =
        "table ip ftcfleet {\n"
        "  counter http {}\n  counter multicast {}\n  counter dropped {}\n"
        "  chain input {\n"
        "    type filter hook input priority 0; policy accept;\n"
        "    tcp sport " +
        std::to_string(serverPort) + " counter name http\n";
    if (share > 0)
      rules += "    ip daddr 224.0.0.0/4 numgen random mod 10000 < " + std::to_string(share) +
               " counter name dropped drop\n";
    rules += "    ip daddr 224.0.0.0/4 counter name multicast\n  }\n}\n";
    if (!step(In(ns, {"nft", "-f", "-"}), rules)) return false;
    hubLinks += "link set " + veth + " master br0 up\n";
  }
  return step({"ip", "-n", m_hub, "-batch", "-"}, hubLinks);
}

void Network::TearDown() {
  for (const std::string& ns : m_devices) Run({"ip", "netns", "del", ns});
  m_devices.clear();
  if (!m_hub.empty()) Run({"ip", "netns", "del", m_hub});
  m_hub.clear();
}

Traffic Network::Count(int device) const {
  const std::string& ns = Device(device);
  return {CounterBytes(ns, "http"), CounterBytes(ns, "multicast"), CounterBytes(ns, "dropped")};
}

}  // namespace ftcfleet
