#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "base/faults.h"
#include "base/files.h"
#include "internal.h"
#include "platform/winux.h"
#include "winux_host.h"

namespace winux {
namespace {

const LSTATUS kKeyDeleted = 1018;
// The depth a registry tree may have on the device's system.
const size_t kMaxKeyDepth = 512;

struct Value {
  std::wstring name;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};

struct Key {
  std::wstring name;
  std::map<std::wstring, std::unique_ptr<Key>> children;  // by folded name
  std::map<std::wstring, Value> values;                   // by folded name
};

const char* const kRootNames[] = {"HKEY_CLASSES_ROOT", "HKEY_CURRENT_USER", "HKEY_LOCAL_MACHINE",
                                  "HKEY_USERS"};

struct FileIdentity {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  struct timespec mtime = {0, 0};
  bool operator==(const FileIdentity& o) const {
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
  }
};

struct Hive {
  std::mutex lock;  // threads; the flock on registry.lock guards against other processes
  Key roots[4];
  bool loaded = false;
  std::string loadedFrom;
  FileIdentity identity;
};

Hive& TheHive() {
  static Hive* hive = new Hive;
  return *hive;
}

struct KeyObject : Object {
  KeyObject() : Object(Kind::Key) {}
  int root = 0;  // 0..3
  std::vector<std::wstring> path;
};

std::wstring Fold(const std::wstring& text) {
  std::wstring out = text;
  for (wchar_t& c : out)
    if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
  return out;
}

std::vector<std::wstring> SplitKeyPath(const std::wstring& text) {
  std::vector<std::wstring> parts;
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t cut = text.find(L'\\', pos);
    if (cut == std::wstring::npos) cut = text.size();
    if (cut > pos) parts.push_back(text.substr(pos, cut - pos));
    pos = cut + 1;
  }
  return parts;
}

FileIdentity Identify(const std::string& path) {
  FileIdentity id;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return id;
  id.exists = true;
  id.dev = st.st_dev;
  id.ino = st.st_ino;
  id.size = st.st_size;
  id.mtime = st.st_mtim;
  return id;
}

// ---- text form ----------------------------------------------------------------------------

std::string Escape(const std::wstring& text) {
  std::string out;
  for (char c : ToUtf8(text)) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// Reads a quoted string starting at text[pos] == '"'; pos ends after the closing quote.
bool Unquote(const std::string& text, size_t& pos, std::wstring& out) {
  if (pos >= text.size() || text[pos] != '"') return false;
  std::string raw;
  for (++pos; pos < text.size(); ++pos) {
    char c = text[pos];
    if (c == '"') {
      ++pos;
      out = FromUtf8(raw);
      return true;
    }
    if (c == '\\' && pos + 1 < text.size()) {
      char n = text[++pos];
      raw += n == 'n' ? '\n' : n == 'r' ? '\r' : n;
      continue;
    }
    raw += c;
  }
  return false;
}

std::wstring StringOf(const std::vector<BYTE>& data) {
  std::wstring text;
  for (size_t i = 0; i + sizeof(wchar_t) <= data.size(); i += sizeof(wchar_t)) {
    wchar_t c;
    memcpy(&c, &data[i], sizeof c);
    if (c == L'\0') break;
    text += c;
  }
  return text;
}

std::vector<BYTE> BytesOf(const std::wstring& text) {
  std::vector<BYTE> data((text.size() + 1) * sizeof(wchar_t), 0);
  memcpy(data.data(), text.c_str(), text.size() * sizeof(wchar_t));
  return data;
}

void WriteValues(std::ostringstream& out, const std::string& path, const Key& key) {
  out << "\n[" << path << "]\n";
  for (const auto& entry : key.values) {
    const Value& v = entry.second;
    out << (v.name.empty() ? std::string("@") : "\"" + Escape(v.name) + "\"") << "=";
    char buffer[24];
    if (v.type == REG_SZ) {
      out << "\"" << Escape(StringOf(v.data)) << "\"";
    } else if (v.type == REG_DWORD && v.data.size() == 4) {
      DWORD d;
      memcpy(&d, v.data.data(), 4);
      snprintf(buffer, sizeof buffer, "dword:%08x", d);
      out << buffer;
    } else {
      if (v.type == REG_BINARY) {
        out << "hex:";
      } else {
        snprintf(buffer, sizeof buffer, "hex(%x):", v.type);
        out << buffer;
      }
      for (size_t i = 0; i < v.data.size(); ++i) {
        snprintf(buffer, sizeof buffer, i ? ",%02x" : "%02x", v.data[i]);
        out << buffer;
      }
    }
    out << "\n";
  }
}

// Every key gets its section, empty ones too, so created keys survive a reload.
void WriteTree(std::ostringstream& out, const std::string& path, const Key& key) {
  WriteValues(out, path, key);
  for (const auto& child : key.children)
    WriteTree(out, path + "\\" + ToUtf8(child.second->name), *child.second);
}

std::string Serialize(const Hive& hive) {
  std::ostringstream out;
  out << "REGEDIT4\n";
  for (int r = 0; r < 4; ++r) {
    const Key& root = hive.roots[r];
    if (!root.values.empty()) WriteValues(out, kRootNames[r], root);
    for (const auto& child : root.children)
      WriteTree(out, std::string(kRootNames[r]) + "\\" + ToUtf8(child.second->name), *child.second);
  }
  return out.str();
}

Key* Child(Key* key, const std::wstring& name, bool create) {
  std::wstring folded = Fold(name);
  auto it = key->children.find(folded);
  if (it != key->children.end()) return it->second.get();
  if (!create) return nullptr;
  auto child = std::make_unique<Key>();
  child->name = name;
  Key* raw = child.get();
  key->children.emplace(folded, std::move(child));
  return raw;
}

int RootIndex(const std::string& name) {
  static const char* const kShort[] = {"HKCR", "HKCU", "HKLM", "HKU"};
  for (int r = 0; r < 4; ++r)
    if (EqualsNoCase(name, kRootNames[r]) || EqualsNoCase(name, kShort[r])) return r;
  return -1;
}

bool ParseHex(const std::string& text, std::vector<BYTE>& out) {
  size_t pos = 0;
  while (pos < text.size()) {
    while (pos < text.size() && (text[pos] == ',' || text[pos] == ' ' || text[pos] == '\t')) ++pos;
    if (pos >= text.size()) break;
    char* end = nullptr;
    unsigned long byte = strtoul(text.c_str() + pos, &end, 16);
    size_t used = static_cast<size_t>(end - (text.c_str() + pos));
    if (used == 0 || used > 2 || byte > 0xFF) return false;
    out.push_back(static_cast<BYTE>(byte));
    pos += used;
  }
  return true;
}

// Tolerant reader: a line it does not understand is skipped, never fatal.
void Parse(const std::string& text, Hive& hive) {
  for (Key& root : hive.roots) root = Key{};
  std::istringstream in(text);
  std::string line;
  Key* current = nullptr;
  while (std::getline(in, line)) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    // Long hex values may continue on following lines after a trailing backslash.
    while (!line.empty() && line.back() == '\\' && line.find("=hex") != std::string::npos) {
      line.pop_back();
      std::string more;
      if (!std::getline(in, more)) break;
      while (!more.empty() && (more.back() == '\r' || more.back() == ' ')) more.pop_back();
      size_t start = more.find_first_not_of(" \t");
      line += start == std::string::npos ? "" : more.substr(start);
    }
    if (line.empty() || line[0] == ';') continue;
    if (line[0] == '[') {
      current = nullptr;
      size_t close = line.rfind(']');
      if (close == std::string::npos) continue;
      std::vector<std::wstring> parts = SplitKeyPath(FromUtf8(line.substr(1, close - 1)));
      // Saving and freeing recurse per level: a deeper section in an edited file would overflow
      // the stack, so it is skipped like any other line not understood.
      if (parts.empty() || parts.size() > kMaxKeyDepth + 1) continue;
      int r = RootIndex(ToUtf8(parts[0]));
      if (r < 0) continue;
      current = &hive.roots[r];
      for (size_t i = 1; i < parts.size(); ++i) current = Child(current, parts[i], true);
      continue;
    }
    if (!current) continue;
    Value value;
    size_t pos = 0;
    if (line[0] == '@') {
      pos = 1;
    } else if (!Unquote(line, pos, value.name)) {
      continue;
    }
    if (pos >= line.size() || line[pos] != '=') continue;
    std::string data = line.substr(pos + 1);
    if (!data.empty() && data[0] == '"') {
      size_t at = 0;
      std::wstring text;
      if (!Unquote(data, at, text)) continue;
      value.type = REG_SZ;
      value.data = BytesOf(text);
    } else if (data.compare(0, 6, "dword:") == 0) {
      char* end = nullptr;
      unsigned long d = strtoul(data.c_str() + 6, &end, 16);
      if (end == data.c_str() + 6) continue;
      DWORD dw = static_cast<DWORD>(d);
      value.type = REG_DWORD;
      value.data.assign(reinterpret_cast<BYTE*>(&dw), reinterpret_cast<BYTE*>(&dw) + 4);
    } else if (data.compare(0, 4, "hex:") == 0) {
      value.type = REG_BINARY;
      if (!ParseHex(data.substr(4), value.data)) continue;
    } else if (data.compare(0, 4, "hex(") == 0) {
      size_t close = data.find("):");
      if (close == std::string::npos) continue;
      value.type = static_cast<DWORD>(strtoul(data.c_str() + 4, nullptr, 16));
      if (!ParseHex(data.substr(close + 2), value.data)) continue;
    } else {
      continue;
    }
    current->values[Fold(value.name)] = std::move(value);
  }
}

std::string HivePath() {
  return StateDir() + "/registry.reg";
}

// Re-reads the hive when it is not the one loaded (first use, another root, another process
// saved since).
void Refresh(Hive& hive) {
  std::string path = HivePath();
  FileIdentity now = Identify(path);
  if (hive.loaded && hive.loadedFrom == path && hive.identity == now) return;
  std::string text;
  if (now.exists) (void)hostbase::ReadWholeFile(path, &text);
  Parse(text, hive);
  hive.loaded = true;
  hive.loadedFrom = path;
  hive.identity = now;
}

// Old or new, never torn.
bool Save(Hive& hive) {
  std::string path = HivePath();
  hostbase::RemoveDeadTemps(path);
  hostbase::IoStatus saved = FTC_FAULT("ftc/registry/save", ENOSPC)
                                 ? hostbase::IoStatus{ENOSPC, "write"}
                                 : hostbase::ReplaceFile(path, Serialize(hive));
  if (!saved.ok()) {
    WinuxSetLastErrorFromErrno(saved.error);
    hive.loaded = false;  // memory is ahead of the file: read the file again next time
    return false;
  }
  hive.identity = Identify(path);
  return true;
}

// Runs op on the current hive under both locks; saves when op reports a change.
template <typename Op>
LSTATUS WithHive(bool write, Op op) {
  Hive& hive = TheHive();
  std::lock_guard<std::mutex> guard(hive.lock);
  std::string dir = StateDir();
  // The first write on a fresh device makes the root and its state folder.
  if (write) (void)hostbase::MakeDirs(dir);
  int lockFd = open((dir + "/registry.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lockFd < 0 && write) {
    WinuxSetLastErrorFromErrno(errno);
    return static_cast<LSTATUS>(GetLastError());
  }
  if (lockFd >= 0) {
    while (flock(lockFd, write ? LOCK_EX : LOCK_SH) != 0 && errno == EINTR) {
    }
  }
  Refresh(hive);
  bool dirty = false;
  LSTATUS result = op(hive, dirty);
  if (dirty && !Save(hive)) result = static_cast<LSTATUS>(GetLastError());
  if (lockFd >= 0) close(lockFd);  // releases the flock
  return result;
}

// Resolves a handle (a root 1..4 or an opened key) to a root index and path.
bool Resolve(HKEY key, int& root, std::vector<std::wstring>& path) {
  uintptr_t value = reinterpret_cast<uintptr_t>(key);
  if (value >= 1 && value <= 4) {
    root = static_cast<int>(value) - 1;
    path.clear();
    return true;
  }
  auto object = Lookup<KeyObject>(key, Kind::Key);
  if (!object) return false;
  root = object->root;
  path = object->path;
  return true;
}

Key* Walk(Hive& hive, int root, const std::vector<std::wstring>& path, bool create,
          std::vector<std::wstring>* names = nullptr, bool* created = nullptr) {
  Key* key = &hive.roots[root];
  for (const std::wstring& part : path) {
    Key* next = Child(key, part, false);
    if (!next && create) {
      next = Child(key, part, true);
      if (created) *created = true;
    }
    if (!next) return nullptr;
    if (names) names->push_back(next->name);
    key = next;
  }
  return key;
}

}  // namespace
}  // namespace winux

using namespace winux;

namespace {
LSTATUS OpenOrCreate(HKEY root, LPCWSTR subKey, HKEY* result, bool create, LPDWORD disposition) {
  if (!result) return static_cast<LSTATUS>(ERROR_INVALID_PARAMETER);
  *result = nullptr;
  int r;
  std::vector<std::wstring> base;
  if (!Resolve(root, r, base)) return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
  std::vector<std::wstring> parts = base;
  for (const std::wstring& part : SplitKeyPath(subKey ? subKey : L"")) parts.push_back(part);
  return WithHive(create, [&](Hive& hive, bool& dirty) -> LSTATUS {
    if (!Walk(hive, r, base, false)) return kKeyDeleted;
    std::vector<std::wstring> names;
    bool created = false;
    if (!Walk(hive, r, parts, create, &names, &created))
      return static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND);
    dirty = created;
    if (disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    auto object = std::make_shared<KeyObject>();
    object->root = r;
    object->path = names;
    *result = AddHandle(object);
    return static_cast<LSTATUS>(ERROR_SUCCESS);
  });
}
}  // namespace

extern "C" LSTATUS RegOpenKeyEx(HKEY root, LPCWSTR subKey, DWORD, DWORD, HKEY* result) {
  return OpenOrCreate(root, subKey, result, false, nullptr);
}

extern "C" LSTATUS RegCreateKeyEx(HKEY root, LPCWSTR subKey, DWORD, LPWSTR, DWORD, DWORD,
                                  LPSECURITY_ATTRIBUTES, HKEY* result, LPDWORD disposition) {
  return OpenOrCreate(root, subKey, result, true, disposition);
}

extern "C" LSTATUS RegQueryValueEx(HKEY key, LPCWSTR valueName, LPDWORD, LPDWORD type, LPBYTE data,
                                   LPDWORD dataSize) {
  if (data && !dataSize) return static_cast<LSTATUS>(ERROR_INVALID_PARAMETER);
  int r;
  std::vector<std::wstring> path;
  if (!Resolve(key, r, path)) return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
  std::wstring folded = Fold(valueName ? valueName : L"");
  return WithHive(false, [&](Hive& hive, bool&) -> LSTATUS {
    Key* k = Walk(hive, r, path, false);
    if (!k) return kKeyDeleted;
    auto it = k->values.find(folded);
    if (it == k->values.end()) return static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND);
    const Value& v = it->second;
    if (type) *type = v.type;
    const DWORD needed = static_cast<DWORD>(v.data.size());
    if (!dataSize) return static_cast<LSTATUS>(ERROR_SUCCESS);
    if (!data) {
      *dataSize = needed;
      return static_cast<LSTATUS>(ERROR_SUCCESS);
    }
    if (*dataSize < needed) {
      *dataSize = needed;
      return static_cast<LSTATUS>(ERROR_MORE_DATA);
    }
    if (needed) memcpy(data, v.data.data(), needed);
    *dataSize = needed;
    return static_cast<LSTATUS>(ERROR_SUCCESS);
  });
}

extern "C" LSTATUS RegSetValueEx(HKEY key, LPCWSTR valueName, DWORD, DWORD type, const BYTE* data,
                                 DWORD dataSize) {
  if (!data && dataSize) return static_cast<LSTATUS>(ERROR_INVALID_PARAMETER);
  if (type == REG_DWORD && dataSize < 4) return static_cast<LSTATUS>(ERROR_INVALID_PARAMETER);
  int r;
  std::vector<std::wstring> path;
  if (!Resolve(key, r, path)) return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
  Value value;
  value.name = valueName ? valueName : L"";
  value.type = type;
  if (type == REG_SZ) {
    // Kept as the text up to its terminator, whatever size the caller counted.
    std::vector<BYTE> raw(data, data + dataSize);
    value.data = BytesOf(StringOf(raw));
  } else {
    value.data.assign(data, data + (type == REG_DWORD ? 4 : dataSize));
  }
  return WithHive(true, [&](Hive& hive, bool& dirty) -> LSTATUS {
    Key* k = Walk(hive, r, path, false);
    if (!k) return kKeyDeleted;
    std::wstring folded = Fold(value.name);
    auto it = k->values.find(folded);
    if (it != k->values.end()) value.name = it->second.name;  // keep the first spelling
    k->values[folded] = value;
    dirty = true;
    return static_cast<LSTATUS>(ERROR_SUCCESS);
  });
}

extern "C" LSTATUS RegDeleteValue(HKEY key, LPCWSTR valueName) {
  int r;
  std::vector<std::wstring> path;
  if (!Resolve(key, r, path)) return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
  std::wstring folded = Fold(valueName ? valueName : L"");
  return WithHive(true, [&](Hive& hive, bool& dirty) -> LSTATUS {
    Key* k = Walk(hive, r, path, false);
    if (!k) return kKeyDeleted;
    if (k->values.erase(folded) == 0) return static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND);
    dirty = true;
    return static_cast<LSTATUS>(ERROR_SUCCESS);
  });
}

// Removes the key with everything under it, as the device's call does.
extern "C" LSTATUS RegDeleteKey(HKEY root, LPCWSTR subKey) {
  int r;
  std::vector<std::wstring> path;
  if (!Resolve(root, r, path)) return static_cast<LSTATUS>(ERROR_INVALID_HANDLE);
  for (const std::wstring& part : SplitKeyPath(subKey ? subKey : L"")) path.push_back(part);
  if (path.empty()) return static_cast<LSTATUS>(ERROR_INVALID_PARAMETER);
  std::wstring leaf = Fold(path.back());
  path.pop_back();
  return WithHive(true, [&](Hive& hive, bool& dirty) -> LSTATUS {
    Key* parent = Walk(hive, r, path, false);
    if (!parent || parent->children.erase(leaf) == 0)
      return static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND);
    dirty = true;
    return static_cast<LSTATUS>(ERROR_SUCCESS);
  });
}

extern "C" LSTATUS RegCloseKey(HKEY key) {
  uintptr_t value = reinterpret_cast<uintptr_t>(key);
  if (value >= 1 && value <= 4) return static_cast<LSTATUS>(ERROR_SUCCESS);
  return static_cast<LSTATUS>(RemoveHandle(key, Kind::Key) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}
