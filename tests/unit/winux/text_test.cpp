// Text with the device's conventions: wsprintf's %s/%S, UTF-8 conversions, date and time pictures.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "platform/winux.h"

namespace {

TEST(WinuxText, WsprintfFollowsTheDeviceWideConvention) {
  wchar_t out[1100];
  auto check = [&](int n, const std::wstring& expected) {
    EXPECT_EQ(std::wstring(out), expected);
    EXPECT_EQ(n, static_cast<int>(expected.size()));
  };
  check(wsprintf(out, L"[%s]", L"wide"), L"[wide]");
  check(wsprintf(out, L"[%S]", "narrow"), L"[narrow]");
  check(wsprintf(out, L"[%ls|%hs]", L"w", "n"), L"[w|n]");
  check(wsprintf(out, L"%c%C", L'\x263A', 'x'), L"\x263Ax");
  check(wsprintf(out, L"%S", "caf\xC3\xA9"), L"caf\xE9");
  check(wsprintf(out, L"!%-4s!%4S!", L"ab", "cd"), L"!ab  !  cd!");
  check(wsprintf(out, L"%d %u %x %X %08X", -5, 4000000000u, 255, 255, 0xBEEF),
        L"-5 4000000000 ff FF 0000BEEF");
  check(wsprintf(out, L"%ld %lu", static_cast<int32_t>(-7), static_cast<uint32_t>(0xFFFFFFFFu)),
        L"-7 4294967295");
  check(wsprintf(out, L"<%3d>%04d-%02d", 14, 2026, 3), L"< 14>2026-03");
  check(wsprintf(out, L"%s %S", static_cast<wchar_t*>(nullptr), static_cast<char*>(nullptr)),
        L"(null) (null)");

  // Bounded to 1,024 characters with the terminator.
  std::wstring longText(3000, L'a');
  EXPECT_EQ(wsprintf(out, L"%s", longText.c_str()), 1023);
  EXPECT_EQ(out[1023], L'\0');
}

TEST(WinuxText, ConversionsAreUtf8AndReportSizes) {
  const wchar_t* wide = L"a\xE9\x263A";
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, wide, -1, nullptr, 0, nullptr, nullptr), 7);
  char narrow[8];
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, wide, -1, narrow, sizeof narrow, nullptr, nullptr), 7);
  EXPECT_STREQ(narrow, "a\xC3\xA9\xE2\x98\xBA");
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, 1, narrow, sizeof narrow, nullptr, nullptr), 1);
  EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, wide, -1, narrow, 3, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);

  wchar_t back[8];
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "a\xC3\xA9\xE2\x98\xBA", -1, back, 8), 4);
  EXPECT_EQ(std::wstring(back), wide);
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\xFFz", 2, back, 8), 2);  // stray byte kept
  EXPECT_EQ(back[1], L'z');
}

TEST(WinuxText, CaseBlindComparisonsFoldOnlyAsciiLetters) {
  EXPECT_EQ(_stricmp("ShowGUI", "showgui"), 0);
  EXPECT_NE(_stricmp("RAM:", "RAM"), 0);  // a prefix is not equal
  EXPECT_NE(_stricmp("[", "{"), 0);       // '[' is not an upper-case '{'
  EXPECT_LT(_stricmp("a", "\xE9"), 0);    // high bytes compare unsigned
  EXPECT_EQ(_strnicmp("HTTP://x", "http://y", 7), 0);
  EXPECT_NE(_strnicmp("HTTP://x", "http://y", 8), 0);
  EXPECT_EQ(_strnicmp("ab", "AB", 10), 0);  // stops at the end of both
  EXPECT_EQ(_wcsnicmp(L"Http:\\", L"http:\\", 7), 0);
  EXPECT_NE(_wcsnicmp(L"\xC9", L"\xE9", 1), 0);  // only ASCII letters fold
}

TEST(WinuxTime, PicturesTheSystemUses) {
  SYSTEMTIME t{};
  t.wYear = 2026;
  t.wMonth = 3;
  t.wDay = 5;
  t.wHour = 14;
  t.wMinute = 7;
  t.wSecond = 9;
  wchar_t out[64];
  struct Case {
    bool date;
    const wchar_t* picture;
    const wchar_t* expected;
  } cases[] = {
      {true, L"yyyy/MM/dd", L"2026/03/05"},
      {true, L"MM:dd:yyyy", L"03:05:2026"},
      {false, L"hh:mm:ss", L"02:07:09"},
      {false, L"hh:mm:ss tt", L"02:07:09 PM"},
  };
  for (const Case& c : cases) {
    int n = c.date ? GetDateFormat(0, 0, &t, c.picture, out, 64)
                   : GetTimeFormat(0, 3, &t, c.picture, out, 64);
    EXPECT_EQ(std::wstring(out), c.expected) << c.picture;
    EXPECT_EQ(n, static_cast<int>(wcslen(c.expected)) + 1);
  }
  t.wHour = 0;
  GetTimeFormat(0, 0, &t, L"hh tt", out, 64);
  EXPECT_EQ(std::wstring(out), L"12 AM");
  EXPECT_EQ(GetDateFormat(0, 0, &t, L"yyyy/MM/dd", out, 5), 0);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
}

}  // namespace
