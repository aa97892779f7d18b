#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace ftcstore {
namespace {

bool AllOf(std::string_view s, const char* extra) {
  for (char c : s) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              (c != '\0' && std::strchr(extra, c));
    if (!ok) return false;
  }
  return true;
}

bool Digits(std::string_view s, size_t at, size_t n, int* value) {
  if (at + n > s.size()) return false;
  *value = 0;
  for (size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    *value = *value * 10 + (s[i] - '0');
  }
  return true;
}

}  // namespace

bool IsUtf8(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n;
    unsigned cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      n = 1, cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      n = 2, cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      n = 3, cp = c & 0x07;
    } else {
      return false;
    }
    if (i + n >= s.size()) return false;
    for (size_t k = 1; k <= n; ++k) {
      unsigned char d = static_cast<unsigned char>(s[i + k]);
      if ((d & 0xC0) != 0x80) return false;
      cp = cp << 6 | (d & 0x3F);
    }
    static const unsigned kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += n + 1;
  }
  return true;
}

std::string CleanText(std::string_view s) {
  bool utf8 = IsUtf8(s);
  std::string out;
  out.reserve(s.size());
  for (char ch : s) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (c == 0) continue;
    if (c < 0x80 || utf8) {
      out += ch;
    } else {
      out += static_cast<char>(0xC0 | c >> 6);
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::string IsoTime(const timespec& t, int digits) {
  std::tm tm{};
  gmtime_r(&t.tv_sec, &tm);
  char buf[64];
  int n = std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d", tm.tm_year + 1900,
                        tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  std::string out(buf, static_cast<size_t>(n));
  if (digits > 0) {
    std::snprintf(buf, sizeof buf, ".%09ld", t.tv_nsec);
    out.append(buf, static_cast<size_t>(1 + std::min(digits, 9)));
  }
  return out + "Z";
}

std::string IsoNow(int digits) {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return IsoTime(ts, digits);
}

std::optional<std::string> NormalizeTime(std::string_view s) {
  int year, month, day, hour, minute, second;
  if (s.size() < 20 || !Digits(s, 0, 4, &year) || s[4] != '-' || !Digits(s, 5, 2, &month) ||
      s[7] != '-' || !Digits(s, 8, 2, &day) || s[10] != 'T' || !Digits(s, 11, 2, &hour) ||
      s[13] != ':' || !Digits(s, 14, 2, &minute) || s[16] != ':' || !Digits(s, 17, 2, &second) ||
      s.back() != 'Z')
    return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
    return std::nullopt;
  std::string_view fraction = s.substr(19, s.size() - 20);
  if (!fraction.empty()) {
    int ignored;
    if (fraction[0] != '.' || fraction.size() < 2 || fraction.size() > 10 ||
        !Digits(fraction, 1, fraction.size() - 1, &ignored))
      return std::nullopt;
    fraction.remove_prefix(1);
  }
  std::string out(s.substr(0, 19));
  out += '.';
  out += fraction.substr(0, 6);
  out.append(6 - std::min<size_t>(fraction.size(), 6), '0');
  return out + "Z";
}

std::optional<std::time_t> ParseIsoTime(std::string_view s) {
  int year, month, day, hour, minute, second;
  if (!Digits(s, 0, 4, &year) || !Digits(s, 5, 2, &month) || !Digits(s, 8, 2, &day) ||
      !Digits(s, 11, 2, &hour) || !Digits(s, 14, 2, &minute) || !Digits(s, 17, 2, &second))
    return std::nullopt;
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  return timegm(&tm);
}

bool IsDeviceId(std::string_view s) {
  return !s.empty() && s.size() <= 64 && AllOf(s, "_.:-");
}

bool IsQueueName(std::string_view s) {
  return !s.empty() && s.size() <= 64 && s != "." && s != ".." && AllOf(s, "_.~-");
}

}  // namespace ftcstore
