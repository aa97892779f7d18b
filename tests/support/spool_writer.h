// The message-queue library as the plug-in loads it (by name, from the build's lib folder), for
// cases that put messages into the current device root's spool themselves.
#pragma once

#include <cstdint>
#include <string>

#include "platform/xq.h"

namespace ftctest {

class SpoolWriter {
 public:
  // Loads the library and looks up its entry points; throws std::runtime_error when it cannot.
  SpoolWriter();

  // A handle opened as the plug-in opens it; null on failure.
  void* Open() const;
  // lapi_write with the plug-in's arguments and the message's NUL counted; 0 on success.
  int32_t Write(void* handle, const char* queue, const std::string& message,
                const char* core = nullptr) const;
  // Opens, writes and closes.
  int32_t Write(const char* queue, const std::string& message) const;

  lapi_open_fn open = nullptr;
  lapi_close_fn close = nullptr;
  lapi_write_fn write = nullptr;
};

}  // namespace ftctest
