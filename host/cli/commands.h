// The commands of ftc-host.
#pragma once

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
  std::string server;   // deliver --server
  std::string deliver;  // run --deliver: where the job's reports go afterwards
  bool follow = false;
  bool dword = false;
};

// The device log, as the plug-in names it.
constexpr char kDeviceLogFile[] = "/tmp/FileXfer.txt";

int RunJob(const Options& opt);
int RegistryCommand(const Options& opt);
int IdentityCommand(const Options& opt);
int LogCommand(const Options& opt);
int EventsCommand(const Options& opt);
// Pulls one file through the plug-in's PullFile group (host/cli/pull_command.cpp).
int PullCommand(const Options& opt);

}  // namespace ftchost
