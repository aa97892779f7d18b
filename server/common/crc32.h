// CRC-32 of ISO-HDLC / IEEE 802.3 (reflected polynomial 0xEDB88320), the checksum devices verify
// downloads against. Results equal zlib's crc32().
#pragma once

#include <cstddef>
#include <cstdint>

namespace ftcserver {

// Continues a running CRC: Crc32Update(Crc32Update(0, a), b) == CRC of a followed by b.
// Start from 0.
uint32_t Crc32Update(uint32_t crc, const void* data, size_t length);

inline uint32_t Crc32(const void* data, size_t length) {
  return Crc32Update(0, data, length);
}

}  // namespace ftcserver
