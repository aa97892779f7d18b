#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"
#include "support/scripted_http_peer.h"
#include "transfer/CHTTPClient.h"

namespace {

using ftctest::ReferenceCrc32;
using ftctest::Reply;

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

DWORD g_statusDone = 0, g_statusTotal = 0, g_statusCalls = 0;
void RecordStatus(DWORD done, DWORD total) {
  g_statusDone = done;
  g_statusTotal = total;
  ++g_statusCalls;
}

class HttpClient : public ::testing::Test {
 protected:
  void SetUp() override {
    CreateDirectory(L"\\Flash File Store", nullptr);
    client.Init();
    client.SetTimeout(3000);
    client.SetType("T1");
    client.SetFamily("F2");
    client.SetModel("M3");
    client.SetSerialNum("S4");
    client.SetCoreName("CORE5");
    CHTTPClient::SetBundleRxBytes(0);
    CHTTPClient::SetFallBackMode(0);
  }

  // OpenURL then Get of url into dest; -1 when the connection failed.
  int Fetch(const std::wstring& url, const wchar_t* dest = L"\\Flash File Store\\a.bin") {
    wchar_t path[256] = {};
    if (!client.OpenURL(url.c_str(), path)) return -1;
    return client.Get(path, dest);
  }
  // The lines logged since the previous call.
  std::string NewLog() {
    std::string all = root.Log();
    std::string fresh = all.substr(std::min(m_seen, all.size()));
    m_seen = all.size();
    return fresh;
  }
  std::string File(const char* dest = "\\Flash File Store\\a.bin") const {
    return root.ReadFile(dest);
  }

  ftctest::DeviceRoot root;
  CHTTPClient client;
  size_t m_seen = 0;
};

TEST_F(HttpClient, RequestCarriesTheDeviceIdentityAndTheDottedAddress) {
  ftctest::ScriptedHttpPeer peer({Reply::Ok("x", ReferenceCrc32("x"))});
  CHTTPClient::SetBundleRxBytes(1234);
  CHTTPClient::SetFallBackMode(1);
  EXPECT_EQ(Fetch(peer.Url(L"/os/a.bin:2,5")), 1);
  ASSERT_EQ(peer.Requests().size(), 1u);
  EXPECT_EQ(peer.Requests()[0],
            "GET os/a.bin:2,5 HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: UpgradeClient\r\n"
            "Accept: */*\r\nConnection: Keep-Alive\r\nType: T1\r\nFamily: F2\r\nModel: M3\r\n"
            "SerialNum: S4\r\nCore-name: CORE5\r\nBundle-rx: 1234\r\nHTTP-fallback: 1\r\n"
            "Cache-Control: no-cache\r\n\r\n");
}

// Files share one connection until the peer closes it, and count towards the bundle.
TEST_F(HttpClient, FilesShareOneConnectionAndCountTowardsTheBundle) {
  std::string a = ftctest::RandomBytes(100000, 1), b = ftctest::RandomBytes(50000, 2);
  Reply ra = Reply::Ok(a, ReferenceCrc32(a), "Content-Attributes: 1\r\n");
  Reply rb = Reply::Ok(b, ReferenceCrc32(b), "Content-timestamp: 03-05-2024 07:08:09\r\n");
  ra.chunk = rb.chunk = 7000;
  rb.close = true;
  ftctest::ScriptedHttpPeer peer({ra, rb, Reply::Ok(b, ReferenceCrc32(b))});
  client.SetStatusFunction(RecordStatus);
  g_statusCalls = 0;

  EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 1);
  EXPECT_EQ(client.IsConnected(), 1);
  EXPECT_EQ(g_statusDone, a.size());
  EXPECT_EQ(g_statusTotal, a.size());
  EXPECT_GE(g_statusCalls, 1u);
  EXPECT_EQ(Fetch(peer.Url(L"/b.bin"), L"\\Flash File Store\\b.bin"), 1);

  EXPECT_EQ(peer.Connections(), 1);
  EXPECT_TRUE(File() == a);
  EXPECT_TRUE(File("\\Flash File Store\\b.bin") == b);
  EXPECT_EQ(Fetch(peer.Url(L"/c.bin"), L"\\Flash File Store\\c.bin"), 1);
  EXPECT_EQ(peer.Connections(), 2);
  EXPECT_EQ(CHTTPClient::GetBundleRxBytes(), a.size() + 2 * b.size());
  EXPECT_EQ(GetFileAttributes(L"\\Flash File Store\\a.bin") & FILE_ATTRIBUTE_READONLY, 1u);
  std::string log = root.Log();
  EXPECT_TRUE(Has(log, "FileTransferConfiglet - CHttpClient:Get - No Content-timestamp\r\n"));
  EXPECT_TRUE(Has(log, "FileTransferConfiglet - CHttpClient:Get - No Content-Attributes\r\n"));
  EXPECT_TRUE(Has(log, "FileTransferConfiglet - Content-timestamp:  03-05-2024 07:08:09\r\n"));
  EXPECT_TRUE(Has(log,
                  "FileTransferConfiglet - http file size match, transfer success\r\n"
                  "Setting file attributes, \\Flash File Store\\a.bin, 1, 1\r\n"));
  EXPECT_TRUE(Has(log,
                  "performing CRC check\r\nFileTransferConfiglet - FILECRC32\r\n"
                  "FTCCCRC32::FileCRC32 - In\r\n"));
  EXPECT_TRUE(Has(log, "FileTransferConfiglet - good CRC\r\n"));
}

TEST_F(HttpClient, OpenURLMovesBetweenServersAndRefusesWhatItCannotReach) {
  ftctest::ScriptedHttpPeer a({Reply::Ok("a", ReferenceCrc32("a"))});
  ftctest::ScriptedHttpPeer b({Reply::Ok("b", ReferenceCrc32("b"))});
  EXPECT_EQ(Fetch(a.Url(L"/a.bin")), 1);
  EXPECT_EQ(Fetch(b.Url(L"/b.bin"), L"\\Flash File Store\\b.bin"), 1);
  EXPECT_EQ(a.Connections(), 1);
  EXPECT_EQ(b.Connections(), 1);

  NewLog();
  for (const wchar_t* url :
       {L"ftp://127.0.0.1:21/x", L"http://127.0.0.1/x", L"http://localhost:8080/x"}) {
    wchar_t path[256] = {};
    EXPECT_EQ(client.OpenURL(url, path), 0) << url;
    EXPECT_EQ(client.IsConnected(), 0) << url;
  }
  EXPECT_EQ(NewLog(),
            "FileTransferConfiglet - CHTTPClient::OpenURL - entering !ftp://127.0.0.1:21/x!\r\n"
            "FileTransferConfiglet - CHTTPClient::OpenURL ParseURL error\r\n"
            "FileTransferConfiglet - CHTTPClient::OpenURL - entering !http://127.0.0.1/x!\r\n"
            "FileTransferConfiglet - OpenURL - could not connect\r\n"
            "FileTransferConfiglet - CHTTPClient::OpenURL - entering !http://localhost:8080/x!\r\n"
            "FileTransferConfiglet - OpenURL - could not connect\r\n");
}

TEST_F(HttpClient, ADamagedFileIsRequestedAgainOnTheSameConnection) {
  std::string a = ftctest::RandomBytes(40000, 4);
  Reply bad = Reply::Ok(a, ReferenceCrc32(a) ^ 1), good = Reply::Ok(a, ReferenceCrc32(a));
  bad.chunk = good.chunk = 16000;
  ftctest::ScriptedHttpPeer peer({bad, good});
  EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 1);
  EXPECT_TRUE(File() == a);
  ASSERT_EQ(peer.Requests().size(), 2u);
  EXPECT_EQ(peer.Requests()[0], peer.Requests()[1]);
  EXPECT_EQ(peer.Connections(), 1);
  EXPECT_EQ(client.GetLastCRCGood(), 1);
  EXPECT_EQ(CHTTPClient::GetBundleRxBytes(), a.size());
  std::string expected = "FileTransferConfiglet - CRC error, \\Flash File Store\\a.bin, " +
                         std::to_string(int(ReferenceCrc32(a) ^ 1)) + ", " +
                         std::to_string(int(ReferenceCrc32(a))) + "\r\n";
  EXPECT_TRUE(Has(root.Log(), expected)) << root.Log();
}

TEST_F(HttpClient, RequestLevelFailuresEndTheAttemptAndDropTheConnection) {
  const std::string ok = "HTTP/1.1 200 OK\r\n";
  const std::string full = ok + "Content-Length: 5\r\nContent-CRC32: 1\r\n";
  struct Case {
    const char* name;
    Reply reply;
    const char* line;  // after "FileTransferConfiglet - "
    size_t requests = 1;
  } cases[] = {
      {"not found", Reply::Raw("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"),
       "CHttpClient:Get - bad ret 5"},
      {"200 OK only in the body",
       Reply::Raw("HTTP/1.1 500 Oops\r\nContent-Length: 6\r\n\r\n200 OK"),
       "CHttpClient:Get - bad ret 5"},
      {"no length", Reply::Raw(ok + "Content-CRC32: 1\r\n\r\n"), "CHttpClient:Get - bad ret 6"},
      {"length not a number", Reply::Raw(ok + "Content-Length: many\r\nContent-CRC32: 1\r\n\r\n"),
       "CHttpClient:Get - bad ret 6"},
      {"length past 32 bits",
       Reply::Raw(ok + "Content-Length: 4294967296\r\nContent-CRC32: 1\r\n\r\n"),
       "CHttpClient:Get - bad ret 6"},
      {"no CRC", Reply::Raw(ok + "Content-Length: 5\r\n\r\nhello"), "CHttpClient:Get - bad ret 7"},
      {"block larger than the buffer", Reply::Raw(full + "CheckPoint-BlockSize: 20000\r\n\r\n"),
       "CHttpClient:Get - bad ret 8"},
      {"block size past 32 bits",
       Reply::Raw(full + "CheckPoint-BlockSize: 99999999999999999999\r\n\r\n"),
       "CHttpClient:Get - bad ret 8"},
      {"silence", Reply::Raw(""), "CHttpClient:Get - bad ret 3"},
      {"closed at once", Reply::Raw("", true), "CHttpClient:Get - bad ret 4"},
      {"head never ends", Reply::Raw(full), "CHttpClient:Get - no end of header"},
      {"head larger than the buffer", Reply::Raw(full + "X-Pad: " + std::string(20000, 'p')),
       "CHttpClient:Get - no end of header"},
      {"body cut short", Reply::Raw(full + "\r\nhel", true), "m_HTTP.ReadData error"},
      // The stalled attempt is repeated; the server hangs up on the second request.
      {"body stalls", Reply::Raw(full + "\r\nhel"), "httpclient, server not sending data 3", 2},
  };
  client.SetTimeout(300);
  NewLog();
  for (const auto& c : cases) {
    ftctest::ScriptedHttpPeer peer({c.reply});
    EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 0) << c.name;
    EXPECT_EQ(client.IsConnected(), 0) << c.name;
    EXPECT_TRUE(Has(NewLog(), std::string("FileTransferConfiglet - ") + c.line + "\r\n")) << c.name;
    EXPECT_EQ(peer.Requests().size(), c.requests) << c.name;
    EXPECT_EQ(CHTTPClient::GetBundleRxBytes(), 0u) << c.name;
  }

  EXPECT_EQ(client.Get(L"", L"\\a.bin"), 0);
  EXPECT_TRUE(Has(root.Log(), "FileXferConfiglet - CHttpClient:Get - bad ret 1\r\n"));
  EXPECT_EQ(client.Get(L"a.bin", nullptr), 0);
  EXPECT_TRUE(Has(root.Log(), "FileTransferConfiglet - CHttpClient:Get - bad ret 1.1\r\n"));
}

TEST_F(HttpClient, CheckPointFramingIsAcceptedAndTheBodyReadPlain) {
  for (const char* size : {"4096", "0"}) {
    std::string a = ftctest::RandomBytes(30000, 5);
    Reply r =
        Reply::Ok(a, ReferenceCrc32(a), std::string("CheckPoint-BlockSize: ") + size + "\r\n");
    r.chunk = 9000;
    ftctest::ScriptedHttpPeer peer({r});
    EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 1) << size;
    EXPECT_TRUE(File() == a) << size;
  }
  EXPECT_TRUE(Has(root.Log(), "FileTransferConfiglet - check pointing is true\r\n"));
}

TEST_F(HttpClient, EmptyAndSingleFrameFilesFinishWithoutACrcCheck) {
  root.WriteFile("\\Flash File Store\\a.bin", "stale contents");
  ftctest::ScriptedHttpPeer peer({Reply::Ok("", 0), Reply::Ok("tiny", 999)});
  EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 1);
  EXPECT_EQ(client.IsConnected(), 0);
  EXPECT_TRUE(root.Exists("\\Flash File Store\\a.bin"));
  EXPECT_EQ(File(), "");
  EXPECT_TRUE(Has(root.Log(),
                  "FileTransferConfiglet - after OPenForWriting - success, !\\Flash File "
                  "Store\\a.bin%\r\nFileTransferConfiglet - after OpenForWriting - zero length "
                  "file, !\\Flash File Store\\a.bin%\r\n"));

  // Its CRC is wrong, but a file that arrives with its head is taken as it is.
  EXPECT_EQ(Fetch(peer.Url(L"/t.bin"), L"\\Flash File Store\\t.bin"), 1);
  EXPECT_EQ(client.IsConnected(), 0);
  EXPECT_EQ(File("\\Flash File Store\\t.bin"), "tiny");
  EXPECT_TRUE(
      Has(root.Log(), "FileTransferConfiglet - httpClient - file complete in first frame\r\n"));
  EXPECT_FALSE(Has(root.Log(), "performing CRC check"));
  EXPECT_EQ(peer.Connections(), 2);
}

TEST_F(HttpClient, HostileResponsesStayBounded) {
  std::string a = ftctest::RandomBytes(30000, 6);
  std::string crc = std::to_string(ReferenceCrc32(a));

  // Bytes past the content length are not written, and the connection is not trusted after.
  Reply surplus = Reply::Raw("HTTP/1.1 200 OK\r\nContent-Length: 30000\r\nContent-CRC32: " + crc +
                             "\r\n\r\n" + a + std::string(5000, 'J'));
  surplus.chunk = 8000;
  // Header values far longer than any buffer.
  Reply longValues = Reply::Ok(a, ReferenceCrc32(a),
                               "Content-timestamp: " + std::string(5000, '7') +
                                   "\r\nContent-Attributes: " + std::string(300, '9') + "\r\n");
  // The head trickles in a few bytes at a time.
  Reply trickle = Reply::Ok(a, ReferenceCrc32(a));
  trickle.chunk = 7;
  trickle.delayMs = 1;
  trickle.bytes.resize(trickle.bytes.size() - 29000);  // the rest follows in one piece
  Reply rest = Reply::Raw(a.substr(1000));
  rest.noRead = true;

  ftctest::ScriptedHttpPeer peer({surplus, longValues, trickle, rest});
  EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 1);
  EXPECT_TRUE(File() == a);
  EXPECT_EQ(client.IsConnected(), 0);
  EXPECT_TRUE(Has(root.Log(),
                  "FileTransferConfiglet - httpClient - data past content length, closing\r\n"));

  EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 1);
  EXPECT_TRUE(File() == a);
  // The text after the name, its blank included, cut at the 255 bytes its buffer holds.
  EXPECT_TRUE(Has(root.Log(),
                  "FileTransferConfiglet - Content-timestamp:  " + std::string(254, '7') + "\r\n"));

  EXPECT_EQ(Fetch(peer.Url(L"/a.bin")), 1);
  EXPECT_TRUE(File() == a);
}

TEST_F(HttpClient, CompletionReportHasNoPathAndAnOptionalError) {
  const std::string head =
      "GET HTTP/1.1\r\nCore-name: CORE5\r\nBundle-rx: 777\r\nHTTP-fallback: 1\r\n"
      "Bundle-transfer: COMPLETE\r\n";
  const std::pair<const char*, std::string> cases[] = {
      {"", head + "\r\n"},
      {nullptr, head + "\r\n"},
      {"disk full", head + "Error: disk full\r\n\r\n"}};
  CHTTPClient::SetBundleRxBytes(777);
  CHTTPClient::SetFallBackMode(1);
  for (const auto& c : cases) {
    ftctest::ScriptedHttpPeer peer({Reply::Raw("")});
    wchar_t path[256] = {};
    ASSERT_TRUE(client.OpenURL(peer.Url().c_str(), path));
    client.SendUpgradeComplete(c.first);
    ASSERT_TRUE(peer.WaitForRequests(1));
    EXPECT_EQ(peer.Requests()[0], c.second);
    EXPECT_TRUE(Has(NewLog(), c.second + "FileTransferConfiglet - CHTTPClient::SendUpgradeComplete "
                                         "- Exiting\r\n"));
    client.CloseURL();
  }
}

TEST_F(HttpClient, CheckPointBlocks) {
  auto block = [](const std::string& data, uint32_t crc, uint32_t length) {
    std::string b;
    for (uint32_t v : {length, crc})
      for (int shift = 24; shift >= 0; shift -= 8) b += char((v >> shift) & 0xFF);
    return b + data;
  };
  std::string data = ftctest::RandomBytes(3000, 7);
  struct Case {
    const char* name;
    std::string bytes;
    int result;
  } cases[] = {
      {"good", block(data, ReferenceCrc32(data), 3000), 1},
      {"damaged", block(data, ReferenceCrc32(data) ^ 4, 3000), 0},
      {"cut short", block(data, ReferenceCrc32(data), 3000).substr(0, 2000), 0},
  };
  client.SetTimeout(200);
  for (const auto& c : cases) {
    Reply r = Reply::Raw(c.bytes, true);
    r.noRead = true;
    r.chunk = 1000;
    ftctest::ScriptedHttpPeer peer({r});
    wchar_t path[256] = {};
    ASSERT_TRUE(client.OpenURL(peer.Url().c_str(), path));
    std::vector<char> buffer(4096);
    DWORD count = 0;
    EXPECT_EQ(client.GetChkPntBlk(buffer.data(), count, DWORD(buffer.size())), c.result) << c.name;
    if (c.result) {
      EXPECT_EQ(std::string(buffer.data(), count), data);
    }
    client.CloseURL();
  }
}

TEST(HttpUrl, ParseURL) {
  struct Case {
    const wchar_t* url;
    int result;
    const wchar_t* host;
    const wchar_t* path;
    WORD port;
  } cases[] = {
      {L"http://192.0.2.5:8080/files/a.bin", 1, L"192.0.2.5", L"files/a.bin", 8080},
      {L"HTTP://192.0.2.5:80/x", 1, L"192.0.2.5", L"x", 80},
      {L"http://192.0.2.5:80", 1, L"192.0.2.5", L"(untouched)", 80},
      {L"http://192.0.2.5\\dir\\a.bin", 1, L"192.0.2.5\\", L"dir\\a.bin", 0},
      {L"http://192.0.2.5:8789/os/a.bin:2,5", 1, L"192.0.2.5", L"os/a.bin:2,5", 8789},
      {L"ftp://192.0.2.5/x", 0, L"", L"(untouched)", 0},
      {L"http:/", 0, L"", L"(untouched)", 0},
  };
  CHTTPClient client;
  for (const auto& c : cases) {
    wchar_t host[256] = {}, path[256] = L"(untouched)";
    WORD port = 99;
    EXPECT_EQ(client.ParseURL(c.url, host, path, &port), c.result) << c.url;
    EXPECT_STREQ(host, c.host) << c.url;
    EXPECT_STREQ(path, c.path) << c.url;
    EXPECT_EQ(port, c.port) << c.url;
  }
  std::wstring tooLong = L"http://192.0.2.5:80/" + std::wstring(300, L'a');
  wchar_t host[256], path[256];
  WORD port;
  EXPECT_EQ(client.ParseURL(tooLong.c_str(), host, path, &port), 0);
}

}  // namespace
