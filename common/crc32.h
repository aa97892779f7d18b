// The standard CRC-32 (ISO-HDLC / IEEE 802.3: reflected polynomial 0xEDB88320, initial and final
// value 0xFFFFFFFF) that devices verify downloads with; results equal zlib's crc32(). One
// implementation for the plug-in, the host and the server. Stateless; thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ftc {

// Entry n is the register change of byte n: n shifted right eight times, XOR-ing 0xEDB88320
// after each shift that drops a 1 bit.
extern const uint32_t kCrc32Table[256];

// Advances a running register (no initial or final inversion) over length bytes: the same as
// reg = (reg >> 8) ^ kCrc32Table[(reg ^ byte) & 0xFF] for each byte, only faster.
uint32_t Crc32Advance(uint32_t reg, const void* data, size_t length);

// The CRC of length bytes following those whose CRC is crc (0 at the start), so
// Crc32(b, m, Crc32(a, n)) is the CRC of a followed by b.
inline uint32_t Crc32(const void* data, size_t length, uint32_t crc = 0) {
  return ~Crc32Advance(~crc, data, length);
}

}  // namespace ftc
