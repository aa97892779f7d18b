// Entry points of the device's message-queue client library, loaded by name at run time
// ("xq_clapi_dll", else "xq_lapi_c_wrapper"). Each returns 0 on success.
#pragma once

#include "platform/wintypes.h"

extern "C" {
typedef int32_t (*lapi_open_fn)(void** handle, const char* server, const char* queue,
                                 int32_t a, int32_t b, int32_t c, int32_t d, uint32_t* status,
                                 int32_t e);
typedef int32_t (*lapi_close_fn)(void* handle);
// length counts the message's terminating NUL.
typedef int32_t (*lapi_write_fn)(void* handle, int32_t a, int32_t b, int32_t c, int32_t d,
                                 int32_t e, uint32_t* status, const char* destQueue,
                                 const char* message, uint32_t length, int32_t f, int32_t g,
                                 int32_t h, const char* coreQueue);
}
