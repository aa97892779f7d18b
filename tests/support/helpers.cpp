#include "helpers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "device_root.h"
#include "platform/winux.h"

extern char** environ;

namespace ftctest {

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  auto until = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

long ElapsedMs(std::chrono::steady_clock::time_point since) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - since)
                               .count());
}

int Count(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string RandomBytes(size_t size, uint32_t seed) {
  std::string s(size, '\0');
  uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
  for (size_t i = 0; i < size; i += 8) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    std::memcpy(&s[i], &x, std::min<size_t>(8, size - i));
  }
  return s;
}

std::string RunCommand(const std::string& command, int* exitStatus) {
  std::string out;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  int status = pclose(p);
  if (exitStatus) *exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

namespace {
// Spawns args with stdout going to out (-1: discarded) and stderr discarded.
pid_t Spawn(const std::vector<std::string>& args, int out) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  if (out >= 0)
    posix_spawn_file_actions_adddup2(&fa, out, 1);
  else
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}
}  // namespace

Child::Child(const std::vector<std::string>& args) : m_pid(Spawn(args, -1)) {}

Child::~Child() {
  if (m_pid > 0) {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
}

namespace {
int WaitForExit(pid_t* pid, std::chrono::milliseconds timeout) {
  int status = 0;
  if (*pid <= 0 || !WaitUntil([&] { return waitpid(*pid, &status, WNOHANG) == *pid; }, timeout))
    return -1;
  *pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}
}  // namespace

int Child::Wait(std::chrono::milliseconds timeout) {
  return WaitForExit(&m_pid, timeout);
}

namespace {
bool Listed(pid_t pid, const std::wstring& name) {
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE || !snapshot) return false;
  PROCESSENTRY32 entry = {};
  entry.dwSize = sizeof entry;
  bool found = false;
  for (BOOL more = Process32First(snapshot, &entry); more && !found;
       more = Process32Next(snapshot, &entry))
    found = entry.th32ProcessID == static_cast<DWORD>(pid) && name == entry.szExeFile;
  CloseToolhelp32Snapshot(snapshot);
  return found;
}
}  // namespace

std::unique_ptr<Child> StartListedSleeper(const std::string& path,
                                          std::chrono::milliseconds timeout) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  fs::copy_file("/bin/sleep", path, fs::copy_options::overwrite_existing, ec);
  if (ec) return nullptr;
  auto child = std::make_unique<Child>(std::vector<std::string>{path, "60"});
  const std::string name = fs::path(path).filename().string();
  // Listed under its name only once the exec is through, which takes a while on a busy machine.
  if (!WaitUntil([&] { return Listed(child->pid(), std::wstring(name.begin(), name.end())); },
                 timeout))
    return nullptr;
  return child;
}

namespace {

int BoundSocket(int type, int* port) {
  int s = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(*port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  *port = ntohs(a.sin_port);
  return s;
}

}  // namespace

int BoundUdp(int* port) {
  return BoundSocket(SOCK_DGRAM, port);
}

int FreeUdpPort() {
  int port = 0;
  close(BoundUdp(&port));
  return port;
}

int FreeTcpPort() {
  int port = 0;
  close(BoundSocket(SOCK_STREAM, &port));
  return port;
}

std::string ReceiveDatagram(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, timeoutMs) != 1) return "<none>";
  char buffer[65536];
  ssize_t n = recv(fd, buffer, sizeof buffer, 0);
  return n < 0 ? "<none>" : std::string(buffer, static_cast<size_t>(n));
}

void SendDatagram(int port, const std::string& bytes) {
  int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sendto(s, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  close(s);
}

ServerProcess::ServerProcess(const std::string& root, const std::vector<std::string>& extraArgs) {
  std::vector<std::string> args = {BinDir() + "/ftc-server", "--root", root, "--port", "0"};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  m_pid = Spawn(args, out[1]);
  close(out[1]);
  // The server says where it listens once it does.
  std::string line;
  pollfd p{out[0], POLLIN, 0};
  while (m_pid > 0 && line.find('\n') == std::string::npos && poll(&p, 1, 20000) == 1) {
    char c[256];
    ssize_t n = read(out[0], c, sizeof c);
    if (n <= 0) break;
    line.append(c, static_cast<size_t>(n));
  }
  close(out[0]);
  const std::string prefix = "listening on 127.0.0.1:";
  if (line.compare(0, prefix.size(), prefix) != 0) {
    Stop();
    throw std::runtime_error("ftc-server did not start: " + line);
  }
  m_port = static_cast<uint16_t>(std::atoi(line.c_str() + prefix.size()));
}

ServerProcess::~ServerProcess() {
  Stop();
}

std::string ServerProcess::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(m_port) + path;
}

int ServerProcess::Wait(std::chrono::milliseconds timeout) {
  return WaitForExit(&m_pid, timeout);
}

int ServerProcess::Stop() {
  if (m_pid <= 0) return -1;
  kill(m_pid, SIGTERM);
  int status = 0;
  waitpid(m_pid, &status, 0);
  m_pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace ftctest
