#include "config/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

char* DupText(const char* src) {
  if (!src) return nullptr;
  size_t n = strlen(src) + 1;
  char* copy = static_cast<char*>(malloc(n));
  if (copy) memcpy(copy, src, n);
  return copy;
}

void FormatText(char* out, size_t capacity, const char* format, ...) {
  if (!out || capacity == 0) return;
  va_list args;
  va_start(args, format);
  vsnprintf(out, capacity, format, args);
  va_end(args);
}
