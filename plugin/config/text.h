// Bounded texts: copies into the fixed text fields of records and formatting into fixed buffers.
// A text never overruns its field and is always terminated; a longer one is cut at the field's
// capacity.
#pragma once

#include <cstddef>
#include <cstring>

inline void CopyText(char* dst, size_t capacity, const char* src) {
  if (capacity == 0) return;
  if (!src) {
    dst[0] = '\0';
    return;
  }
  size_t n = strnlen(src, capacity - 1);
  memcpy(dst, src, n);
  dst[n] = '\0';
}

template <size_t N>
inline void CopyText(char (&dst)[N], const char* src) {
  CopyText(dst, N, src);
}

// Appends src to the text in dst without passing the capacity.
inline void AppendText(char* dst, size_t capacity, const char* src) {
  if (capacity == 0 || !src) return;
  size_t used = strnlen(dst, capacity - 1);
  CopyText(dst + used, capacity - used, src);
}

// A heap copy (length plus terminator) from malloc, so that LocalFree may release it.
char* DupText(const char* src);

// printf into a fixed text, cut at its capacity (the device's texts are bounded by design).
void FormatText(char* out, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
