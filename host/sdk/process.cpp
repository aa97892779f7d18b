// Starting programs named by device paths, and ending processes by image name.

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/text.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "sdk_internal.h"
#include "winux/winux_host.h"

extern char** environ;

namespace {

bool IsRegularFile(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Device files carry no execute permission (a download creates them plain): whoever may read a
// program under the root may run it.
void MakeRunnable(const std::string& path) {
  if (access(path.c_str(), X_OK) == 0) return;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  mode_t mode = st.st_mode & 07777;
  chmod(path.c_str(), mode | ((mode & 0444) >> 2));
}

// The host file a program name stands for: a device path under the root, or a bare name found in
// the device's \windows folder and then in PATH. Empty when there is none.
std::string ResolveProgram(const std::string& name) {
  if (name.find_first_of("\\/") != std::string::npos || name.compare(0, 4, "RAM:") == 0) {
    std::string host = WinuxMapPath(name);
    if (!IsRegularFile(host)) return "";
    MakeRunnable(host);
    return host;
  }
  std::string host = WinuxMapPath("\\windows\\" + name);
  if (IsRegularFile(host)) {
    MakeRunnable(host);
    return host;
  }
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  size_t pos = 0;
  while (pos <= dirs.size()) {
    size_t colon = dirs.find(':', pos);
    if (colon == std::string::npos) colon = dirs.size();
    std::string dir = dirs.substr(pos, colon - pos);
    pos = colon + 1;
    if (dir.empty()) continue;
    std::string candidate = dir + "/" + name;
    if (IsRegularFile(candidate) && access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

// Splits a command line at blanks; double or single quotes group words and are removed.
// Backslashes are path separators on the device, never escapes.
std::vector<std::string> SplitParameters(const char* text) {
  std::vector<std::string> args;
  if (!text) return args;
  std::string word;
  bool inWord = false;
  char quote = 0;
  for (const char* p = text; *p; ++p) {
    char c = *p;
    if (quote) {
      if (c == quote)
        quote = 0;
      else
        word += c;
    } else if (c == '"' || c == '\'') {
      quote = c;
      inWord = true;
    } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      if (inWord) args.push_back(word);
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) args.push_back(word);
  return args;
}

// Waits for a child on a thread of its own, so no caller has to stay to reap it and no SIGCHLD
// handler is needed.
struct Reaper {
  std::mutex lock;
  std::condition_variable ended;
  bool done = false;
};

bool WaitForExit(pid_t pid) {
  int status;
  for (;;) {
    if (waitpid(pid, &status, 0) >= 0) return true;
    if (errno != EINTR) return errno == ECHILD;  // reaped elsewhere (SIGCHLD ignored)
  }
}

std::shared_ptr<Reaper> StartReaper(pid_t pid) {
  auto reaper = std::make_shared<Reaper>();
  try {
    std::thread([pid, reaper] {
      WaitForExit(pid);
      std::lock_guard<std::mutex> guard(reaper->lock);
      reaper->done = true;
      reaper->ended.notify_all();
    }).detach();
  } catch (const std::exception&) {
    return nullptr;  // never reaped: a zombie until the host ends, nothing worse
  }
  return reaper;
}

int Start(const char* name, const char* parameters, int wait) {
  if (!name || !*name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return static_cast<int>(ERROR_INVALID_PARAMETER);
  }
  std::string program = ResolveProgram(name);
  if (program.empty()) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return static_cast<int>(ERROR_FILE_NOT_FOUND);
  }
  std::vector<std::string> words = SplitParameters(parameters);
  words.insert(words.begin(), program);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);

  // The child starts with default signal handling and nothing blocked, whatever the host set.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid;
  int rc = posix_spawn(&pid, program.c_str(), nullptr, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    WinuxSetLastErrorFromErrno(rc);
    DWORD err = GetLastError();
    return static_cast<int>(err ? err : ERROR_NOT_SUPPORTED);
  }

  if (wait < 0) {
    WaitForExit(pid);
    return 0;
  }
  std::shared_ptr<Reaper> reaper = StartReaper(pid);
  if (wait > 0 && reaper) {
    std::unique_lock<std::mutex> guard(reaper->lock);
    reaper->ended.wait_for(guard, std::chrono::milliseconds(WinuxScaleMs(static_cast<DWORD>(wait))),
                           [&] { return reaper->done; });
  }
  return 0;
}

int Terminate(const wchar_t* name) {
  if (!name || !*name) return 0;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (!snapshot || snapshot == INVALID_HANDLE_VALUE) return 0;
  const DWORD self = static_cast<DWORD>(getpid());
  int ended = 0;
  PROCESSENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32First(snapshot, &entry); more; more = Process32Next(snapshot, &entry)) {
    entry.szExeFile[255] = L'\0';
    if (entry.th32ProcessID == self || std::wcscmp(entry.szExeFile, name) != 0) continue;
    HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, entry.th32ProcessID);
    if (!process) continue;
    if (TerminateProcess(process, 0)) ended = 1;
    CloseHandle(process);
  }
  CloseToolhelp32Snapshot(snapshot);
  return ended;
}

}  // namespace

int QVTerminateProc(const char* name) {
  return SdkNoThrow<int>(0, [&]() -> int {
    if (!name) return 0;
    return Terminate(hostbase::FromUtf8(name, hostbase::StrayByte::kQuestionMark).c_str());
  });
}

int QVTerminateProc(const wchar_t* name) {
  return SdkNoThrow<int>(0, [&]() -> int { return Terminate(name); });
}

int QVStartProcessAndWait(const char* name, const char* parameters, int wait) {
  return SdkNoThrow<int>(static_cast<int>(ERROR_NOT_ENOUGH_MEMORY),
                         [&]() -> int { return Start(name, parameters, wait); });
}

int QVStartProcessAndWait(const wchar_t* name, const wchar_t* parameters, int wait) {
  return SdkNoThrow<int>(static_cast<int>(ERROR_NOT_ENOUGH_MEMORY), [&]() -> int {
    if (!name) return Start(nullptr, nullptr, wait);
    std::string narrowName = hostbase::ToUtf8(name);
    std::string narrowParams = hostbase::ToUtf8(parameters);
    return Start(narrowName.c_str(), parameters ? narrowParams.c_str() : nullptr, wait);
  });
}
