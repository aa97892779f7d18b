#include "device_root.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace fs = std::filesystem;

namespace ftctest {

namespace {
std::string Slashes(std::string p) {
  for (char& c : p)
    if (c == '\\') c = '/';
  while (!p.empty() && p.front() == '/') p.erase(p.begin());
  return p;
}
}  // namespace

DeviceRoot::DeviceRoot(double timeScale) {
  std::string tmpl = (fs::temp_directory_path() / "ftc-root-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  m_path = tmpl;
  setenv("WINUX_ROOT", m_path.c_str(), 1);
  setenv("WINUX_TIME_SCALE", std::to_string(timeScale).c_str(), 1);
}

DeviceRoot::~DeviceRoot() {
  if (getenv("FTC_KEEP_ROOT")) return;
  std::error_code ec;
  fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ec);
  for (auto it = fs::recursive_directory_iterator(m_path, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    std::error_code ignored;
    if (!it->is_symlink()) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
  }
  fs::remove_all(m_path, ec);
}

std::string DeviceRoot::HostPath(const std::string& devicePath) const {
  return m_path + "/" + Slashes(devicePath);
}

void DeviceRoot::WriteFile(const std::string& devicePath, const std::string& content) const {
  std::string host = HostPath(devicePath);
  fs::create_directories(fs::path(host).parent_path());
  WriteHostFile(host, content);
}

std::string DeviceRoot::ReadFile(const std::string& devicePath) const {
  return ReadHostFile(HostPath(devicePath));
}

bool DeviceRoot::Exists(const std::string& devicePath) const {
  return fs::exists(HostPath(devicePath));
}

void DeviceRoot::WriteIdentity(const std::string& lines) const {
  fs::create_directories(m_path + "/.winux");
  WriteHostFile(m_path + "/.winux/identity", lines);
}

std::string DeviceRoot::ReadHive() const { return ReadHostFile(m_path + "/.winux/registry.reg"); }

std::string BuildDir() {
  if (const char* env = getenv("FTC_BUILD_DIR")) return env;
  return FTC_BUILD_DIR;
}
std::string BinDir() { return BuildDir() + "/bin"; }
std::string LibDir() { return BuildDir() + "/lib"; }

std::string ReadHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "";
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteHostFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

}  // namespace ftctest
