#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "internal.h"
#include "platform/winux.h"

namespace winux {
namespace {

struct ModuleObject : Object {
  ModuleObject() : Object(Kind::Module) {}
  ~ModuleObject() override {
    if (library) dlclose(library);
  }
  void* library = nullptr;
};

std::string OwnFolder() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&OwnFolder), &info) == 0 || !info.dli_fname) return ".";
  std::string path = info.dli_fname;
  size_t cut = path.rfind('/');
  return cut == std::string::npos ? "." : path.substr(0, cut);
}

bool IsFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::vector<std::string> Candidates(const std::string& name) {
  std::vector<std::string> names{name, name + ".so", "lib" + name + ".so"};
  // A device name such as "xq_clapi_dll.dll" is found by its stem too.
  if (name.size() > 4 && EqualsNoCase(name.substr(name.size() - 4), ".dll")) {
    std::string stem = name.substr(0, name.size() - 4);
    names.push_back(stem + ".so");
    names.push_back("lib" + stem + ".so");
  }
  return names;
}

}  // namespace
}  // namespace winux

using namespace winux;

extern "C" HMODULE LoadLibrary(LPCWSTR name) {
  if (!name || !*name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  std::string narrow = ToUtf8(name);
  std::string found;
  if (narrow.find('/') != std::string::npos) {
    found = narrow;
  } else {
    std::vector<std::string> folders;
    if (const char* env = getenv("WINUX_LIBRARY_PATH")) {
      std::string list = env;
      size_t pos = 0;
      while (pos <= list.size()) {
        size_t colon = list.find(':', pos);
        if (colon == std::string::npos) colon = list.size();
        if (colon > pos) folders.push_back(list.substr(pos, colon - pos));
        pos = colon + 1;
      }
    }
    folders.push_back(OwnFolder());
    for (const std::string& folder : folders) {
      for (const std::string& candidate : Candidates(narrow)) {
        if (IsFile(folder + "/" + candidate)) {
          found = folder + "/" + candidate;
          break;
        }
      }
      if (!found.empty()) break;
    }
  }
  void* library = found.empty() ? nullptr : dlopen(found.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  auto module = std::make_shared<ModuleObject>();
  module->library = library;
  return AddHandle(module);
}

extern "C" FARPROC GetProcAddress(HMODULE module, LPCWSTR procName) {
  auto object = Lookup<ModuleObject>(module, Kind::Module);
  if (!object) return nullptr;
  if (!procName) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  void* symbol = dlsym(object->library, ToUtf8(procName).c_str());
  if (!symbol) SetLastError(ERROR_PROC_NOT_FOUND);
  return symbol;
}

extern "C" BOOL FreeLibrary(HMODULE module) {
  return RemoveHandle(module, Kind::Module) ? TRUE : FALSE;
}

extern "C" int WSACleanup(void) {
  return 0;
}
