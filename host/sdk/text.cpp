// Text helpers: UTF-8 <-> wide conversion, URL host/port, path splitting.

#include "base/text.h"

#include <cstring>
#include <cwchar>
#include <string>

#include "platform/helpers.h"
#include "sdk_internal.h"

namespace {

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
  out[0] = L'\0';
  return SdkNoThrow<wchar_t*>(out, [&] {
    hostbase::CopyWide(out, static_cast<size_t>(outChars),
                       hostbase::FromUtf8(text, hostbase::StrayByte::kQuestionMark));
    return out;
  });
}

char* QVToASCIIStringW(const wchar_t* text, char* out, int outBytes) {
  if (!out || outBytes <= 0) return out;
  out[0] = '\0';
  return SdkNoThrow<char*>(out, [&] {
    hostbase::CopyUtf8(out, static_cast<size_t>(outBytes), hostbase::ToUtf8(text));
    return out;
  });
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
