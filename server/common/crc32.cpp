#include "crc32.h"

#include <array>
#include <cstring>

namespace ftcserver {
namespace {

constexpr uint32_t kPoly = 0xEDB88320u;

// Slicing-by-16: table[k][n] is the CRC of byte n followed by k zero bytes, so 16 input bytes
// fold in with 16 independent lookups instead of a serial chain.
struct Tables {
  uint32_t t[16][256];
};

constexpr Tables MakeTables() {
  Tables tb{};
  for (uint32_t n = 0; n < 256; ++n) {
    uint32_t c = n;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPoly : c >> 1;
    tb.t[0][n] = c;
  }
  for (uint32_t n = 0; n < 256; ++n) {
    for (int k = 1; k < 16; ++k) {
      uint32_t prev = tb.t[k - 1][n];
      tb.t[k][n] = (prev >> 8) ^ tb.t[0][prev & 0xFF];
    }
  }
  return tb;
}

constexpr Tables kTables = MakeTables();

inline uint32_t Load32(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap32(v);
#endif
  return v;
}

}  // namespace

uint32_t Crc32Update(uint32_t crc, const void* data, size_t length) {
  const auto* p = static_cast<const unsigned char*>(data);
  const auto& t = kTables.t;
  uint32_t c = ~crc;
  while (length >= 16) {
    uint32_t a = Load32(p) ^ c;
    uint32_t b = Load32(p + 4);
    uint32_t d = Load32(p + 8);
    uint32_t e = Load32(p + 12);
    c = t[15][a & 0xFF] ^ t[14][(a >> 8) & 0xFF] ^ t[13][(a >> 16) & 0xFF] ^ t[12][a >> 24] ^
        t[11][b & 0xFF] ^ t[10][(b >> 8) & 0xFF] ^ t[9][(b >> 16) & 0xFF] ^ t[8][b >> 24] ^
        t[7][d & 0xFF] ^ t[6][(d >> 8) & 0xFF] ^ t[5][(d >> 16) & 0xFF] ^ t[4][d >> 24] ^
        t[3][e & 0xFF] ^ t[2][(e >> 8) & 0xFF] ^ t[1][(e >> 16) & 0xFF] ^ t[0][e >> 24];
    p += 16;
    length -= 16;
  }
  while (length--) c = (c >> 8) ^ t[0][(c ^ *p++) & 0xFF];
  return ~c;
}

}  // namespace ftcserver
