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

TEST(Crc32, FileCrcReadsThroughThePlatform) {
  ftctest::DeviceRoot root;
  std::string big(600 * 1024 + 3, '\0');  // more than one read
  for (size_t i = 0; i < big.size(); ++i) big[i] = char(i * 31 + (i >> 9));
  root.WriteFile("\\Flash File Store\\big.bin", big);
  root.WriteFile("\\Flash File Store\\empty.bin", "");

  struct Case {
    const wchar_t* path;
    DWORD result;
    DWORD crc;
  } cases[] = {
      {L"\\Flash File Store\\big.bin", 0, ftctest::ReferenceCrc32(big)},
      {L"\\Flash File Store\\empty.bin", 0, 0},
      {L"\\Flash File Store\\missing.bin", ERROR_FILE_NOT_FOUND, 0},
  };
  FTCCCRC32 crc;
  for (const auto& c : cases) {
    DWORD value = 12345;
    EXPECT_EQ(crc.FileCRC32(c.path, value), c.result) << c.path;
    EXPECT_EQ(value, c.crc) << c.path;
  }
  auto lines = [](const char* middle) {
    return std::string("FTCCCRC32::FileCRC32 - In\r\nFTCCCRC32::FileCRC32 - ") + middle +
           "\r\nFTCCCRC32::FileCRC32 - close file\r\nFTCCCRC32::FileCRC32 - Out\r\n";
  };
  EXPECT_EQ(root.Log(), lines("readFile file") + lines("readFile file") + lines("file open error"));

  DWORD untouched = 77;
  EXPECT_EQ(crc.RAMFileCRC32(L"RAM:x", untouched, 10), 0u);
  EXPECT_EQ(untouched, 77u);
}

}  // namespace
