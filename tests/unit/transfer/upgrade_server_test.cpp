// The client against the real upgrade server over loopback.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"
#include "transfer/CHTTPClient.h"

namespace {

class ProbeClient : public CHTTPClient {
 public:
  ProbeClient() {
    Init();
    SetTimeout(5000);
    SetCoreName("CORE5");
  }
  int Fetch(const ftctest::ServerProcess& server, const std::string& file,
            const std::wstring& dest) {
    std::string url = server.url("/" + file);
    wchar_t path[256] = {};
    if (!OpenURL(std::wstring(url.begin(), url.end()).c_str(), path)) return -1;
    return Get(path, dest.c_str());
  }
};

class UpgradeServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CreateDirectory(L"\\Flash File Store", nullptr);
    CHTTPClient::SetBundleRxBytes(0);
  }
  // Files the server holds, seeded by number.
  std::vector<std::string> Serve(const std::string& prefix, int n, size_t size, size_t step) {
    std::vector<std::string> files;
    for (int i = 0; i < n; ++i) {
      std::string name = bundle + "/" + prefix + std::to_string(i) + ".bin";
      std::filesystem::create_directories(std::filesystem::path(name).parent_path());
      files.push_back(ftctest::RandomBytes(size + size_t(i) * step, uint32_t(i + 1)));
      ftctest::WriteHostFile(name, files.back());
    }
    return files;
  }

  ftctest::DeviceRoot root;
  std::string bundle = root.path() + "/.bundle";
};

TEST_F(UpgradeServerTest, ConcurrentClientsEachGetEveryFile) {
  std::vector<std::string> files = Serve("f", 8, 30000, 4000);
  ftctest::ServerProcess server(bundle);
  std::vector<int> results(4 * files.size(), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      ProbeClient client;
      for (size_t i = 0; i < files.size(); ++i)
        results[size_t(t) * files.size() + i] = client.Fetch(
            server, "f" + std::to_string(i) + ".bin",
            L"\\Flash File Store\\t" + std::to_wstring(t) + L"-" + std::to_wstring(i) + L".bin");
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t)
    for (size_t i = 0; i < files.size(); ++i) {
      EXPECT_EQ(results[size_t(t) * files.size() + i], 1) << t << "/" << i;
      EXPECT_TRUE(root.ReadFile("\\Flash File Store\\t" + std::to_string(t) + "-" +
                                std::to_string(i) + ".bin") == files[i])
          << t << "/" << i;
    }
}

}  // namespace
