#include "plugin_host.h"

#include <dlfcn.h>

#include <cstring>
#include <mutex>
#include <stdexcept>

#include "device_root.h"
#include "xq/spool.h"

namespace ftctest {

namespace {

std::mutex g_mutex;
std::vector<SendUpCall> g_sendUps;

uint32_t RecordSendUp(uint32_t context, const char* message, uint32_t length) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_sendUps.push_back({context, message ? std::string(message) : std::string(), length});
  return 0;
}

uint32_t Unexpected(uint32_t, const char*, uint32_t) {
  return 0;
}

// Slots other than 4 point at a function that does nothing, so a stray call is harmless.
void* const g_table[8] = {
    reinterpret_cast<void*>(&Unexpected),   reinterpret_cast<void*>(&Unexpected),
    reinterpret_cast<void*>(&Unexpected),   reinterpret_cast<void*>(&Unexpected),
    reinterpret_cast<void*>(&RecordSendUp), reinterpret_cast<void*>(&Unexpected),
    reinterpret_cast<void*>(&Unexpected),   reinterpret_cast<void*>(&Unexpected),
};

void* Library() {
  static void* handle = nullptr;
  if (!handle) {
    std::string path = LibDir() + "/libFileTransferConfiglet.so";
    handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) throw std::runtime_error(std::string("dlopen failed: ") + dlerror());
  }
  return handle;
}

template <typename F>
void Resolve(F*& out, const char* name) {
  void* symbol = dlsym(Library(), name);
  if (!symbol) throw std::runtime_error(std::string("missing export ") + name);
  out = reinterpret_cast<F*>(symbol);
}

}  // namespace

PluginHost::PluginHost(bool start, uint32_t context) : m_api{}, m_started(start) {
  Resolve(m_api.DllMain, "DllMain");
  Resolve(m_api.GetInterfaceVersion, "IcfgGetInterfaceVersion");
  Resolve(m_api.GetSchemaVersion, "IcfgGetSchemaVersion");
  Resolve(m_api.Initialize, "IcfgInitialize");
  Resolve(m_api.Uninitialize, "IcfgUninitialize");
  Resolve(m_api.SetCallbacks, "IcfgSetCallbacks");
  Resolve(m_api.GetFirstInstance, "IcfgGetFirstInstance");
  Resolve(m_api.GetNextInstance, "IcfgGetNextInstance");
  Resolve(m_api.BeginGroup, "IcfgBeginGroup");
  Resolve(m_api.SetField, "IcfgSetField");
  Resolve(m_api.GetField, "IcfgGetField");
  Resolve(m_api.EndGroup, "IcfgEndGroup");
  Resolve(m_api.GetFirstRangeSet, "_Z20IcfgGetFirstRangeSetPKcS0_PiS1_S1_PcS2_");
  Resolve(m_api.GetNextRangeSet, "_Z19IcfgGetNextRangeSetPKcS0_PiS1_S1_PcS2_");
  m_api.DllMain(Library(), ICFG_PROCESS_ATTACH, nullptr);
  if (m_started) {
    m_api.Initialize();
    m_api.SetCallbacks(context, g_table);
  }
}

PluginHost::~PluginHost() {
  if (m_started) m_api.Uninitialize();
}

uint32_t PluginHost::BeginGroup(const std::string& group, uint32_t instance) {
  return m_api.BeginGroup(group.c_str(), 0, instance);
}

uint32_t PluginHost::SetField(const std::string& field, const std::string& value,
                              const std::string& instance) {
  return m_api.SetField(field.c_str(), instance.c_str(), value.c_str(), 0, 0);
}

uint32_t PluginHost::GetField(const std::string& field, std::string* out, uint32_t* length) {
  char buffer[1024];
  memset(buffer, 0, sizeof(buffer));
  uint32_t reported = 0;
  uint32_t result = m_api.GetField(field.c_str(), 0, 0, buffer, &reported);
  if (result == 0) {
    if (out) *out = std::string(buffer, strnlen(buffer, sizeof(buffer)));
    if (length) *length = reported;
  }
  return result;
}

uint32_t PluginHost::EndGroup(const std::string& group) {
  return m_api.EndGroup(group.c_str(), 0, 0);
}

uint32_t PluginHost::Group(const std::string& group, const Fields& fields) {
  uint32_t first = BeginGroup(group);
  for (const auto& field : fields) {
    uint32_t result = SetField(field.first, field.second);
    if (first == 0) first = result;
  }
  uint32_t result = EndGroup(group);
  return first != 0 ? first : result;
}

std::vector<SendUpCall> PluginHost::SendUps() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_sendUps;
}

void PluginHost::ClearSendUps() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_sendUps.clear();
}

namespace {
std::string Said(const SpoolRecord& r) {
  return r.code + (r.text.empty() ? "" : " " + r.text);
}
}  // namespace

std::vector<std::string> PluginHost::SentUp(const std::string& kind) {
  std::vector<std::string> out;
  for (const SendUpCall& c : SendUps()) {
    SpoolRecord r;
    r.message = c.message;
    xqspool::DecodeMessage(&r);
    if (kind.empty() ? r.kind != "message" : r.kind == kind)
      out.push_back((kind.empty() ? r.kind + " " : "") + Said(r));
  }
  return out;
}

std::vector<std::string> Spooled(const DeviceRoot& root, const std::string& kind) {
  std::vector<std::string> out;
  for (const SpoolRecord& r : ReadSpool(root.path(), ""))
    if (r.kind == kind) out.push_back(Said(r));
  return out;
}

}  // namespace ftctest
