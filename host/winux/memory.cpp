#include <sys/statvfs.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

#include "internal.h"
#include "platform/winux.h"
#include "winux_host.h"

namespace {

const DWORD kPageSize = 4096;
const DWORD kLmemZeroInit = 0x40;
const DWORD kSysmemFailed = 3;

DWORD Saturate(uint64_t value) {
  return value > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<DWORD>(value);
}

struct MemInfo {
  uint64_t total = 0, available = 0, swapTotal = 0, swapFree = 0;
};

MemInfo ReadMemInfo() {
  MemInfo info;
  std::ifstream in("/proc/meminfo");
  std::string key;
  uint64_t kb = 0;
  std::string unit;
  while (in >> key >> kb) {
    std::getline(in, unit);
    uint64_t bytes = kb * 1024;
    if (key == "MemTotal:")
      info.total = bytes;
    else if (key == "MemAvailable:")
      info.available = bytes;
    else if (key == "SwapTotal:")
      info.swapTotal = bytes;
    else if (key == "SwapFree:")
      info.swapFree = bytes;
  }
  if (info.available > info.total) info.available = info.total;
  return info;
}

// Store size and free bytes: the identity's flash size when set, else the root's file system.
bool StoreFigures(uint64_t& size, uint64_t& freeBytes) {
  struct statvfs vfs;
  std::string root = WinuxMapPath("\\");
  if (root.empty() || statvfs(root.c_str(), &vfs) != 0) {
    WinuxSetLastErrorFromErrno(errno);
    return false;
  }
  const uint64_t unit = vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize;
  size = static_cast<uint64_t>(vfs.f_blocks) * unit;
  freeBytes = static_cast<uint64_t>(vfs.f_bavail) * unit;
  std::string flash = WinuxIdentityValue("flash_bytes");
  if (!flash.empty()) {
    char* end = nullptr;
    unsigned long long value = strtoull(flash.c_str(), &end, 10);
    if (end != flash.c_str() && value > 0) {
      size = value;
      if (freeBytes > size) freeBytes = size;
    }
  }
  return true;
}

// Linux has no store/program boundary to move; the host keeps the division the device would.
struct Division {
  std::mutex lock;
  bool known = false;
  DWORD storePages = 0;
  DWORD ramPages = 0;
};
Division& TheDivision() {
  static Division* d = new Division;
  return *d;
}

bool LoadDivision(Division& d) {
  if (d.known) return true;
  uint64_t size = 0, freeBytes = 0;
  if (!StoreFigures(size, freeBytes)) return false;
  d.storePages = Saturate(size / kPageSize);
  d.ramPages = Saturate(ReadMemInfo().total / kPageSize);
  d.known = true;
  return true;
}

}  // namespace

extern "C" void GlobalMemoryStatus(LPMEMORYSTATUS status) {
  if (!status) return;
  MemInfo info = ReadMemInfo();
  *status = MEMORYSTATUS{};
  status->dwLength = sizeof(MEMORYSTATUS);
  status->dwMemoryLoad =
      info.total ? static_cast<DWORD>((info.total - info.available) * 100 / info.total) : 0;
  status->dwTotalPhys = Saturate(info.total);
  status->dwAvailPhys = Saturate(info.available);
  status->dwTotalPageFile = Saturate(info.swapTotal);
  status->dwAvailPageFile = Saturate(info.swapFree);
  status->dwTotalVirtual = 0x7FFE0000u;  // a 32-bit process's user space
  status->dwAvailVirtual = Saturate(std::min<uint64_t>(info.available, 0x7FFE0000u));
}

extern "C" BOOL GetStoreInformation(LPSTORE_INFORMATION info) {
  if (!info) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  uint64_t size = 0, freeBytes = 0;
  if (!StoreFigures(size, freeBytes)) return FALSE;
  info->dwStoreSize = Saturate(size);
  info->dwFreeSize = Saturate(freeBytes);
  return TRUE;
}

extern "C" BOOL GetSystemMemoryDivision(LPDWORD storePages, LPDWORD ramPages, LPDWORD pageSize) {
  Division& d = TheDivision();
  std::lock_guard<std::mutex> guard(d.lock);
  if (!LoadDivision(d)) return FALSE;
  if (storePages) *storePages = d.storePages;
  if (ramPages) *ramPages = d.ramPages;
  if (pageSize) *pageSize = kPageSize;
  return TRUE;
}

extern "C" DWORD SetSystemMemoryDivision(DWORD storePages) {
  Division& d = TheDivision();
  std::lock_guard<std::mutex> guard(d.lock);
  if (!LoadDivision(d)) return kSysmemFailed;
  uint64_t total = static_cast<uint64_t>(d.storePages) + d.ramPages;
  if (storePages > total) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return kSysmemFailed;
  }
  d.storePages = storePages;
  d.ramPages = Saturate(total - storePages);
  return 0;
}

extern "C" HANDLE LocalAlloc(UINT flags, size_t bytes) {
  if (bytes == 0) bytes = 1;
  void* block = (flags & kLmemZeroInit) ? calloc(1, bytes) : malloc(bytes);
  if (!block) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return block;
}

extern "C" HANDLE LocalFree(HANDLE memory) {
  free(memory);
  return nullptr;
}
