#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "internal.h"
#include "platform/winux.h"
#include "winux_host.h"

namespace winux {
namespace {

struct SnapshotObject : Object {
  SnapshotObject() : Object(Kind::Snapshot) {}
  std::vector<std::pair<DWORD, std::string>> processes;
  size_t next = 0;
};

struct ProcessObject : Object {
  ProcessObject() : Object(Kind::Process) {}
  pid_t pid = 0;
};

std::string ReadSmallFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// State letter from /proc/<pid>/stat ('?' when gone); the name is in parentheses and may hold
// blanks or parentheses itself, so the state follows the last ')'.
char ProcessState(pid_t pid, std::string* comm) {
  std::string stat = ReadSmallFile("/proc/" + std::to_string(pid) + "/stat");
  size_t open = stat.find('(');
  size_t close = stat.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close + 2 >= stat.size())
    return '?';
  if (comm) *comm = stat.substr(open + 1, close - open - 1);
  return stat[close + 2];
}

bool Gone(pid_t pid) {
  if (kill(pid, 0) != 0 && errno == ESRCH) return true;
  char state = ProcessState(pid, nullptr);
  return state == '?' || state == 'Z' || state == 'X';
}

// The image name the device shows: the base name of argv[0], not the 15-character comm.
std::string ImageName(pid_t pid, const std::string& comm) {
  std::string cmdline = ReadSmallFile("/proc/" + std::to_string(pid) + "/cmdline");
  std::string argv0 = cmdline.substr(0, cmdline.find('\0'));
  size_t cut = argv0.find_last_of("/\\");
  if (cut != std::string::npos) argv0 = argv0.substr(cut + 1);
  return argv0.empty() ? comm : argv0;
}

}  // namespace

bool ProcessHandleEnded(const std::shared_ptr<Object>& object) {
  return Gone(static_cast<ProcessObject*>(object.get())->pid);
}

}  // namespace winux

using namespace winux;

extern "C" HANDLE CreateToolhelp32Snapshot(DWORD flags, DWORD) {
  auto snapshot = std::make_shared<SnapshotObject>();
  // The device's layer lists processes for flags 0 as well, and plug-ins built for it pass 0.
  if (flags == 0 || (flags & TH32CS_SNAPPROCESS)) {
    DIR* d = opendir("/proc");
    if (!d) {
      WinuxSetLastErrorFromErrno(errno);
      return INVALID_HANDLE_VALUE;
    }
    while (struct dirent* e = readdir(d)) {
      char* end = nullptr;
      long pid = strtol(e->d_name, &end, 10);
      if (*end || pid <= 0) continue;
      std::string comm;
      char state = ProcessState(static_cast<pid_t>(pid), &comm);
      if (state == '?' || state == 'Z' || state == 'X') continue;  // ended already
      snapshot->processes.emplace_back(static_cast<DWORD>(pid),
                                       ImageName(static_cast<pid_t>(pid), comm));
    }
    closedir(d);
  }
  return AddHandle(snapshot);
}

namespace {
BOOL Fill(HANDLE handle, LPPROCESSENTRY32 entry, bool first) {
  auto snapshot = Lookup<SnapshotObject>(handle, Kind::Snapshot);
  if (!snapshot) return FALSE;
  if (!entry || entry->dwSize < sizeof(PROCESSENTRY32)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (first) snapshot->next = 0;
  if (snapshot->next >= snapshot->processes.size()) {
    SetLastError(ERROR_NO_MORE_FILES);
    return FALSE;
  }
  const auto& p = snapshot->processes[snapshot->next++];
  entry->th32ProcessID = p.first;
  CopyWide(entry->szExeFile, sizeof entry->szExeFile / sizeof entry->szExeFile[0],
           FromUtf8(p.second));
  return TRUE;
}
}  // namespace

extern "C" BOOL Process32First(HANDLE snapshot, LPPROCESSENTRY32 entry) {
  return Fill(snapshot, entry, true);
}

extern "C" BOOL Process32Next(HANDLE snapshot, LPPROCESSENTRY32 entry) {
  return Fill(snapshot, entry, false);
}

extern "C" BOOL CloseToolhelp32Snapshot(HANDLE snapshot) {
  return RemoveHandle(snapshot, Kind::Snapshot) ? TRUE : FALSE;
}

extern "C" HANDLE OpenProcess(DWORD, BOOL, DWORD processId) {
  pid_t pid = static_cast<pid_t>(processId);
  if (pid <= 0 || Gone(pid)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto process = std::make_shared<ProcessObject>();
  process->pid = pid;
  return AddHandle(process);
}

extern "C" BOOL TerminateProcess(HANDLE handle, DWORD) {
  auto process = Lookup<ProcessObject>(handle, Kind::Process);
  if (!process) return FALSE;
  if (Gone(process->pid)) return TRUE;
  if (kill(process->pid, SIGKILL) != 0) {
    WinuxSetLastErrorFromErrno(errno);
    return FALSE;
  }
  // The device's call returns once the process is finished; wait (unscaled, briefly) for it.
  for (int i = 0; i < 200 && !Gone(process->pid); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return TRUE;
}
