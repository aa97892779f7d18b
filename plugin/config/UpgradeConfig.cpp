#include "config/UpgradeConfig.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/text.h"
#include "log/LogMsg.h"
#include "platform/helpers.h"
#include "platform/winux.h"
#include "processing/QVProcessingHandler.h"

// ---- FirmwarePackage ----

FirmwarePackage::FirmwarePackage() : m_iFragFileCount(0) {
  m_szFragFileBase[0] = '\0';
  m_szFragFileDestDir[0] = '\0';
  m_szFragFilePath[0] = '\0';
  m_szFlashWriterParms[0] = '\0';
  m_szAdditionalParms[0] = '\0';
}

void FirmwarePackage::setFragFileBase(const char* text) {
  CopyText(m_szFragFileBase, text);
}
void FirmwarePackage::setFragFileDestDir(const char* text) {
  CopyText(m_szFragFileDestDir, text);
}
void FirmwarePackage::setFragFilePath(const char* text) {
  CopyText(m_szFragFilePath, text);
}
void FirmwarePackage::setFlashWriterParms(const char* text) {
  CopyText(m_szFlashWriterParms, text);
}
void FirmwarePackage::setAdditionalParms(const char* text) {
  CopyText(m_szAdditionalParms, text);
}

// ---- UpgradeConfig ----

UpgradeConfig::UpgradeConfig() {
  Init();
}

void UpgradeConfig::Init() {
  m_iPacketSize = 4096;
  m_iHTTPPort = 80;
  m_szHTTPIPAddress[0] = '\0';
  m_szBaseURL[0] = '\0';
  m_szMCIp[0] = '\0';
  m_szMCEncryptionKey[0] = '\0';
  m_iMulticastPort = 0;
  m_iMulticastBlockSize = 4096;
  m_szMCProcessParms[0] = '\0';
  m_szVersion[0] = '\0';
  m_szPackageName[0] = '\0';
  m_szBundleName[0] = '\0';
  m_szProcessName[0] = '\0';
  m_iProcessWait = 1;
  m_szProcessParms[0] = '\0';
  m_szFlashFileStore[0] = '\0';
  m_iShowGUI = 1;
  m_iReboot = 0;
  m_szSysLogIP[0] = '\0';
  m_wSysLogPort = 0;
  memset(m_szMfgString, 0, sizeof(m_szMfgString));
  memset(m_szSerialNumber, 0, sizeof(m_szSerialNumber));
  memset(m_szType, 0, sizeof(m_szType));
  memset(m_szModel, 0, sizeof(m_szModel));
  memset(m_szFamily, 0, sizeof(m_szFamily));
  memset(m_szUniqueId, 0, sizeof(m_szUniqueId));
  memset(m_szFlashSize, 0, sizeof(m_szFlashSize));
  m_szFlashFileDir[0] = '\0';
  m_szInfFilePath[0] = '\0';
  m_szInfFileName[0] = '\0';
  m_szUpgBeginMsg[0] = '\0';
  m_szUpgEndMsg[0] = '\0';
  m_iDownloadLoopCnt = 0;
  m_iFirmwarePkgCount = 0;
  m_bMultiPass = 0;
  m_pMCFileList = nullptr;
  m_FirmwarePkgs.clear();
  m_DownloadFiles.clear();
  m_FileDelete.clear();
  m_FileSave.clear();
  m_StopProcess.clear();
  m_StorageReqs.clear();
  m_RegistryTests.clear();
  m_pPreProcessing = nullptr;
  m_pPostProcessing = nullptr;
  GetDeviceInfo();
}

namespace {
template <typename T>
void FreeAll(std::vector<T*>& list) {
  for (T* item : list) LocalFree(item);
  list.clear();
}
}  // namespace

UpgradeConfig::~UpgradeConfig() {
  FreeAll(m_FileDelete);
  FreeAll(m_FileSave);
  FreeAll(m_StopProcess);
  FreeAll(m_DownloadFiles);
  FreeAll(m_StorageReqs);
  FreeAll(m_RegistryTests);
  delete m_pPreProcessing;
  delete m_pPostProcessing;
  // The record owns these too: nothing else holds them once the job is gone.
  for (FirmwarePackage* pkg : m_FirmwarePkgs) delete pkg;
  m_FirmwarePkgs.clear();
  if (m_pMCFileList) LocalFree(m_pMCFileList);
}

void UpgradeConfig::SetHTTPIPAddress(const char* text) {
  CopyText(m_szHTTPIPAddress, text);
}
void UpgradeConfig::SetBaseURL(const char* text) {
  CopyText(m_szBaseURL, text);
}
void UpgradeConfig::SetMCIp(const char* text) {
  CopyText(m_szMCIp, text);
}
void UpgradeConfig::SetMCEncryptionKey(const char* text) {
  CopyText(m_szMCEncryptionKey, text);
}
void UpgradeConfig::SetMCProcessParms(const char* text) {
  CopyText(m_szMCProcessParms, text);
}
void UpgradeConfig::SetVersion(const char* text) {
  CopyText(m_szVersion, text);
}
void UpgradeConfig::SetPackageName(const char* text) {
  CopyText(m_szPackageName, text);
}
void UpgradeConfig::SetBundleName(const char* text) {
  CopyText(m_szBundleName, text);
}
void UpgradeConfig::SetProcessName(const char* text) {
  CopyText(m_szProcessName, text);
}
void UpgradeConfig::SetProcessParms(const char* text) {
  CopyText(m_szProcessParms, text);
}
void UpgradeConfig::SetFlashFileStore(const char* text) {
  CopyText(m_szFlashFileStore, text);
}
void UpgradeConfig::SetSysLogIP(const char* text) {
  CopyText(m_szSysLogIP, text);
}
void UpgradeConfig::SetFlashFileDir(const char* text) {
  CopyText(m_szFlashFileDir, text);
}
void UpgradeConfig::SetUpgBeginMsg(const char* text) {
  CopyText(m_szUpgBeginMsg, text);
}
void UpgradeConfig::SetUpgEndMsg(const char* text) {
  CopyText(m_szUpgEndMsg, text);
}

void UpgradeConfig::SetInfFile(const char* path) {
  CopyText(m_szInfFilePath, path);
  char name[64] = "";
  char ext[64] = "";
  TVLFileSplitPathA(m_szInfFilePath, nullptr, 0, nullptr, 0, name, sizeof(name), ext, sizeof(ext));
  CopyText(m_szInfFileName, name);
  AppendText(m_szInfFileName, sizeof(m_szInfFileName), ext);
}

void UpgradeConfig::AppendFlashWriterParms(const char* text) {
  if (!text) return;
  AppendText(m_szProcessParms, sizeof(m_szProcessParms), " ");
  AppendText(m_szProcessParms, sizeof(m_szProcessParms), text);
}

void UpgradeConfig::AddMCFileList(tagDownloadFile* file) {
  if (m_pMCFileList && m_pMCFileList != file) LocalFree(m_pMCFileList);
  m_pMCFileList = file;
}

void UpgradeConfig::AddDownloadFile(tagDownloadFile* file) {
  if (file) m_DownloadFiles.push_back(file);
}
void UpgradeConfig::AddStorageReqEntry(tagStorageReq* req) {
  if (req) m_StorageReqs.push_back(req);
}
void UpgradeConfig::AddRegistryTest(tagRegistryEntry* test) {
  if (test) m_RegistryTests.push_back(test);
}
void UpgradeConfig::AddFirmwarePkg(FirmwarePackage* pkg) {
  if (pkg) m_FirmwarePkgs.push_back(pkg);
}

namespace {
void AddCopy(std::vector<char*>& list, const char* text) {
  if (char* copy = DupText(text)) list.push_back(copy);
}
}  // namespace

void UpgradeConfig::AddFileDelete(const char* path) {
  AddCopy(m_FileDelete, path);
}
void UpgradeConfig::AddFileSave(const char* path) {
  AddCopy(m_FileSave, path);
}
void UpgradeConfig::AddStopProcess(const char* name) {
  AddCopy(m_StopProcess, name);
}

void UpgradeConfig::SetPreProcessing(CQVProcessingHandler* handler) {
  if (m_pPreProcessing != handler) delete m_pPreProcessing;
  m_pPreProcessing = handler;
}

void UpgradeConfig::SetPostProcessing(CQVProcessingHandler* handler) {
  if (m_pPostProcessing != handler) delete m_pPostProcessing;
  m_pPostProcessing = handler;
}

int UpgradeConfig::CompareCfgStr(const char* pattern, const char* value) {
  char p[64];
  char v[64];
  CopyText(p, pattern);
  CopyText(v, value);
  for (size_t i = 0; i < sizeof(p); ++i) {
    char pc = p[i];
    char vc = v[i];
    if (pc == '\r' || pc == '\n' || pc == '\0' || vc == '\r' || vc == '\n' || vc == '\0' ||
        pc == '*')
      return 1;
    if (pc != '?' && pc != vc) return 0;
  }
  return 1;
}

namespace {
// Appends formatted text to a fixed buffer, cutting what does not fit.
void Append(char* buffer, size_t capacity, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void Append(char* buffer, size_t capacity, const char* format, ...) {
  size_t used = strnlen(buffer, capacity);
  if (used + 1 >= capacity) return;
  va_list args;
  va_start(args, format);
  vsnprintf(buffer + used, capacity - used, format, args);
  va_end(args);
}
}  // namespace

void UpgradeConfig::DumpData() {
  const size_t kSize = 4096;
  char* text = static_cast<char*>(calloc(1, kSize));
  if (!text) return;

  // Block size and port change places here; support staff read the dump that way.
  Append(text, kSize,
         "MultiCast IP = %s\r\nUDPPort = %d\r\nUDPBlockSize=%d\r\nEncryptionKey = %s\r\n"
         "Parms = %s\r\n",
         m_szMCIp, m_iMulticastBlockSize, m_iMulticastPort, m_szMCEncryptionKey,
         m_szMCProcessParms);
  Append(text, kSize, "BaseURL = %s\r\nHTTPPort = %d\r\nHTTPIPAddr = %s\r\nPacketSize = %d\r\n",
         m_szBaseURL, m_iHTTPPort, m_szHTTPIPAddress, m_iPacketSize);
  LogMsg("%s", text);

  text[0] = '\0';
  Append(text, kSize, "Syslog Address = %s\r\nSyslog Port = %d\r\n", m_szSysLogIP, m_wSysLogPort);
  LogMsg("%s", text);

  text[0] = '\0';
  Append(text, kSize, "Flash Writer = %s\r\nFlashWriter CmdLine = %s\r\n", m_szProcessName,
         m_szProcessParms);
  LogMsg("%s", text);

  text[0] = '\0';
  Append(text, kSize, "Delete file count = %d\r\n", static_cast<int>(m_FileDelete.size()));
  for (const char* s : m_FileDelete) Append(text, kSize, "Delete File = %s\r\n", s);
  Append(text, kSize, "Save file count = %d\r\n", static_cast<int>(m_FileSave.size()));
  for (const char* s : m_FileSave) Append(text, kSize, "Save File = %s\r\n", s);
  Append(text, kSize, "Stop Process count = %d\r\n", static_cast<int>(m_StopProcess.size()));
  for (const char* s : m_StopProcess) Append(text, kSize, "Stop Process = %s\r\n", s);
  LogMsg("%s", text);

  text[0] = '\0';
  Append(text, kSize, "Storage Req List count = %d\r\n", static_cast<int>(m_StorageReqs.size()));
  for (const tagStorageReq* r : m_StorageReqs)
    Append(text, kSize, "Storage Entry = %s, %s\r\n", r->m_szName, r->m_szRequiredSpace);
  LogMsg("%s", text);

  LogMsg("Download File List count = %d\r\n", static_cast<int>(m_DownloadFiles.size()));

  text[0] = '\0';
  Append(text, kSize, "Firmware List count = %d\r\n", static_cast<int>(m_FirmwarePkgs.size()));
  for (const FirmwarePackage* p : m_FirmwarePkgs)
    Append(text, kSize, "Src = %s\r\nDest = %s\r\nBase = %s\r\nCount = %d\r\n",
           p->getFragFilePath(), p->getFragFileDestDir(), p->getFragFileBase(),
           p->getFragFileCount());
  LogMsg("%s", text);

  free(text);
}
