// The download list: device masks, list-file parsing and the URL forms the
// engine asks the server for.
#include "engine/file_list.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/UpgradeConfig.h"
#include "engine/completion.h"
#include "engine/job_state.h"
#include "platform/winux.h"
#include "support/device_root.h"
#include "support/scripted_http_peer.h"

namespace {

TEST(DeviceMask, MatchesAsAPrefixPatternBothWays) {
  struct Case {
    const char* mask;
    const char* mct;
    int match;
  } cases[] = {
      {"A?C*", "ABCDEF", 1}, {"ABD", "ABC", 0}, {"ABCD", "AB", 1}, {"AB", "ABXY", 1},
      {"", "ABC", 0},        {"*", "ABC", 1},   {"ab", "AB", 0},   {"AB\r\nZZ", "AB", 1},
      {"ABC", "", 0},        {"?X", "AX", 1},   {"?X", "AY", 0},   {nullptr, "AB", 0},
  };
  for (const Case& c : cases)
    EXPECT_EQ(IsMCTMaskMatch(c.mask, c.mct), c.match)
        << (c.mask ? c.mask : "(null)") << " vs " << c.mct;
}

struct Entry {
  std::string source, dest, masks, crc, size;
};

std::vector<Entry> Parse(const std::string& text) {
  UpgradeConfig cfg;
  ParseFileList(&cfg, text.data(), text.size());
  std::vector<Entry> out;
  for (const tagDownloadFile* f : cfg.GetDownloadFiles())
    out.push_back(
        {f->m_szSourceFile, f->m_szDestFile, f->m_szMCTMask, f->m_szCRC, f->m_szFileSize});
  return out;
}

// The reader is the shared one; here what the engine makes of its entries.
TEST(ListFile, OverlongTokensAreCutToTheirFields) {
  std::string longSource(1000, 's'), longCrc(100, '7');
  auto e = Parse(longSource + ",d," + std::string(5000, 'm') + "," + longCrc + ",1");
  ASSERT_EQ(e.size(), 1u);
  EXPECT_EQ(e[0].source.size(), 255u);
  EXPECT_EQ(e[0].masks.size(), 2047u);
  EXPECT_EQ(e[0].crc.size(), 31u);
}

// GetFile's request path, as the server sees it, for each base URL form.
TEST(GetFile, PortAndOrdinalAppearOnlyWhenTheBaseNamesNoPort) {
  ftctest::DeviceRoot root;
  const std::string notFound = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
  ftctest::ScriptedHttpPeer peer({ftctest::Reply::Raw(notFound), ftctest::Reply::Raw(notFound)});
  UpgradeConfig cfg;
  m_pUpgCfg = &cfg;
  m_iXferedFileCount = 2;
  m_iFileCount = 5;
  std::string port = std::to_string(peer.Port());

  char bare[] = "http://127.0.0.1";
  char source[] = "a.bin";
  char dest[] = "\\Flash File Store\\a.bin";
  EXPECT_NE(GetFile(bare, source, dest, peer.Port(), 1), 0);

  std::string withPort = "http://127.0.0.1:" + port + "/base/";
  char sub[] = "os\\b.bin";
  EXPECT_NE(GetFile(withPort.data(), sub, dest, 80, 1), 0);

  ASSERT_TRUE(peer.WaitForRequests(2));
  auto requests = peer.Requests();
  EXPECT_EQ(requests[0].rfind("GET a.bin:2,5 HTTP/1.1\r\n", 0), 0u) << requests[0];
  EXPECT_EQ(requests[1].rfind("GET base/os\\b.bin HTTP/1.1\r\n", 0), 0u) << requests[1];
  EXPECT_TRUE(root.Exists("\\Flash File Store"));
  // One attempt each moves the ordinal on.
  EXPECT_EQ(GetTransferedFileCnt(), 4);
  CleanupHTTPClient();
  m_pUpgCfg = nullptr;
}

}  // namespace
