// Text helpers: conversions, URL host/port, path splitting.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/helpers.h"

namespace {

TEST(SdkConversion, NarrowToWideIsBoundedTerminatedAndTolerant) {
  struct Case {
    const char* in;
    int outChars;
    std::wstring expected;
  };
  const Case cases[] = {
      {"\\Flash File Store\\a.bin", 64, L"\\Flash File Store\\a.bin"},
      {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", 64, L"caf\u00E9 \u20AC \U0001F600"},
      {"abcdef", 4, L"abc"},
      {"", 4, L""},
      {nullptr, 4, L""},
      {"a\xFF"
       "b\xC3",
       8, L"a?b?"},                           // stray and truncated sequences
      {"\xC0\xAF\xED\xA0\x80", 8, L"?????"},  // overlong form and surrogate
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in ? c.in : "(null)");
    wchar_t out[65];
    std::wmemset(out, L'#', 65);
    EXPECT_EQ(QVToTStrW(c.in, out, c.outChars), out);
    EXPECT_EQ(std::wstring(out), c.expected);
    EXPECT_EQ(out[c.outChars], L'#');  // nothing past the bound
  }
}

TEST(SdkConversion, WideToNarrowNeverCutsACharacter) {
  struct Case {
    const wchar_t* in;
    int outBytes;
    std::string expected;
  };
  const Case cases[] = {
      {L"10.0.0.5", 32, "10.0.0.5"},  {L"caf\u00E9\U0001F600", 32, "caf\xC3\xA9\xF0\x9F\x98\x80"},
      {L"ab\u00E9", 4, "ab"},  // the two-byte character does not fit with the terminator
      {L"ab\u00E9", 5, "ab\xC3\xA9"}, {nullptr, 4, ""},
      {L"x\xD800y", 8, "x?y"},
  };
  for (const Case& c : cases) {
    char out[32];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(QVToASCIIStringW(c.in, out, c.outBytes), out);
    EXPECT_EQ(std::string(out), c.expected);
    if (c.outBytes < 32) {
      EXPECT_EQ(out[c.outBytes], '#');
    }
  }
}

TEST(SdkParseUrl, FindsHostAndPort) {
  struct Case {
    const char* in;
    int result;
    const char* host;
    int port;
  };
  const Case cases[] = {
      {"http://server.example:8789/files/a.bin", 1, "server.example", 8789},
      {" 10.0.0.5:80 \r\n", 1, "10.0.0.5", 80},
      {"[::1]:9000", 1, "::1", 9000},
      {"http://server/path", 0, "server", -1},
      {"host:0", 0, "host", -1},
      {"host:65536", 0, "host", -1},
      {"host:99999999999999999999", 0, "host", -1},
      {"", 0, "", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    char host[64] = "junk";
    int port = -1;
    EXPECT_EQ(QVParseURL(c.in, host, sizeof host, &port), c.result);
    EXPECT_STREQ(host, c.host);
    EXPECT_EQ(port, c.port);
  }
  char small[5];
  int port = 0;
  EXPECT_EQ(QVParseURL("averylonghostname:81", small, sizeof small, &port), 1);
  EXPECT_STREQ(small, "aver");
  EXPECT_EQ(port, 81);
  EXPECT_EQ(QVParseURL("h:82", nullptr, 0, &port), 1);
  EXPECT_EQ(port, 82);
  EXPECT_EQ(QVParseURL(nullptr, small, sizeof small, &port), 0);
}

TEST(SdkSplitPath, SplitsDeviceAndDrivePaths) {
  struct Case {
    const char* path;
    const char* drive;
    const char* dir;
    const char* name;
    const char* ext;
  };
  const Case cases[] = {
      {"\\Flash File Store\\app.bin", "", "\\Flash File Store\\", "app", ".bin"},
      {"/tmp/FileXfer.txt", "", "/tmp/", "FileXfer", ".txt"},
      {"C:\\dir.d\\file", "C:", "\\dir.d\\", "file", ""},
      {"QVTransferAgent.exe", "", "", "QVTransferAgent", ".exe"},
      {"\\a\\b.tar.gz", "", "\\a\\", "b.tar", ".gz"},
      {"\\windows\\", "", "\\windows\\", "", ""},
      {"RAM:os.nb0", "", "", "RAM:os", ".nb0"},
      {"", "", "", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    char drive[8], dir[64], name[64], ext[16];
    TVLFileSplitPathA(c.path, drive, sizeof drive, dir, sizeof dir, name, sizeof name, ext,
                      sizeof ext);
    EXPECT_STREQ(drive, c.drive);
    EXPECT_STREQ(dir, c.dir);
    EXPECT_STREQ(name, c.name);
    EXPECT_STREQ(ext, c.ext);
  }
  wchar_t wdir[8], wname[8], wext[8];
  TVLFileSplitPathW(L"\\temp\\caf\u00E9.txt", nullptr, 0, wdir, 8, wname, 8, wext, 8);
  EXPECT_EQ(std::wstring(wdir), L"\\temp\\");
  EXPECT_EQ(std::wstring(wname), L"caf\u00E9");
  EXPECT_EQ(std::wstring(wext), L".txt");
  char dir[6], ext[3];
  TVLFileSplitPathA("\\long\\folder\\name.extension", nullptr, 0, dir, sizeof dir, nullptr, 0, ext,
                    sizeof ext);
  EXPECT_STREQ(dir, "\\long");
  EXPECT_STREQ(ext, ".e");
}

}  // namespace
