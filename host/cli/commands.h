// The commands of ftc-host.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ftchost {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Options {
  std::vector<std::string> args;  // after the command name
  std::string root;               // absolute; WINUX_ROOT is set to it
  std::string plugin;
  std::string queue;
  std::string server;       // deliver --server
  std::string deliver;      // run --deliver: where the job's reports go afterwards
  std::string interval;     // agent --interval, device seconds
  std::string metricsFile;  // agent --metrics-file: its figures, for a textfile collector
  bool follow = false;
  bool dword = false;
};

// The device log, as the plug-in names it.
constexpr char kDeviceLogFile[] = "/tmp/FileXfer.txt";

// The options as the settings file and the command line give them now (after SIGHUP).
bool RereadOptions(Options* opt, std::string* error);

// How a job replayed into the plug-in ended.
struct JobResult {
  enum State { kNotRun, kRefused, kComplete, kFailed, kUnknown };
  State state = kNotRun;
  uint32_t code = 0;  // kRefused: the result code of the refused Upgrade call
  std::string text;   // the final event's text, the refusal's meaning, or why it is unknown
  int fetched = 0;    // files absent before or rewritten since, and matching
  uintmax_t bytes = 0;
  int exit = kExitFailed;
};

struct JobFile;

// `run`'s work after the job file is read: replays the job, follows it to its end and prints
// the summary. started is called once the plug-in has taken the job.
JobResult RunParsedJob(const Options& opt, const JobFile& job,
                       const std::function<void()>& started = {});
int RunJob(const Options& opt);
// `ftc-host agent`: checks in with the fleet server and runs the jobs it hands out.
int AgentCommand(const Options& opt);
int RegistryCommand(const Options& opt);
int IdentityCommand(const Options& opt);
int LogCommand(const Options& opt);
int EventsCommand(const Options& opt);
// Pulls one file through the plug-in's PullFile group (host/cli/pull_command.cpp).
int PullCommand(const Options& opt);

}  // namespace ftchost
