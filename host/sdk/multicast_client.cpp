// CMulticastClient: receives one multicast session with the uftpd receiver into a device folder
// and reports each file's progress to the plug-in's status port.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "multicast_params.h"
#include "platform/hostclasses.h"
#include "winux/winux_host.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Sends the plug-in's status datagram: progress and amount big-endian, then the text.
class StatusSender {
 public:
  explicit StatusSender(const MulticastParams& p) {
    if (p.statusAddress.empty() || p.statusPort <= 0) return;
    m_dest.sin_family = AF_INET;
    m_dest.sin_port = htons(static_cast<uint16_t>(p.statusPort));
    if (inet_pton(AF_INET, p.statusAddress.c_str(), &m_dest.sin_addr) != 1) return;
    m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  }
  ~StatusSender() {
    if (m_socket >= 0) close(m_socket);
  }
  StatusSender(const StatusSender&) = delete;
  StatusSender& operator=(const StatusSender&) = delete;

  void Send(const std::string& text, int percent, uint32_t amount) {
    if (m_socket < 0) return;
    std::vector<unsigned char> d(12, 0);
    d[2] = static_cast<unsigned char>((percent >> 8) & 0xFF);
    d[3] = static_cast<unsigned char>(percent & 0xFF);
    d[8] = static_cast<unsigned char>(amount >> 24);
    d[9] = static_cast<unsigned char>(amount >> 16);
    d[10] = static_cast<unsigned char>(amount >> 8);
    d[11] = static_cast<unsigned char>(amount);
    // The plug-in keeps 255 characters of text.
    d.insert(d.end(), text.begin(), text.begin() + std::min<size_t>(text.size(), 255));
    sendto(m_socket, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&m_dest), sizeof m_dest);
  }

 private:
  int m_socket = -1;
  sockaddr_in m_dest{};
};

// One running uftpd whose log arrives on a pipe.
class Receiver {
 public:
  ~Receiver() { Stop(); }

  bool Start(const std::vector<std::string>& args) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int rc = posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
      close(fds[0]);
      m_pid = -1;
      return false;
    }
    m_fd = fds[0];
    return true;
  }

  // Next complete log line; false on time-out or when the receiver has gone.
  bool ReadLine(std::string& line, int timeoutMs) {
    for (;;) {
      size_t nl = m_buffer.find('\n');
      if (nl != std::string::npos) {
        line = m_buffer.substr(0, nl);
        m_buffer.erase(0, nl + 1);
        return true;
      }
      if (m_fd < 0) return false;
      pollfd p{m_fd, POLLIN, 0};
      int r = poll(&p, 1, timeoutMs);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      char chunk[4096];
      ssize_t n = read(m_fd, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        close(m_fd);
        m_fd = -1;
        if (m_buffer.empty()) return false;
        m_buffer.push_back('\n');
        continue;
      }
      m_buffer.append(chunk, static_cast<size_t>(n));
      if (m_buffer.size() > (1u << 20)) m_buffer.erase(0, m_buffer.size() - 4096);
    }
  }

  // True once the receiver's output has ended and every line has been read.
  bool Finished() const { return m_fd < 0 && m_buffer.empty(); }

  void Stop() {
    if (m_pid > 0) {
      kill(m_pid, SIGTERM);
      for (int i = 0; i < 100; ++i) {
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
          m_pid = -1;
          break;
        }
        usleep(20000);
      }
      if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
      }
    }
    if (m_fd >= 0) {
      close(m_fd);
      m_fd = -1;
    }
  }

 private:
  pid_t m_pid = -1;
  int m_fd = -1;
  std::string m_buffer;
};

std::string AfterMarker(const std::string& line, const char* marker) {
  size_t at = line.find(marker);
  if (at == std::string::npos) return "";
  std::string rest = line.substr(at + strlen(marker));
  while (!rest.empty() && (rest.back() == '\r' || rest.back() == ' ')) rest.pop_back();
  return rest;
}

bool MakeFolders(const std::string& path) {
  std::string partial;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    if (i < path.size()) partial.push_back(path[i]);
  }
  return true;
}

std::string ProbeVersion() {
  // uftpd names its version on its first log line (from log level 2); ask it on a private port
  // and stop it.
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (s >= 0 && bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  if (s >= 0) close(s);
  if (port == 0) return "";
  Receiver r;
  if (!r.Start({"uftpd", "-d", "-x", "2", "-p", std::to_string(port), "-D", "/tmp"})) return "";
  std::string line;
  auto until = Clock::now() + std::chrono::seconds(3);
  while (Clock::now() < until && r.ReadLine(line, 500)) {
    std::string v = AfterMarker(line, "UFTP version ");
    if (!v.empty()) return v.substr(0, v.find(' '));
  }
  return "";
}

}  // namespace

CMulticastClient::CMulticastClient() {
  m_szVersion[0] = '\0';
}

CMulticastClient::~CMulticastClient() = default;

const char* CMulticastClient::GetVersion() {
  static std::once_flag once;
  static std::string version;
  std::call_once(once, [] {
    std::string v = ProbeVersion();
    version = "uftpd " + (v.empty() ? std::string("(version unknown)") : v);
  });
  snprintf(m_szVersion, sizeof m_szVersion, "%s", version.c_str());
  return m_szVersion;
}

int CMulticastClient::Start(char* parameters) {
  MulticastParams p;
  std::string error;
  if (!ParseMulticastParams(parameters ? parameters : "", p, error)) {
    fprintf(stderr, "multicast: %s\n", error.c_str());
    return 1;
  }
  std::string folder = WinuxMapPath(p.deviceFolder);
  if (folder.empty() || !MakeFolders(folder)) return 2;

  std::vector<std::string> args = {"uftpd", "-d",  "-x", "2", "-p", std::to_string(p.port),
                                   "-D",    folder};
  if (!p.interfaceAddress.empty()) args.insert(args.end(), {"-I", p.interfaceAddress});
  if (!p.multicastAddress.empty()) args.insert(args.end(), {"-M", p.multicastAddress});
  Receiver receiver;
  if (!receiver.Start(args)) return 3;

  StatusSender status(p);
  auto startBy = Clock::now() + std::chrono::milliseconds(p.startTimeoutMs);
  bool started = false, finished = false;
  std::string current;
  uint32_t currentBytes = 0;
  auto lastActivity = Clock::now();
  std::string line;
  while (!finished) {
    auto now = Clock::now();
    if (!started && now >= startBy) break;
    if (started && now - lastActivity >= std::chrono::milliseconds(p.idleTimeoutMs)) break;
    if (!receiver.ReadLine(line, 200)) {
      // A receiver that has exited says nothing more; waiting on would only spin.
      if (receiver.Finished()) break;
      continue;
    }
    if (line.empty()) continue;
    std::string l;
    l.swap(line);
    lastActivity = Clock::now();
    if (l.find("Received request from") != std::string::npos) {
      started = true;
      continue;
    }
    std::string name = AfterMarker(l, "Name of file to receive: ");
    if (!name.empty()) {
      started = true;
      current = name;
      currentBytes = 0;
      status.Send("Receiving " + current, 0, 0);
      continue;
    }
    std::string bytes = AfterMarker(l, "Bytes: ");
    if (!bytes.empty()) {
      currentBytes = static_cast<uint32_t>(strtoul(bytes.c_str(), nullptr, 10));
      continue;
    }
    if (l.find("File transfer complete") != std::string::npos ||
        l.find("skipping file") != std::string::npos) {
      status.Send("Receiving " + current, 100, currentBytes);
      continue;
    }
    if (l.find("Group complete") != std::string::npos ||
        l.find("Group file transfer confirmed") != std::string::npos) {
      finished = true;
    }
    if (l.find("Transfer aborted") != std::string::npos ||
        l.find("Session aborted") != std::string::npos || l.find("ABORT") != std::string::npos) {
      break;
    }
  }
  receiver.Stop();
  if (finished) return 0;
  return started ? 4 : 5;
}
