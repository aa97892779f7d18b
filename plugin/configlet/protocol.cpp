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

// Rows that fill the download entry: only inside Download or FileList.
uint32_t SetDownloadField(const char* field, const char* value) {
  if (!(gbDownload || gbFileList) || !gpDLFile) return 0;
  if (Begins(field, "Source"))
    CopyText(gpDLFile->m_szSourceFile, value);
  else if (Begins(field, "Dest"))
    CopyText(gpDLFile->m_szDestFile, value);
  else if (Begins(field, "CRC"))
    CopyText(gpDLFile->m_szCRC, value);
  else
    CopyText(gpDLFile->m_szMCTMask, value);
  return 0;
}

uint32_t SetField(const char* field, const char* instance, const char* value) {
  LogMsg("IcfgSetField - %s, %s\r\n", field, value);
  if (gbPreProcessing || gbPostProcessing) return SetupPrePostProcessing(field, instance, value);

  if (Is(field, "Provisioning")) return OnProvisioningField(value);
  if (Is(field, "BundleName")) {
    if (gpUpgCfg) gpUpgCfg->SetBundleName(value);
    if (Is(CurrentGroup(), "ClearQVBundles")) OnClearQVBundles(value);
    return 0;
  }

  // The rows below fill the job or the entry whose group is open; without one nothing is kept.
  UpgradeConfig* job = gpUpgCfg;
  if (Begins(field, "Address")) {
    if (job) job->SetSysLogIP(value);
  } else if (Begins(field, "Port")) {
    if (job) job->SetSysLogPort(atoi(value));
  } else if (Is(field, "Reboot")) {
    if (job) job->SetReboot(Is(value, "True") ? 1 : 0);
  } else if (Begins(field, "IPAddress")) {
    if (job) job->SetHTTPIPAddress(value);
  } else if (Begins(field, "HTTPPort")) {
    if (job) job->SetHTTPPort(atoi(value));
  } else if (Begins(field, "BaseURL")) {
    if (job) {
      job->SetBaseURL(value);
      OverrideServer(value);
    }
  } else if (Is(field, "Version")) {
    if (job) job->SetVersion(value);
  } else if (Begins(field, "MulticastIP")) {
    if (job) job->SetMCIp(value);
  } else if (Begins(field, "EncryptionKey")) {
    if (job) job->SetMCEncryptionKey(value);
  } else if (Begins(field, "UDPPort")) {
    if (job) job->SetMulticastPort(atoi(value));
  } else if (Begins(field, "UDPBlockSize")) {
    if (job) job->SetMulticastBlockSize(atoi(value));
  } else if (Begins(field, "Process")) {
    if (!job) return 0;
    if (gbStartProc)
      job->SetProcessName(value);
    else if (Is(CurrentGroup(), "StopProcess"))
      job->AddStopProcess(value);
  } else if (Begins(field, "Parameters")) {
    if (!job) return 0;
    if (strcmp(CurrentGroup(), "MulticastClient") == 0)
      job->SetMCProcessParms(value);
    else if (gbStartProc)
      job->SetProcessParms(value);
  } else if (Begins(field, "Wait")) {
    // Only the exact "false" means no wait here.
    if (job && gbStartProc) job->SetProcessWait(strcmp(value, "false") == 0 ? 0 : 1);
  } else if (Begins(field, "ShowGUI")) {
    if (job) job->SetShowGUI(strcmp(value, "false") == 0 ? 0 : 1);
  } else if (Begins(field, "Action")) {
    if (strcmp(CurrentGroup(), "File") == 0) {
      if (Is(value, "Delete"))
        gcAction = 'D';
      else if (Is(value, "Save"))
        gcAction = 'S';
    }
  } else if (Begins(field, "Name")) {
    if (strcmp(CurrentGroup(), "File") == 0)
      CopyText(gszFileName, value);
    else if (strcmp(CurrentGroup(), "Store") == 0 && gpStorageReq)
      CopyText(gpStorageReq->m_szName, value);
  } else if (Begins(field, "BeginText")) {
    if (job) job->SetUpgBeginMsg(value);
  } else if (Begins(field, "EndText")) {
    if (job) job->SetUpgEndMsg(value);
  } else if (Begins(field, "Source") || Begins(field, "Dest") || Begins(field, "CRC") ||
             Begins(field, "MCTMask")) {
    return SetDownloadField(field, value);
  } else if (Begins(field, "RequiredSpace")) {
    if (gpStorageReq) CopyText(gpStorageReq->m_szRequiredSpace, value);
  } else if (Begins(field, "Root")) {
    if (gpRegistryEntry) CopyText(gpRegistryEntry->m_szRoot, value);
  } else if (Begins(field, "Key")) {
    if (gpRegistryEntry) CopyText(gpRegistryEntry->m_szKey, value);
  } else if (Is(field, "ValueName")) {
    if (gpRegistryEntry) CopyText(gpRegistryEntry->m_szValueName, value);
  } else if (Begins(field, "Type")) {
    if (gpRegistryEntry) CopyText(gpRegistryEntry->m_szType, value);
  } else if (Begins(field, "Operator")) {
    if (gpRegistryEntry) CopyText(gpRegistryEntry->m_szOperator, value);
  } else if (Is(field, "Value")) {
    if (gpRegistryEntry) CopyText(gpRegistryEntry->m_szValue, value);
  } else if (Begins(field, "ErrorMsg")) {
    if (gpRegistryEntry) CopyText(gpRegistryEntry->m_szErrorMsg, value);
  } else if (Is(field, "SrcUrl")) {
    if (gpPullFileEntry) CopyText(gpPullFileEntry->m_szSrcUrl, value);
  } else if (Is(field, "SrcFile")) {
    if (gpPullFileEntry) CopyText(gpPullFileEntry->m_szSrcFile, value);
  } else if (Is(field, "DestFile")) {
    if (gpPullFileEntry) CopyText(gpPullFileEntry->m_szDestFile, value);
  } else if (Is(field, "FileID")) {
    if (gpPullFileEntry) CopyText(gpPullFileEntry->m_szFileID, value);
  } else {
    return ICFG_E_UNKNOWN;
  }
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
    delete gpUpgCfg;
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
