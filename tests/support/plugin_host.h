// A test host: loads the built plug-in as a device host does and drives it through
// configlet.h alone.
//
//   ftctest::DeviceRoot root;          // first: the plug-in maps its paths under it
//   ftctest::PluginHost host;          // dlopen, DllMain, IcfgInitialize, IcfgSetCallbacks
//   host.BeginGroup("FileTransferConfiglet");
//   host.Group("HTTPServer", {{"IPAddress", "127.0.0.1"}, {"HTTPPort", "8080"}});
//   ...
//   host.EndGroup("FileTransferConfiglet");
//   EXPECT_NE(root.Log().find("..."), std::string::npos);
//
// The library is loaded once per process and never unloaded (its worker threads may outlive a
// case); a second PluginHost in the same process shares the plug-in's state.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "configlet/configlet.h"

namespace ftctest {

// One call of the host's send-up function (slot 4 of the callback table).
struct SendUpCall {
  uint32_t context;
  std::string message;  // the text up to its NUL
  uint32_t length;      // as the plug-in passed it (including the NUL)
};

// The plug-in's exports, resolved by name (the range-set functions by their mangled names).
struct ConfigletApi {
  BOOL (*DllMain)(HANDLE, DWORD, void*);
  uint32_t (*GetInterfaceVersion)();
  uint32_t (*GetSchemaVersion)(uint32_t, uint32_t*, uint32_t*);
  uint32_t (*Initialize)();
  uint32_t (*Uninitialize)();
  uint32_t (*SetCallbacks)(uint32_t, void* const*);
  uint32_t (*GetFirstInstance)(const char*, char*);
  uint32_t (*GetNextInstance)(const char*, char*);
  uint32_t (*BeginGroup)(const char*, uint32_t, uint32_t);
  uint32_t (*SetField)(const char*, const char*, const char*, uint32_t, uint32_t);
  uint32_t (*GetField)(const char*, uint32_t, uint32_t, char*, uint32_t*);
  uint32_t (*EndGroup)(const char*, uint32_t, uint32_t);
  uint32_t (*GetFirstRangeSet)(const char*, const char*, int32_t*, int32_t*, int32_t*, char*,
                               char*);
  uint32_t (*GetNextRangeSet)(const char*, const char*, int32_t*, int32_t*, int32_t*, char*, char*);
};

class PluginHost {
 public:
  using Fields = std::vector<std::pair<std::string, std::string>>;

  // Loads <build>/lib/libFileTransferConfiglet.so (throws std::runtime_error when it or an
  // export is missing) and calls DllMain(attach). With start, also IcfgInitialize and
  // IcfgSetCallbacks(context, table) where slot 4 records every send-up.
  explicit PluginHost(bool start = true, uint32_t context = kContext);
  // Calls IcfgUninitialize when started.
  ~PluginHost();
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  const ConfigletApi& api() const { return m_api; }

  // The group/field calls, with the unused arguments zero.
  uint32_t BeginGroup(const std::string& group, uint32_t instance = 0);
  uint32_t SetField(const std::string& field, const std::string& value,
                    const std::string& instance = "");
  // On 0, *out holds the text and *length the length the plug-in reported.
  uint32_t GetField(const std::string& field, std::string* out, uint32_t* length = nullptr);
  uint32_t EndGroup(const std::string& group);
  // Opens group, sets the fields in order, closes it; the first non-zero code, else 0.
  uint32_t Group(const std::string& group, const Fields& fields = {});

  // Send-ups recorded since the last ClearSendUps (thread-safe; they may come from workers).
  static std::vector<SendUpCall> SendUps();
  static void ClearSendUps();
  // The recorded send-ups of one kind ("state", "autodeploy", ...) as "code text"; with kind
  // empty, every kind but plain messages, as "kind code text".
  static std::vector<std::string> SentUp(const std::string& kind);

  static constexpr uint32_t kContext = 0x5A17C0DEu;

 private:
  ConfigletApi m_api;
  bool m_started;
};

class DeviceRoot;
// What the device's spool holds of one kind ("event", "state", ...), each as "code text".
std::vector<std::string> Spooled(const DeviceRoot& root, const std::string& kind);

}  // namespace ftctest
