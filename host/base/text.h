// Wide (32-bit) <-> narrow (UTF-8) text for the whole host: every code page is UTF-8 here.
// Thread-safe; no state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace hostbase {

// What a byte that starts no valid UTF-8 sequence (stray, cut short, overlong, a surrogate)
// becomes.
enum class StrayByte {
  kOwnValue,      // the character of the byte's value, so names round trip as far as they can
  kQuestionMark,  // '?', as the device's own conversion helpers do
};

// A wide character that is no character (a surrogate, past U+10FFFF) becomes replacement;
// *replaced tells whether one did. A null text is empty.
std::string ToUtf8(std::wstring_view text, char replacement = '?', bool* replaced = nullptr);
std::string ToUtf8(const wchar_t* text);
std::wstring FromUtf8(std::string_view text, StrayByte stray = StrayByte::kOwnValue);
std::wstring FromUtf8(const char* text, StrayByte stray = StrayByte::kOwnValue);

// Bounded copies into fixed buffers of capacity units (terminator included); nothing is
// written when capacity is 0. The narrow one never cuts a UTF-8 sequence.
void CopyWide(wchar_t* out, size_t capacity, std::wstring_view text);
void CopyUtf8(char* out, size_t capacity, std::string_view text);

}  // namespace hostbase
