// The server's parsing and checksum helpers, without a network.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "common/crc_cache.h"
#include "common/http.h"
#include "store/intake.h"
#include "support/device_root.h"
#include "support/scripted_http_peer.h"

using namespace ftcserver;

TEST(ServerCrcCache, ComputesOncePerFileVersion) {
  ftctest::DeviceRoot root;
  std::string path = root.path() + "/f.bin";
  ftctest::WriteHostFile(path, "first version");
  CrcCache cache;
  auto crcOf = [&] {
    int fd = open(path.c_str(), O_RDONLY);
    struct stat st {};
    fstat(fd, &st);
    auto crc = cache.Get(fd, st);
    close(fd);
    return crc.value_or(0);
  };
  crcOf();
  EXPECT_EQ(crcOf(), ftctest::ReferenceCrc32("first version"));
  EXPECT_EQ(cache.Computations(), 1u);
  // Same size, new content: the change time moves even when the clock is coarse.
  ftctest::WriteHostFile(path, "other version");
  EXPECT_EQ(crcOf(), ftctest::ReferenceCrc32("other version"));
  EXPECT_EQ(cache.Computations(), 2u);
  // A replacement file (new inode) is a new version too.
  ftctest::WriteHostFile(path + ".new", "third");
  rename((path + ".new").c_str(), path.c_str());
  EXPECT_EQ(crcOf(), ftctest::ReferenceCrc32("third"));
  EXPECT_EQ(cache.Computations(), 3u);
}

TEST(ServerRequestParser, ReadsDeviceAndClientRequests) {
  struct Case {
    std::string bytes;
    ParseStatus status;
    std::string target;
    bool completion;
  };
  const std::string device =
      "GET os\\a.bin:1,3 HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: UpgradeClient\r\nConnection: "
      "Keep-Alive\r\nCore-name: D1\r\nBundle-rx: 0\r\nHTTP-fallback: 1\r\n\r\n";
  const Case cases[] = {
      {device, ParseStatus::kComplete, "os\\a.bin:1,3", false},
      {"GET /a b.txt HTTP/1.1\n\n", ParseStatus::kComplete, "/a b.txt", false},
      {"\r\nGET /x HTTP/1.0\r\n\r\n", ParseStatus::kComplete, "/x", false},
      {"GET HTTP/1.1\r\nCore-name: D1\r\nBundle-transfer: COMPLETE\r\n\r\n", ParseStatus::kComplete,
       "", true},
      {"GET HTTP/1.1\r\nCore-name: D1\r\n\r\n", ParseStatus::kComplete, "", false},
      {device.substr(0, device.size() - 1), ParseStatus::kIncomplete, "", false},
      {"GET /x HTTP/1.1\r\nHost: a", ParseStatus::kIncomplete, "", false},
      {"GET /" + std::string(9000, 'a') + " HTTP/1.1", ParseStatus::kBad, "", false},
      {"GET /x HTTP/1.1\r\nX: " + std::string(9000, 'a') + "\r\n\r\n", ParseStatus::kBad, "",
       false},
      {"\x16\x03\x01\x02garbage\r\n\r\n", ParseStatus::kBad, "", false},
      {"GET /x SPDY/3\r\n\r\n", ParseStatus::kBad, "", false},
      {"GET /x HTTP/1.1\r\nno colon here\r\n\r\n", ParseStatus::kBad, "", false},
      {"GET /x HTTP/1.1\r\n folded: x\r\n\r\n", ParseStatus::kBad, "", false},
      {"GET /x\x01y HTTP/1.1\r\n\r\n", ParseStatus::kBad, "", false},
  };
  for (const Case& c : cases) {
    Request r;
    ParseResult pr = ParseRequest(c.bytes, &r);
    EXPECT_EQ(pr.status, c.status) << c.bytes.substr(0, 60);
    if (pr.status != ParseStatus::kComplete) continue;
    EXPECT_EQ(pr.headLength, c.bytes.size());
    EXPECT_EQ(r.target, c.target);
    EXPECT_EQ(r.IsCompletionReport(), c.completion);
  }
  Request r;
  ASSERT_EQ(ParseRequest(device, &r).status, ParseStatus::kComplete);
  ASSERT_NE(r.Header("core-NAME"), nullptr);
  EXPECT_EQ(*r.Header("Core-name"), "D1");
  EXPECT_TRUE(r.KeepAlive());
  ASSERT_EQ(ParseRequest("GET /x HTTP/1.0\r\n\r\n", &r).status, ParseStatus::kComplete);
  EXPECT_FALSE(r.KeepAlive());
}

TEST(ServerTargets, MapToPathsUnderTheRoot) {
  struct Case {
    const char* target;
    TargetStatus status;
    const char* path;
  };
  const Case cases[] = {
      {"os/a.bin", TargetStatus::kOk, "os/a.bin"},
      {"/os/a.bin", TargetStatus::kOk, "os/a.bin"},
      {"os\\a.bin:2,5", TargetStatus::kOk, "os/a.bin"},
      {"\\os\\a.bin:10,12", TargetStatus::kOk, "os/a.bin"},
      {"http://10.0.0.1:80/os/a.bin", TargetStatus::kOk, "os/a.bin"},
      {"/my%20file.txt?x=1", TargetStatus::kOk, "my file.txt"},
      {"/a%3A1,2", TargetStatus::kOk, "a:1,2"},  // an escaped colon is part of the name
      {"/a:1,", TargetStatus::kOk, "a:1,"},
      {"/a/./b//c/../d", TargetStatus::kOk, "a/b/d"},
      {"/", TargetStatus::kOk, ""},
      {"../etc/passwd", TargetStatus::kForbidden, ""},
      {"/a/../../etc/passwd", TargetStatus::kForbidden, ""},
      {"..\\..\\etc\\passwd:1,1", TargetStatus::kForbidden, ""},
      {"/%2e%2e/%2E%2E/etc/passwd", TargetStatus::kForbidden, ""},
      {"/a%00.bin", TargetStatus::kBadRequest, ""},
      {"/a%zz", TargetStatus::kBadRequest, ""},
      {"/a%2", TargetStatus::kBadRequest, ""},
  };
  for (const Case& c : cases) {
    ResolvedTarget t = ResolveTarget(c.target);
    EXPECT_EQ(t.status, c.status) << c.target;
    if (c.status == TargetStatus::kOk) {
      EXPECT_EQ(t.path, c.path) << c.target;
    }
  }
}

TEST(ServerTexts, TimestampAndReportLine) {
  EXPECT_EQ(FormatDeviceTimestamp(1709622489), "03-05-2024 07:08:09");
  // Quotes escaped, UTF-8 kept, a legacy byte read as Latin-1; numbers stay numbers.
  const std::string core = "caf\xe9", rx = "12", fallback = "-1x", error = "a\"b\tc \xc3\xa9";
  EXPECT_EQ(ftcstore::MakeReport("T", "1.2.3.4", &core, &rx, &fallback, &error).line,
            "{\"time\":\"T\",\"peer\":\"1.2.3.4\",\"Core-name\":\"caf\xc3\xa9\",\"Bundle-rx\":12,"
            "\"HTTP-fallback\":\"-1x\",\"Error\":\"a\\\"b\\tc \xc3\xa9\"}");
  EXPECT_EQ(ftcstore::MakeReport("T", "p", nullptr, nullptr, nullptr, nullptr).line,
            "{\"time\":\"T\",\"peer\":\"p\",\"Core-name\":null,\"Bundle-rx\":null,"
            "\"HTTP-fallback\":null,\"Error\":null}");
}
