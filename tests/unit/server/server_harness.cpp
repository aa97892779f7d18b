#include "server_harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "support/device_root.h"

extern char** environ;

namespace servertest {

ServerProcess::ServerProcess(const std::string& root, const std::vector<std::string>& extraArgs) {
  std::string bin = ftctest::BinDir() + "/ftc-server";
  std::vector<std::string> args = {bin, "--root", root, "--port", "0"};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int out[2];
  if (pipe(out) != 0) throw std::runtime_error("pipe");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, out[1], 1);
  posix_spawn_file_actions_addclose(&fa, out[0]);
  int rc = posix_spawn(&m_pid, bin.c_str(), &fa, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  close(out[1]);
  if (rc != 0) throw std::runtime_error("cannot start " + bin);
  std::string line;
  pollfd p{out[0], POLLIN, 0};
  while (line.find('\n') == std::string::npos && poll(&p, 1, 20000) == 1) {
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

int ServerProcess::Stop() {
  if (m_pid <= 0) return -1;
  kill(m_pid, SIGTERM);
  int status = 0;
  waitpid(m_pid, &status, 0);
  m_pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Connection::Connection(uint16_t port) {
  m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
    throw std::runtime_error("connect");
}

Connection::~Connection() {
  close(m_fd);
}

bool Connection::Send(const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool Connection::Fill() {
  pollfd p{m_fd, POLLIN, 0};
  if (poll(&p, 1, 10000) != 1) return false;
  char buf[1 << 16];
  ssize_t n = recv(m_fd, buf, sizeof buf, 0);
  if (n <= 0) return false;
  m_buffer.append(buf, static_cast<size_t>(n));
  return true;
}

Response Connection::Read(bool head) {
  Response r;
  size_t end;
  while ((end = m_buffer.find("\r\n\r\n")) == std::string::npos)
    if (!Fill()) return r;
  std::string text = m_buffer.substr(0, end + 2);
  m_buffer.erase(0, end + 4);
  size_t eol = text.find("\r\n");
  int status = 0;
  if (std::sscanf(text.c_str(), "HTTP/1.1 %d", &status) != 1) return r;
  for (size_t pos = eol + 2; pos < text.size();) {
    size_t next = text.find("\r\n", pos);
    std::string line = text.substr(pos, next - pos);
    pos = next + 2;
    size_t colon = line.find(": ");
    if (colon != std::string::npos) r.headers[line.substr(0, colon)] = line.substr(colon + 2);
  }
  size_t length =
      head ? 0 : std::stoull(r.headers.count("Content-Length") ? r.headers["Content-Length"] : "0");
  while (m_buffer.size() < length)
    if (!Fill()) return r;
  r.body = m_buffer.substr(0, length);
  m_buffer.erase(0, length);
  r.status = status;
  return r;
}

Response Connection::Get(const std::string& target, const std::string& extraHeaders) {
  if (!Send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeaders + "\r\n"))
    return {};
  return Read();
}

bool Connection::ClosedByPeer() {
  pollfd p{m_fd, POLLIN, 0};
  if (poll(&p, 1, 1000) != 1) return false;
  char c;
  return recv(m_fd, &c, 1, MSG_PEEK) == 0;
}

uint32_t ReferenceCrc32(const std::string& data) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
      t[n] = c;
    }
    return t;
  }();
  uint32_t c = 0xFFFFFFFFu;
  for (unsigned char b : data) c = (c >> 8) ^ table[(c ^ b) & 0xFF];
  return ~c;
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

}  // namespace servertest
