// Shared by the fuzz targets: one device root per run, checks that stop with a message, and a
// reader that turns fuzz bytes into choices.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/device_root.h"

// A broken property: say which, then abort so the driver keeps the input.
#define FUZZ_EXPECT(cond)                                                              \
  do {                                                                                 \
    if (!(cond)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                    \
    }                                                                                  \
  } while (0)

namespace ftcfuzz {

// The device root for the whole run; a tiny time scale so platform sleeps cost nothing.
inline ftctest::DeviceRoot& Root() {
  static ftctest::DeviceRoot root(0.0001);
  return root;
}

// Consumes fuzz bytes front to back; past the end every read gives zeros or empty texts.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  bool Empty() const { return m_pos >= m_size; }
  uint8_t Byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
  // A number in [0, n).
  size_t Below(size_t n) {
    size_t v = Byte();
    v = v << 8 | Byte();
    return n ? v % n : 0;
  }
  // Bytes up to the next delimiter (dropped) or the end; NULs are kept.
  std::string Until(uint8_t delimiter) {
    std::string out;
    while (m_pos < m_size && m_data[m_pos] != delimiter) out += static_cast<char>(m_data[m_pos++]);
    if (m_pos < m_size) ++m_pos;
    return out;
  }
  std::string Rest() {
    std::string out(reinterpret_cast<const char*>(m_data) + m_pos, m_size - m_pos);
    m_pos = m_size;
    return out;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
};

}  // namespace ftcfuzz
