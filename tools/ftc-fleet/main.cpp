// ftc-fleet: a fleet of simulated devices on this machine, each with its own device root,
// identity and `ftc-host agent`, taking one bundle from one ftc-server through a real deployment,
// by multicast with HTTP repair or by HTTP alone. Ends with what the rollout cost.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/files.h"
#include "common/bundle_job.h"
#include "common/http.h"
#include "fleet.h"
#include "store/store.h"
#include "store/text.h"

namespace {

using Clock = std::chrono::steady_clock;
using ftcfleet::Network;

// Hardware texts the devices take in turn; a bundle folder named after a family (lowercase)
// holds that family's files.
constexpr const char* kHardware[] = {"KIOSK-A20", "TILL-B40", "SCANNER-C60"};
constexpr const char* kFamilies[] = {"KIOSK", "TILL", "SCANNER"};
constexpr char kDest[] = "\\Flash File Store\\fleet";
constexpr char kBundleName[] = "fleet";
constexpr char kListName[] = "filelist.txt";
constexpr uint16_t kNamespacePort = 8789;
constexpr const char* kOutcomes[] = {"complete", "failed", "refused", "timed out", "cancelled"};

volatile sig_atomic_t gStop = 0;
void OnSignal(int) {
  gStop = 1;
}

struct Options {
  int devices = 0;
  std::string bundle, work;
  bool multicast = true, keep = false;
  double loss = 0, scale = 0.05, timeout = 1800;
  unsigned rate = 100000;
};

int Usage(const std::string& error) {
  if (!error.empty()) std::fprintf(stderr, "ftc-fleet: %s\n", error.c_str());
  std::fprintf(stderr,
               "usage: ftc-fleet --devices N [--bundle DIR] [--multicast|--http-only] [--loss P]\n"
               "                 [--time-scale X] [--rate KBPS] [--timeout SECONDS]\n"
               "                 [--work DIR]\n");
  return 2;
}

bool ParseDouble(const char* s, double lo, double hi, double* out) {
  char* end = nullptr;
  errno = 0;
  double v = std::strtod(s, &end);
  if (end == s || *end || errno || !(v >= lo && v <= hi)) return false;
  *out = v;
  return true;
}

bool OnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string p = path ? path : "/usr/bin:/bin";
  for (size_t at = 0, end; at <= p.size(); at = end + 1) {
    end = p.find(':', at);
    if (end == std::string::npos) end = p.size();
    std::string dir = p.substr(at, end - at);
    if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0) return true;
  }
  return false;
}

std::string BinDir() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return ".";
  self[n] = 0;
  std::string dir(self);
  return dir.substr(0, dir.rfind('/'));
}

// The plug-in's mask rule: a prefix pattern, "*" matching the rest and "?" one character.
bool MaskMatches(const std::string& mask, const std::string& hardware) {
  for (size_t i = 0;; ++i) {
    if (i >= mask.size() || mask[i] == '*' || i >= hardware.size()) return true;
    if (mask[i] != '?' && mask[i] != hardware[i]) return false;
  }
}

struct Entry {
  ftcserver::BundleFile file;
  std::string mask;
};

// The served copy of the bundle (hard links where the file system allows) and its list file,
// whose masks give each family folder to its family alone.
bool PrepareBundle(const std::string& from, const std::string& to, std::vector<Entry>* entries,
                   std::string* error) {
  std::string out;
  ftcfleet::Run({"rm", "-rf", to});
  if (ftcfleet::Run({"cp", "-al", from, to}, &out) != 0) {
    ftcfleet::Run({"rm", "-rf", to});
    if (ftcfleet::Run({"cp", "-a", from, to}, &out) != 0)
      return *error = "cannot copy " + from + ": " + out, false;
  }
  std::vector<ftcserver::BundleFile> files;
  if (!ftcserver::ScanBundle(to, &files, error)) return false;
  std::string text;
  for (const ftcserver::BundleFile& f : files) {
    if (f.rel == kListName) continue;
    std::string dest = ftcserver::DevicePath(kDest, f.rel);
    if (std::string e = ftcserver::CheckRepresentable(f, dest, true); !e.empty())
      return *error = e, false;
    std::string top = f.rel.substr(0, f.rel.find('/')), mask = "*";
    for (const char* family : kFamilies)
      if (f.rel.find('/') != std::string::npos && ftcserver::EqualsIgnoreCase(top, family))
        mask = std::string(family) + "*";
    text += ftcserver::UrlPath(f.rel) + "," + dest + "," + mask + "," + std::to_string(f.crc) +
            "," + std::to_string(f.size) + "\r\n";
    entries->push_back({f, mask});
  }
  std::string list = to + "/" + kListName;
  unlink(list.c_str());  // a hard link to the caller's own list must not be written through
  if (hostbase::IoStatus st = hostbase::ReplaceFile(list, text); !st.ok())
    return *error = st.Describe(list), false;
  if (entries->empty()) return *error = from + " holds no files", false;
  return true;
}

// Without --bundle: 2 MiB for everyone and a file for each of two families.
bool SampleBundle(const std::string& dir, std::string* error) {
  std::mt19937 random(std::random_device{}());
  std::vector<std::pair<std::string, size_t>> files = {{"kiosk/screen.bin", 200000},
                                                       {"till/drawer.bin", 200000}};
  for (int i = 0; i < 8; ++i) files.push_back({"os/part" + std::to_string(i) + ".bin", 262144});
  for (const auto& [rel, size] : files) {
    std::string content(size, '\0');
    for (char& c : content) c = static_cast<char>(random());
    std::string path = dir + "/" + rel;
    hostbase::IoStatus st = hostbase::MakeDirs(path.substr(0, path.rfind('/')));
    if (st.ok()) st = hostbase::ReplaceFile(path, content);
    if (!st.ok()) return *error = st.Describe(path), false;
  }
  return true;
}

std::string ReadText(const std::string& path) {
  std::string out;
  (void)hostbase::ReadWholeFile(path, &out).ok();
  return out;
}

// Seconds since the epoch, with the fraction the store keeps.
double Seconds(const std::string& iso) {
  auto whole = ftcstore::ParseIsoTime(iso);
  if (!whole) return 0;
  double s = static_cast<double>(*whole);
  if (iso.size() > 20 && iso[19] == '.') s += std::strtod(iso.c_str() + 19, nullptr);
  return s;
}

bool IsOutcome(const std::string& state) {
  return std::find(std::begin(kOutcomes), std::end(kOutcomes), state) != std::end(kOutcomes);
}

std::string Bytes(uint64_t n) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%llu (%.1f MB)", static_cast<unsigned long long>(n),
                static_cast<double>(n) / 1e6);
  return buf;
}

class Fleet {
 public:
  explicit Fleet(Options o) : m_opt(std::move(o)), m_bin(BinDir()) {}
  ~Fleet() {
    Shutdown();
    RemoveWork();
  }

  int Run() {
    std::string error;
    if (int rc = Prepare(&error); rc != 0) {
      std::fprintf(stderr, "ftc-fleet: %s\n", error.c_str());
      return rc;
    }
    if (!Start(&error)) {
      std::fprintf(stderr, "ftc-fleet: %s\n", error.c_str());
      return 1;
    }
    bool finished = Follow();
    if (m_namespaces)
      for (int i = 0; i < m_opt.devices; ++i) {
        ftcfleet::Traffic t = m_net.Count(i);
        m_traffic.httpBytes += t.httpBytes;
        m_traffic.multicastBytes += t.multicastBytes;
        m_traffic.droppedBytes += t.droppedBytes;
      }
    Shutdown();
    int rc = Summary(finished);
    RemoveWork();
    return rc;
  }

 private:
  std::string Device(int i) const {
    char id[32];
    std::snprintf(id, sizeof id, "fleet-%03d", i + 1);
    return id;
  }
  std::string Root(int i) const { return m_work + "/devices/" + Device(i); }
  std::string Hardware(int i) const { return kHardware[i % 3]; }

  int Prepare(std::string* error) {
    for (const char* tool : {"ftc-server", "ftc-host"})
      if (access((m_bin + "/" + tool).c_str(), X_OK) != 0)
        return *error = m_bin + "/" + tool + " is missing", 1;
    std::string missing;
    for (const char* tool : {"uftp", "uftpd"})
      if (m_opt.multicast && !OnPath(tool)) missing += std::string(" ") + tool;
    for (const char* tool : {"ip", "nft"})
      if (!OnPath(tool) && (m_opt.multicast || m_opt.loss > 0)) missing += std::string(" ") + tool;
    if (!missing.empty())
      return *error = "missing" + missing + " (scripts/bootstrap.sh multicast)", 2;

    m_work = m_opt.work;
    if (m_work.empty()) {
      char tmpl[] = "/tmp/ftc-fleet-XXXXXX";
      if (!mkdtemp(tmpl)) return *error = std::string("mkdtemp: ") + std::strerror(errno), 1;
      m_work = tmpl;
      m_removeWork = true;
    } else if (hostbase::IoStatus st = hostbase::MakeDirs(m_work); !st.ok()) {
      return *error = st.Describe(m_work), 1;
    } else {  // an earlier run's devices and store would pass for this one's
      ftcfleet::Run({"sh", "-c", "cd \"$0\" && rm -rf devices sample fleet.db* *.log", m_work});
    }
    if (hostbase::IoStatus st = hostbase::MakeDirs(m_work + "/bundles"); !st.ok())
      return *error = st.Describe(m_work + "/bundles"), 1;
    std::string bundle = m_opt.bundle;
    if (bundle.empty() && !SampleBundle(bundle = m_work + "/sample", error)) return 1;
    if (!PrepareBundle(bundle, m_work + "/bundles/" + kBundleName, &m_entries, error)) return 1;
    for (const Entry& e : m_entries) m_bundleBytes += e.file.size;

    // Namespaces when they can be made; without them only HTTP over loopback is honest.
    std::string why = "ftc-fleet is not running as root";
    if (geteuid() == 0 && OnPath("ip") && OnPath("nft"))
      m_namespaces = m_net.SetUp(m_opt.devices, m_opt.loss, kNamespacePort, &why);
    if (!m_namespaces) {
      m_net.TearDown();
      if (m_opt.loss > 0 || m_opt.multicast)
        return *error = "cannot make network namespaces (" + why +
                        "): --loss and --multicast need them; --http-only runs on loopback",
               2;
      std::printf("no network namespaces (%s): devices use loopback, traffic is not counted\n",
                  why.c_str());
    }
    return 0;
  }

  std::vector<std::string> Hub(std::vector<std::string> args) const {
    return m_namespaces ? Network::In(m_net.Hub(), std::move(args)) : args;
  }

  bool StartServer(std::string* error) {
    // Agents come back once a second of real time.
    std::string checkIn = std::to_string(std::max(1L, std::lround(1 / m_opt.scale)));
    std::vector<std::string> args = {
        m_bin + "/ftc-server", "--root", m_work + "/bundles", "--db", m_db, "--check-in", checkIn};
    if (m_namespaces)
      args.insert(args.end(),
                  {"--bind", m_net.ServerAddress(), "--port", std::to_string(kNamespacePort)});
    else
      args.insert(args.end(), {"--bind", "127.0.0.1", "--port", "0"});
    m_server = ftcfleet::Spawn(Hub(args), m_work + "/server.log");
    for (int i = 0; i < 300 && !gStop; ++i) {
      std::string log = ReadText(m_work + "/server.log");
      size_t at = log.find("listening on ");
      if (at != std::string::npos && log.find('\n', at) != std::string::npos) {
        std::string address = log.substr(at + 13, log.find('\n', at) - at - 13);
        std::string port = address.substr(address.rfind(':') + 1);
        m_url = "http://" + (m_namespaces ? m_net.ServerAddress() : std::string("127.0.0.1")) +
                ":" + port;
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return *error = "ftc-server did not start: " + ReadText(m_work + "/server.log"), false;
  }

  bool Start(std::string* error) {
    m_db = "sqlite:" + m_work + "/fleet.db";
    if (!StartServer(error)) return false;
    std::string devices;
    for (int i = 0; i < m_opt.devices; ++i) {
      devices += (i ? "," : "") + Device(i);
      std::string state = Root(i) + "/.winux";
      if (hostbase::IoStatus st = hostbase::MakeDirs(state); !st.ok())
        return *error = st.Describe(state), false;
      std::string identity = "uniqueid=" + Device(i) + "\nserial=SN" + Device(i).substr(6) +
                             "\nhwcfg=" + Hardware(i) + "\n";
      if (hostbase::IoStatus st = hostbase::ReplaceFile(state + "/identity", identity); !st.ok())
        return *error = st.Describe(state + "/identity"), false;
    }
    std::vector<std::string> create = {m_bin + "/ftc-server",
                                       "deploy",
                                       "create",
                                       "--db",
                                       m_db,
                                       "--root",
                                       m_work + "/bundles",
                                       "--bundle",
                                       kBundleName,
                                       "--server",
                                       m_url,
                                       "--dest",
                                       kDest,
                                       "--list",
                                       kListName,
                                       "--version",
                                       "1",
                                       "--devices",
                                       devices};
    if (m_opt.multicast)
      create.insert(create.end(), {"--multicast", "--multicast-rate", std::to_string(m_opt.rate)});
    m_started = Clock::now();
    m_deploy = ftcfleet::Spawn(Hub(create), m_work + "/deploy.log");
    for (int i = 0; i < 600 && !gStop; ++i) {
      std::string log = ReadText(m_work + "/deploy.log");
      if (log.rfind("deployment ", 0) == 0) {
        m_deployment = std::strtoll(log.c_str() + 11, nullptr, 10);
        break;
      }
      if (log.find("ftc-server:") != std::string::npos)
        return *error = "deploy create failed: " + log, false;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (m_deployment <= 0) return *error = "no deployment was made", false;

    std::string interval = std::to_string(std::max(1L, std::lround(1 / m_opt.scale)));
    for (int i = 0; i < m_opt.devices; ++i) {
      std::vector<std::string> agent = {m_bin + "/ftc-host",
                                        "agent",
                                        "--server",
                                        m_url,
                                        "--root",
                                        Root(i),
                                        "--interval",
                                        interval,
                                        "--time-scale",
                                        std::to_string(m_opt.scale)};
      if (m_namespaces) agent = Network::In(m_net.Device(i), agent);
      pid_t pid = ftcfleet::Spawn(agent, Root(i) + ".log");
      if (pid < 0) return *error = "cannot start ftc-host", false;
      m_agents.push_back(pid);
    }
    return true;
  }

  void Bar(const std::map<std::string, int>& counts) {
    int done = 0;
    for (const char* o : kOutcomes) done += counts.count(o) ? counts.at(o) : 0;
    auto count = [&](const char* s) { return counts.count(s) ? counts.at(s) : 0; };
    constexpr int kWidth = 30;
    int filled = m_opt.devices ? done * kWidth / m_opt.devices : kWidth;
    double elapsed = std::chrono::duration<double>(Clock::now() - m_started).count();
    char line[256];
    std::snprintf(line, sizeof line,
                  "[%s%s] %d/%d done: %d complete, %d failed; %d working, %d waiting  %.1f s",
                  std::string(static_cast<size_t>(filled), '#').c_str(),
                  std::string(static_cast<size_t>(kWidth - filled), '.').c_str(), done,
                  m_opt.devices, count("complete"), done - count("complete"), count("started"),
                  count("pending") + count("sent"), elapsed);
    std::string counted(line);
    counted = counted.substr(0, counted.rfind("  "));
    if (isatty(1))
      std::printf("\r%s", line);
    else if (counted != m_lastBar)
      std::printf("%s\n", line);  // a log gets a line per change, not per tick
    m_lastBar = counted;
    std::fflush(stdout);
  }

  // Until every device has an outcome; false on time-out or interruption.
  bool Follow() {
    std::string error;
    auto store = ftcstore::OpenStore(m_db, ftcstore::OpenMode::kRead, &error);
    if (!store) {
      std::fprintf(stderr, "ftc-fleet: cannot open the store: %s\n", error.c_str());
      return false;
    }
    auto deadline = m_started + std::chrono::duration<double>(m_opt.timeout);
    bool finished = false;
    while (!gStop && Clock::now() < deadline) {
      bool found = false;
      ftcstore::DeploymentRow d;
      std::vector<ftcstore::DeploymentDeviceRow> rows;
      if (store->Deployment(m_deployment, ftcstore::IsoNow(6), &found, &d, &rows).ok() && found) {
        std::map<std::string, int> counts;
        for (const auto& r : rows) counts[r.state]++;
        Bar(counts);
        m_rows = rows;
        m_created = d.created;
        if (std::all_of(rows.begin(), rows.end(),
                        [](const auto& r) { return IsOutcome(r.state); })) {
          finished = true;
          break;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    if (isatty(1)) std::printf("\n");
    return finished;
  }

  void Shutdown() {
    // Agents first: a job under way is let finish by its agent, so give them a while.
    for (pid_t pid : m_agents) kill(pid, SIGTERM);
    for (pid_t pid : m_agents) ftcfleet::Stop(pid, 10000);
    m_agents.clear();
    ftcfleet::Stop(m_deploy, 5000);
    m_deploy = -1;
    ftcfleet::Stop(m_server, 5000);
    m_server = -1;
    m_net.TearDown();
  }

  void RemoveWork() {
    if (m_removeWork && !m_work.empty()) ftcfleet::Run({"rm", "-rf", m_work});
    m_removeWork = false;
  }

  // Devices whose files for their hardware are all as in the bundle.
  int WrongDevices(std::string* first) {
    int wrong = 0;
    for (int i = 0; i < m_opt.devices; ++i) {
      for (const Entry& e : m_entries) {
        if (!MaskMatches(e.mask, Hardware(i))) continue;
        std::string path = Root(i) + "/Flash File Store/fleet/" + e.file.rel;
        auto crc = hostbase::FileCrc32(path);
        if (!crc || *crc != e.file.crc) {
          if (first->empty()) *first = Device(i) + ": " + e.file.rel;
          ++wrong;
          break;
        }
      }
    }
    return wrong;
  }

  int Summary(bool finished) {
    int complete = 0;
    double last = 0;
    std::string slowest;
    for (const auto& r : m_rows) {
      if (r.state == "complete") ++complete;
      if (IsOutcome(r.state) && Seconds(r.updated) >= last) {
        last = Seconds(r.updated);
        slowest = r.device;
      }
    }
    std::string firstWrong;
    int wrong = WrongDevices(&firstWrong);
    double wall = last > 0 ? last - Seconds(m_created) : 0;
    std::printf("fleet: %d devices, %s, loss %.1f%%, bundle %s in %zu files\n", m_opt.devices,
                m_opt.multicast ? "multicast with HTTP repair" : "HTTP only", m_opt.loss * 100,
                Bytes(m_bundleBytes).c_str(), m_entries.size());
    std::printf("devices complete: %d, failed: %d\n", complete, m_opt.devices - complete);
    std::printf("devices with a wrong or missing file: %d%s%s\n", wrong,
                firstWrong.empty() ? "" : ", first ", firstWrong.c_str());
    if (finished)
      std::printf("wall time to last device: %.2f s (slowest %s)\n", wall, slowest.c_str());
    else
      std::printf("wall time to last device: not reached (%s)\n",
                  gStop ? "interrupted" : "timed out");
    std::string deployLog = ReadText(m_work + "/deploy.log");
    for (size_t at = 0, end; at < deployLog.size(); at = end + 1) {
      end = deployLog.find('\n', at);
      if (end == std::string::npos) end = deployLog.size();
      if (deployLog.compare(at, 6, "phase ") == 0)
        std::printf("%s\n", deployLog.substr(at, end - at).c_str());
    }
    if (m_namespaces) {
      std::printf("server HTTP bytes: %s\n", Bytes(m_traffic.httpBytes).c_str());
      std::printf("multicast bytes delivered: %s, dropped: %s\n",
                  Bytes(m_traffic.multicastBytes).c_str(), Bytes(m_traffic.droppedBytes).c_str());
    }
    return finished && complete == m_opt.devices && wrong == 0 ? 0 : 1;
  }

  Options m_opt;
  std::string m_bin, m_work, m_db, m_url, m_created, m_lastBar;
  bool m_removeWork = false, m_namespaces = false;
  Network m_net;
  std::vector<Entry> m_entries;
  unsigned long long m_bundleBytes = 0;
  pid_t m_server = -1, m_deploy = -1;
  std::vector<pid_t> m_agents;
  long long m_deployment = 0;
  Clock::time_point m_started;
  std::vector<ftcstore::DeploymentDeviceRow> m_rows;
  ftcfleet::Traffic m_traffic;
};

}  // namespace

int main(int argc, char** argv) {
  Options o;
  bool multicastSet = false, httpSet = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    double n = 0;
    if (a == "--multicast") {
      multicastSet = true;
    } else if (a == "--http-only") {
      httpSet = true;
    } else if (!v) {
      return Usage(a == "--help" ? "" : "unknown option or missing value: " + a);
    } else if (a == "--devices" && ParseDouble(v, 1, 1000, &n) && n == std::floor(n)) {
      o.devices = static_cast<int>(n), ++i;
    } else if (a == "--bundle") {
      o.bundle = v, ++i;
    } else if (a == "--work") {
      o.work = v, ++i;
    } else if (a == "--loss" && ParseDouble(v, 0, 1, &o.loss)) {
      ++i;
    } else if (a == "--time-scale" && ParseDouble(v, 0.0001, 1, &o.scale)) {
      ++i;
    } else if (a == "--timeout" && ParseDouble(v, 1, 86400, &o.timeout)) {
      ++i;
    } else if (a == "--rate" && ParseDouble(v, 1, 10000000, &n) && n == std::floor(n)) {
      o.rate = static_cast<unsigned>(n), ++i;
    } else {
      return Usage("bad option or value: " + a + " " + v);
    }
  }
  if (o.devices == 0) return Usage("--devices is required");
  if (multicastSet && httpSet) return Usage("--multicast or --http-only, not both");
  o.multicast = !httpSet;
  struct stat st {};
  if (!o.bundle.empty() && (stat(o.bundle.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)))
    return Usage(o.bundle + " is not a folder");
  while (o.bundle.size() > 1 && o.bundle.back() == '/') o.bundle.pop_back();

  struct sigaction sa {};
  sa.sa_handler = OnSignal;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  return Fleet(o).Run();
}
