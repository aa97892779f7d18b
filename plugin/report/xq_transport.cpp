#include "report/xq_transport.h"

#include <cstring>
#include <mutex>

#include "platform/winux.h"
#include "platform/xq.h"

namespace {

// One lock for the whole transport: the upgrade thread, the pull-file thread and the host's
// group calls all open, write and close through the same handle.
std::mutex s_lock;

HMODULE s_hLapi = nullptr;
lapi_open_fn m_fplapi_open = nullptr;
lapi_close_fn m_fplapi_close = nullptr;
lapi_write_fn m_fplapi_write = nullptr;
void* g_pHandle = nullptr;

void InitLocked() {
  if (!s_hLapi) {
    s_hLapi = LoadLibrary(L"xq_clapi_dll");
    if (!s_hLapi) s_hLapi = LoadLibrary(L"xq_lapi_c_wrapper");
  }
  if (s_hLapi && !m_fplapi_open) {
    m_fplapi_open = reinterpret_cast<lapi_open_fn>(GetProcAddress(s_hLapi, L"lapi_open"));
    m_fplapi_close = reinterpret_cast<lapi_close_fn>(GetProcAddress(s_hLapi, L"lapi_close"));
    m_fplapi_write = reinterpret_cast<lapi_write_fn>(GetProcAddress(s_hLapi, L"lapi_write"));
  }
  if (m_fplapi_open && !g_pHandle) {
    char queue[32];
    memset(queue, 0, sizeof queue);
    strncpy(queue, "UPG_XQ_QUEUE", sizeof queue - 1);
    uint32_t status = 0;
    // The result is not consulted: the handle filled in is what counts.
    m_fplapi_open(&g_pHandle, "127.0.0.1", queue, 0, 1, 0, 0, &status, 1);
  }
}

}  // namespace

void InitXQTransfer() {
  std::lock_guard<std::mutex> lock(s_lock);
  InitLocked();
}

void CloseTransferHandle() {
  std::lock_guard<std::mutex> lock(s_lock);
  if (g_pHandle && m_fplapi_close) {
    m_fplapi_close(g_pHandle);
    g_pHandle = nullptr;
  }
}

int XQWriteMessage(const char* destQueue, const char* message, const char* coreQueue) {
  if (!destQueue || !message) return 0;
  std::lock_guard<std::mutex> lock(s_lock);
  if (!g_pHandle || !m_fplapi_write) return 0;
  char dest[16];
  memset(dest, 0, sizeof dest);
  strncpy(dest, destQueue, sizeof dest - 1);
  char core[16];
  memset(core, 0, sizeof core);
  if (coreQueue) strncpy(core, coreQueue, sizeof core - 1);
  uint32_t status = 0;
  uint32_t length = static_cast<uint32_t>(strlen(message) + 1);
  int32_t rc = m_fplapi_write(g_pHandle, 60, 1, 248, 0, 0, &status, dest, message, length, 1, 0, 0,
                              coreQueue ? core : nullptr);
  return rc == 0 ? 1 : 0;
}

XQTransferState GetXQTransferState() {
  std::lock_guard<std::mutex> lock(s_lock);
  return XQTransferState{s_hLapi, m_fplapi_open != nullptr, g_pHandle};
}
