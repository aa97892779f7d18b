#include <mutex>
#include <unordered_map>

#include "internal.h"
#include "platform/winux.h"

namespace winux {

namespace {
struct Table {
  std::mutex lock;
  std::unordered_map<uintptr_t, std::shared_ptr<Object>> entries;
  // Starts well above the registry roots (1..4); values are never reused so a stale handle
  // cannot reach a newer object.
  uintptr_t next = 0x1000;
};

Table& TheTable() {
  static Table* table = new Table;  // outlives threads still closing handles at exit
  return *table;
}
}  // namespace

HANDLE AddHandle(std::shared_ptr<Object> object) {
  Table& t = TheTable();
  std::lock_guard<std::mutex> guard(t.lock);
  uintptr_t value = t.next;
  t.next += 4;
  t.entries.emplace(value, std::move(object));
  return reinterpret_cast<HANDLE>(value);
}

std::shared_ptr<Object> LookupAnyHandle(HANDLE handle) {
  Table& t = TheTable();
  {
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.entries.find(reinterpret_cast<uintptr_t>(handle));
    if (it != t.entries.end()) return it->second;
  }
  SetLastError(ERROR_INVALID_HANDLE);
  return nullptr;
}

std::shared_ptr<Object> LookupHandle(HANDLE handle, Kind kind) {
  std::shared_ptr<Object> object = LookupAnyHandle(handle);
  if (object && object->kind != kind) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  return object;
}

namespace {
bool Remove(HANDLE handle, const Kind* kind) {
  std::shared_ptr<Object> doomed;  // destroyed outside the lock: destructors may block
  Table& t = TheTable();
  {
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.entries.find(reinterpret_cast<uintptr_t>(handle));
    if (it != t.entries.end() && (!kind || it->second->kind == *kind)) {
      doomed = std::move(it->second);
      t.entries.erase(it);
    }
  }
  if (!doomed) {
    SetLastError(ERROR_INVALID_HANDLE);
    return false;
  }
  return true;
}
}  // namespace

bool RemoveHandle(HANDLE handle, Kind kind) {
  return Remove(handle, &kind);
}
bool RemoveAnyHandle(HANDLE handle) {
  return Remove(handle, nullptr);
}

}  // namespace winux

extern "C" BOOL CloseHandle(HANDLE object) {
  return winux::RemoveAnyHandle(object) ? TRUE : FALSE;
}
