#include "base/text.h"

#include <cstdint>
#include <cstring>
#include <cwchar>

namespace hostbase {

namespace {

bool IsCharacter(uint32_t cp) {
  return cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF);
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Length of the valid sequence at s[0..n) with its code point in *cp; 0 when there is none.
size_t DecodeOne(const unsigned char* s, size_t n, uint32_t* cp) {
  unsigned char c = s[0];
  size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
  if (len == 0 || len > n) return 0;
  uint32_t v = len == 1 ? c : len == 2 ? (c & 0x1F) : len == 3 ? (c & 0x0F) : (c & 0x07);
  for (size_t k = 1; k < len; ++k) {
    if ((s[k] & 0xC0) != 0x80) return 0;
    v = (v << 6) | (s[k] & 0x3F);
  }
  static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (v < kMin[len] || !IsCharacter(v)) return 0;
  *cp = v;
  return len;
}

}  // namespace

std::string ToUtf8(std::wstring_view text, char replacement, bool* replaced) {
  std::string out;
  out.reserve(text.size());
  if (replaced) *replaced = false;
  for (wchar_t c : text) {
    uint32_t cp = static_cast<uint32_t>(c);
    if (IsCharacter(cp)) {
      AppendUtf8(out, cp);
    } else {
      out += replacement;
      if (replaced) *replaced = true;
    }
  }
  return out;
}

std::string ToUtf8(const wchar_t* text) {
  return text ? ToUtf8(std::wstring_view(text)) : std::string();
}

std::wstring FromUtf8(std::string_view text, StrayByte stray) {
  std::wstring out;
  out.reserve(text.size());
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text.data());
  for (size_t i = 0; i < text.size();) {
    uint32_t cp = 0;
    size_t len = DecodeOne(s + i, text.size() - i, &cp);
    if (len == 0) {
      out += stray == StrayByte::kOwnValue ? static_cast<wchar_t>(s[i]) : L'?';
      ++i;
    } else {
      out += static_cast<wchar_t>(cp);
      i += len;
    }
  }
  return out;
}

std::wstring FromUtf8(const char* text, StrayByte stray) {
  return text ? FromUtf8(std::string_view(text), stray) : std::wstring();
}

void CopyWide(wchar_t* out, size_t capacity, std::wstring_view text) {
  if (!out || capacity == 0) return;
  size_t n = text.size() < capacity - 1 ? text.size() : capacity - 1;
  wmemcpy(out, text.data(), n);
  out[n] = L'\0';
}

void CopyUtf8(char* out, size_t capacity, std::string_view text) {
  if (!out || capacity == 0) return;
  size_t n = text.size() < capacity - 1 ? text.size() : capacity - 1;
  // Back to the start of a sequence the bound would cut.
  if (n < text.size())
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

}  // namespace hostbase
