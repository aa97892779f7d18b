#include "plugin_session.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "configlet/configlet.h"

namespace ftchost {

namespace {

// The plug-in's exported interface as a host sees it.
typedef decltype(&DllMain) DllMainFn;
typedef decltype(&IcfgGetInterfaceVersion) VoidFn;
typedef decltype(&IcfgGetSchemaVersion) SchemaFn;
typedef decltype(&IcfgSetCallbacks) SetCallbacksFn;
typedef decltype(&IcfgBeginGroup) BeginGroupFn;
typedef decltype(&IcfgSetField) SetFieldFn;
typedef decltype(&IcfgEndGroup) EndGroupFn;

// The plug-in calls back from its own threads; one receiver per process.
std::mutex g_sendUpLock;
PluginSession::SendUp g_sendUp;

uint32_t HostSendUp(uint32_t, const char* message, uint32_t length) {
  std::lock_guard<std::mutex> lock(g_sendUpLock);
  if (!g_sendUp || !message) return 0;
  std::string text(message, length > 0 ? strnlen(message, length) : 0);
  g_sendUp(text);
  return 1;
}

// Slot 4 is the only one the plug-in calls; the others answer "not supported".
uint32_t HostUnused(uint32_t, const char*, uint32_t) {
  return 0;
}
IcfgSendUp g_table[8] = {HostUnused, HostUnused, HostUnused, HostUnused,
                         HostSendUp, HostUnused, HostUnused, HostUnused};

void* Symbol(void* lib, const char* name, std::string* missing) {
  void* p = dlsym(lib, name);
  if (!p && missing->empty()) *missing = name;
  return p;
}

}  // namespace

PluginSession::~PluginSession() {
  if (m_uninit) reinterpret_cast<VoidFn>(m_uninit)();
  {
    std::lock_guard<std::mutex> lock(g_sendUpLock);
    g_sendUp = nullptr;
  }
  // The library stays loaded: a detached worker may still be leaving its last pause.
}

bool PluginSession::Load(const std::string& path, SendUp sendUp, std::string* error) {
  m_lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!m_lib) {
    *error = std::string("cannot load the plug-in: ") + dlerror();
    return false;
  }
  std::string missing;
  auto dllMain = reinterpret_cast<DllMainFn>(Symbol(m_lib, "DllMain", &missing));
  auto version = reinterpret_cast<VoidFn>(Symbol(m_lib, "IcfgGetInterfaceVersion", &missing));
  auto schema = reinterpret_cast<SchemaFn>(Symbol(m_lib, "IcfgGetSchemaVersion", &missing));
  auto init = reinterpret_cast<VoidFn>(Symbol(m_lib, "IcfgInitialize", &missing));
  auto callbacks = reinterpret_cast<SetCallbacksFn>(Symbol(m_lib, "IcfgSetCallbacks", &missing));
  m_begin = Symbol(m_lib, "IcfgBeginGroup", &missing);
  m_set = Symbol(m_lib, "IcfgSetField", &missing);
  m_end = Symbol(m_lib, "IcfgEndGroup", &missing);
  void* uninit = Symbol(m_lib, "IcfgUninitialize", &missing);
  if (!missing.empty()) {
    *error = path + " does not export " + missing;
    return false;
  }
  // The plug-in keeps its module handle on reason 0.
  dllMain(m_lib, ICFG_PROCESS_ATTACH, nullptr);
  uint32_t iface = version();
  uint32_t major = 0xFFFFFFFFu, minor = 0xFFFFFFFFu;
  schema(0, &major, &minor);
  if (iface != 2 || major != 1 || minor != 0) {
    *error = "unsupported plug-in: interface " + std::to_string(iface) + ", schema " +
             std::to_string(major) + "." + std::to_string(minor) + " (want 2, 1.0)";
    return false;
  }
  init();
  m_uninit = uninit;
  {
    std::lock_guard<std::mutex> lock(g_sendUpLock);
    g_sendUp = std::move(sendUp);
  }
  callbacks(0, reinterpret_cast<void* const*>(g_table));
  return true;
}

uint32_t PluginSession::BeginGroup(const std::string& name) {
  return reinterpret_cast<BeginGroupFn>(m_begin)(name.c_str(), 0, 0);
}

uint32_t PluginSession::SetField(const std::string& name, const std::string& value) {
  return reinterpret_cast<SetFieldFn>(m_set)(name.c_str(), "", value.c_str(), 0, 0);
}

uint32_t PluginSession::EndGroup(const std::string& name) {
  return reinterpret_cast<EndGroupFn>(m_end)(name.c_str(), 0, 0);
}

const char* ResultMeaning(uint32_t code) {
  switch (code) {
    case 0:
      return "accepted";
    case 0x822B0003u:
      return "unknown group or field";
    case 0xC4111001u:
      return "upgrade already in progress";
    case 0xC4111002u:
      return "no space, or the worker could not be started";
    case 0xC4111003u:
      return "power requirement not met";
    case 0xC4111005u:
      return "a pre-flight test failed";
    default:
      return "refused";
  }
}

std::string DefaultPluginPath() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "libFileTransferConfiglet.so";
  self[n] = 0;
  std::string dir(self);
  dir = dir.substr(0, dir.rfind('/'));
  return dir + "/../lib/libFileTransferConfiglet.so";
}

}  // namespace ftchost
