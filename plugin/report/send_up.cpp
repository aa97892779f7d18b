#include "report/send_up.h"

#include "platform/host_callbacks.h"

std::atomic<uint32_t> gCallBackHandle{0};
std::atomic<void* const*> gCallbacks{nullptr};

uint32_t SendUpMessage(const char* message, uint32_t length) {
  void* const* table = gCallbacks.load();
  if (!table) return 0;
  auto sendUp = reinterpret_cast<IcfgSendUp>(table[ICFG_SENDUP_SLOT]);
  if (sendUp) sendUp(gCallBackHandle.load(), message, length);
  return 1;
}
