// ftc-host: the host process. Loads the plug-in, replays a job file, shows the upgrade, runs as
// the device's agent, and gives operators a look at the device's registry, identity, log and
// reports.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "commands.h"
#include "deliver.h"
#include "service/daemon.h"

namespace fs = std::filesystem;

namespace {

constexpr char kDefaultConfig[] = "/etc/ftc/device.conf";

void Usage(FILE* out) {
  fprintf(out,
          "usage: ftc-host run JOB.xml [--root DIR] [--plugin PATH] [--time-scale X]\n"
          "                            [--deliver URL]\n"
          "       ftc-host reg get KEY VALUE [--root DIR]\n"
          "       ftc-host reg set KEY VALUE DATA [--dword] [--root DIR]\n"
          "       ftc-host identity [--root DIR]\n"
          "       ftc-host log [--root DIR]\n"
          "       ftc-host events [--queue Q] [--follow] [--root DIR]\n"
          "       ftc-host pull --url URL --file NAME --dest PATH --bundle NAME [--root DIR]\n"
          "                     [--time-scale X]\n"
          "       ftc-host deliver [--server URL] [--follow] [--root DIR] [--time-scale X]\n"
          "       ftc-host agent [--server URL] [--root DIR] [--interval SECONDS]\n"
          "                      [--plugin PATH] [--time-scale X] [--metrics-file PATH]\n"
          "       ftc-host --version\n"
          "Every command also takes --config FILE: key = value lines named like the options\n"
          "(default %s when it exists); options given here override them. The agent\n"
          "rereads --server and --interval on SIGHUP and writes its figures to the metrics file.\n"
          "KEY is a full key path such as HKEY_LOCAL_MACHINE\\SOFTWARE\\Tervalon\\XQueue.\n"
          "The device root defaults to $XDG_STATE_HOME/ftc/device (~/.local/state/ftc/device).\n",
          kDefaultConfig);
}

std::string DefaultRoot() {
  const char* state = getenv("XDG_STATE_HOME");
  if (state && *state) return std::string(state) + "/ftc/device";
  const char* home = getenv("HOME");
  return std::string(home && *home ? home : ".") + "/.local/state/ftc/device";
}

int Bad(const std::string& message) {
  fprintf(stderr, "ftc-host: %s\n", message.c_str());
  Usage(stderr);
  return ftchost::kExitUsage;
}

// The device's settings file first, then the command line, so that the latter wins. "" or an
// error text; *help when help was asked for.
std::string ParseArgs(std::vector<std::string> given, ftchost::Options* opt, std::string* root,
                      std::string* scale, bool* help) {
  std::string config, error;
  if (error = ftcservice::TakeConfigPath(&given, kDefaultConfig, &config); !error.empty())
    return error;
  std::vector<std::string> all;
  if (!config.empty())
    if (error = ftcservice::ConfigFlags(config, {"follow", "dword"}, &all); !error.empty())
      return error;
  all.insert(all.end(), given.begin(), given.end());
  for (size_t i = 0; i < all.size(); ++i) {
    const std::string& a = all[i];
    auto next = [&](std::string* out) {
      if (i + 1 >= all.size()) return false;
      *out = all[++i];
      return true;
    };
    if (a == "--root") {
      if (!next(root)) return "--root needs a folder";
    } else if (a == "--plugin") {
      if (!next(&opt->plugin)) return "--plugin needs a path";
    } else if (a == "--time-scale") {
      if (!next(scale)) return "--time-scale needs a number";
    } else if (a == "--queue") {
      if (!next(&opt->queue)) return "--queue needs a name";
    } else if (a == "--server") {
      if (!next(&opt->server)) return "--server needs a URL";
    } else if (a == "--deliver") {
      if (!next(&opt->deliver)) return "--deliver needs a URL";
    } else if (a == "--interval") {
      if (!next(&opt->interval)) return "--interval needs seconds";
    } else if (a == "--metrics-file") {
      if (!next(&opt->metricsFile)) return "--metrics-file needs a path";
    } else if (a == "--follow") {
      opt->follow = true;
    } else if (a == "--dword") {
      opt->dword = true;
    } else if (a == "--url" || a == "--file" || a == "--dest" || a == "--bundle") {
      // pull's own options: handed on in order for PullCommand to read.
      opt->args.push_back(a);
      if (i + 1 < all.size()) opt->args.push_back(all[++i]);
    } else if (a == "-h" || a == "--help") {
      *help = true;
      return {};
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return "unknown option " + a;
    } else {
      opt->args.push_back(a);
    }
  }
  return {};
}

std::vector<std::string> g_given;

}  // namespace

namespace ftchost {

bool RereadOptions(Options* opt, std::string* error) {
  Options fresh;
  std::string root, scale;
  bool help = false;
  *error = ParseArgs(g_given, &fresh, &root, &scale, &help);
  if (!error->empty()) return false;
  *opt = fresh;
  return true;
}

}  // namespace ftchost

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0)
    return ftcservice::PrintVersion("ftc-host"), 0;
  ftchost::Options opt;
  std::string root;
  std::string scale;
  bool help = false;
  g_given.assign(argv + 1, argv + argc);
  if (std::string e = ParseArgs(g_given, &opt, &root, &scale, &help); !e.empty()) return Bad(e);
  if (help) {
    Usage(stdout);
    return 0;
  }
  if (opt.args.empty()) return Bad("no command");

  if (!scale.empty()) {
    char* end = nullptr;
    double v = strtod(scale.c_str(), &end);
    if (!end || *end || !(v > 0) || v > 1000) return Bad("--time-scale takes a number above 0");
    setenv("WINUX_TIME_SCALE", scale.c_str(), 1);
  }
  if (root.empty()) root = DefaultRoot();
  std::error_code ec;
  fs::create_directories(root, ec);
  if (ec || !fs::is_directory(root)) return Bad("cannot use " + root + " as the device root");
  opt.root = fs::absolute(root).lexically_normal().string();
  while (opt.root.size() > 1 && opt.root.back() == '/') opt.root.pop_back();
  setenv("WINUX_ROOT", opt.root.c_str(), 1);

  std::string cmd = opt.args[0];
  opt.args.erase(opt.args.begin());
  if (cmd == "run") {
    if (opt.args.size() != 1) return Bad("run takes one job file");
    return ftchost::RunJob(opt);
  }
  if (cmd == "reg") return ftchost::RegistryCommand(opt);
  if (cmd == "identity") return ftchost::IdentityCommand(opt);
  if (cmd == "log") return ftchost::LogCommand(opt);
  if (cmd == "events") return ftchost::EventsCommand(opt);
  if (cmd == "pull") return ftchost::PullCommand(opt);
  if (cmd == "deliver") return ftchost::DeliverCommand(opt);
  if (cmd == "agent") return ftchost::AgentCommand(opt);
  return Bad("unknown command " + cmd);
}
