#include <gtest/gtest.h>

#include <string>

#include "support/device_root.h"
#include "transfer/FTCCCRC32.h"

namespace {

// Whole files are checked by every job; here the empty and the missing one.
TEST(Crc32, FileCrcOfAnEmptyOrMissingFile) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Flash File Store\\empty.bin", "");
  FTCCCRC32 crc;
  EXPECT_EQ(crc.CalcBufferCRC("123456789", 9), 0xCBF43926u);
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
