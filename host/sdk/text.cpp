// Text helpers: UTF-8 <-> wide conversion, URL host/port, path splitting.

#include <cstring>
#include <cwchar>
#include <string>

#include "platform/helpers.h"
#include "sdk_internal.h"

namespace {

// Decodes one UTF-8 sequence at s (n bytes available). Returns its length, with *cp the code
// point, or 1 with *cp = '?' for a byte that does not start a valid sequence.
int DecodeUtf8(const unsigned char* s, size_t n, uint32_t* cp) {
  unsigned char b = s[0];
  int len;
  uint32_t v;
  if (b < 0x80) {
    *cp = b;
    return 1;
  } else if (b >= 0xC2 && b <= 0xDF) {
    len = 2;
    v = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    len = 3;
    v = b & 0x0F;
  } else if (b >= 0xF0 && b <= 0xF4) {
    len = 4;
    v = b & 0x07;
  } else {
    *cp = '?';
    return 1;
  }
  if (n < static_cast<size_t>(len)) {
    *cp = '?';
    return 1;
  }
  for (int i = 1; i < len; ++i) {
    if ((s[i] & 0xC0) != 0x80) {
      *cp = '?';
      return 1;
    }
    v = (v << 6) | (s[i] & 0x3F);
  }
  // Overlong forms, surrogates and values past Unicode are not characters.
  static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (v < kMin[len] || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) {
    *cp = '?';
    return 1;
  }
  *cp = v;
  return len;
}

int EncodeUtf8(uint32_t cp, char* out) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = '?';
  if (cp < 0x80) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | (cp >> 6));
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (cp >> 12));
    out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (cp >> 18));
  out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}

template <typename Char>
void CopyBounded(Char* out, int size, const Char* begin, const Char* end) {
  if (!out || size <= 0) return;
  size_t n = static_cast<size_t>(end - begin);
  if (n > static_cast<size_t>(size - 1)) n = static_cast<size_t>(size - 1);
  for (size_t i = 0; i < n; ++i) out[i] = begin[i];
  out[n] = 0;
}

template <typename Char>
size_t Length(const Char* s) {
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

template <typename Char>
bool IsSeparator(Char c) {
  return c == '\\' || c == '/';
}

template <typename Char>
void SplitPath(const Char* path, Char* drive, int driveSize, Char* dir, int dirSize, Char* name,
               int nameSize, Char* ext, int extSize) {
  static const Char kEmpty[1] = {0};
  if (!path) path = kEmpty;
  const Char* end = path + Length(path);
  const Char* p = path;
  const Char* driveEnd = p;
  if (end - p >= 2 && p[1] == ':' &&
      ((p[0] >= 'A' && p[0] <= 'Z') || (p[0] >= 'a' && p[0] <= 'z'))) {
    driveEnd = p + 2;
  }
  CopyBounded(drive, driveSize, p, driveEnd);
  const Char* dirEnd = driveEnd;
  for (const Char* q = driveEnd; q < end; ++q)
    if (IsSeparator(*q)) dirEnd = q + 1;
  CopyBounded(dir, dirSize, driveEnd, dirEnd);
  const Char* dot = end;
  for (const Char* q = end; q > dirEnd;) {
    --q;
    if (*q == '.') {
      dot = q;
      break;
    }
  }
  CopyBounded(name, nameSize, dirEnd, dot);
  CopyBounded(ext, extSize, dot, end);
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

wchar_t* QVToTStrW(const char* text, wchar_t* out, int outChars) {
  if (!out || outChars <= 0) return out;
  int o = 0;
  if (text) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    size_t n = std::strlen(text);
    size_t i = 0;
    while (i < n && o < outChars - 1) {
      uint32_t cp;
      i += static_cast<size_t>(DecodeUtf8(s + i, n - i, &cp));
      out[o++] = static_cast<wchar_t>(cp);
    }
  }
  out[o] = L'\0';
  return out;
}

char* QVToASCIIStringW(const wchar_t* text, char* out, int outBytes) {
  if (!out || outBytes <= 0) return out;
  int o = 0;
  if (text) {
    for (const wchar_t* w = text; *w; ++w) {
      char buf[4];
      int len = EncodeUtf8(static_cast<uint32_t>(*w), buf);
      // A character that does not fit whole is left out rather than cut.
      if (o + len > outBytes - 1) break;
      std::memcpy(out + o, buf, static_cast<size_t>(len));
      o += len;
    }
  }
  out[o] = '\0';
  return out;
}

int QVParseURL(const char* text, char* host, int hostSize, int* port) {
  if (host && hostSize > 0) host[0] = '\0';
  if (!text) return 0;
  const char* p = text;
  while (IsBlank(*p)) ++p;
  const char* end = p + std::strlen(p);
  while (end > p && IsBlank(end[-1])) --end;
  // Skip a scheme ("http://").
  for (const char* q = p; q + 2 < end; ++q) {
    if (q[0] == ':' && q[1] == '/' && q[2] == '/') {
      p = q + 3;
      break;
    }
    if (!((*q >= 'a' && *q <= 'z') || (*q >= 'A' && *q <= 'Z') || IsDigit(*q) || *q == '+' ||
          *q == '-' || *q == '.'))
      break;
  }
  const char* hostBegin = p;
  const char* hostEnd;
  const char* rest;
  if (*p == '[') {
    // A bracketed IPv6 literal: its colons are not the port's.
    const char* close = static_cast<const char*>(std::memchr(p, ']', static_cast<size_t>(end - p)));
    if (!close) return 0;
    hostBegin = p + 1;
    hostEnd = close;
    rest = close + 1;
  } else {
    hostEnd = p;
    while (hostEnd < end && *hostEnd != ':' && *hostEnd != '/' && *hostEnd != '?' &&
           *hostEnd != '#')
      ++hostEnd;
    rest = hostEnd;
  }
  CopyBounded(host, hostSize, hostBegin, hostEnd);
  if (rest >= end || *rest != ':') return 0;
  const char* digits = rest + 1;
  const char* q = digits;
  long value = 0;
  while (q < end && IsDigit(*q) && value <= 65535) value = value * 10 + (*q++ - '0');
  if (q == digits || value < 1 || value > 65535) return 0;
  if (q < end && *q != '/' && *q != '?' && *q != '#') return 0;
  if (port) *port = static_cast<int>(value);
  return 1;
}

void TVLFileSplitPathA(const char* path, char* drive, int driveSize, char* dir, int dirSize,
                       char* name, int nameSize, char* ext, int extSize) {
  SplitPath(path, drive, driveSize, dir, dirSize, name, nameSize, ext, extSize);
}

void TVLFileSplitPathW(const wchar_t* path, wchar_t* drive, int driveSize, wchar_t* dir,
                       int dirSize, wchar_t* name, int nameSize, wchar_t* ext, int extSize) {
  SplitPath(path, drive, driveSize, dir, dirSize, name, nameSize, ext, extSize);
}

std::wstring SdkWiden(const char* text) {
  if (!text) return std::wstring();
  std::wstring out(std::strlen(text) + 1, L'\0');
  QVToTStrW(text, &out[0], static_cast<int>(out.size()));
  out.resize(std::wcslen(out.c_str()));
  return out;
}

std::string SdkNarrow(const wchar_t* text) {
  if (!text) return std::string();
  std::string out(std::wcslen(text) * 4 + 1, '\0');
  QVToASCIIStringW(text, &out[0], static_cast<int>(out.size()));
  out.resize(std::strlen(out.c_str()));
  return out;
}
