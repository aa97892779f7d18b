// A whole job failed at every fault point, killed at its moments, and run on a disk that fills:
// the device keeps each file old or new, a registry that reads and keeps what it held, whole
// queued reports, and hears of the job's end whenever that could be queued.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <pugixml.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "xq/spool.h"

namespace fs = std::filesystem;

namespace {

const char kA[] = "\\Flash File Store\\a.bin";
const char kB[] = "\\Flash File Store\\sub\\b.bin";
const char kBundles[] = "\\temp\\Quovera\\QVSubSystems\\QVBundles.xml";
const char kOldA[] = "a, version 1\n";
const char kOldB[] = "b, version 1\n";
const char kOldHive[] = "REGEDIT4\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Faults]\n\"Kept\"=\"old\"\n";
const char kOldBundles[] =
    "<QVInstalledBundles>   <Subsystem Name=\"Installed Bundles\">      <Group Name=\"Old\">"
    "        <Field Name=\"Version\" Type=\"String\">1.0</Field>      </Group>   </Subsystem>"
    "</QVInstalledBundles>";

// Points that mark a moment to be killed at; they fail nothing.
bool IsMoment(const std::string& point) {
  return point == "ftc/spool/temp-written" || point == "ftc/spool/written" ||
         point == "ftc/host/replacing";
}

// What one run of ftc-host left in its tally (base/faults.h).
struct Tally {
  std::string fired;
  std::map<std::string, long> hits;  // per point
};

struct HostRun {
  int exit = -1;  // -1: ended by a signal, 124: time-out
  std::string output;
  Tally tally;
};

// First, last and middle hits: each point is failed where it starts, ends and in between.
std::vector<long> Samples(long hits) {
  std::vector<long> n = {1};
  if (hits > 2) n.push_back((hits + 1) / 2);
  if (hits > 1) n.push_back(hits);
  return n;
}

class Faults : public ::testing::Test {
 protected:
  Faults() : server(bundle.dir()) {
    crcA = bundle.Add("a.bin", newA);
    crcB = bundle.Add("b.bin", newB);
    jobFile = bundle.dir() + "/../job.xml";
    ftctest::WriteHostFile(jobFile, JobXml(server.url()));
  }

  std::string JobXml(const std::string& base) const {
    auto field = [](const char* name, const std::string& value) {
      return std::string("<Field Name=\"") + name + "\">" + value + "</Field>";
    };
    auto set = [&](const char* name) {
      return "<Group Name=\"Registry\"><Group Name=\"Set\">" +
             field("KeyName", "HKEY_LOCAL_MACHINE\\SOFTWARE\\Faults") + field("ValueName", name) +
             field("Value", "new") + field("Type", "REG_SZ") + "</Group></Group>";
    };
    auto file = [&](const char* source, const char* dest, uint32_t crc) {
      return "<Group Name=\"File\">" + field("Source", source) + field("Dest", dest) +
             field("CRC", std::to_string(crc)) + field("MCTMask", "*") + "</Group>";
    };
    return "<DevInfo><Subsystem Name=\"FileTransferConfiglet\"><Group Name=\"HTTPServer\">" +
           field("IPAddress", "127.0.0.1") + field("HTTPPort", std::to_string(server.port())) +
           field("BaseURL", base) + "</Group><Group Name=\"Download\">" + file("a.bin", kA, crcA) +
           file("b.bin", kB, crcB) + "</Group><Group Name=\"PreProcessing\">" + set("Pre") +
           "</Group><Group Name=\"PostProcessing\">" + set("Post") + "</Group>" +
           field("BundleName", "Faults") + field("Version", "2.0") +
           "<Group Name=\"Upgrade\"/></Subsystem></DevInfo>";
  }

  // A device holding the old version of everything the job touches.
  static void Prepare(const ftctest::DeviceRoot& root) {
    root.WriteFile(kA, kOldA);
    root.WriteFile(kB, kOldB);
    root.WriteFile(kBundles, kOldBundles);
    fs::create_directories(root.path() + "/.winux");
    ftctest::WriteHostFile(root.path() + "/.winux/registry.reg", kOldHive);
  }

  // The job on root, with point (a libfiu name, "" for none) acting at hit nth (0: counts only).
  HostRun Host(const ftctest::DeviceRoot& root, const std::string& point, long nth,
               const char* action = "fail", const std::string& env = "") const {
    std::string tally = root.path() + ".tally";
    std::string cmd = "exec timeout 120 env " + env + " FTC_FAULT_POINTS='" + point +
                      "' FTC_FAULT_NTH=" + std::to_string(nth) + " FTC_FAULT_ACTION=" + action +
                      " FTC_FAULT_TALLY='" + tally + "' '" + ftctest::BinDir() +
                      "/ftc-host' run '" + jobFile + "' --root '" + root.path() + "' --plugin '" +
                      ftctest::LibDir() + "/libFileTransferConfiglet.so' --time-scale 0.001";
    HostRun run;
    run.output = ftctest::RunCommand(cmd, &run.exit);
    std::istringstream in(ftctest::ReadHostFile(tally));
    unlink(tally.c_str());
    std::string name;
    long hits = 0;
    while (in >> name) {
      if (name == "fired") {
        in >> run.tally.fired;
      } else if (in >> hits && name != "hits") {
        run.tally.hits[name] = hits;
      }
    }
    return run;
  }

  // Holds whatever the fault: no sanitizer report, each file old or new and nothing torn left
  // beside it, a registry that parses and kept its old value, whole bundle and spool records.
  // A killed process may leave its temporaries (the next run clears them): tidy = false.
  void ExpectWhole(const ftctest::DeviceRoot& root, const HostRun& run, bool tidy = true) const {
    EXPECT_EQ(run.output.find("Sanitizer"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("runtime error"), std::string::npos) << run.output;
    std::string a = root.ReadFile(kA), b = root.ReadFile(kB);
    EXPECT_TRUE(a == kOldA || a == newA) << a.size() << " bytes";
    EXPECT_TRUE(b == kOldB || b == newB) << b;
    for (const char* dir : {"\\Flash File Store", "\\Flash File Store\\sub"}) {
      if (!tidy) break;
      for (const auto& e : fs::directory_iterator(root.HostPath(dir)))
        EXPECT_NE(e.path().filename().string()[0], '.') << e.path();
    }
    std::error_code none;
    for (auto it = fs::recursive_directory_iterator(root.path() + "/.winux/spool", none);
         tidy && it != fs::recursive_directory_iterator(); it.increment(none))
      EXPECT_NE(it->path().filename().string().rfind(".tmp.", 0), 0u) << it->path();
    std::string hive = root.ReadHive();
    EXPECT_EQ(hive.rfind("REGEDIT4\n", 0), 0u) << hive;
    EXPECT_NE(hive.find("\"Kept\"=\"old\"\n"), std::string::npos) << hive;
    pugi::xml_document records;
    EXPECT_TRUE(records.load_string(root.ReadFile(kBundles).c_str()));
    EXPECT_TRUE(records.find_node([](pugi::xml_node n) {
      return std::string(n.attribute("Name").value()) == "Old";
    })) << root.ReadFile(kBundles);
    for (const SpoolRecord& r : ReadSpool(root.path(), "")) EXPECT_TRUE(r.complete) << r.path;
  }

  static bool Ended(const ftctest::DeviceRoot& root) {
    for (const std::string& e : ftctest::Spooled(root, "event"))
      if (e.rfind("205182", 0) == 0 || e.rfind("205180", 0) == 0) return true;
    return false;
  }

  e2e::Bundle bundle;
  e2e::Server server;
  std::string newA = ftctest::RandomBytes(150000, 17);
  std::string newB = "b, version 2\n";
  uint32_t crcA = 0, crcB = 0;
  std::string jobFile;
};

#ifdef FTC_FAULTS

// Every named point of the job, failed at its first, middle and last hit, one run each (about
// 25 runs; a point hit hundreds of times is sampled, not walked).
TEST_F(Faults, EveryFailingPointOfAJobLeavesTheDeviceWhole) {
  Tally counted;
  {
    ftctest::DeviceRoot root;
    Prepare(root);
    HostRun run = Host(root, "ftc/*", 0);
    ASSERT_EQ(run.exit, 0) << run.output;
    EXPECT_EQ(root.ReadFile(kA), newA);
    counted = run.tally;
  }
  for (const char* p : {"ftc/download/write", "ftc/registry/save", "ftc/plugin/socket-read",
                        "ftc/plugin/transfer-buffer", "ftc/plugin/bundle-write", "ftc/host/write",
                        "ftc/host/fsync", "ftc/host/rename"})
    EXPECT_GT(counted.hits[p], 0) << p;
  for (const auto& [point, hits] : counted.hits) {
    if (IsMoment(point)) continue;
    for (long n : Samples(hits)) {
      SCOPED_TRACE(point + " failing at hit " + std::to_string(n));
      ftctest::DeviceRoot root;
      Prepare(root);
      HostRun run = Host(root, point, n);
      // Timed writes (progress, idle retries) move a point's count a little from run to run: its
      // last counted hit may not come.
      if (n < hits) {
        EXPECT_EQ(run.tally.fired, point);
      }
      EXPECT_TRUE(run.exit == 0 || run.exit == 1) << run.output;
      ExpectWhole(root, run);
      // Only a lost end event may go unreported, and the queue library then says so.
      EXPECT_TRUE(Ended(root) ||
                  run.output.find("a message to QV_Event_DB was not kept") != std::string::npos)
          << run.output;
    }
  }
}

// Killed during a download, while and right after a report is queued, during a registry save
// and during the bundle record's write; the job run again completes, what was queued stays and
// nothing the killed run left lies about.
TEST_F(Faults, AJobKilledAtAnyMomentRunsAgainWithNothingLost) {
  const struct {
    const char* point;
    bool every;  // else only the middle hit
  } moments[] = {{"ftc/download/write", false},
                 {"ftc/spool/temp-written", false},
                 {"ftc/spool/written", true},
                 {"ftc/host/replacing", true},
                 {"ftc/plugin/bundle-write", true}};
  Tally counted;
  {
    ftctest::DeviceRoot root;
    Prepare(root);
    counted = Host(root, "ftc/*", 0).tally;
  }
  for (const auto& m : moments) {
    long hits = counted.hits[m.point];
    ASSERT_GT(hits, 0) << m.point;
    for (long n : m.every ? Samples(hits) : std::vector<long>{(hits + 1) / 2}) {
      SCOPED_TRACE(std::string("killed at ") + m.point + " hit " + std::to_string(n));
      ftctest::DeviceRoot root;
      Prepare(root);
      HostRun killed = Host(root, m.point, n, "kill");
      if (n == hits && killed.exit == 0) continue;  // the count moved; see above
      ASSERT_EQ(killed.exit, -1) << killed.output;  // its own SIGKILL
      ASSERT_EQ(killed.tally.fired, m.point);
      ExpectWhole(root, killed, /*tidy=*/false);
      std::vector<SpoolRecord> queued = ReadSpool(root.path(), "");

      HostRun again = Host(root, "", 0);
      EXPECT_EQ(again.exit, 0) << again.output;
      ExpectWhole(root, again);
      EXPECT_EQ(root.ReadFile(kA), newA);
      EXPECT_EQ(root.ReadFile(kB), newB);
      EXPECT_NE(root.ReadHive().find("\"Post\"=\"new\""), std::string::npos) << root.ReadHive();
      EXPECT_NE(root.ReadFile(kBundles).find("<Group Name=\"Faults\">"), std::string::npos);
      for (const SpoolRecord& r : queued) {
        EXPECT_TRUE(r.complete) << r.path;
        EXPECT_EQ(ftctest::ReadHostFile(r.path).find(r.message), 0u) << r.path;
      }
    }
  }
}

#endif  // FTC_FAULTS

// The C library's own calls failed at random by libfiu's POSIX preload: writes, syncs, renames,
// opens and socket reads anywhere in the host, the plug-in and the queue library. Seeded, so a
// seed that finds something finds it again (thread timing aside).
TEST_F(Faults, TheCLibraryFailingAtRandomLeavesTheDeviceWhole) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the preload takes over calls ThreadSanitizer has to see";
#endif
  const char* preload = "/usr/lib/fiu/fiu_posix_preload.so";
  if (access(preload, R_OK) != 0) GTEST_SKIP() << "needs fiu-utils";
  // The sanitizer runtimes come first (ASan's before all); this process has the same ones.
  std::string asan, ubsan;
  std::istringstream maps(ftctest::ReadHostFile("/proc/self/maps"));
  for (std::string line; std::getline(maps, line);) {
    size_t at = line.find('/');
    std::string path = at == std::string::npos ? "" : line.substr(at);
    if (path.find("/libasan.so") != std::string::npos) asan = path + " ";
    if (path.find("/libubsan.so") != std::string::npos) ubsan = path + " ";
  }
  std::string libraries = asan + ubsan;
  libraries += std::string("/usr/lib/fiu/fiu_run_preload.so ") + preload;
  const std::string enable =
      "enable_random name=posix/io/rw/write,probability=0.02\n"
      "enable_random name=posix/io/sync/*,probability=0.1\n"
      "enable_random name=posix/io/dir/rename,probability=0.1\n"
      "enable_random name=posix/io/oc/open,probability=0.02\n"
      "enable_random name=posix/io/net/recv,probability=0.02";
  for (int seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    ftctest::DeviceRoot root;
    Prepare(root);
    ftctest::WriteHostFile(root.path() + ".lsan", "leak:fiu_run_preload.so\n");
    HostRun run = Host(root, "", 0, "fail",
                       "LD_PRELOAD='" + libraries + "' FIU_PRNG_SEED=" + std::to_string(seed) +
                           " FIU_CTRL_FIFO= FIU_ENABLE='" + enable +
                           "' LSAN_OPTIONS=suppressions='" + root.path() + ".lsan'");
    unlink((root.path() + ".lsan").c_str());
    EXPECT_TRUE(run.exit == 0 || run.exit == 1) << run.output;
    EXPECT_NE(run.output.find("summary\n"), std::string::npos) << run.output;
    ExpectWhole(root, run);
  }
}

// The device's flash store a small file system that fills mid-download: the job fails with the
// system's error in the log, the rest of the device still works, and with room the job succeeds.
TEST_F(Faults, AFullStoreFailsTheDownloadAndTheNextJobWithRoomSucceeds) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a file system";
  ftctest::DeviceRoot root;
  Prepare(root);
  std::string store = root.HostPath("\\Flash File Store");
  std::string seed = root.path() + ".seed", full = root.path() + ".full";
  std::string roomy = root.path() + ".roomy";
  std::string run = "'" + ftctest::BinDir() + "/ftc-host' run '" + jobFile + "' --root '" +
                    root.path() + "' --plugin '" + ftctest::LibDir() +
                    "/libFileTransferConfiglet.so' --time-scale 0.001";
  // In a private mount namespace the mount goes with the shell, whatever becomes of the test.
  std::string script = "set -u; mv '" + store + "' '" + seed + "'; mkdir '" + store + "' '" + full +
                       "' '" + roomy + "'; mount -t tmpfs -o size=96k ftc '" + store +
                       "' || exit 3; cp -a '" + seed + "/.' '" + store + "/'; " + run +
                       "; echo \"first $?\"; echo c > '" + store +
                       "/sub/c.txt'; echo \"write $?\"; cp -a '" + store + "/.' '" + full +
                       "/'; mount -o remount,size=4m '" + store + "'; " + run +
                       "; echo \"second $?\"; cp -a '" + store + "/.' '" + roomy + "/'";
  ftctest::WriteHostFile(seed + ".sh", script);
  int status = -1;
  std::string out = ftctest::RunCommand("unshare -m sh '" + seed + ".sh'", &status);
  unlink((seed + ".sh").c_str());
  ASSERT_EQ(status, 0) << out;
  EXPECT_NE(out.find("first 1\n"), std::string::npos) << out;
  EXPECT_NE(out.find("write 0\n"), std::string::npos) << out;
  EXPECT_NE(out.find("second 0\n"), std::string::npos) << out;

  EXPECT_NE(root.Log().find("FileTransferConfiglet - file->Write error, 112\r\n"),
            std::string::npos);
  EXPECT_EQ(ftctest::ReadHostFile(full + "/a.bin"), kOldA);
  EXPECT_EQ(ftctest::ReadHostFile(roomy + "/a.bin"), newA);
  EXPECT_EQ(ftctest::ReadHostFile(roomy + "/sub/b.bin"), newB);
  EXPECT_NE(out.find("damaged: \\Flash File Store\\a.bin"), std::string::npos) << out;
  fs::remove_all(seed);
  fs::remove_all(full);
  fs::remove_all(roomy);
}

}  // namespace
