// The real ftc-server, driven the way devices and plain HTTP clients drive it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

#include "support/device_root.h"
#include "support/helpers.h"
#include "support/http_client.h"
#include "support/scripted_http_peer.h"

using ftctest::Connection;
using ftctest::Response;
using ftctest::ServerProcess;

namespace {

// The request a device sends (fields as the plug-in formats them).
std::string DeviceRequest(const std::string& path) {
  return "GET " + path +
         " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: UpgradeClient\r\nAccept: */*\r\n"
         "Connection: Keep-Alive\r\nType: R\r\nFamily: X\r\nModel: M\r\nSerialNum: S1\r\n"
         "Core-name: CORE1\r\nBundle-rx: 0\r\nHTTP-fallback: 0\r\nCache-Control: no-cache\r\n\r\n";
}

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(bundle + "/os"); }
  void Put(const std::string& rel, const std::string& content) {
    ftctest::WriteHostFile(bundle + "/" + rel, content);
  }
  ftctest::DeviceRoot root;
  std::string bundle = root.path() + "/bundle";
};

TEST_F(ServerTest, ServesFilesWithTheHeadersDevicesCheck) {
  const std::string data = ftctest::RandomBytes(100000, 1);
  Put("os/app.bin", data);
  Put("empty.txt", "");
  ServerProcess server(bundle);
  Connection c(server.port());

  // Device form: no leading separator, backslashes, ":ordinal,count".
  ASSERT_TRUE(c.Send(DeviceRequest("os\\app.bin:1,3")));
  Response r = c.Read();
  ASSERT_EQ(r.status, 200);
  EXPECT_TRUE(r.body == data);
  EXPECT_EQ(r.headers["Content-Length"], "100000");
  EXPECT_EQ(r.headers["Content-CRC32"], std::to_string(ftctest::ReferenceCrc32(data)));
  EXPECT_EQ(r.headers["Content-Attributes"], "32");

  r = c.Get("/empty.txt");
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.headers["Content-CRC32"], "0");

  ASSERT_TRUE(c.Send("HEAD /os/app.bin HTTP/1.1\r\n\r\n"));
  r = c.Read(true);
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.headers["Content-Length"], "100000");
  r = c.Get("/os/app.bin", "Range: bytes=10-19\r\n");
  EXPECT_EQ(r.status, 206);
  EXPECT_EQ(r.body, data.substr(10, 10));
  EXPECT_EQ(server.Stop(), 0);
}

TEST_F(ServerTest, RefusesMissingFilesAndEverythingOutsideTheRoot) {
  Put("os/a.bin", "inside");
  ftctest::WriteHostFile(root.path() + "/secret.txt", "outside");
  symlink((root.path() + "/secret.txt").c_str(), (bundle + "/link-out").c_str());
  symlink("os/a.bin", (bundle + "/link-in").c_str());
  symlink("..", (bundle + "/os/up").c_str());
  symlink("../..", (bundle + "/os/out").c_str());
  mkfifo((bundle + "/fifo").c_str(), 0644);
  ServerProcess server(bundle);
  Connection c(server.port());
  const std::pair<const char*, int> cases[] = {
      {"/missing.bin", 404},
      {"/os", 404},
      {"/fifo", 404},
      {"/", 404},
      {"/../secret.txt", 403},
      {"..\\secret.txt:1,2", 403},
      {"/%2e%2e/secret.txt", 403},
      {"/link-out", 403},
      {"/os/out/secret.txt", 403},
      {"/os/up/os/a.bin", 200},
      {"/link-in", 200},
  };
  // All on one connection: a refusal must not cost the device its connection.
  for (const auto& [target, status] : cases) {
    Response r = c.Get(target);
    EXPECT_EQ(r.status, status) << target;
    EXPECT_EQ(r.body.find(status == 200 ? "outside" : "200 OK"), std::string::npos) << target;
  }
}

TEST_F(ServerTest, BadRequestsGet400AndTheServerCarriesOn) {
  Put("a.txt", "x");
  ServerProcess server(bundle);
  for (const std::string& bytes :
       {std::string("GET /") + std::string(9000, 'a') + " HTTP/1.1\r\n\r\n",
        std::string("\x16\x03\x01garbage\r\n\r\n"), std::string("GET HTTP/1.1\r\n\r\n"),
        std::string("POST /a.txt HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n")}) {
    Connection c(server.port());
    c.Send(bytes);
    Response r = c.Read();
    EXPECT_TRUE(r.status == 400 || r.status == 501) << r.status;
    EXPECT_TRUE(c.ClosedByPeer());
  }
  Connection c(server.port());
  c.Send("GET /a.txt HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc");
  EXPECT_EQ(c.Read().body, "x");
  EXPECT_EQ(c.Get("/a.txt").body, "x");  // the request body was skipped, not parsed
}

TEST_F(ServerTest, PipelinedRequestsOnOneConnectionAndManyClientsAtOnce) {
  std::vector<std::string> files;
  for (int i = 0; i < 300; ++i) {
    files.push_back(ftctest::RandomBytes(100 + i * 37 + (i < 8 ? 300000 : 0), i));
    Put("f" + std::to_string(i), files.back());
  }
  ServerProcess server(bundle, {"--threads", "2"});
  {
    Connection c(server.port());
    // Written ahead in batches, as a client that writes ahead would.
    for (int i = 0; i < 300; i += 10) {
      std::string batch;
      for (int k = i; k < i + 10; ++k) batch += DeviceRequest("f" + std::to_string(k) + ":1,2");
      ASSERT_TRUE(c.Send(batch));
      for (int k = i; k < i + 10; ++k) ASSERT_TRUE(c.Read().body == files[k]) << k;
    }
  }
  std::atomic<int> good{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 50; ++t)
    clients.emplace_back([&, t] {
      Connection c(server.port());
      for (int k = 0; k < 8; ++k) {
        int i = (t + k) % 8;
        Response r = c.Get("f" + std::to_string(i));
        if (r.status == 200 && r.body == files[i]) good++;
      }
    });
  for (auto& t : clients) t.join();
  EXPECT_EQ(good.load(), 50 * 8);
}

// One worker and few descriptors: a reader that takes nothing, a head sent a byte at a time and
// a crowd of connections that never ask hold no worker and do not keep devices out.
TEST_F(ServerTest, SlowAndIdlePeersGiveWayToDevices) {
  Put("big.bin", ftctest::RandomBytes(16 << 20, 2));
  Put("small.txt", "small");
  ServerProcess server(bundle, {"--threads", "1", "--idle-timeout", "3"});
  rlimit few{48, 48};
  ASSERT_EQ(prlimit(server.pid(), RLIMIT_NOFILE, &few, nullptr), 0);

  Connection reader(server.port());
  ASSERT_TRUE(reader.Send(DeviceRequest("big.bin")));
  Connection trickle(server.port());
  const std::string head = DeviceRequest("small.txt");
  ASSERT_TRUE(trickle.Send(head.substr(0, 1)));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  std::vector<std::unique_ptr<Connection>> idle;
  for (int i = 0; i < 60; ++i) idle.push_back(std::make_unique<Connection>(server.port()));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // long enough to count as idle

  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) {
    Connection device(server.port());
    Response r = device.Get("small.txt");
    EXPECT_EQ(r.status, 200) << i;
    EXPECT_EQ(r.body, "small");
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));

  // Cut off counting from its first byte, however steadily the rest comes.
  bool cut = false;
  for (size_t i = 1; i < head.size() - 1 && !cut; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    cut = !trickle.Send(head.substr(i, 1));
  }
  EXPECT_TRUE(cut);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));
}

}  // namespace
