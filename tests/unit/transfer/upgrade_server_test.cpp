// The client against the real upgrade server over loopback.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/winux.h"
#include "support/device_root.h"
#include "transfer/CHTTPClient.h"

extern char** environ;

namespace {

// ftc-server on a free loopback port, stopped with SIGTERM at the end of the case.
class UpgradeServer {
 public:
  UpgradeServer(const std::string& root, const std::string& reports) {
    std::string bin = ftctest::BinDir() + "/ftc-server";
    std::vector<std::string> args = {bin, "--root", root, "--port", "0", "--reports", reports};
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
    std::string line;
    pollfd p{out[0], POLLIN, 0};
    while (rc == 0 && line.find('\n') == std::string::npos && poll(&p, 1, 20000) == 1) {
      char c[128];
      ssize_t n = read(out[0], c, sizeof c);
      if (n <= 0) break;
      line.append(c, size_t(n));
    }
    close(out[0]);
    const std::string prefix = "listening on ";
    if (line.compare(0, prefix.size(), prefix) != 0) throw std::runtime_error("no server: " + line);
    m_address = line.substr(prefix.size(), line.find('\n') - prefix.size());
  }
  ~UpgradeServer() {
    kill(m_pid, SIGTERM);
    int status;
    waitpid(m_pid, &status, 0);
  }
  std::wstring Url(const std::string& file = "") const {
    std::string u = "http://" + m_address + (file.empty() ? "" : "/" + file);
    return std::wstring(u.begin(), u.end());
  }

 private:
  pid_t m_pid = -1;
  std::string m_address;
};

std::string Pattern(size_t size, uint64_t seed) {
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

// Exposes the connection so a case can tell whether it was replaced.
class ProbeClient : public CHTTPClient {
 public:
  ProbeClient() {
    Init();
    SetTimeout(5000);
    SetCoreName("CORE5");
  }
  uint16_t LocalPort() const {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(m_socket, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
  }
  int Fetch(const UpgradeServer& server, const std::string& file, const std::wstring& dest) {
    wchar_t path[256] = {};
    if (!OpenURL(server.Url(file).c_str(), path)) return -1;
    return Get(path, dest.c_str());
  }
};

class UpgradeServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CreateDirectory(L"\\Flash File Store", nullptr);
    CHTTPClient::SetBundleRxBytes(0);
  }
  std::string Bundle(const std::string& name) const { return root.path() + "/.bundle/" + name; }
  std::string Reports() const { return root.path() + "/reports.jsonl"; }
  void Serve(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(Bundle(name)).parent_path());
    ftctest::WriteHostFile(Bundle(name), content);
  }

  ftctest::DeviceRoot root;
};

TEST_F(UpgradeServerTest, ManyFilesShareOneConnection) {
  std::vector<std::string> files;
  for (int i = 0; i < 40; ++i) {
    files.push_back(Pattern(20000 + size_t(i) * 1111, uint64_t(i)));
    Serve("os/f" + std::to_string(i) + ".bin", files.back());
  }
  UpgradeServer server(Bundle(""), Reports());
  ProbeClient client;
  uint16_t first = 0;
  for (int i = 0; i < 40; ++i) {
    std::wstring dest = L"\\Flash File Store\\f" + std::to_wstring(i) + L".bin";
    ASSERT_EQ(
        client.Fetch(server, "os/f" + std::to_string(i) + ".bin:" + std::to_string(i + 1) + ",40",
                     dest),
        1)
        << i;
    if (i == 0) first = client.LocalPort();
    EXPECT_EQ(client.LocalPort(), first) << i;
    std::string got = root.ReadFile("\\Flash File Store\\f" + std::to_string(i) + ".bin");
    EXPECT_TRUE(got == files[size_t(i)]) << i;
  }
}

TEST_F(UpgradeServerTest, LargeFileArrivesIntact) {
  const std::string big = Pattern(100u << 20, 42);
  Serve("big.bin", big);
  UpgradeServer server(Bundle(""), Reports());
  ProbeClient client;
  EXPECT_EQ(client.Fetch(server, "big.bin", L"\\Flash File Store\\big.bin"), 1);
  EXPECT_EQ(CHTTPClient::GetBundleRxBytes(), big.size());
  EXPECT_TRUE(root.ReadFile("\\Flash File Store\\big.bin") == big);
}

TEST_F(UpgradeServerTest, ConcurrentClientsAndTheCompletionReport) {
  std::vector<std::string> files;
  for (int i = 0; i < 8; ++i) {
    files.push_back(Pattern(30000 + size_t(i) * 4000, uint64_t(100 + i)));
    Serve("f" + std::to_string(i) + ".bin", files.back());
  }
  UpgradeServer server(Bundle(""), Reports());
  std::vector<int> results(4 * files.size(), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      ProbeClient client;
      for (size_t i = 0; i < files.size(); ++i) {
        std::wstring dest =
            L"\\Flash File Store\\t" + std::to_wstring(t) + L"-" + std::to_wstring(i) + L".bin";
        results[size_t(t) * files.size() + i] =
            client.Fetch(server, "f" + std::to_string(i) + ".bin", dest);
      }
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t)
    for (size_t i = 0; i < files.size(); ++i) {
      EXPECT_EQ(results[size_t(t) * files.size() + i], 1) << t << "/" << i;
      std::string got = root.ReadFile("\\Flash File Store\\t" + std::to_string(t) + "-" +
                                      std::to_string(i) + ".bin");
      EXPECT_TRUE(got == files[i]) << t << "/" << i;
    }

  CHTTPClient::SetBundleRxBytes(4096);
  CHTTPClient::SetFallBackMode(1);
  ProbeClient reporter;
  wchar_t path[256] = {};
  ASSERT_TRUE(reporter.OpenURL(server.Url().c_str(), path));
  reporter.SendUpgradeComplete("disk full");
  std::string reports;
  for (int i = 0; i < 200 && reports.find("disk full") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    reports = ftctest::ReadHostFile(Reports());
  }
  EXPECT_NE(reports.find("CORE5"), std::string::npos) << reports;
  EXPECT_NE(reports.find("4096"), std::string::npos) << reports;
  EXPECT_NE(reports.find("disk full"), std::string::npos) << reports;
  CHTTPClient::SetFallBackMode(0);
}

}  // namespace
