// The record of one upgrade job: where the files come from, what to fetch and check, what to
// clean, stop and keep, the firmware packages and flash-writer command line, and the device's
// own identity. Filled by the group/field protocol (or the settings file), read by the engine.
// Text setters take bounded copies of the field capacities. Not thread-safe: one owner at a time
// (the protocol while the job is built, the upgrade thread once it has started).
#pragma once

#include <cstdint>
#include <vector>

#include "config/records.h"

class CQVProcessingHandler;

// One OS firmware package: a file or a series of numbered fragment archives.
class FirmwarePackage {
 public:
  FirmwarePackage();

  int32_t getFragFileCount() const { return m_iFragFileCount; }
  const char* getFragFileBase() const { return m_szFragFileBase; }
  const char* getFragFileDestDir() const { return m_szFragFileDestDir; }
  const char* getFragFilePath() const { return m_szFragFilePath; }
  const char* getFlashWriterParms() const { return m_szFlashWriterParms; }
  const char* getAdditionalParms() const { return m_szAdditionalParms; }

  void setFragFileCount(int32_t count) { m_iFragFileCount = count; }
  void setFragFileBase(const char* text);
  void setFragFileDestDir(const char* text);
  void setFragFilePath(const char* text);
  void setFlashWriterParms(const char* text);
  void setAdditionalParms(const char* text);

 private:
  int32_t m_iFragFileCount;
  char m_szFragFileBase[256];
  char m_szFragFileDestDir[256];
  char m_szFragFilePath[256];
  char m_szFlashWriterParms[256];
  char m_szAdditionalParms[256];
};

class UpgradeConfig {
 public:
  UpgradeConfig();
  ~UpgradeConfig();
  UpgradeConfig(const UpgradeConfig&) = delete;
  UpgradeConfig& operator=(const UpgradeConfig&) = delete;

  // Sets every default and reads the device identity. Lists are emptied without freeing.
  void Init();
  // Reads serial number, hardware configuration, unique id and flash size from the device and
  // derives type, model and family. Returns the length of the flash size text.
  int GetDeviceInfo();
  // Fills the job from the XML settings file "\windows\<name>" (else "\Flash File Store\<name>").
  // 1 when the file was read, 0 otherwise. Defined with the settings loader.
  int LoadFromFile(const wchar_t* fileName);
  // Writes the record to the log.
  void DumpData();

  // Wildcard match: '?' any one character, '*' any rest; compares over the common length only.
  // 1 on a match, 0 otherwise.
  static int CompareCfgStr(const char* pattern, const char* value);

  // ---- getters ----
  int32_t GetPacketSize() const { return m_iPacketSize; }
  int32_t GetHTTPPort() const { return m_iHTTPPort; }
  const char* GetHTTPIPAddress() const { return m_szHTTPIPAddress; }
  const char* GetBaseURL() const { return m_szBaseURL; }
  const char* GetMCIp() const { return m_szMCIp; }
  const char* GetMCEncryptionKey() const { return m_szMCEncryptionKey; }
  int32_t GetMulticastPort() const { return m_iMulticastPort; }
  int32_t GetMulticastBlockSize() const { return m_iMulticastBlockSize; }
  const char* GetMCProcessParms() const { return m_szMCProcessParms; }
  const char* GetVersion() const { return m_szVersion; }
  const char* GetPackageName() const { return m_szPackageName; }
  const char* GetBundleName() const { return m_szBundleName; }
  const char* GetProcessName() const { return m_szProcessName; }
  int32_t GetProcessWait() const { return m_iProcessWait; }
  const char* GetProcessParms() const { return m_szProcessParms; }
  const char* GetFlashFileStore() const { return m_szFlashFileStore; }
  int32_t GetShowGUI() const { return m_iShowGUI; }
  int32_t GetReboot() const { return m_iReboot; }
  const char* GetSysLogIP() const { return m_szSysLogIP; }
  unsigned short GetSysLogPort() const { return m_wSysLogPort; }
  const char* GetMfgString() const { return m_szMfgString; }
  const char* GetSerialNumber() const { return m_szSerialNumber; }
  const char* GetType() const { return m_szType; }
  const char* GetModel() const { return m_szModel; }
  const char* GetFamily() const { return m_szFamily; }
  const char* GetUniqueId() const { return m_szUniqueId; }
  const char* GetFlashSize() const { return m_szFlashSize; }
  const char* GetFlashFileDir() const { return m_szFlashFileDir; }
  const char* GetInfFilePath() const { return m_szInfFilePath; }
  const char* GetInfFileName() const { return m_szInfFileName; }
  const char* GetUpgBeginMsg() const { return m_szUpgBeginMsg; }
  const char* GetUpgEndMsg() const { return m_szUpgEndMsg; }
  int32_t GetDownloadLoopCnt() const { return m_iDownloadLoopCnt; }
  int32_t GetFirmwarePkgCount() const { return m_iFirmwarePkgCount; }
  int32_t IsMultiPass() const { return m_bMultiPass; }
  // The multicast list file's record, null when the job has none.
  tagDownloadFile* GetMCFileList() const { return m_pMCFileList; }

  // The lists, in the order they were filled. The record owns their elements.
  const std::vector<FirmwarePackage*>& GetFirmwarePkgs() const { return m_FirmwarePkgs; }
  const std::vector<tagDownloadFile*>& GetDownloadFiles() const { return m_DownloadFiles; }
  const std::vector<char*>& GetFileDeleteList() const { return m_FileDelete; }
  const std::vector<char*>& GetFileSaveList() const { return m_FileSave; }
  const std::vector<char*>& GetStopProcessList() const { return m_StopProcess; }
  const std::vector<tagStorageReq*>& GetStorageReqs() const { return m_StorageReqs; }
  const std::vector<tagRegistryEntry*>& GetRegistryTests() const { return m_RegistryTests; }

  // Null unless the job carries pre- or post-processing.
  CQVProcessingHandler* GetPreProcessing() const { return m_pPreProcessing; }
  CQVProcessingHandler* GetPostProcessing() const { return m_pPostProcessing; }

  // ---- setters ----
  void SetPacketSize(int32_t size) { m_iPacketSize = size; }
  void SetHTTPPort(int32_t port) { m_iHTTPPort = port; }
  void SetHTTPIPAddress(const char* text);
  void SetBaseURL(const char* text);
  void SetMCIp(const char* text);
  void SetMCEncryptionKey(const char* text);
  void SetMulticastPort(int32_t port) { m_iMulticastPort = port; }
  void SetMulticastBlockSize(int32_t size) { m_iMulticastBlockSize = size; }
  void SetMCProcessParms(const char* text);
  void SetVersion(const char* text);
  void SetPackageName(const char* text);
  void SetBundleName(const char* text);
  void SetProcessName(const char* text);
  void SetProcessWait(int32_t wait) { m_iProcessWait = wait; }
  void SetProcessParms(const char* text);
  void SetFlashFileStore(const char* text);
  void SetShowGUI(int32_t show) { m_iShowGUI = show; }
  void SetReboot(int32_t reboot) { m_iReboot = reboot; }
  void SetSysLogIP(const char* text);
  // Keeps the low 16 bits.
  void SetSysLogPort(int32_t port) { m_wSysLogPort = static_cast<unsigned short>(port); }
  void SetFlashFileDir(const char* text);
  // Also sets the information file name (name plus extension of the path).
  void SetInfFile(const char* path);
  void SetUpgBeginMsg(const char* text);
  void SetUpgEndMsg(const char* text);
  void SetDownloadLoopCnt(int32_t count) { m_iDownloadLoopCnt = count; }
  void SetFirmwarePkgCount(int32_t count) { m_iFirmwarePkgCount = count; }
  void SetMultiPass(int32_t multiPass) { m_bMultiPass = multiPass; }
  // Appends a blank and the text to the flash-writer command line; nothing for null.
  void AppendFlashWriterParms(const char* text);

  // ---- lists: each takes ownership of what it is given (null is ignored) ----
  // Replaces (and releases) a previous list file record.
  void AddMCFileList(tagDownloadFile* file);
  void AddDownloadFile(tagDownloadFile* file);
  void AddStorageReqEntry(tagStorageReq* req);
  void AddRegistryTest(tagRegistryEntry* test);
  void AddFirmwarePkg(FirmwarePackage* pkg);
  // Each appends a heap copy of the text.
  void AddFileDelete(const char* path);
  void AddFileSave(const char* path);
  void AddStopProcess(const char* name);
  // Replace (and destroy) a previous handler.
  void SetPreProcessing(CQVProcessingHandler* handler);
  void SetPostProcessing(CQVProcessingHandler* handler);

 private:
  int32_t m_iPacketSize;
  int32_t m_iHTTPPort;
  char m_szHTTPIPAddress[24];
  char m_szBaseURL[256];
  char m_szMCIp[24];
  char m_szMCEncryptionKey[256];
  int32_t m_iMulticastPort;
  int32_t m_iMulticastBlockSize;
  char m_szMCProcessParms[256];
  char m_szVersion[128];
  char m_szPackageName[128];
  char m_szBundleName[256];
  char m_szProcessName[256];
  int32_t m_iProcessWait;
  char m_szProcessParms[256];
  char m_szFlashFileStore[64];
  int32_t m_iShowGUI;
  int32_t m_iReboot;
  char m_szSysLogIP[32];
  unsigned short m_wSysLogPort;
  char m_szMfgString[32];
  char m_szSerialNumber[32];
  char m_szType[12];
  char m_szModel[12];
  char m_szFamily[12];
  char m_szUniqueId[64];
  char m_szFlashSize[12];
  char m_szFlashFileDir[128];
  char m_szInfFilePath[256];
  char m_szInfFileName[64];
  char m_szUpgBeginMsg[64];
  char m_szUpgEndMsg[64];
  int32_t m_iDownloadLoopCnt;
  int32_t m_iFirmwarePkgCount;
  int32_t m_bMultiPass;
  tagDownloadFile* m_pMCFileList;
  std::vector<FirmwarePackage*> m_FirmwarePkgs;
  std::vector<tagDownloadFile*> m_DownloadFiles;
  std::vector<char*> m_FileDelete;
  std::vector<char*> m_FileSave;
  std::vector<char*> m_StopProcess;
  std::vector<tagStorageReq*> m_StorageReqs;
  std::vector<tagRegistryEntry*> m_RegistryTests;
  CQVProcessingHandler* m_pPreProcessing;
  CQVProcessingHandler* m_pPostProcessing;
};
