#include "spool_writer.h"

#include <cstdlib>
#include <stdexcept>

#include "device_root.h"
#include "platform/winux.h"

namespace ftctest {

SpoolWriter::SpoolWriter() {
  setenv("WINUX_LIBRARY_PATH", LibDir().c_str(), 1);
  HMODULE module = LoadLibrary(L"xq_clapi_dll");
  if (!module) throw std::runtime_error("cannot load xq_clapi_dll");
  open = reinterpret_cast<lapi_open_fn>(GetProcAddress(module, L"lapi_open"));
  close = reinterpret_cast<lapi_close_fn>(GetProcAddress(module, L"lapi_close"));
  write = reinterpret_cast<lapi_write_fn>(GetProcAddress(module, L"lapi_write"));
  if (!open || !close || !write) throw std::runtime_error("xq_clapi_dll lacks an entry point");
}

void* SpoolWriter::Open() const {
  void* handle = nullptr;
  uint32_t status = 99;
  if (open(&handle, "127.0.0.1", "UPG_XQ_QUEUE", 0, 1, 0, 0, &status, 1) != 0 || status != 0)
    return nullptr;
  return handle;
}

int32_t SpoolWriter::Write(void* handle, const char* queue, const std::string& message,
                           const char* core) const {
  uint32_t status = 0;
  return write(handle, 60, 1, 248, 0, 0, &status, queue, message.c_str(),
               static_cast<uint32_t>(message.size() + 1), 1, 0, 0, core);
}

int32_t SpoolWriter::Write(const char* queue, const std::string& message) const {
  void* handle = Open();
  if (!handle) return -1;
  int32_t rc = Write(handle, queue, message);
  close(handle);
  return rc;
}

}  // namespace ftctest
