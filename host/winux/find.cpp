#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "internal.h"
#include "platform/winux.h"
#include "winux_host.h"

namespace winux {

namespace {

struct FindObject : Object {
  FindObject() : Object(Kind::Find) {}
  std::vector<WIN32_FIND_DATA> entries;
  size_t next = 0;
};

wchar_t Fold(wchar_t c) {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

// * and ? without regard to case; "*.*" takes every name, with or without a dot.
bool Matches(const std::wstring& pattern, const std::wstring& name) {
  if (pattern == L"*.*" || pattern == L"*") return true;
  size_t p = 0, n = 0, starP = std::wstring::npos, starN = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == L'?' || Fold(pattern[p]) == Fold(name[n]))) {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == L'*') {
      starP = p++;
      starN = n;
    } else if (starP != std::wstring::npos) {
      p = starP + 1;
      n = ++starN;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == L'*') ++p;
  return p == pattern.size();
}

FILETIME ToFileTime(const struct timespec& t) {
  // 100-ns intervals since 1601-01-01.
  uint64_t ticks = (static_cast<uint64_t>(t.tv_sec) + 11644473600ull) * 10000000ull +
                   static_cast<uint64_t>(t.tv_nsec) / 100;
  return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

void Describe(const struct stat& st, const std::string& host, const std::string& name,
              WIN32_FIND_DATA& data) {
  data = WIN32_FIND_DATA{};
  DWORD attributes = 0;
  if (S_ISDIR(st.st_mode)) {
    attributes |= FILE_ATTRIBUTE_DIRECTORY;
    if (IsMountedStore(host)) attributes |= FILE_ATTRIBUTE_MOUNTED_STORE;
  } else {
    uint64_t size = static_cast<uint64_t>(st.st_size);
    data.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(size);
  }
  if ((st.st_mode & S_IWUSR) == 0) attributes |= FILE_ATTRIBUTE_READONLY;
  data.dwFileAttributes = attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
  data.ftCreationTime = ToFileTime(st.st_ctim);
  data.ftLastAccessTime = ToFileTime(st.st_atim);
  data.ftLastWriteTime = ToFileTime(st.st_mtim);
  CopyWide(data.cFileName, MAX_PATH, FromUtf8(name));
}

bool Describe(const std::string& host, const std::string& name, WIN32_FIND_DATA& data) {
  struct stat st;
  if (stat(host.c_str(), &st) != 0) return false;
  Describe(st, host, name, data);
  return true;
}

bool HasWildcard(const std::wstring& text) {
  return text.find_first_of(L"*?") != std::wstring::npos;
}

}  // namespace
}  // namespace winux

using namespace winux;

extern "C" HANDLE FindFirstFile(LPCWSTR pattern, LPWIN32_FIND_DATA data) {
  if (!pattern || !data) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  std::wstring text = pattern;
  while (text.size() > 1 && (text.back() == L'\\' || text.back() == L'/')) text.pop_back();
  size_t cut = text.find_last_of(L"\\/");
  // "RAM:name" has no separator but names a file of the memory area.
  const bool ram = text.size() >= 4 && EqualsNoCase(ToUtf8(text.substr(0, 4)), "RAM:");
  if (cut == std::wstring::npos && ram) cut = 3;
  std::wstring folder = cut == std::wstring::npos ? L"\\" : text.substr(0, cut + 1);
  std::wstring leaf = cut == std::wstring::npos ? text : text.substr(cut + 1);
  if (leaf.empty()) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  auto find = std::make_shared<FindObject>();
  if (!HasWildcard(leaf)) {
    // A plain name finds that one entry (a file or a folder), whatever its case.
    MappedPath mapped = MapDevicePath(ToUtf8(text));
    if (mapped.host.empty()) return INVALID_HANDLE_VALUE;
    if (mapped.isStoreRoot || !mapped.exists) {
      SetErrorForPath(ENOENT, mapped);
      return INVALID_HANDLE_VALUE;
    }
    WIN32_FIND_DATA entry;
    Describe(mapped.st, mapped.host, mapped.host.substr(mapped.host.rfind('/') + 1), entry);
    find->entries.push_back(entry);
  } else {
    MappedPath dir = MapDevicePath(ToUtf8(folder));
    if (dir.host.empty()) return INVALID_HANDLE_VALUE;
    DIR* d = opendir(dir.host.c_str());
    if (!d) {
      // The folder to search is missing: a path error, not a file error.
      SetLastError(errno == ENOENT || errno == ENOTDIR ? ERROR_PATH_NOT_FOUND
                                                       : ERROR_ACCESS_DENIED);
      return INVALID_HANDLE_VALUE;
    }
    std::vector<std::string> names;
    while (struct dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      if (dir.isStoreRoot && name == ".winux") continue;  // host state, not device content
      if (Matches(leaf, FromUtf8(name))) names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      WIN32_FIND_DATA entry;
      std::string host = dir.host == "/" ? "/" + name : dir.host + "/" + name;
      if (Describe(host, name, entry)) find->entries.push_back(entry);
    }
    if (find->entries.empty()) {
      SetLastError(ERROR_FILE_NOT_FOUND);
      return INVALID_HANDLE_VALUE;
    }
  }
  *data = find->entries[0];
  find->next = 1;
  SetLastError(ERROR_SUCCESS);
  return AddHandle(find);
}

extern "C" BOOL FindNextFile(HANDLE handle, LPWIN32_FIND_DATA data) {
  auto find = Lookup<FindObject>(handle, Kind::Find);
  if (!find) return FALSE;
  if (!data) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (find->next >= find->entries.size()) {
    SetLastError(ERROR_NO_MORE_FILES);
    return FALSE;
  }
  *data = find->entries[find->next++];
  return TRUE;
}

extern "C" BOOL FindClose(HANDLE handle) {
  return RemoveHandle(handle, Kind::Find) ? TRUE : FALSE;
}
