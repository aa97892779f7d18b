// Small text rules shared by the intake, the store and the views.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace ftcstore {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(std::string_view s);
// s as valid UTF-8 without NULs. Device texts may be in a legacy code page: text that is not
// UTF-8 is read as Latin-1, so every byte survives as one character.
std::string CleanText(std::string_view s);

// UTC "YYYY-MM-DDThh:mm:ss" with `digits` (0..9) fraction digits and "Z".
std::string IsoTime(const timespec& t, int digits);
std::string IsoNow(int digits);
// A device time "YYYY-MM-DDThh:mm:ss[.fraction]Z" with six fraction digits, so that times
// compare as text; nullopt when s is not one.
std::optional<std::string> NormalizeTime(std::string_view s);
// Seconds since the epoch of a time written by IsoTime or NormalizeTime; nullopt when unreadable.
std::optional<std::time_t> ParseIsoTime(std::string_view s);

// 1..64 of [A-Za-z0-9_.:-].
bool IsDeviceId(std::string_view s);
// A spool queue name: 1..64 of [A-Za-z0-9_.~-], neither "." nor "..".
bool IsQueueName(std::string_view s);

}  // namespace ftcstore
