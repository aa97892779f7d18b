#include "e2e_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/scripted_http_peer.h"
#include "winux/winux_host.h"

namespace fs = std::filesystem;

namespace e2e {

const char kRefusedJob[] =
    "<DevInfo><Subsystem Name=\"FileTransferConfiglet\">"
    "<Group Name=\"Tests\"><Group Name=\"Registry\">"
    "<Field Name=\"Key\">SOFTWARE\\Nowhere</Field><Field Name=\"ValueName\">v</Field>"
    "<Field Name=\"Value\">1</Field><Field Name=\"Type\">REG_SZ</Field>"
    "<Field Name=\"Operator\">EQ</Field><Field Name=\"ErrorMsg\">not ready</Field>"
    "</Group></Group><Group Name=\"Upgrade\"/></Subsystem></DevInfo>";

Server::Server(const std::string& dir, uint16_t port)
    : ftctest::ServerProcess(dir, {"--port", std::to_string(port), "--reports",
                                   dir + "/../reports-" + std::to_string(port)}),
      m_reports(dir + "/../reports-" + std::to_string(port)) {}

Bundle::Bundle() {
  std::string tmpl = (fs::temp_directory_path() / "ftc-bundle-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp");
  m_dir = tmpl + "/files";
  fs::create_directories(m_dir);
}

Bundle::~Bundle() {
  std::error_code ec;
  fs::remove_all(fs::path(m_dir).parent_path(), ec);
}

uint32_t Bundle::Add(const std::string& rel, const std::string& content) {
  fs::path p = fs::path(m_dir) / rel;
  fs::create_directories(p.parent_path());
  ftctest::WriteHostFile(p.string(), content);
  return ftctest::ReferenceCrc32(content);
}

uint32_t Submit(ftctest::PluginHost& host, const Job& job) {
  host.BeginGroup("FileTransferConfiglet");
  host.Group("HTTPServer", {{"IPAddress", "127.0.0.1"},
                            {"HTTPPort", std::to_string(job.port)},
                            {"BaseURL", job.baseUrl}});
  host.BeginGroup("Download");
  for (const File& f : job.files)
    host.Group("File",
               {{"Source", f.source}, {"Dest", f.dest}, {"CRC", f.crc}, {"MCTMask", f.mask}});
  host.EndGroup("Download");
  if (job.hasList)
    host.Group("FileList",
               {{"Source", job.list.source}, {"Dest", job.list.dest}, {"CRC", job.list.crc}});
  host.SetField("BundleName", job.bundle);
  host.SetField("Version", job.version);
  if (job.reboot) host.SetField("Reboot", "True");
  uint32_t rc = host.BeginGroup("Upgrade");
  if (rc == 0) rc = host.EndGroup("Upgrade");
  host.EndGroup("FileTransferConfiglet");
  return rc;
}

ftchost::JobOutcome RunJob(ftctest::PluginHost& host, const Job& job,
                           std::chrono::milliseconds limit) {
  ftchost::JobWatch watch(WinuxRoot());
  Submit(host, job);
  return watch.Wait(limit);
}

std::string MakeJob(const std::string& dir, const std::string& server, const std::string& extra) {
  std::string made = dir + "/../job-" + std::to_string(getpid()) + ".xml";
  int status = -1;
  std::string out =
      ftctest::RunCommand(ftctest::BinDir() + "/ftc-bundle job '" + dir + "' --server " + server +
                              " --dest '\\Flash File Store' " + extra + " --out '" + made + "'",
                          &status);
  EXPECT_EQ(status, 0) << out;
  std::string xml = ftctest::ReadHostFile(made);
  unlink(made.c_str());
  return xml;
}

HostRun Launch(const std::vector<std::string>& args) {
  std::string cmd = ftctest::BinDir() + "/ftc-host";
  for (const std::string& a : args) cmd += " '" + a + "'";
  HostRun run;
  run.output = ftctest::RunCommand(cmd, &run.exit);
  return run;
}

}  // namespace e2e
