#include <time.h>

#include <cstring>
#include <string>

#include "internal.h"
#include "platform/winux.h"

namespace winux {
namespace {

const wchar_t* const kDays[] = {L"Sunday",   L"Monday", L"Tuesday", L"Wednesday",
                                L"Thursday", L"Friday", L"Saturday"};
const wchar_t* const kMonths[] = {L"January",   L"February", L"March",    L"April",
                                  L"May",       L"June",     L"July",     L"August",
                                  L"September", L"October",  L"November", L"December"};

std::wstring Number(int value, size_t digits) {
  std::wstring text = std::to_wstring(value);
  while (text.size() < digits) text.insert(text.begin(), L'0');
  return text;
}

bool ValidDate(const SYSTEMTIME& t) {
  return t.wMonth >= 1 && t.wMonth <= 12 && t.wDay >= 1 && t.wDay <= 31;
}
bool ValidTime(const SYSTEMTIME& t) {
  return t.wHour < 24 && t.wMinute < 60 && t.wSecond < 60;
}

// Expands a picture; only the letters of the one kind (date or time) are fields, the rest
// is copied, and text in single quotes is literal ('' is a quote).
std::wstring Expand(const SYSTEMTIME& t, const wchar_t* picture, bool date) {
  std::wstring out;
  for (const wchar_t* p = picture; *p;) {
    wchar_t c = *p;
    if (c == L'\'') {
      ++p;
      if (*p == L'\'') {
        out += L'\'';
        ++p;
        continue;
      }
      while (*p && !(*p == L'\'' && p[1] != L'\'')) {
        if (*p == L'\'') ++p;  // '' inside a quote
        out += *p++;
      }
      if (*p) ++p;
      continue;
    }
    size_t run = 1;
    while (p[run] == c) ++run;
    const bool field = date ? (c == L'd' || c == L'M' || c == L'y' || c == L'g')
                            : (c == L'h' || c == L'H' || c == L'm' || c == L's' || c == L't');
    if (!field) {
      out.append(p, run);
      p += run;
      continue;
    }
    p += run;
    switch (c) {
      case L'd':
        if (run <= 2)
          out += Number(t.wDay, run);
        else
          out += run == 3 ? std::wstring(kDays[t.wDayOfWeek % 7], 3) : kDays[t.wDayOfWeek % 7];
        break;
      case L'M':
        if (run <= 2)
          out += Number(t.wMonth, run);
        else
          out += run == 3 ? std::wstring(kMonths[t.wMonth - 1], 3) : kMonths[t.wMonth - 1];
        break;
      case L'y':
        if (run <= 2)
          out += Number(t.wYear % 100, run);
        else
          out += Number(t.wYear, 4);
        break;
      case L'g':
        out += L"A.D.";
        break;
      case L'h': {
        int hour = t.wHour % 12 == 0 ? 12 : t.wHour % 12;
        out += Number(hour, run >= 2 ? 2 : 1);
        break;
      }
      case L'H':
        out += Number(t.wHour, run >= 2 ? 2 : 1);
        break;
      case L'm':
        out += Number(t.wMinute, run >= 2 ? 2 : 1);
        break;
      case L's':
        out += Number(t.wSecond, run >= 2 ? 2 : 1);
        break;
      case L't':
        out += run >= 2 ? (t.wHour < 12 ? L"AM" : L"PM") : (t.wHour < 12 ? L"A" : L"P");
        break;
    }
  }
  return out;
}

int Deliver(const std::wstring& text, LPWSTR out, int outChars) {
  const int needed = static_cast<int>(text.size()) + 1;
  if (outChars < 0 || (outChars > 0 && !out)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (outChars == 0) return needed;
  if (outChars < needed) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  wmemcpy(out, text.c_str(), text.size() + 1);
  return needed;
}

}  // namespace
}  // namespace winux

extern "C" void GetLocalTime(LPSYSTEMTIME out) {
  if (!out) return;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm local;
  localtime_r(&now.tv_sec, &local);
  out->wYear = static_cast<WORD>(local.tm_year + 1900);
  out->wMonth = static_cast<WORD>(local.tm_mon + 1);
  out->wDayOfWeek = static_cast<WORD>(local.tm_wday);
  out->wDay = static_cast<WORD>(local.tm_mday);
  out->wHour = static_cast<WORD>(local.tm_hour);
  out->wMinute = static_cast<WORD>(local.tm_min);
  out->wSecond = static_cast<WORD>(local.tm_sec);
  out->wMilliseconds = static_cast<WORD>(now.tv_nsec / 1000000);
}

// Flags are accepted and not applied: the system passes its pictures in full.
extern "C" int GetDateFormat(DWORD, DWORD, const SYSTEMTIME* date, LPCWSTR picture, LPWSTR out,
                             int outChars) {
  SYSTEMTIME now;
  if (!date) {
    GetLocalTime(&now);
    date = &now;
  }
  if (!winux::ValidDate(*date)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  return winux::Deliver(winux::Expand(*date, picture ? picture : L"MM/dd/yyyy", true), out,
                        outChars);
}

extern "C" int GetTimeFormat(DWORD, DWORD, const SYSTEMTIME* time, LPCWSTR picture, LPWSTR out,
                             int outChars) {
  SYSTEMTIME now;
  if (!time) {
    GetLocalTime(&now);
    time = &now;
  }
  if (!winux::ValidTime(*time)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  return winux::Deliver(winux::Expand(*time, picture ? picture : L"hh:mm:ss tt", false), out,
                        outChars);
}
