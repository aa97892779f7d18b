#include "engine/job_state.h"

#include "log/LogMsg.h"
#include "log/display.h"
#include "platform/winux.h"

UpgradeConfig* m_pUpgCfg = nullptr;
std::atomic<int> m_bUpgradeClient{0};
std::atomic<int> m_bUpgradeInProgress{0};
std::atomic<DWORD> m_dwTotalBytes{0};
std::atomic<DWORD> m_dwBytesTransfered{0};
std::atomic<int> m_iFileCount{0};
std::atomic<int> m_iXferedFileCount{1};
std::atomic<int> g_bGoodSDCard{0};
HANDLE g_hInProgressEvent = nullptr;

namespace {
// Clamped to [5, 100]: once a transfer has begun the bar never shows less than 5 per cent. A
// zero total counts as done.
int Percent(DWORD done, DWORD total) {
  if (total == 0) return 100;
  float p = static_cast<float>(done) / static_cast<float>(total) * 100.0f;
  if (p > 100.0f) p = 100.0f;
  if (p < 5.0f) p = 5.0f;
  return static_cast<int>(p);
}
}  // namespace

void CreateUpgradeInProgressEvent() {
  g_hInProgressEvent = CreateEvent(nullptr, FALSE, FALSE, L"QV_UPGRADE_IN_PROGRESS");
  if (!g_hInProgressEvent)
    LogMsg("FileTransferConfiglet - CretaeUpgradeInProgressEvent - error, %d\r\n",
           static_cast<int>(GetLastError()));
  else
    LogMsg("FileTransferConfiglet - CretaeUpgradeInProgressEvent - Success\r\n");
}

void DeleteUpgradeInProgressEvent() {
  if (!g_hInProgressEvent) return;
  CloseHandle(g_hInProgressEvent);
  g_hInProgressEvent = nullptr;
}

int GetTotalFileCnt() {
  return m_iFileCount;
}
void BumpTransferedFileCnt() {
  ++m_iXferedFileCount;
}
int GetTransferedFileCnt() {
  return m_iXferedFileCount;
}
void SetTotalBytesToTransfer(DWORD bytes) {
  m_dwTotalBytes = bytes;
}
int IsUpgradeInProgress() {
  return m_bUpgradeInProgress;
}

void UpdateProgress(DWORD done, DWORD total) {
  SetProgress1(Percent(done, total));
}

void BumpOverallProgress(DWORD bytes) {
  DWORD done = m_dwBytesTransfered += bytes;
  SetProgress2(Percent(done, m_dwTotalBytes));
}

int32_t GetFilesize(FILE* f) {
  long at = ftell(f);
  fseek(f, 0, SEEK_END);
  long size = ftell(f);
  fseek(f, at, SEEK_SET);
  return static_cast<int32_t>(size);
}
