#include "e2e_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <thread>

#include "platform/winux.h"
#include "transfer/FTCCCRC32.h"

namespace fs = std::filesystem;

namespace e2e {

Server::Server(const std::string& dir, uint16_t port) {
  m_reports = dir + "/../reports-" + std::to_string(getpid()) + "-" + std::to_string(port);
  int out[2];
  if (pipe(out) != 0) throw std::runtime_error("pipe");
  std::string bin = ftctest::BinDir() + "/ftc-server";
  std::string portText = std::to_string(port);
  m_pid = fork();
  if (m_pid == 0) {
    // A test that dies before its destructor runs must not leave a server behind.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() == 1) _exit(0);
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    execl(bin.c_str(), bin.c_str(), "--root", dir.c_str(), "--bind", "127.0.0.1", "--port",
          portText.c_str(), "--reports", m_reports.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string text;
  char buf[256];
  while (text.find('\n') == std::string::npos) {
    ssize_t n = read(out[0], buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(out[0]);
  size_t colon = text.rfind(':');
  if (text.find("listening on") == std::string::npos || colon == std::string::npos)
    throw std::runtime_error("ftc-server did not start: " + text);
  m_port = static_cast<uint16_t>(atoi(text.c_str() + colon + 1));
}

Server::~Server() {
  if (m_pid > 0) {
    kill(m_pid, SIGTERM);
    int status;
    waitpid(m_pid, &status, 0);
  }
  std::error_code ec;
  fs::remove(m_reports, ec);
}

std::string Server::Reports() const {
  return ftctest::ReadHostFile(m_reports);
}

uint16_t UnusedPort() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  close(s);
  return ntohs(a.sin_port);
}

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
  return Crc(content);
}

std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

uint32_t Crc(const std::string& bytes) {
  FTCCCRC32 crc;
  return crc.CalcBufferCRC(bytes.data(), static_cast<DWORD>(bytes.size()));
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

bool InProgress() {
  HANDLE h = OpenEvent(0, FALSE, L"QV_UPGRADE_IN_PROGRESS");
  if (!h) return false;
  CloseHandle(h);
  return true;
}

bool WaitForJobEnd(const ftctest::DeviceRoot& root, std::chrono::milliseconds timeout) {
  auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (ftctest::PluginHost::LogText(root).find("UpgradeThread - final exit") !=
            std::string::npos &&
        !InProgress()) {
      // The worker returns right after its last line.
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

}  // namespace e2e
