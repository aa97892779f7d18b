// Shared pieces of the host classes and helpers (not part of the platform interface).
#pragma once

#include <string>

// UTF-8 <-> wide, whole texts; null gives an empty text.
std::wstring SdkWiden(const char* text);
std::string SdkNarrow(const wchar_t* text);
