#include "bundles/bundle_records.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "log/LogMsg.h"
#include "platform/faults.h"
#include "platform/helpers.h"
#include "platform/plix.h"
#include "platform/winux.h"

namespace {

const char gszFormat[] =
    "<QVInstalledBundles>   <Subsystem Name=\"Installed Bundles\">      <Group Name=\"%s\">        "
    "<Field Name=\"Version\" Type=\"String\">%s</Field>      </Group>   "
    "</Subsystem></QVInstalledBundles>";

const char kVersion[] = "3.50d";
const wchar_t kSubsystemsKey[] = L"Software\\Tervalon\\QVClient\\Subsystems";

// The upgrade thread, the pull-file thread and the host's group calls all rewrite the file.
std::mutex g_bundleLock;

// A bundle file beyond this is not ours to parse.
const long kMaxBundleFile = 4L << 20;

std::wstring Wide(const std::string& text) {
  std::vector<wchar_t> out(text.size() + 1, L'\0');
  QVToTStrW(text.c_str(), out.data(), static_cast<int>(out.size()));
  return out.data();
}

// The device has the folders; a fresh device root may not.
void EnsureFolderOf(const std::string& path) {
  for (size_t at = path.find('\\', 1); at != std::string::npos; at = path.find('\\', at + 1)) {
    CreateDirectory(Wide(path.substr(0, at)).c_str(), nullptr);
  }
}

std::string XmlEscape(const char* text) {
  std::string out;
  for (const char* p = text; *p; ++p) {
    switch (*p) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += *p;
    }
  }
  return out;
}

std::string BundleFilePath() {
  char dir[64];
  memset(dir, 0, sizeof dir);
  GetSubSysDir(dir);
  return std::string(dir) + "\\QVSubSystems\\QVBundles.xml";
}

// Reads the whole file into dom. False when it cannot be opened, read or parsed.
bool LoadBundleFile(const std::string& path, CPlixDOM* dom, bool* opened) {
  *opened = false;
  FILE* f = WinuxFopen(path.c_str(), "rb");
  if (!f) return false;
  *opened = true;
  long size = -1;
  if (fseek(f, 0, SEEK_END) == 0) size = ftell(f);
  if (size < 0 || size > kMaxBundleFile || fseek(f, 0, SEEK_SET) != 0) {
    fclose(f);
    return false;
  }
  std::vector<char> buffer(static_cast<size_t>(size) + 2, '\0');
  size_t got = fread(buffer.data(), 1, static_cast<size_t>(size), f);
  fclose(f);
  buffer[got] = '\0';
  return dom->ReadDoc(buffer.data()) == 1;
}

// Replaces the file through a temporary one, so a crash leaves the old records or the new,
// never a truncated file. False when the file could not be written.
bool ReplaceBundleFile(const std::string& path, const char* text) {
  std::string temp = path + ".new";
  FILE* f = WinuxFopen(temp.c_str(), "wb");
  if (!f) return false;
  size_t length = strlen(text);
  bool ok =
      !FTC_PLUGIN_FAULT("ftc/plugin/bundle-write", ENOSPC) && fwrite(text, 1, length, f) == length;
  ok = fclose(f) == 0 && ok;
  ok = ok && TVLRenameFileW(Wide(temp).c_str(), Wide(path).c_str());
  if (!ok) DeleteFile(Wide(temp).c_str());
  return ok;
}

bool SaveBundleFile(const std::string& path, CPlixDOM* dom, bool* hadText) {
  char* text = nullptr;
  *hadText = dom->WriteDoc(&text) == 1 && text;
  bool ok = !*hadText || ReplaceBundleFile(path, text);
  if (text) LocalFree(text);
  return ok;
}

// Deletes the first Group named bundleName. True when one was deleted.
bool DeleteBundleGroup(CPlixIterator* it, const char* bundleName) {
  it->BeginTraverseHere();
  for (int ev = it->ContinueTraverse(); ev != 0; ev = it->ContinueTraverse()) {
    if (ev != 1) continue;
    CPlixElement* el = it->GetElement();
    if (!el || strcmp(el->GetTagName(), "Group") != 0) continue;
    const char* name = el->GetAttribute("Name");
    if (name && strcmp(name, bundleName) == 0) {
      el->Delete();
      return true;
    }
  }
  return false;
}

CPlixElement* FirstSubsystem(CPlixIterator* it) {
  it->BeginTraverseHere();
  for (int ev = it->ContinueTraverse(); ev != 0; ev = it->ContinueTraverse()) {
    if (ev != 1) continue;
    CPlixElement* el = it->GetElement();
    if (el && strcmp(el->GetTagName(), "Subsystem") == 0) return el;
  }
  return nullptr;
}

void RecordBundle(const char* version, const char* bundleName) {
  std::string path = BundleFilePath();
  LogMsg("SetBundleNameForAssetMsg\r\n");
  CPlixDOM dom;
  bool opened = false;
  bool parsed = LoadBundleFile(path, &dom, &opened);
  if (!opened) {
    EnsureFolderOf(path);
    std::string name = XmlEscape(bundleName);
    std::string ver = XmlEscape(version);
    std::vector<char> text(sizeof gszFormat + name.size() + ver.size(), '\0');
    snprintf(text.data(), text.size(), gszFormat, name.c_str(), ver.c_str());
    // Created whole too: a torn first record would stop every later one from being added.
    if (!ReplaceBundleFile(path, text.data()))
      LogMsg("SetBundleNameForAssetMsg - could not create file 3\r\n");
    return;
  }
  CPlixIterator it;
  if (!parsed || it.BindToDOM(&dom) != 1 || it.ToRootElement() != 1) return;
  DeleteBundleGroup(&it, bundleName);
  if (it.ToRootElement() != 1) return;
  if (CPlixElement* sub = FirstSubsystem(&it)) {
    if (CPlixElement* group = sub->InsertChild("Group")) {
      group->SetAttribute("Name", bundleName);
      if (CPlixElement* field = group->InsertChild("Field")) {
        field->SetAttribute("Name", "Version");
        field->SetAttribute("Type", "String");
        field->SetData(version);
      }
    }
  }
  bool hadText = false;
  if (!SaveBundleFile(path, &dom, &hadText) && hadText) {
    LogMsg("SetBundleNameForAssetMsg - could not create file 2\r\n");
  }
}

void ClearBundle(const char* bundleName) {
  std::string path = BundleFilePath();
  CPlixDOM dom;
  bool opened = false;
  CPlixIterator it;
  if (!LoadBundleFile(path, &dom, &opened) || it.BindToDOM(&dom) != 1 || it.ToRootElement() != 1) {
    return;
  }
  if (!DeleteBundleGroup(&it, bundleName)) return;
  bool hadText = false;
  if (!SaveBundleFile(path, &dom, &hadText) && hadText) {
    LogMsg("ClearQVBundleName - could not create file 2\r\n");
  }
}

// The Path value under kSubsystemsKey as narrow text; "" when absent.
std::string SubsystemsFolder() {
  HKEY key = nullptr;
  if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, kSubsystemsKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return std::string();
  }
  wchar_t value[257];
  memset(value, 0, sizeof value);
  DWORD type = REG_SZ;
  DWORD size = 256 * sizeof(wchar_t);
  LSTATUS rc =
      RegQueryValueEx(key, L"Path", nullptr, &type, reinterpret_cast<LPBYTE>(value), &size);
  RegCloseKey(key);
  if (rc != ERROR_SUCCESS || type != REG_SZ) return std::string();
  char narrow[1024];
  memset(narrow, 0, sizeof narrow);
  QVToASCIIStringW(value, narrow, sizeof narrow);
  return narrow;
}

int WriteVersionFile(const std::string& folder, const char* fileName) {
  std::string path = folder.empty() ? std::string("\\Quovera\\QVSubSystems\\") + fileName
                                    : folder + "\\" + fileName;
  std::wstring wide = Wide(path);
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (DeleteFile(wide.c_str())) break;
    DWORD attributes = GetFileAttributes(wide.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY)) {
      SetFileAttributes(wide.c_str(),
                        attributes & ~(FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_MOUNTED_STORE));
      Sleep(1000);
    }
  }
  EnsureFolderOf(path);
  FILE* f = WinuxFopen(path.c_str(), "wb");
  if (!f) return 0;
  char text[32];
  snprintf(text, sizeof text, "Version=%s", kVersion);
  LogMsg("%s", text);
  LogMsg("\r\n");
  size_t length = strlen(text);
  bool ok = fwrite(text, 1, length, f) == length;
  ok = fclose(f) == 0 && ok;
  return ok ? 1 : 0;
}

}  // namespace

void GetSubSysDir(char* dir) {
  if (dir) memcpy(dir, QV_SUBSYS_DIR, sizeof QV_SUBSYS_DIR);
}

void SetBundleNameForAssetMsg(const char* version, const char* bundleName) {
  if (!version || !bundleName) {
    LogMsg("SetBundleNameForAssetMsg - Version and or bundle are null\r\n");
    return;
  }
  if (!*version || !*bundleName) {
    LogMsg("SetBundleNameForAssetMsg - Version and or bundle name are empty\r\n");
    return;
  }
  try {
    std::lock_guard<std::mutex> lock(g_bundleLock);
    RecordBundle(version, bundleName);
  } catch (...) {
    LogMsg("SetBundleNameForAssetMsg - Exception\r\n");
  }
}

void ClearQVBundleEntry(const char* bundleName) {
  if (!bundleName) {
    LogMsg("ClearQVBundleName bundle is null\r\n");
    return;
  }
  if (!*bundleName) {
    LogMsg("ClearQVBundleName - bundle name is empty\r\n");
    return;
  }
  try {
    std::lock_guard<std::mutex> lock(g_bundleLock);
    ClearBundle(bundleName);
  } catch (...) {
    LogMsg("ClearQVBundleName - Exception\r\n");
  }
}

int AddVersionForDevMon() {
  try {
    std::lock_guard<std::mutex> lock(g_bundleLock);
    std::string folder = SubsystemsFolder();
    WriteVersionFile(folder, "FileTransferConfiglet.ini");
    return WriteVersionFile(folder, "MCFTP.ini");
  } catch (...) {
    return 0;
  }
}
