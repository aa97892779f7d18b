// The settings file is dropped on the device by whoever stages a job. Any content must load into
// a job whose texts end inside their fields, and a file placed in the windows folder is consumed
// whatever it held.
//
// Input: one byte choosing the folder, then the file's bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ftcfuzz::Root().WriteIdentity("hwcfg=ZL640000000000000000000\nserial=0000000001\n");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  bool consumable = in.Byte() & 1;
  const std::string device =
      consumable ? "\\windows\\FuzzSettings.xml" : "\\Flash File Store\\FuzzSettings.xml";
  ftcfuzz::Root().WriteFile(device, in.Rest());
  UpgradeConfig job;
  FUZZ_EXPECT(job.LoadFromFile(L"FuzzSettings.xml") == 1);
  ftcfuzz::CheckJob(job);
  job.DumpData();
  FUZZ_EXPECT(!consumable || !ftcfuzz::Root().Exists(device));
  return 0;
}
