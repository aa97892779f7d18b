// Device identity from <root>/.winux/identity, and reboot requests that are only recorded.

#include "platform/hwid.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "base/files.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "sdk_internal.h"
#include "winux/winux_host.h"

extern char** environ;

namespace {

// Used when the machine has no id: stable, so a device keeps its identity across runs.
const char kFallbackUniqueId[] = "00000000000000000000000000000001";
// "Z" makes the plug-in see a computer (family "Zxx", model "ZL64"). 23 characters, so it fits
// the 24-byte length the plug-in passes with room for the terminator.
const char kDefaultHardwareCfg[] = "ZL640000000000000000000";
static_assert(sizeof kDefaultHardwareCfg == 24, "default configuration text is 23 characters");

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

std::string UniqueId() {
  std::string id = WinuxIdentityValue("uniqueid");
  if (!id.empty()) return id;
  std::ifstream in("/etc/machine-id");
  std::string line;
  if (std::getline(in, line)) id = Trim(line);
  return id.empty() ? kFallbackUniqueId : id;
}

std::string SerialNumber() {
  std::string serial = WinuxIdentityValue("serial");
  if (!serial.empty()) return serial;
  for (char c : UniqueId()) {
    if (std::isxdigit(static_cast<unsigned char>(c)))
      serial += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (serial.size() == 10) break;
  }
  return serial.empty() ? "0000000001" : serial;
}

std::string HardwareCfg() {
  std::string cfg = WinuxIdentityValue("hwcfg");
  return cfg.empty() ? kDefaultHardwareCfg : cfg;
}

// *length is the buffer's size with its terminator. Too small: the size needed comes back.
DWORD Fill(const std::string& value, char* buffer, DWORD* length) {
  if (!length) return ERROR_INVALID_PARAMETER;
  if (!buffer || *length < value.size() + 1) {
    *length = static_cast<DWORD>(value.size() + 1);
    return ERROR_INSUFFICIENT_BUFFER;
  }
  std::memcpy(buffer, value.c_str(), value.size() + 1);
  *length = static_cast<DWORD>(value.size());
  return ERROR_SUCCESS;
}

}  // namespace

DWORD TVLHWID::GetSerialNumber(char* buffer, DWORD* length) {
  return SdkNoThrow<DWORD>(ERROR_NOT_ENOUGH_MEMORY,
                           [&]() -> DWORD { return Fill(SerialNumber(), buffer, length); });
}

DWORD TVLHWID::GetHardwareCfg(char* buffer, DWORD* length) {
  return SdkNoThrow<DWORD>(ERROR_NOT_ENOUGH_MEMORY,
                           [&]() -> DWORD { return Fill(HardwareCfg(), buffer, length); });
}

DWORD TVLHWID::GetUniqueID(char* buffer, DWORD* length) {
  return SdkNoThrow<DWORD>(ERROR_NOT_ENOUGH_MEMORY,
                           [&]() -> DWORD { return Fill(UniqueId(), buffer, length); });
}

DWORD TVLHWID::Reboot(DWORD argument) {
  return SdkNoThrow<DWORD>(ERROR_NOT_ENOUGH_MEMORY, [&]() -> DWORD {
    std::string root = WinuxRoot();
    std::string dir = root + "/.winux";
    mkdir(root.c_str(), 0777);
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
      WinuxSetLastErrorFromErrno(errno);
      return ERROR_PATH_NOT_FOUND;
    }
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char line[96];
    std::snprintf(line, sizeof line, "%04d-%02d-%02d %02d:%02d:%02d argument=%u\n",
                  tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<unsigned>(argument));
    // One append write per request, so requests from several processes never interleave.
    std::string path = dir + "/reboot-requested";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) {
      WinuxSetLastErrorFromErrno(errno);
      return ERROR_ACCESS_DENIED;
    }
    bool ok = hostbase::WriteAll(fd, line, std::strlen(line)).ok() && fsync(fd) == 0;
    close(fd);
    if (!ok) return ERROR_WRITE_FAULT;

    const char* command = std::getenv("WINUX_REBOOT_COMMAND");
    if (command && *command) {
      // The argument reaches the command in its environment (setenv is not safe among threads).
      std::string arg = "WINUX_REBOOT_ARGUMENT=" + std::to_string(argument);
      std::vector<char*> env;
      for (char** e = environ; e && *e; ++e)
        if (std::strncmp(*e, "WINUX_REBOOT_ARGUMENT=", 22) != 0) env.push_back(*e);
      env.push_back(&arg[0]);
      env.push_back(nullptr);
      char sh[] = "/bin/sh", dashC[] = "-c";
      std::string cmd(command);
      char* argv[] = {sh, dashC, &cmd[0], nullptr};
      pid_t pid;
      if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, env.data()) == 0) {
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
      }
    }
    return ERROR_SUCCESS;
  });
}

int IsProvisioning() {
  return SdkNoThrow<int>(0, [&]() -> int {
    return std::atoi(WinuxIdentityValue("provisioning").c_str()) != 0 ? 1 : 0;
  });
}
