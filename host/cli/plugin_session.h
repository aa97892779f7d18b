// The plug-in loaded as a device-management host loads it: by path, version-checked, initialised
// and given a callback table whose send-up slot prints what the plug-in reports.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace ftchost {

class PluginSession {
 public:
  using SendUp = std::function<void(const std::string& message)>;

  PluginSession() = default;
  ~PluginSession();
  PluginSession(const PluginSession&) = delete;
  PluginSession& operator=(const PluginSession&) = delete;

  // Loads the library and runs the start-up calls. False with a message on failure.
  bool Load(const std::string& path, SendUp sendUp, std::string* error);

  uint32_t BeginGroup(const std::string& name);
  uint32_t SetField(const std::string& name, const std::string& value);
  uint32_t EndGroup(const std::string& name);

 private:
  void* m_lib = nullptr;
  void* m_begin = nullptr;
  void* m_set = nullptr;
  void* m_end = nullptr;
  void* m_uninit = nullptr;
};

// Meaning of a result code of the group and field calls.
const char* ResultMeaning(uint32_t code);

// Where the plug-in sits next to this program: ../lib/libFileTransferConfiglet.so.
std::string DefaultPluginPath();

}  // namespace ftchost
