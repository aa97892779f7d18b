// The operator commands of ftc-host: registry, identity, device log, reports.
#include "commands.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <thread>

#include "base/text.h"
#include "platform/helpers.h"
#include "platform/hwid.h"
#include "platform/winux.h"
#include "winux/winux_host.h"

#if __has_include("xq/spool.h")
#include "xq/spool.h"
#define FTC_HAVE_SPOOL 1
#endif

namespace ftchost {

namespace {

std::wstring Wide(const std::string& s) {
  return hostbase::FromUtf8(s, hostbase::StrayByte::kQuestionMark);
}

// "HKEY_LOCAL_MACHINE\SOFTWARE\X" (or HKLM\...) into its root and the rest.
bool SplitKey(const std::string& path, HKEY* root, std::string* sub) {
  static const struct {
    const char* name;
    HKEY key;
  } roots[] = {{"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
               {"HKCR", HKEY_CLASSES_ROOT},
               {"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
               {"HKCU", HKEY_CURRENT_USER},
               {"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
               {"HKLM", HKEY_LOCAL_MACHINE},
               {"HKEY_USERS", HKEY_USERS},
               {"HKU", HKEY_USERS}};
  size_t sep = path.find_first_of("\\/");
  std::string first = path.substr(0, sep);
  for (const auto& r : roots) {
    if (strcasecmp(first.c_str(), r.name) == 0) {
      *root = r.key;
      *sub = sep == std::string::npos ? "" : path.substr(sep + 1);
      for (char& c : *sub)
        if (c == '/') c = '\\';
      return true;
    }
  }
  return false;
}

int RegGet(HKEY root, const std::string& sub, const std::string& name) {
  HKEY key = nullptr;
  if (RegOpenKeyEx(root, Wide(sub).c_str(), 0, KEY_READ, &key) != 0) {
    fprintf(stderr, "ftc-host: no key %s\n", sub.c_str());
    return kExitFailed;
  }
  DWORD type = 0;
  BYTE data[4096] = {};
  DWORD size = sizeof data - sizeof(wchar_t);
  LSTATUS rc = RegQueryValueEx(key, Wide(name).c_str(), nullptr, &type, data, &size);
  RegCloseKey(key);
  if (rc != 0) {
    fprintf(stderr, "ftc-host: no value %s (error %d)\n", name.c_str(), static_cast<int>(rc));
    return kExitFailed;
  }
  if (type == REG_DWORD && size >= sizeof(DWORD)) {
    DWORD v;
    memcpy(&v, data, sizeof v);
    printf("%u (REG_DWORD)\n", v);
  } else if (type == REG_SZ) {
    printf("%s\n", hostbase::ToUtf8(reinterpret_cast<const wchar_t*>(data)).c_str());
  } else {
    printf("(type %u, %u bytes)\n", type, size);
  }
  return kExitOk;
}

int RegSet(HKEY root, const std::string& sub, const std::string& name, const std::string& value,
           bool dword) {
  HKEY key = nullptr;
  DWORD disposition = 0;
  if (RegCreateKeyEx(root, Wide(sub).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                     &disposition) != 0) {
    fprintf(stderr, "ftc-host: cannot create key %s\n", sub.c_str());
    return kExitFailed;
  }
  LSTATUS rc;
  if (dword) {
    char* end = nullptr;
    unsigned long long v = strtoull(value.c_str(), &end, 0);
    if (!end || *end || v > 0xFFFFFFFFull) {
      RegCloseKey(key);
      fprintf(stderr, "ftc-host: %s is not a 32-bit number\n", value.c_str());
      return kExitUsage;
    }
    DWORD d = static_cast<DWORD>(v);
    rc = RegSetValueEx(key, Wide(name).c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&d),
                       sizeof d);
  } else {
    std::wstring w = Wide(value);
    rc = RegSetValueEx(key, Wide(name).c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(w.c_str()),
                       static_cast<DWORD>((w.size() + 1) * sizeof(wchar_t)));
  }
  RegCloseKey(key);
  if (rc != 0) {
    fprintf(stderr, "ftc-host: cannot set %s (error %d)\n", name.c_str(), static_cast<int>(rc));
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace

int RegistryCommand(const Options& opt) {
  const auto& a = opt.args;
  HKEY root = nullptr;
  std::string sub;
  if (a.size() == 3 && a[0] == "get" && SplitKey(a[1], &root, &sub)) return RegGet(root, sub, a[2]);
  if (a.size() == 4 && a[0] == "set" && SplitKey(a[1], &root, &sub))
    return RegSet(root, sub, a[2], a[3], opt.dword);
  fprintf(stderr,
          "usage: ftc-host reg get KEY VALUE | reg set KEY VALUE DATA [--dword]\n"
          "KEY begins with HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER, HKEY_CLASSES_ROOT or "
          "HKEY_USERS\n");
  return kExitUsage;
}

int IdentityCommand(const Options&) {
  char buf[128];
  DWORD len;
  auto show = [&](const char* label, DWORD (*get)(char*, DWORD*)) {
    len = sizeof buf;
    memset(buf, 0, sizeof buf);
    DWORD rc = get(buf, &len);
    if (rc == 0)
      printf("%-24s %s\n", label, buf);
    else
      printf("%-24s (unavailable, error %u)\n", label, rc);
  };
  show("serial number:", TVLHWID::GetSerialNumber);
  show("hardware configuration:", TVLHWID::GetHardwareCfg);
  show("unique id:", TVLHWID::GetUniqueID);
  printf("%-24s %s\n", "provisioning:", IsProvisioning() ? "yes" : "no");
  printf("%-24s %s/.winux/identity\n", "identity file:", WinuxRoot().c_str());
  return kExitOk;
}

int LogCommand(const Options& opt) {
  std::string path = WinuxMapPath("/tmp/FileXfer.txt");
  std::ifstream in(path, std::ios::binary);
  if (!in && !opt.follow) {
    fprintf(stderr, "ftc-host: no device log at %s\n", path.c_str());
    return kExitFailed;
  }
  std::string line;
  for (;;) {
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      printf("%s\n", line.c_str());
    }
    if (!opt.follow) break;
    fflush(stdout);
    in.clear();
    if (!in.is_open()) in.open(path, std::ios::binary);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return kExitOk;
}

int EventsCommand(const Options& opt) {
#ifdef FTC_HAVE_SPOOL
  if (!opt.queue.empty() && !xqspool::IsValidQueueName(opt.queue)) {
    fprintf(stderr, "ftc-host: %s is not a queue name\n", opt.queue.c_str());
    return kExitUsage;
  }
  std::set<std::string> seen;
  for (;;) {
    for (const SpoolRecord& r : ReadSpoolNew(opt.root, opt.queue, &seen))
      printf("%s\n", FormatSpoolRecord(r).c_str());
    if (!opt.follow) break;
    fflush(stdout);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  return kExitOk;
#else
  (void)opt;
  fprintf(stderr, "ftc-host: this build has no report spool reader\n");
  return kExitFailed;
#endif
}

}  // namespace ftchost
