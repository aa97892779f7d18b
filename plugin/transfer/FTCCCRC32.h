// The standard CRC-32 (reflected polynomial 0xEDB88320, initial and final value 0xFFFFFFFF) with
// which downloads and check-point blocks are verified. Stateless; thread-safe.
#pragma once

#include <cstddef>

#include "common/crc32.h"
#include "platform/wintypes.h"

class FTCCCRC32 {
 public:
  static constexpr const DWORD (&dwCRC32Table)[256] = ftc::kCrc32Table;

  FTCCCRC32() {}
  ~FTCCCRC32() {}

  void CalcCrc32(unsigned char byte, DWORD& crc) {
    crc = (crc >> 8) ^ dwCRC32Table[(crc ^ byte) & 0xFF];
  }
  DWORD CalcBufferCRC(const char* buffer, DWORD length);
  // 0 on success, else the last error of the failed open; crc is 0 then.
  DWORD FileCRC32(const wchar_t* path, DWORD& crc);
  // FileCRC32 of a file whose bytes went through Update, in order, as they were written
  // (running: the register after the last of them): the same result and log lines, without
  // reading the file back.
  DWORD WrittenCRC32(DWORD running, DWORD& crc);
  // Files held in memory are never rejected on their CRC: crc is left as it is.
  DWORD RAMFileCRC32(const wchar_t* path, DWORD& crc, DWORD length);

  // Advances a running register (no initial or final inversion) over length bytes; the same
  // result as CalcCrc32 byte by byte, only faster.
  static DWORD Update(DWORD crc, const void* data, size_t length) {
    return ftc::Crc32Advance(crc, data, length);
  }
};
