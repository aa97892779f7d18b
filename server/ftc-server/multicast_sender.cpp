// One multicast sender session per phase of a deployment: uftp sends the bundle folder once to
// every device of the phase whose receiver has joined, and the devices fetch over HTTP whatever
// did not arrive intact.
#include "multicast_sender.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "store/text.h"

extern char** environ;

namespace ftcserver {
namespace {

using Clock = std::chrono::steady_clock;

// A phase's session starts once all its devices have taken the job, or this long after the
// first did: a device that is late or offline must not hold up the others.
constexpr int kGatherSeconds = 30;
// Receivers wait for the session a while longer than the sender may gather.
constexpr int kReceiverStartSeconds = kGatherSeconds + 30;
// A receiver gives up on a session silent this long (a sender gone), and the device goes on
// over HTTP. A receiver that has its file is quiet while the sender repairs others' losses: with
// tens of devices on a busy machine 10 seconds dropped some.
constexpr int kReceiverIdleSeconds = 30;
// Between the last device taking its job and the first announcement, for the plug-in's start-up
// steps to launch the receiver.
constexpr auto kReceiverLead = std::chrono::seconds(2);
constexpr auto kPoll = std::chrono::milliseconds(250);

volatile sig_atomic_t gStop = 0;

void OnSignal(int) {
  gStop = 1;
}

bool Waiting(const std::string& state) {
  return state == "pending" || state == "sent";
}

std::vector<std::string> BundleEntries(const std::string& dir) {
  std::vector<std::string> out;
  DIR* d = opendir(dir.c_str());
  if (!d) return out;
  while (dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") out.push_back(dir + "/" + n);
  }
  closedir(d);
  std::sort(out.begin(), out.end());
  return out;
}

// uftp logs to our standard error.
pid_t Spawn(const std::vector<std::string>& args) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, 2, 1);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

// How the sender ended, as the operator reads it.
std::string Ended(int status) {
  if (WIFSIGNALED(status)) return "stopped by signal " + std::to_string(WTERMSIG(status));
  int code = WEXITSTATUS(status);
  switch (code) {
    case 0:
      return "complete";
    case 7:
      return "no receiver joined";
    case 9:
      return "every receiver dropped out";
    default:
      return "uftp exited with " + std::to_string(code);
  }
}

}  // namespace

std::string ReceiverParameters(const MulticastPlan& plan, const std::string& dest) {
  return "-D \"" + dest + "\" -P " + std::to_string(plan.port) + " -M " + plan.group + " -T " +
         std::to_string(kReceiverStartSeconds) + " -W " + std::to_string(kReceiverIdleSeconds);
}

int RunMulticastSessions(ftcstore::Store& store, int64_t id, const MulticastPlan& plan,
                         const std::string& bundleDir) {
  struct sigaction sa {};
  sa.sa_handler = OnSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);

  int sent = 0;                    // phases whose session has run, or that had nobody to send to
  Clock::time_point firstTaken{};  // when a device of the phase first took the job
  bool anyTaken = false;
  for (;;) {
    if (gStop) return 1;
    bool found = false;
    ftcstore::DeploymentRow d;
    std::vector<ftcstore::DeploymentDeviceRow> devices;
    if (ftcstore::Status s = store.Deployment(id, ftcstore::IsoNow(6), &found, &d, &devices);
        !s.ok() || !found) {
      std::fprintf(stderr, "ftc-server: multicast: cannot read deployment %lld: %s\n",
                   static_cast<long long>(id), found ? s.message.c_str() : "gone");
      return 1;
    }
    if (d.state == "done" || d.state == "cancelled") return 0;
    if (d.phase < sent) {
      std::this_thread::sleep_for(kPoll);
      continue;
    }
    size_t inPhase = 0, taken = 0, waiting = 0;
    for (const ftcstore::DeploymentDeviceRow& r : devices) {
      if (r.phase != sent) continue;
      ++inPhase;
      if (Waiting(r.state))
        ++waiting;
      else if (r.state != "cancelled" && r.state != "timed out")
        ++taken;
    }
    if (taken > 0 && !anyTaken) firstTaken = Clock::now(), anyTaken = true;
    bool gathered = waiting == 0 ||
                    (anyTaken && Clock::now() - firstTaken >= std::chrono::seconds(kGatherSeconds));
    if (!gathered) {
      std::this_thread::sleep_for(kPoll);
      continue;
    }
    if (taken == 0) {  // nobody left to send to
      ++sent;
      anyTaken = false;
      continue;
    }
    std::this_thread::sleep_for(kReceiverLead);
    std::vector<std::string> args = {"uftp",
                                     "-I",
                                     plan.interface,
                                     "-M",
                                     plan.group,
                                     "-p",
                                     std::to_string(plan.port),
                                     "-R",
                                     std::to_string(plan.rateKbps),
                                     "-x",
                                     "1",
                                     "-T"};
    std::vector<std::string> entries = BundleEntries(bundleDir);
    args.insert(args.end(), entries.begin(), entries.end());
    pid_t pid = Spawn(args);
    if (pid < 0) {
      std::fprintf(stderr, "ftc-server: multicast: cannot start uftp: %s\n", std::strerror(errno));
      return 1;
    }
    std::printf("phase %d: multicast session to %zu of %zu devices, %s:%u from %s (uftp pid %d)\n",
                sent + 1, taken, inPhase, plan.group.c_str(), plan.port, plan.interface.c_str(),
                static_cast<int>(pid));
    std::fflush(stdout);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) break;
      if (gStop) kill(pid, SIGTERM);
    }
    std::printf("phase %d: multicast session %s\n", sent + 1, Ended(status).c_str());
    std::fflush(stdout);
    ++sent;
    anyTaken = false;
  }
}

}  // namespace ftcserver
