// The real ftc-server, driven the way devices and plain HTTP clients drive it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <thread>

#include "support/device_root.h"
#include "support/helpers.h"
#include "support/scripted_http_peer.h"

using ftctest::ServerProcess;

namespace {

struct Response {
  int status = 0;  // 0: no complete response (closed, timed out or malformed)
  std::map<std::string, std::string> headers;
  std::string body;
};

// A raw client connection to the server on loopback.
class Connection {
 public:
  explicit Connection(uint16_t port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
      throw std::runtime_error("connect");
  }
  ~Connection() { close(m_fd); }
  bool Send(const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
      ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  // One response; HEAD responses have no body.
  Response Read(bool head = false) {
    Response r;
    size_t end;
    while ((end = m_buffer.find("\r\n\r\n")) == std::string::npos)
      if (!Fill()) return r;
    std::string text = m_buffer.substr(0, end + 2);
    m_buffer.erase(0, end + 4);
    int status = 0;
    if (std::sscanf(text.c_str(), "HTTP/1.1 %d", &status) != 1) return r;
    for (size_t pos = text.find("\r\n") + 2; pos < text.size();) {
      size_t next = text.find("\r\n", pos);
      std::string line = text.substr(pos, next - pos);
      pos = next + 2;
      size_t colon = line.find(": ");
      if (colon != std::string::npos) r.headers[line.substr(0, colon)] = line.substr(colon + 2);
    }
    size_t length =
        head ? 0
             : std::stoull(r.headers.count("Content-Length") ? r.headers["Content-Length"] : "0");
    while (m_buffer.size() < length)
      if (!Fill()) return r;
    r.body = m_buffer.substr(0, length);
    m_buffer.erase(0, length);
    r.status = status;
    return r;
  }
  Response Get(const std::string& target, const std::string& extraHeaders = "") {
    if (!Send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeaders + "\r\n"))
      return {};
    return Read();
  }
  // True when the server closed the connection (EOF within a second).
  bool ClosedByPeer() {
    pollfd p{m_fd, POLLIN, 0};
    char c;
    return poll(&p, 1, 1000) == 1 && recv(m_fd, &c, 1, MSG_PEEK) == 0;
  }

 private:
  bool Fill() {
    pollfd p{m_fd, POLLIN, 0};
    if (poll(&p, 1, 10000) != 1) return false;
    char buf[1 << 16];
    ssize_t n = recv(m_fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    m_buffer.append(buf, static_cast<size_t>(n));
    return true;
  }
  int m_fd;
  std::string m_buffer;
};

std::string Crc(const std::string& data) {
  return std::to_string(ftctest::ReferenceCrc32(data));
}

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
  EXPECT_EQ(r.headers["Content-CRC32"], Crc(data));
  EXPECT_EQ(r.headers["Content-Attributes"], "32");
  EXPECT_EQ(r.headers["Content-timestamp"].size(), 19u);

  r = c.Get("/empty.txt");
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.headers["Content-CRC32"], "0");

  // A file rewritten in place is announced with its new checksum.
  const std::string changed = ftctest::RandomBytes(100000, 2);
  Put("os/app.bin", changed);
  r = c.Get("os/app.bin:2,3");
  EXPECT_EQ(r.headers["Content-CRC32"], Crc(changed));
  EXPECT_TRUE(r.body == changed);

  ASSERT_TRUE(c.Send("HEAD /os/app.bin HTTP/1.1\r\n\r\n"));
  r = c.Read(true);
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.headers["Content-Length"], "100000");
  r = c.Get("/os/app.bin", "Range: bytes=10-19\r\n");
  EXPECT_EQ(r.status, 206);
  EXPECT_EQ(r.body, changed.substr(10, 10));
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

TEST_F(ServerTest, CompletionReportsAreRecordedBeforeTheAnswer) {
  std::string reports = root.path() + "/reports.jsonl";
  ServerProcess server(bundle, {"--reports", reports});
  Connection c(server.port());
  // As the plug-in sends it: no path, no Host; whole jobs show the report without an error.
  ASSERT_TRUE(
      c.Send("GET HTTP/1.1\r\nCore-name: CORE2\r\nBundle-rx: 0\r\nHTTP-fallback: 0\r\n"
             "Bundle-transfer: COMPLETE\r\nError: CRC \"bad\"\r\n\r\n"));
  EXPECT_EQ(c.Read().status, 200);  // answered only once recorded
  std::string text = ftctest::ReadHostFile(reports);
  EXPECT_NE(text.find("\"peer\":\"127.0.0.1\""), std::string::npos) << text;
  EXPECT_NE(text.find("\"time\":\"20"), std::string::npos) << text;
  EXPECT_NE(text.find("\"Core-name\":\"CORE2\",\"Bundle-rx\":0,\"HTTP-fallback\":0,"
                      "\"Error\":\"CRC \\\"bad\\\"\"}\n"),
            std::string::npos)
      << text;

  // A device that hangs up right after sending is still recorded.
  Connection(server.port())
      .Send("GET HTTP/1.1\r\nCore-name: CORE3\r\nBundle-transfer: COMPLETE\r\n\r\n");
  EXPECT_TRUE(ftctest::WaitUntil([&] {
    return ftctest::ReadHostFile(reports).find("\"Core-name\":\"CORE3\",\"Bundle-rx\":null") !=
           std::string::npos;
  }));
  EXPECT_EQ(server.Stop(), 0);
}

}  // namespace
