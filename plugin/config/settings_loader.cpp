// UpgradeConfig::LoadFromFile: a job read from an XML settings file on the device.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/UpgradeConfig.h"
#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/plix.h"
#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"

namespace {

const char* Attr(CPlixElement* e, const char* name) {
  return e ? e->GetAttribute(name) : nullptr;
}

// The element's text, or null when it has none (an empty element leaves its field unchanged).
const char* Text(CPlixElement* e) {
  const char* data = e ? e->GetData() : nullptr;
  return (data && data[0]) ? data : nullptr;
}

void CopyBounded(char* out, size_t capacity, const char* text) {
  snprintf(out, capacity, "%s", text ? text : "");
}

// True when one of the comma-separated patterns matches the hardware configuration text (and,
// when flash is given, the device's flash size text equals it in any case).
bool MatchesHardware(const char* patterns, const char* hwcfg, const char* flash,
                     const char* deviceFlash) {
  char list[1024];
  CopyBounded(list, sizeof list, patterns);
  char* save = nullptr;
  for (char* p = strtok_r(list, ",", &save); p; p = strtok_r(nullptr, ",", &save)) {
    if (!UpgradeConfig::CompareCfgStr(p, hwcfg)) continue;
    if (flash && _stricmp(flash, deviceFlash) != 0) continue;
    return true;
  }
  return false;
}

// A folder text with a trailing backslash appended when it lacks one.
void WithSeparator(char* out, size_t capacity, const char* text) {
  CopyBounded(out, capacity, text);
  size_t n = strlen(out);
  if ((n == 0 || out[n - 1] != '\\') && n + 1 < capacity) {
    out[n] = '\\';
    out[n + 1] = '\0';
  }
}

enum class Section { kNone, kStopProcesses, kDownloads, kDiskCleanup, kOSFirmware };

class SettingsWalker {
 public:
  explicit SettingsWalker(UpgradeConfig* cfg) : m_cfg(cfg) {}
  ~SettingsWalker() { free(m_registry); }

  void Walk(CPlixIterator* it) {
    if (it->ToRootElement() != 1 || it->BeginTraverseHere() != 1) return;
    for (int event = it->ContinueTraverse(); event != 0; event = it->ContinueTraverse()) {
      CPlixElement* e = it->GetElement();
      const char* tag = e ? e->GetTagName() : nullptr;
      if (!tag) continue;
      if (event == 1)
        Start(it, e, tag);
      else if (event == 2)
        End(tag);
    }
  }

 private:
  void Start(CPlixIterator* it, CPlixElement* e, const char* tag) {
    if (m_registry && StartRegistryChild(e, tag)) return;
    switch (m_section) {
      case Section::kStopProcesses:
        if (!strcmp(tag, "Process") && Text(e)) m_cfg->AddStopProcess(Text(e));
        return;
      case Section::kDownloads:
        if (!strcmp(tag, "File")) AddDownload(e);
        return;
      case Section::kDiskCleanup:
        if (!strcmp(tag, "File")) AddCleanup(e);
        return;
      case Section::kOSFirmware:
        if (!strcmp(tag, "Package")) AddPackage(e);
        return;
      case Section::kNone:
        break;
    }
    const char* text = Text(e);
    if (!strcmp(tag, "PackageName")) {
      if (text) m_cfg->SetPackageName(text);
    } else if (!strcmp(tag, "Version")) {
      if (text) m_cfg->SetVersion(text);
    } else if (!strcmp(tag, "BundleName")) {
      if (text) {
        m_cfg->SetBundleName(text);
        LogMsg("BundleName = !%s!\r\n", m_cfg->GetBundleName());
      }
    } else if (!strcmp(tag, "HTTPPort")) {
      if (text) m_cfg->SetHTTPPort(atoi(text));
    } else if (!strcmp(tag, "BaseUrl")) {
      if (text && !m_cfg->GetBaseURL()[0]) m_cfg->SetBaseURL(text);
    } else if (!strcmp(tag, "Syslog")) {
      if (const char* a = Attr(e, "Address")) m_cfg->SetSysLogIP(a);
      if (const char* p = Attr(e, "Port")) m_cfg->SetSysLogPort(atoi(p));
    } else if (!strcmp(tag, "FlashFileDir")) {
      if (text) m_cfg->SetFlashFileDir(text);
    } else if (!strcmp(tag, "FilePacketXferSize")) {
      if (text) m_cfg->SetPacketSize(atoi(text));
    } else if (!strcmp(tag, "InfFile")) {
      if (text) m_cfg->SetInfFile(text);
    } else if (!strcmp(tag, "FlashWriter")) {
      if (const char* n = Attr(e, "Name")) m_cfg->SetProcessName(n);
      if (const char* c = Attr(e, "CmdLine")) m_cfg->SetProcessParms(c);
      if (const char* w = Attr(e, "Wait"))
        if (!strcmp(w, "false")) m_cfg->SetProcessWait(0);
    } else if (!strcmp(tag, "BeginText")) {
      if (text) m_cfg->SetUpgBeginMsg(text);
    } else if (!strcmp(tag, "EndText")) {
      if (text) m_cfg->SetUpgEndMsg(text);
    } else if (!_stricmp(tag, "ShowGUI")) {
      if (text) m_cfg->SetShowGUI(_stricmp(text, "false") == 0 ? 0 : 1);
    } else if (!_stricmp(tag, "Reboot")) {
      if (text) m_cfg->SetReboot(_stricmp(text, "false") == 0 ? 0 : 1);
    } else if (!strcmp(tag, "PreProcessing") || !strcmp(tag, "PostProcessing")) {
      CQVProcessingHandler* handler = new CQVProcessingHandler();
      bool pre = tag[1] == 'r';
      // LoadData reads through the element's end tag, so no end event reaches this walk.
      handler->LoadData(it);
      if (pre)
        m_cfg->SetPreProcessing(handler);
      else
        m_cfg->SetPostProcessing(handler);
    } else if (!strcmp(tag, "StopProcesses")) {
      m_section = Section::kStopProcesses;
    } else if (!strcmp(tag, "Downloads")) {
      m_section = Section::kDownloads;
    } else if (!strcmp(tag, "DiskCleanup")) {
      m_section = Section::kDiskCleanup;
    } else if (!strcmp(tag, "OSFirmware")) {
      m_section = Section::kOSFirmware;
    } else if (!strcmp(tag, "DownloadLoopCnt")) {
      if (text) m_cfg->SetDownloadLoopCnt(atoi(text));
    } else if (!strcmp(tag, "Registry")) {
      free(m_registry);
      m_registry = NewRecord<tagRegistryEntry>();
    }
  }

  bool StartRegistryChild(CPlixElement* e, const char* tag) {
    struct Field {
      const char* tag;
      char* out;
      size_t capacity;
    };
    tagRegistryEntry* r = m_registry;
    const Field fields[] = {
        {"Root", r->m_szRoot, sizeof r->m_szRoot},
        {"Key", r->m_szKey, sizeof r->m_szKey},
        {"ValueName", r->m_szValueName, sizeof r->m_szValueName},
        {"Type", r->m_szType, sizeof r->m_szType},
        {"Operator", r->m_szOperator, sizeof r->m_szOperator},
        {"Value", r->m_szValue, sizeof r->m_szValue},
        {"ErrorMsg", r->m_szErrorMsg, sizeof r->m_szErrorMsg},
    };
    for (const Field& f : fields) {
      if (strcmp(tag, f.tag) != 0) continue;
      if (const char* text = Text(e)) CopyBounded(f.out, f.capacity, text);
      return true;
    }
    return false;
  }

  void End(const char* tag) {
    if (m_registry && !strcmp(tag, "Registry")) {
      m_cfg->AddRegistryTest(m_registry);
      m_registry = nullptr;
      return;
    }
    if ((m_section == Section::kStopProcesses && !strcmp(tag, "StopProcesses")) ||
        (m_section == Section::kDownloads && !strcmp(tag, "Downloads")) ||
        (m_section == Section::kDiskCleanup && !strcmp(tag, "DiskCleanup")) ||
        (m_section == Section::kOSFirmware && !strcmp(tag, "OSFirmware")))
      m_section = Section::kNone;
  }

  void AddDownload(CPlixElement* e) {
    const char* source = Attr(e, "SourceDir");
    const char* dest = Attr(e, "DestDir");
    if (!source || !dest) return;
    const char* hw = Attr(e, "HardwareVersion");
    if (hw && hw[0] && !MatchesHardware(hw, m_cfg->GetMfgString(), nullptr, "")) return;
    tagDownloadFile* file = NewRecord<tagDownloadFile>();
    if (!file) return;
    CopyBounded(file->m_szSourceFile, sizeof file->m_szSourceFile, source);
    CopyBounded(file->m_szDestFile, sizeof file->m_szDestFile, dest);
    m_cfg->AddDownloadFile(file);
  }

  void AddCleanup(CPlixElement* e) {
    const char* action = Attr(e, "Action");
    const char* text = Text(e);
    if (!action || !text) return;
    if (!_stricmp(action, "delete"))
      m_cfg->AddFileDelete(text);
    else if (!_stricmp(action, "save"))
      m_cfg->AddFileSave(text);
  }

  void AddPackage(CPlixElement* e) {
    m_cfg->SetFirmwarePkgCount(m_cfg->GetFirmwarePkgCount() + 1);
    const char* hw = Attr(e, "HardwareVersion");
    if (!hw || !hw[0]) return;
    if (!MatchesHardware(hw, m_cfg->GetMfgString(), Attr(e, "FLASH"), m_cfg->GetFlashSize()))
      return;
    FirmwarePackage* pkg = new FirmwarePackage();
    char folder[256];
    if (const char* source = Attr(e, "SourceDir")) {
      WithSeparator(folder, sizeof folder, source);
      pkg->setFragFilePath(folder);
    }
    if (const char* base = Attr(e, "Base")) pkg->setFragFileBase(base);
    if (const char* dest = Attr(e, "DestDir")) {
      if (!_stricmp(dest, "RAM:"))
        CopyBounded(folder, sizeof folder, dest);
      else
        WithSeparator(folder, sizeof folder, dest);
      pkg->setFragFileDestDir(folder);
    }
    if (const char* count = Attr(e, "Count")) pkg->setFragFileCount(atoi(count));
    if (const char* cmd = Attr(e, "CmdLine")) pkg->setFlashWriterParms(cmd);
    if (const char* extra = Attr(e, "AdditionalParms")) {
      pkg->setAdditionalParms(extra);
      if (strstr(extra, "Pass=")) m_cfg->SetMultiPass(1);
    }
    m_cfg->AddFirmwarePkg(pkg);
  }

  UpgradeConfig* m_cfg;
  Section m_section = Section::kNone;
  tagRegistryEntry* m_registry = nullptr;
};

// Reads a whole stream; null when it cannot be read. The caller frees the text.
char* ReadAll(FILE* f) {
  long here = ftell(f);
  if (here < 0 || fseek(f, 0, SEEK_END) != 0) return nullptr;
  long size = ftell(f);
  fseek(f, here, SEEK_SET);
  if (size < 0) return nullptr;
  char* text = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
  if (!text) return nullptr;
  size_t got = fread(text, 1, static_cast<size_t>(size), f);
  text[got] = '\0';
  return text;
}

}  // namespace

int UpgradeConfig::LoadFromFile(const wchar_t* fileName) {
  char name[256];
  QVToASCIIStringW(fileName ? fileName : L"", name, sizeof name);
  char path[300];
  snprintf(path, sizeof path, "\\windows\\%s", name);
  bool consumable = true;
  if (!QVFileExists(path)) {
    snprintf(path, sizeof path, "\\Flash File Store\\%s", name);
    consumable = false;
  }
  int result = 0;
  if (FILE* f = WinuxFopen(path, "r")) {
    char* text = ReadAll(f);
    fclose(f);
    if (text) {
      CPlixDOM dom;
      if (dom.ReadDoc(text) == 1) {
        CPlixIterator it;
        if (it.BindToDOM(&dom) == 1) SettingsWalker(this).Walk(&it);
      }
      free(text);
    }
    result = 1;
  }
  // A file placed in \windows\ is a one-time order; the flash store's copy stays.
  if (consumable) {
    wchar_t wide[300];
    QVToTStrW(path, wide, 300);
    DeleteFile(wide);
  }
  return result;
}
