// The group/field protocol: from the host's groups and fields to one upgrade job.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "config/text.h"
#include "configlet/call_points.h"
#include "configlet/configlet.h"
#include "configlet/protocol_state.h"
#include "engine/settings_store.h"
#include "engine/upgrade_thread.h"
#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"

UpgradeConfig* gpUpgCfg = nullptr;
int32_t m_bDoUpgrade = 1;
int32_t gbFileList = 0;
int32_t gbDiskCleanup = 0;
int32_t gbDownload = 0;
int32_t gbStartProc = 0;
int32_t gbPreProcessing = 0;
int32_t gbPostProcessing = 0;
int32_t gbFileProcessing = 0;
tagDownloadFile* gpDLFile = nullptr;
tagStorageReq* gpStorageReq = nullptr;
tagRegistryEntry* gpRegistryEntry = nullptr;
tagPullFileEntry* gpPullFileEntry = nullptr;
CQVExeEntry* gpExecutable = nullptr;
CQVFileEntry* gpFileEntry = nullptr;
CQVRegistryEntry* gpRegEntry = nullptr;
char gcAction = ' ';
char gszFileName[256] = "";

namespace {

const char* const kGroups[] = {
    "FileTransferConfiglet",
    "Syslog",
    "Upgrade",
    "MultiCast",
    "MulticastClient",
    "HTTPServer",
    "Download",
    "StorageRequirements",
    "Store",
    "DiskCleanup",
    "File",
    "FileList",
    "AlternateRTWReason",
    "StartProcess",
    "StopProcess",
    "StopProcesses",
    "Process",
    "Tests",
    "Test",
    "Registry",
    "PreProcessing",
    "PostProcessing",
    "FileOperations",
    "Set",
    "DeleteValue",
    "DeleteKey",
    "Save",
    "CopyDir",
    "Delete",
    "Rename",
    "Copy",
    "Executable",
    "ClearQVBundles",
    "PullFile",
};

// Case-insensitive, whole name.
bool Is(const char* name, const char* keyword) {
  return _stricmp(name, keyword) == 0;
}

// Case-insensitive over the host's name only, so a shorter name matches the first keyword it
// begins; the order of the keyword table decides.
bool Begins(const char* name, const char* keyword) {
  return _strnicmp(name, keyword, strlen(name)) == 0;
}

const char* CurrentGroup() {
  return gCurrentGroup ? gCurrentGroup : "";
}

template <typename T>
void FreeRecord(T*& record) {
  if (record) LocalFree(record);
  record = nullptr;
}

template <typename T>
void DeleteEntry(T*& entry) {
  delete entry;
  entry = nullptr;
}

// The handler that pre/post-processing entries go to: pre-processing while its group is open,
// else post-processing; null when neither is open or the job has none.
CQVProcessingHandler* OpenHandler() {
  if (!gpUpgCfg) return nullptr;
  if (gbPreProcessing) return gpUpgCfg->GetPreProcessing();
  if (gbPostProcessing) return gpUpgCfg->GetPostProcessing();
  return nullptr;
}

// Port of an "http://host:port/..." URL, 0 when it names none.
unsigned short UrlPort(const char* url) {
  if (_strnicmp(url, "http://", 7) != 0) return 0;
  const char* port = nullptr;
  for (const char* p = url + 7; *p && *p != '/' && *p != '\\'; ++p)
    if (*p == ':') port = p + 1;
  if (!port) return 0;
  unsigned value = 0;
  for (; *port >= '0' && *port <= '9'; ++port) value = (value * 10 + (*port - '0')) & 0xFFFF;
  return static_cast<unsigned short>(value);
}

// The message-queue server the device reports to also serves its upgrades: its address replaces
// the host part of the base URL, keeping the port.
void OverrideServer(const char* url) {
  wchar_t server[64] = L"";
  DWORD size = sizeof(server);
  if (StoreGetString(L"SOFTWARE\\Tervalon\\XQueue", L"ServerIP", server, &size) != ERROR_SUCCESS)
    return;
  server[63] = L'\0';
  if (server[0] == L'\0' || wcscmp(server, L"127.0.0.1") == 0) return;
  unsigned short port = UrlPort(url);
  if (port == 0) port = 8789;
  char host[128] = "";
  QVToASCIIStringW(server, host, sizeof(host));
  char baseUrl[256];
  snprintf(baseUrl, sizeof(baseUrl), "http://%s:%d", host, port);
  gpUpgCfg->SetBaseURL(baseUrl);
}

uint32_t SetupPrePostProcessing(const char* field, const char* /*instance*/, const char* value) {
  if (gpExecutable) {
    if (Is(field, "Name"))
      gpExecutable->SetFile(value);
    else if (Is(field, "CmdLine"))
      gpExecutable->SetCmdLine(value);
    else if (Is(field, "StartIn"))
      gpExecutable->SetStartIn(value);
    else if (Is(field, "Wait"))
      gpExecutable->SetWait(Is(value, "FALSE") ? 0 : 1);
    else
      return ICFG_E_UNKNOWN;
    return 0;
  }
  if (gpFileEntry) {
    if (Is(field, "Name") || Is(field, "SourceDir"))
      gpFileEntry->SetSource(value);
    else if (Is(field, "Dest") || Is(field, "DestDir"))
      gpFileEntry->SetDest(value);
    else
      return ICFG_E_UNKNOWN;
    return 0;
  }
  if (gpRegEntry) {
    if (Is(field, "KeyName"))
      gpRegEntry->SetKeyName(value);
    else if (Is(field, "ValueName"))
      gpRegEntry->SetValueName(value);
    else if (Is(field, "Value"))
      gpRegEntry->SetValue(value);
    else if (Is(field, "Type"))
      gpRegEntry->SetType(value);
    else
      return ICFG_E_UNKNOWN;
    return 0;
  }
  if (!Is(field, "Process")) return ICFG_E_UNKNOWN;
  // Processes named under post-processing are stopped before the upgrade too: both go to the
  // pre-processing handler, made here when the job has none yet.
  if (!gpUpgCfg) return 0;
  if (!gpUpgCfg->GetPreProcessing()) gpUpgCfg->SetPreProcessing(new CQVProcessingHandler());
  gpUpgCfg->GetPreProcessing()->AddProcess(value);
  return 0;
}

// Where a keyword acts: the group that must be open, or the record its group made. Rows that
// write the job need one.
enum Group {
  kNone,             // no second choice
  kAny,              // whatever is open
  kJob,              // FileTransferConfiglet made a job
  kStartProcess,     // inside StartProcess
  kStopProcess,      // StopProcess is the current group (any case)
  kMulticastClient,  // MulticastClient is the current group (exact case)
  kFile,             // File is the current group (exact case): a disk clean-up file
  kStore,            // Store is the current group (exact case) and made its record
  kStoreRecord,      // a Store record exists, whatever is open now
  kDownload,         // inside Download or FileList, with the entry being built
  kRegistry,         // a Registry test record exists
  kPullFile,         // a PullFile record exists
};

bool IsOpen(Group group) {
  switch (group) {
    case kNone:
      return false;
    case kAny:
      return true;
    case kJob:
      return gpUpgCfg != nullptr;
    case kStartProcess:
      return gpUpgCfg && gbStartProc != 0;
    case kStopProcess:
      return gpUpgCfg && Is(CurrentGroup(), "StopProcess");
    case kMulticastClient:
      return gpUpgCfg && strcmp(CurrentGroup(), "MulticastClient") == 0;
    case kFile:
      return strcmp(CurrentGroup(), "File") == 0;
    case kStore:
      return strcmp(CurrentGroup(), "Store") == 0 && gpStorageReq != nullptr;
    case kStoreRecord:
      return gpStorageReq != nullptr;
    case kDownload:
      return (gbDownload || gbFileList) && gpDLFile != nullptr;
    case kRegistry:
      return gpRegistryEntry != nullptr;
    case kPullFile:
      return gpPullFileEntry != nullptr;
  }
  return false;
}

// Row handlers: each runs only while its row's group is open, so what it writes exists.
using Setter = uint32_t (*)(const char* value);

template <void (UpgradeConfig::*Set)(const char*)>
uint32_t JobText(const char* value) {
  (gpUpgCfg->*Set)(value);
  return 0;
}

template <void (UpgradeConfig::*Set)(int32_t)>
uint32_t JobNumber(const char* value) {
  (gpUpgCfg->*Set)(atoi(value));
  return 0;
}

// Only the exact "false" means no.
template <void (UpgradeConfig::*Set)(int32_t)>
uint32_t JobFlag(const char* value) {
  (gpUpgCfg->*Set)(strcmp(value, "false") == 0 ? 0 : 1);
  return 0;
}

// The record being built that holds a field of type R.
template <typename R>
R* Building();
template <>
tagDownloadFile* Building() {
  return gpDLFile;
}
template <>
tagStorageReq* Building() {
  return gpStorageReq;
}
template <>
tagRegistryEntry* Building() {
  return gpRegistryEntry;
}
template <>
tagPullFileEntry* Building() {
  return gpPullFileEntry;
}

template <typename Field>
struct RecordOf;
template <typename R, size_t N>
struct RecordOf<char (R::*)[N]> {
  using Type = R;
};

template <auto Field>
uint32_t RecordText(const char* value) {
  CopyText(Building<typename RecordOf<decltype(Field)>::Type>()->*Field, value);
  return 0;
}

uint32_t SetBundleName(const char* value) {
  if (gpUpgCfg) gpUpgCfg->SetBundleName(value);
  if (Is(CurrentGroup(), "ClearQVBundles")) OnClearQVBundles(value);
  return 0;
}

uint32_t SetReboot(const char* value) {
  gpUpgCfg->SetReboot(Is(value, "True") ? 1 : 0);
  return 0;
}

uint32_t SetBaseURL(const char* value) {
  gpUpgCfg->SetBaseURL(value);
  OverrideServer(value);
  return 0;
}

uint32_t SetCleanupAction(const char* value) {
  if (Is(value, "Delete"))
    gcAction = 'D';
  else if (Is(value, "Save"))
    gcAction = 'S';
  return 0;
}

uint32_t SetCleanupName(const char* value) {
  CopyText(gszFileName, value);
  return 0;
}

enum Match { kPrefix, kExact };

struct Use {
  Group group;
  Setter set;
};

// A keyword acts through the first of its uses whose group is open.
struct Keyword {
  const char* name;
  Match match;
  Use first;
  Use second = {kNone, nullptr};
};

// The host's names are compared in this order and the first match decides, so a short prefix
// picks the earliest row it begins: the order is part of the protocol.
const Keyword kKeywords[] = {
    {"Provisioning", kExact, {kAny, OnProvisioningField}},
    {"BundleName", kExact, {kAny, SetBundleName}},
    {"Address", kPrefix, {kJob, JobText<&UpgradeConfig::SetSysLogIP>}},
    {"Port", kPrefix, {kJob, JobNumber<&UpgradeConfig::SetSysLogPort>}},
    {"Reboot", kExact, {kJob, SetReboot}},
    {"IPAddress", kPrefix, {kJob, JobText<&UpgradeConfig::SetHTTPIPAddress>}},
    {"HTTPPort", kPrefix, {kJob, JobNumber<&UpgradeConfig::SetHTTPPort>}},
    {"BaseURL", kPrefix, {kJob, SetBaseURL}},
    {"Version", kExact, {kJob, JobText<&UpgradeConfig::SetVersion>}},
    {"MulticastIP", kPrefix, {kJob, JobText<&UpgradeConfig::SetMCIp>}},
    {"EncryptionKey", kPrefix, {kJob, JobText<&UpgradeConfig::SetMCEncryptionKey>}},
    {"UDPPort", kPrefix, {kJob, JobNumber<&UpgradeConfig::SetMulticastPort>}},
    {"UDPBlockSize", kPrefix, {kJob, JobNumber<&UpgradeConfig::SetMulticastBlockSize>}},
    {"Process",
     kPrefix,
     {kStartProcess, JobText<&UpgradeConfig::SetProcessName>},
     {kStopProcess, JobText<&UpgradeConfig::AddStopProcess>}},
    {"Parameters",
     kPrefix,
     {kMulticastClient, JobText<&UpgradeConfig::SetMCProcessParms>},
     {kStartProcess, JobText<&UpgradeConfig::SetProcessParms>}},
    {"Wait", kPrefix, {kStartProcess, JobFlag<&UpgradeConfig::SetProcessWait>}},
    {"ShowGUI", kPrefix, {kJob, JobFlag<&UpgradeConfig::SetShowGUI>}},
    {"Action", kPrefix, {kFile, SetCleanupAction}},
    {"Name", kPrefix, {kFile, SetCleanupName}, {kStore, RecordText<&tagStorageReq::m_szName>}},
    {"BeginText", kPrefix, {kJob, JobText<&UpgradeConfig::SetUpgBeginMsg>}},
    {"EndText", kPrefix, {kJob, JobText<&UpgradeConfig::SetUpgEndMsg>}},
    {"Source", kPrefix, {kDownload, RecordText<&tagDownloadFile::m_szSourceFile>}},
    {"Dest", kPrefix, {kDownload, RecordText<&tagDownloadFile::m_szDestFile>}},
    {"CRC", kPrefix, {kDownload, RecordText<&tagDownloadFile::m_szCRC>}},
    {"MCTMask", kPrefix, {kDownload, RecordText<&tagDownloadFile::m_szMCTMask>}},
    {"RequiredSpace", kPrefix, {kStoreRecord, RecordText<&tagStorageReq::m_szRequiredSpace>}},
    {"Root", kPrefix, {kRegistry, RecordText<&tagRegistryEntry::m_szRoot>}},
    {"Key", kPrefix, {kRegistry, RecordText<&tagRegistryEntry::m_szKey>}},
    {"ValueName", kExact, {kRegistry, RecordText<&tagRegistryEntry::m_szValueName>}},
    {"Type", kPrefix, {kRegistry, RecordText<&tagRegistryEntry::m_szType>}},
    {"Operator", kPrefix, {kRegistry, RecordText<&tagRegistryEntry::m_szOperator>}},
    {"Value", kExact, {kRegistry, RecordText<&tagRegistryEntry::m_szValue>}},
    {"ErrorMsg", kPrefix, {kRegistry, RecordText<&tagRegistryEntry::m_szErrorMsg>}},
    {"SrcUrl", kExact, {kPullFile, RecordText<&tagPullFileEntry::m_szSrcUrl>}},
    {"SrcFile", kExact, {kPullFile, RecordText<&tagPullFileEntry::m_szSrcFile>}},
    {"DestFile", kExact, {kPullFile, RecordText<&tagPullFileEntry::m_szDestFile>}},
    {"FileID", kExact, {kPullFile, RecordText<&tagPullFileEntry::m_szFileID>}},
};

const Keyword* FindKeyword(const char* field) {
  for (const Keyword& keyword : kKeywords)
    if (keyword.match == kExact ? Is(field, keyword.name) : Begins(field, keyword.name))
      return &keyword;
  return nullptr;
}

uint32_t SetField(const char* field, const char* instance, const char* value) {
  LogMsg("IcfgSetField - %s, %s\r\n", field, value);
  if (gbPreProcessing || gbPostProcessing) return SetupPrePostProcessing(field, instance, value);
  const Keyword* keyword = FindKeyword(field);
  if (!keyword) return ICFG_E_UNKNOWN;
  // A known name whose group is not open is accepted and changes nothing.
  for (const Use& use : {keyword->first, keyword->second})
    if (IsOpen(use.group)) return use.set(value);
  return 0;
}

bool IsAcceptedGroup(const char* group) {
  for (const char* name : kGroups)
    if (Is(group, name)) return true;
  return false;
}

uint32_t BeginGroup(const char* group, uint32_t instance) {
  if (!gCurrentGroup) gCurrentGroup = static_cast<char*>(calloc(1, kCurrentGroupSize));
  if (gCurrentGroup) CopyText(gCurrentGroup, kCurrentGroupSize, group);
  if (!IsAcceptedGroup(group)) return ICFG_E_UNKNOWN;

  if (Is(group, "FileTransferConfiglet")) {
    if (instance != 0) return 0;
    LogMsg("Allocating gpUpgCfg\r\n");
    // A job still here was never handed to a worker: nobody else will release it.
    DestroyJob(gpUpgCfg);
    gpUpgCfg = new UpgradeConfig();
    gbPreProcessing = 0;
    gbPostProcessing = 0;
  } else if (Is(group, "Upgrade")) {
    return OnUpgradeGroupOpen();
  } else if (Is(group, "DiskCleanup")) {
    gbDiskCleanup = 1;
  } else if (Is(group, "FileList")) {
    gbFileList = 1;
    FreeRecord(gpDLFile);
    gpDLFile = NewRecord<tagDownloadFile>();
  } else if (Is(group, "File")) {
    if (gbDownload) {
      FreeRecord(gpDLFile);
      gpDLFile = NewRecord<tagDownloadFile>();
    } else {
      gszFileName[0] = '\0';
      gcAction = ' ';
    }
  } else if (Is(group, "Store")) {
    FreeRecord(gpStorageReq);
    gpStorageReq = NewRecord<tagStorageReq>();
  } else if (Is(group, "Registry")) {
    FreeRecord(gpRegistryEntry);
    gpRegistryEntry = NewRecord<tagRegistryEntry>();
    if (gpRegistryEntry) {
      CopyText(gpRegistryEntry->m_szRoot, "HKEY_LOCAL_MACHINE");
      CopyText(gpRegistryEntry->m_szType, "String");
    }
  } else if (Is(group, "Download")) {
    gbDownload = 1;
  } else if (Is(group, "StartProcess")) {
    gbStartProc = 1;
  } else if (Is(group, "PreProcessing")) {
    gbPreProcessing = 1;
    if (gpUpgCfg) gpUpgCfg->SetPreProcessing(new CQVProcessingHandler());
  } else if (Is(group, "PostProcessing")) {
    gbPostProcessing = 1;
    if (gpUpgCfg) gpUpgCfg->SetPostProcessing(new CQVProcessingHandler());
  } else if (Is(group, "Executable")) {
    DeleteEntry(gpExecutable);
    gpExecutable = new CQVExeEntry();
  } else if (Is(group, "Save") || Is(group, "Delete") || Is(group, "Rename") || Is(group, "Copy") ||
             Is(group, "CopyDir")) {
    DeleteEntry(gpFileEntry);
    gpFileEntry = new CQVFileEntry();
    gpFileEntry->SetOperation(group);
  } else if (Is(group, "Set") || Is(group, "DeleteValue") || Is(group, "DeleteKey")) {
    DeleteEntry(gpRegEntry);
    gpRegEntry = new CQVRegistryEntry();
    gpRegEntry->SetOperation(group);
  } else if (Is(group, "PullFile")) {
    FreeRecord(gpPullFileEntry);
    gpPullFileEntry = NewRecord<tagPullFileEntry>();
  }
  return 0;
}

void CloseDiskCleanupFile() {
  if (gpUpgCfg && gszFileName[0] != '\0') {
    if (gcAction == 'S')
      gpUpgCfg->AddFileSave(gszFileName);
    else if (gcAction == 'D')
      gpUpgCfg->AddFileDelete(gszFileName);
  }
  gcAction = ' ';
  gszFileName[0] = '\0';
}

uint32_t EndGroup(const char* group) {
  if (Is(group, "Upgrade")) return OnUpgradeGroupClose();

  if (Is(group, "FileList")) {
    gbFileList = 0;
    if (gpUpgCfg) {
      gpUpgCfg->AddMCFileList(gpDLFile);
      gpDLFile = nullptr;
    }
  } else if (Is(group, "DiskCleanup")) {
    gbDiskCleanup = 0;
  } else if (Is(group, "Download")) {
    gbDownload = 0;
  } else if (Is(group, "StartProcess")) {
    gbStartProc = 0;
  } else if (Is(group, "Store")) {
    if (gpUpgCfg) {
      gpUpgCfg->AddStorageReqEntry(gpStorageReq);
      gpStorageReq = nullptr;
    }
  } else if (Is(group, "Registry")) {
    // Inside pre/post-processing a Registry group only groups operations: no test is made.
    if (!gbPreProcessing && !gbPostProcessing && gpUpgCfg) {
      gpUpgCfg->AddRegistryTest(gpRegistryEntry);
      gpRegistryEntry = nullptr;
    }
  } else if (Is(group, "File")) {
    if (gbDiskCleanup) {
      CloseDiskCleanupFile();
    } else if (gbDownload && gpUpgCfg) {
      gpUpgCfg->AddDownloadFile(gpDLFile);
      gpDLFile = nullptr;
    }
  } else if (Is(group, "PreProcessing")) {
    gbPreProcessing = 0;
  } else if (Is(group, "PostProcessing")) {
    gbPostProcessing = 0;
  } else if (Is(group, "Executable")) {
    CQVProcessingHandler* handler = OpenHandler();
    if (handler && gpExecutable) {
      handler->GetExeHandler()->AddEntry(gpExecutable);
      gpExecutable = nullptr;
    }
    DeleteEntry(gpExecutable);
  } else if (Is(group, "Save")) {
    CQVProcessingHandler* handler = OpenHandler();
    if (handler && gpFileEntry) {
      if (char* path = DupText(gpFileEntry->GetSource()))
        if (!handler->GetFileHandler()->AddSaveEntry(path)) free(path);
    }
    DeleteEntry(gpFileEntry);
  } else if (Is(group, "Delete") || Is(group, "Rename") || Is(group, "Copy") ||
             Is(group, "CopyDir")) {
    CQVProcessingHandler* handler = OpenHandler();
    if (handler && gpFileEntry) {
      handler->GetFileHandler()->AddEntry(gpFileEntry);
      gpFileEntry = nullptr;
    }
    DeleteEntry(gpFileEntry);
  } else if (Is(group, "Set") || Is(group, "DeleteValue") || Is(group, "DeleteKey")) {
    CQVProcessingHandler* handler = OpenHandler();
    if (handler && gpRegEntry) {
      handler->GetRegistryHandler()->AddEntry(gpRegEntry);
      gpRegEntry = nullptr;
    }
    DeleteEntry(gpRegEntry);
  } else if (Is(group, "PullFile")) {
    tagPullFileEntry* entry = gpPullFileEntry;
    gpPullFileEntry = nullptr;
    OnPullFileClose(entry);
  }
  return 0;
}

const char* OrEmpty(const char* text) {
  return text ? text : "";
}

}  // namespace

void ReleasePendingEntries() {
  FreeRecord(gpDLFile);
  FreeRecord(gpStorageReq);
  FreeRecord(gpRegistryEntry);
  FreeRecord(gpPullFileEntry);
  DeleteEntry(gpExecutable);
  DeleteEntry(gpFileEntry);
  DeleteEntry(gpRegEntry);
}

// No exception may reach the host: a failed allocation refuses the call like an unknown name.
extern "C" {

uint32_t IcfgBeginGroup(const char* group, uint32_t /*unused*/, uint32_t instance) {
  try {
    return BeginGroup(OrEmpty(group), instance);
  } catch (...) {
    return ICFG_E_UNKNOWN;
  }
}

uint32_t IcfgSetField(const char* field, const char* instance, const char* value,
                      uint32_t /*unused1*/, uint32_t /*unused2*/) {
  try {
    return SetField(OrEmpty(field), OrEmpty(instance), OrEmpty(value));
  } catch (...) {
    return ICFG_E_UNKNOWN;
  }
}

uint32_t IcfgGetField(const char* field, uint32_t /*unused1*/, uint32_t /*unused2*/, char* out,
                      uint32_t* length) {
  try {
    if (!Begins(OrEmpty(field), "Protocol Version")) return ICFG_E_UNKNOWN;
    // Without a buffer there is nowhere to put the version.
    if (!out) return ICFG_E_UNKNOWN;
    return OnProtocolVersion(out, length);
  } catch (...) {
    return ICFG_E_UNKNOWN;
  }
}

uint32_t IcfgEndGroup(const char* group, uint32_t /*unused1*/, uint32_t /*unused2*/) {
  try {
    return EndGroup(OrEmpty(group));
  } catch (...) {
    return ICFG_E_UNKNOWN;
  }
}

}  // extern "C"
