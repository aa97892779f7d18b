#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include "internal.h"
#include "platform/winux.h"

namespace winux {

bool EqualsNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

namespace {

constexpr size_t kWsprintfLimit = 1024;  // characters, terminator included
constexpr int kMaxField = 1100;          // anything wider is cut by the limit anyway

struct Directive {
  std::wstring flags;
  int width = -1;
  int precision = -1;
  std::string length;
};

void Pad(std::wstring& out, const std::wstring& body, const Directive& directive) {
  bool left = directive.flags.find(L'-') != std::wstring::npos;
  size_t width = directive.width > 0 ? static_cast<size_t>(directive.width) : 0;
  size_t fill = body.size() < width ? width - body.size() : 0;
  if (!left) out.append(fill, L' ');
  out += body;
  if (left) out.append(fill, L' ');
}

std::wstring NumberFormat(const Directive& directive, const char* length, wchar_t conv) {
  std::wstring f = L"%" + directive.flags;
  if (directive.width >= 0) f += std::to_wstring(directive.width);
  if (directive.precision >= 0) f += L"." + std::to_wstring(directive.precision);
  for (const char* p = length; *p; ++p) f += static_cast<wchar_t>(*p);
  f += conv;
  return f;
}

template <typename T>
void AppendNumber(std::wstring& out, const Directive& directive, const char* length, wchar_t conv,
                  T value) {
  wchar_t buffer[kMaxField * 2 + 64];
  std::wstring f = NumberFormat(directive, length, conv);
  int n = swprintf(buffer, sizeof buffer / sizeof buffer[0], f.c_str(), value);
  if (n > 0) out.append(buffer, static_cast<size_t>(n));
}

bool IsWideString(wchar_t conv, const std::string& length) {
  bool narrowMark = length == "h" || length == "hh";
  bool wideMark = length == "l" || length == "w";
  return conv == L's' || conv == L'c' ? !narrowMark : wideMark;
}

std::wstring Format(const wchar_t* format, va_list args) {
  std::wstring out;
  for (const wchar_t* p = format; *p && out.size() < kWsprintfLimit; ++p) {
    if (*p != L'%') {
      out += *p;
      continue;
    }
    const wchar_t* start = p++;
    if (*p == L'%') {
      out += L'%';
      continue;
    }
    Directive directive;
    while (*p && wcschr(L"-+ #0", *p)) directive.flags += *p++;
    if (*p == L'*') {
      directive.width = va_arg(args, int);
      if (directive.width < 0) {
        directive.flags += L'-';
        directive.width = -directive.width;
      }
      ++p;
    } else {
      while (*p >= L'0' && *p <= L'9') {
        int digit = *p++ - L'0';
        directive.width =
            directive.width < 0 ? digit : std::min(directive.width * 10 + digit, kMaxField + 1);
      }
    }
    if (*p == L'.') {
      ++p;
      directive.precision = 0;
      if (*p == L'*') {
        directive.precision = va_arg(args, int);
        ++p;
      } else {
        while (*p >= L'0' && *p <= L'9') {
          int digit = *p++ - L'0';
          directive.precision = std::min(directive.precision * 10 + digit, kMaxField + 1);
        }
      }
    }
    if (directive.width > kMaxField) directive.width = kMaxField;
    if (directive.precision > kMaxField) directive.precision = kMaxField;
    if (p[0] == L'I' && p[1] == L'6' && p[2] == L'4') {
      directive.length = "ll";
      p += 3;
    } else {
      while (*p && wcschr(L"hlLwzjt", *p)) directive.length += static_cast<char>(*p++);
    }
    const wchar_t conv = *p;
    const bool wide64 = directive.length == "ll" || directive.length == "j" ||
                        directive.length == "z" || directive.length == "t" ||
                        directive.length == "L";
    switch (conv) {
      case L'd':
      case L'i': {
        // The device's long is 32-bit: %ld reads a 32-bit value, not a 64-bit one.
        long long v = wide64 ? va_arg(args, long long) : va_arg(args, int);
        if (directive.length == "h") v = static_cast<short>(v);
        if (directive.length == "hh") v = static_cast<signed char>(v);
        AppendNumber(out, directive, "ll", conv, v);
        break;
      }
      case L'u':
      case L'x':
      case L'X':
      case L'o': {
        unsigned long long v = wide64 ? va_arg(args, unsigned long long) : va_arg(args, unsigned);
        if (directive.length == "h") v = static_cast<unsigned short>(v);
        if (directive.length == "hh") v = static_cast<unsigned char>(v);
        AppendNumber(out, directive, "ll", conv, v);
        break;
      }
      case L'f':
      case L'F':
      case L'e':
      case L'E':
      case L'g':
      case L'G':
      case L'a':
      case L'A':
        if (directive.length == "L")
          AppendNumber(out, directive, "L", conv, va_arg(args, long double));
        else
          AppendNumber(out, directive, "", conv, va_arg(args, double));
        break;
      case L'p':
        AppendNumber(out, directive, "", conv, va_arg(args, void*));
        break;
      case L'c':
      case L'C': {
        int v = va_arg(args, int);
        wchar_t ch = IsWideString(conv, directive.length)
                         ? static_cast<wchar_t>(v)
                         : static_cast<wchar_t>(static_cast<unsigned char>(v));
        Pad(out, std::wstring(1, ch), directive);
        break;
      }
      case L's':
      case L'S': {
        std::wstring text;
        if (IsWideString(conv, directive.length)) {
          const wchar_t* w = va_arg(args, const wchar_t*);
          text = w ? w : L"(null)";
        } else {
          const char* n = va_arg(args, const char*);
          text = n ? FromUtf8(n) : L"(null)";
        }
        if (directive.precision >= 0 && text.size() > static_cast<size_t>(directive.precision))
          text.resize(static_cast<size_t>(directive.precision));
        Pad(out, text, directive);
        break;
      }
      case L'n':
        (void)va_arg(args, void*);  // never written through: formats may come from outside
        break;
      default:
        // Unknown conversion: shown as written.
        out.append(start, static_cast<size_t>((conv ? p + 1 : p) - start));
        break;
    }
    if (!conv) break;
  }
  return out;
}

}  // namespace
}  // namespace winux

extern "C" int wsprintf(LPWSTR out, LPCWSTR format, ...) {
  if (!out) return 0;
  if (!format) {
    out[0] = L'\0';
    return 0;
  }
  va_list args;
  va_start(args, format);
  std::wstring text = winux::Format(format, args);
  va_end(args);
  winux::CopyWide(out, winux::kWsprintfLimit, text);
  return static_cast<int>(wcslen(out));
}

extern "C" int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int wideChars,
                                   LPSTR out, int outBytes, LPCSTR defaultChar, BOOL* usedDefault) {
  (void)codePage;  // every code page is UTF-8 on this host
  (void)flags;
  if (!wide || wideChars == 0 || wideChars < -1 || outBytes < 0 || (outBytes > 0 && !out)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  size_t n = wideChars == -1 ? wcslen(wide) + 1 : static_cast<size_t>(wideChars);
  bool replaced = false;
  std::string text = hostbase::ToUtf8(std::wstring_view(wide, n),
                                      defaultChar && *defaultChar ? *defaultChar : '?', &replaced);
  if (usedDefault) *usedDefault = replaced ? TRUE : FALSE;
  if (text.size() > 0x7FFFFFFFu) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (outBytes == 0) return static_cast<int>(text.size());
  if (text.size() > static_cast<size_t>(outBytes)) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  memcpy(out, text.data(), text.size());
  return static_cast<int>(text.size());
}

extern "C" int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR text, int bytes, LPWSTR out,
                                   int outChars) {
  (void)codePage;
  (void)flags;
  if (!text || bytes == 0 || bytes < -1 || outChars < 0 || (outChars > 0 && !out)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  size_t n = bytes == -1 ? strlen(text) + 1 : static_cast<size_t>(bytes);
  std::wstring wide = hostbase::FromUtf8(std::string_view(text, n));
  if (wide.size() > 0x7FFFFFFFu) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (outChars == 0) return static_cast<int>(wide.size());
  if (wide.size() > static_cast<size_t>(outChars)) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  wmemcpy(out, wide.data(), wide.size());
  return static_cast<int>(wide.size());
}

extern "C" void OutputDebugString(LPCWSTR text) {
  if (!text || !getenv("WINUX_DEBUG")) return;
  std::string narrow = winux::ToUtf8(text);
  fputs(narrow.c_str(), stderr);
}

namespace winux {
namespace {
template <typename Char>
int CompareFolded(const Char* a, const Char* b, size_t count) {
  auto fold = [](Char c) -> long {
    long v = static_cast<long>(c);
    if (sizeof(Char) == 1) v &= 0xFF;
    return v >= 'A' && v <= 'Z' ? v + ('a' - 'A') : v;
  };
  for (size_t i = 0; i < count; ++i) {
    long x = fold(a[i]), y = fold(b[i]);
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) break;
  }
  return 0;
}
}  // namespace
}  // namespace winux

extern "C" int _stricmp(const char* a, const char* b) {
  return winux::CompareFolded(a, b, static_cast<size_t>(-1));
}

extern "C" int _strnicmp(const char* a, const char* b, size_t count) {
  return winux::CompareFolded(a, b, count);
}

extern "C" int _wcsnicmp(const wchar_t* a, const wchar_t* b, size_t count) {
  return winux::CompareFolded(a, b, count);
}
