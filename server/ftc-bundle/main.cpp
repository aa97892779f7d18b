// ftc-bundle: prepares a bundle folder for devices.
//   ftc-bundle list BUNDLE_DIR --dest PREFIX [--mask MASK] [--out NAME]
//   ftc-bundle job BUNDLE_DIR --server http://HOST:PORT[/BASE] --dest PREFIX [--bundle NAME]
//                  [--mask MASK] [--out JOB.xml] [--version V] [--reboot] [--list NAME]
//                  [--list-dest DEVICE_PATH]
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "base/files.h"
#include "common/bundle_job.h"
#include "common/crc32.h"
#include "service/daemon.h"

namespace {

using ftcserver::BundleFile;

int Fail(const std::string& message) {
  std::fprintf(stderr, "ftc-bundle: %s\n", message.c_str());
  return 1;
}

int Usage(const char* error) {
  if (error) std::fprintf(stderr, "ftc-bundle: %s\n", error);
  std::fprintf(
      error ? stderr : stdout,
      "usage: ftc-bundle list BUNDLE_DIR --dest PREFIX [--mask MASK] [--out NAME]\n"
      "       ftc-bundle job BUNDLE_DIR --server http://HOST:PORT[/BASE] --dest PREFIX\n"
      "                  [--bundle NAME] [--mask MASK] [--out JOB.xml] [--version V] [--reboot]\n"
      "                  [--list NAME] [--list-dest DEVICE_PATH]\n"
      "       ftc-bundle --version\n"
      "list writes the multicast list file of a bundle folder; job writes the job file that\n"
      "fetches the folder's files from an upgrade server.\n");
  return error ? 2 : 0;
}

struct Args : ftcserver::BundleJob {
  std::string command, out;
};

int List(const Args& a) {
  std::string name = a.out.empty() ? ftcserver::kDefaultListName : a.out;
  if (name.find('/') != std::string::npos) return Fail("--out names a file inside BUNDLE_DIR");
  std::vector<BundleFile> files;
  std::string error;
  if (!ftcserver::ScanBundle(a.dir, &files, &error)) return Fail(error);
  std::string text;
  size_t count = 0;
  for (const BundleFile& f : files) {
    // The list itself, and what a run that died while writing it left.
    if (f.rel == name || f.rel.rfind("." + name + ".", 0) == 0) continue;
    std::string dest = ftcserver::DevicePath(a.dest, f.rel);
    if (std::string e = ftcserver::CheckRepresentable(f, dest, true); !e.empty()) return Fail(e);
    ftcserver::WarnIfUnchecked(f, "ftc-bundle");
    text += ftcserver::UrlPath(f.rel) + "," + dest + "," + a.mask + "," + std::to_string(f.crc) +
            "," + std::to_string(f.size) + "\r\n";
    ++count;
  }
  std::string path = a.dir + "/" + name;
  if (hostbase::IoStatus st = hostbase::ReplaceFile(path, text); !st.ok())
    return Fail(st.Describe(path));
  std::printf("%s: %zu files, CRC %u, %zu bytes\n", path.c_str(), count,
              ftc::Crc32(text.data(), text.size()), text.size());
  return 0;
}

int Job(const Args& a) {
  if (!ftcserver::ParseServerUrl(a.server))
    return Usage("--server must be http://HOST:PORT with an explicit port");
  std::string xml, error;
  if (!ftcserver::WriteBundleJob(a, "ftc-bundle", &xml, &error)) return Fail(error);
  if (a.out.empty()) {
    std::fwrite(xml.data(), 1, xml.size(), stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
  }
  if (hostbase::IoStatus st = hostbase::ReplaceFile(a.out, xml); !st.ok())
    return Fail(st.Describe(a.out));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--version")
    return ftcservice::PrintVersion("ftc-bundle"), 0;
  if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h"))
    return Usage(nullptr);
  if (argc < 3) return Usage("a command and a bundle folder are needed");
  Args a;
  a.command = argv[1];
  a.dir = argv[2];
  std::map<std::string, std::string*> valued = {
      {"--dest", &a.dest},     {"--mask", &a.mask},         {"--out", &a.out},
      {"--server", &a.server}, {"--bundle", &a.bundle},     {"--version", &a.version},
      {"--list", &a.list},     {"--list-dest", &a.listDest}};
  for (int i = 3; i < argc; ++i) {
    std::string opt = argv[i];
    if (opt == "--reboot") {
      a.reboot = true;
      continue;
    }
    auto it = valued.find(opt);
    if (it == valued.end()) return Usage(("unknown option " + opt).c_str());
    if (i + 1 >= argc) return Usage(("missing value for " + opt).c_str());
    *it->second = argv[++i];
  }
  if (a.dest.empty()) return Usage("--dest is required");
  if (a.mask.empty() || a.mask.find_first_of(",\r\n") != std::string::npos)
    return Usage("--mask must be non-empty and free of commas and line breaks");
  if (a.command == "list") return List(a);
  if (a.command == "job") {
    if (a.server.empty()) return Usage("--server is required");
    return Job(a);
  }
  return Usage(("unknown command " + a.command).c_str());
}
