// The multicast receiver's status datagrams arrive on a UDP port any local program can reach:
// every length decodes within bounds, and the text is the datagram's tail, terminated.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/fuzz_support.h"
#include "transfer/multicast.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MCStatus status;
  std::memset(&status, 0xA5, sizeof status);
  DecodeStatusDatagram(data, static_cast<int>(size), &status);
  auto at = [&](size_t i) -> uint32_t { return i < size ? data[i] : 0; };
  FUZZ_EXPECT(status.progress == static_cast<int>(at(2) << 8 | at(3)));
  FUZZ_EXPECT(status.amount == (at(8) << 24 | at(9) << 16 | at(10) << 8 | at(11)));
  ftcfuzz::Bounded(status.text);
  std::string tail;
  for (size_t i = 12; i < size && data[i] && tail.size() < sizeof status.text - 1; ++i)
    tail += static_cast<char>(data[i]);
  FUZZ_EXPECT(tail == status.text);
  return 0;
}
