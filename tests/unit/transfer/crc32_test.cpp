#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/device_root.h"
#include "support/scripted_http_peer.h"
#include "transfer/FTCCCRC32.h"

namespace {

// The fast paths (table slicing, carry-less multiply) must agree with the stored table byte by
// byte at every length and alignment, around each path's block boundaries.
TEST(Crc32, FastPathsMatchTheTable) {
  std::mt19937 rng(7);
  std::string data(70000, '\0');
  for (char& c : data) c = char(rng());
  FTCCCRC32 crc;
  EXPECT_EQ(crc.CalcBufferCRC("123456789", 9), 0xCBF43926u);  // the standard check value
  auto bytewise = [&](size_t at, size_t len) {
    DWORD r = 0xFFFFFFFFu;
    for (size_t i = 0; i < len; ++i) crc.CalcCrc32(static_cast<unsigned char>(data[at + i]), r);
    return ~r;
  };
  for (size_t at = 0; at < 17; ++at)
    for (size_t len : {0,   1,   15,  16,  17,  63,  64,  65,  79,  80,   127,
                       128, 129, 255, 256, 257, 271, 511, 512, 527, 1000, 4097})
      ASSERT_EQ(crc.CalcBufferCRC(data.data() + at, DWORD(len)), bytewise(at, len))
          << "offset " << at << " length " << len;
  EXPECT_EQ(crc.CalcBufferCRC(data.data(), DWORD(data.size())), ftctest::ReferenceCrc32(data));

  // Updating in pieces gives the same register as one pass.
  DWORD running = 0xFFFFFFFFu;
  for (size_t at = 0; at < data.size(); at += 6007)
    running =
        FTCCCRC32::Update(running, data.data() + at, std::min<size_t>(6007, data.size() - at));
  EXPECT_EQ(~running, ftctest::ReferenceCrc32(data));
}

// Whole files are checked by every job; here the empty and the missing one.
TEST(Crc32, FileCrcOfAnEmptyOrMissingFile) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Flash File Store\\empty.bin", "");
  FTCCCRC32 crc;
  DWORD value = 12345;
  EXPECT_EQ(crc.FileCRC32(L"\\Flash File Store\\empty.bin", value), 0u);
  EXPECT_EQ(value, 0u);
  value = 12345;
  EXPECT_EQ(crc.FileCRC32(L"\\Flash File Store\\missing.bin", value), DWORD(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(value, 0u);
  auto lines = [](const char* middle) {
    return std::string("FTCCCRC32::FileCRC32 - In\r\nFTCCCRC32::FileCRC32 - ") + middle +
           "\r\nFTCCCRC32::FileCRC32 - close file\r\nFTCCCRC32::FileCRC32 - Out\r\n";
  };
  EXPECT_EQ(root.Log(), lines("readFile file") + lines("file open error"));

  DWORD untouched = 77;
  EXPECT_EQ(crc.RAMFileCRC32(L"RAM:x", untouched, 10), 0u);
  EXPECT_EQ(untouched, 77u);
}

}  // namespace
