// The plug-in's HTTP/1.1 client for the upgrade server: one kept-alive connection across files,
// the device's identity in every request, downloads written through the host's FileIO and
// checked against the server's CRC-32, and the end-of-bundle completion request.
// One object is used by one thread at a time; the class-wide counters may be touched by several.
#pragma once

#include <atomic>

#include "platform/wintypes.h"
#include "transfer/CSocketIO.h"

class FileIO;

typedef void (*HTTPStatusFunction)(DWORD done, DWORD total);

class CHTTPClient : public CSocketIO {
 public:
  CHTTPClient();
  ~CHTTPClient();

  int Init();
  // REQUIRES: host and path hold 256 wide characters. URLs longer than 255 characters are
  // refused. Without a separator the path is left untouched.
  int ParseURL(const wchar_t* url, wchar_t* host, wchar_t* path, WORD* port);
  // Connects (or keeps the healthy connection to the same server); the request path goes to
  // path, which must hold 256 wide characters.
  int OpenURL(const wchar_t* url, wchar_t* path);
  // Downloads path over the open connection into localFile; 1 when complete (and, with
  // checksums on, its CRC matched). A damaged file is requested again on the same connection.
  int Get(const wchar_t* path, const wchar_t* localFile);
  int CloseURL();
  void CloseFile();
  void SendUpgradeComplete(const char* error);
  void UpdateStatus(DWORD done, DWORD total);
  // Reads one check-point block (4-byte big-endian length, 4-byte big-endian CRC-32, data).
  // count: in, bytes already at buffer; out, data bytes held (may exceed the block's length).
  int GetChkPntBlk(char* buffer, DWORD& count, DWORD capacity);

  // Texts are copied; null changes nothing.
  void SetType(const char* text) { SetText(m_pszType, text); }
  void SetFamily(const char* text) { SetText(m_pszFamily, text); }
  void SetModel(const char* text) { SetText(m_pszModel, text); }
  void SetSerialNum(const char* text) { SetText(m_pszSerialNum, text); }
  void SetCoreName(const char* text) { SetText(m_pszCoreName, text); }
  void SetXferBufferSize(DWORD size) { m_dwXferBufferSize = size; }
  void SetPerformChecksum(int on) { m_bPerformChecksum = on; }
  void SetWorkingSemaphore(HANDLE semaphore) { m_hWorkingSemaphore = semaphore; }
  // Connect, read and wait time-out; also bounds the drain of a closing connection.
  void SetTimeout(DWORD timeoutMs) {
    m_dwTimeout = timeoutMs;
    SetDrainTimeout(timeoutMs);
  }
  void SetStatusFunction(HTTPStatusFunction function) { m_pStatusFunction = function; }
  int GetLastCRCGood() const { return m_bLastCRCGood; }
  // The last Get ended because the disk was full: asking again would only fill it again.
  bool DiskFull() const { return m_bDiskFull; }

  static void SetBundleRxBytes(DWORD bytes) { m_BundleRxBytes = bytes; }
  static void BumpBundleRxBytes(DWORD bytes) { m_BundleRxBytes += bytes; }
  static DWORD GetBundleRxBytes() { return m_BundleRxBytes; }
  static void SetFallBackMode(DWORD mode) { m_dwFallBackMode = mode; }
  static DWORD GetFallBackMode() { return m_dwFallBackMode; }

 private:
  static void SetText(char*& member, const char* text);
  int EnsureXferBuffer();
  // Writes the file request into out[capacity]; its length, or -1 when it does not fit.
  int FormatRequest(char* out, size_t capacity, const wchar_t* path);

  // The steps of Get. GetOnce makes one request for the whole file: 1 done, 0 failed, or -1
  // when the file arrived damaged or short and may be requested again.
  enum class BodyEnd { kComplete, kCut, kReadFailed, kNoRoom };
  int GetOnce(const wchar_t* path, const wchar_t* localFile);
  bool SendRequest(char* scratch, size_t capacity, const wchar_t* path);
  // Bytes gathered into the transfer buffer (head and first body bytes); -1 when the first
  // read fails.
  int ReadHead();
  // narrowPath[capacity] receives the narrow local name whatever the outcome.
  bool OpenLocalFile(const wchar_t* localFile, DWORD length, char* narrowPath, size_t capacity);
  BodyEnd ReadBody(DWORD received, DWORD length);
  bool CrcMatches(const char* narrowPath, DWORD expected);
  // Every write of the download goes through here, so its CRC is known when it ends.
  int WriteLocal(const char* data, DWORD length);
  // Exits of an attempt: the connection dropped before the reason is logged; or the file and
  // the connection closed, the reason logged already.
  int DropConnection(const char* line, const wchar_t* debug = nullptr);
  int EndAttempt(int result);

  DWORD m_dwConnectedPort;
  DWORD m_dwConnectedAddr;  // network order
  HANDLE m_hWorkingSemaphore;
  DWORD m_dwTimeout;
  DWORD m_dwXferBufferSize;
  char* m_pXferBuffer;
  DWORD m_dwXferCapacity;  // at least m_dwXferBufferSize; body reads use all of it
  char* m_pszType;
  char* m_pszFamily;
  char* m_pszModel;
  char* m_pszSerialNum;
  int m_bPerformChecksum;
  FileIO* m_pFile;
  int m_bLastCRCGood;
  DWORD m_dwWrittenCRC;  // running register over the bytes written to the local file so far
  bool m_bDiskFull = false;
  char* m_pszCoreName;
  HTTPStatusFunction m_pStatusFunction;

  static std::atomic<DWORD> m_BundleRxBytes;
  static std::atomic<DWORD> m_dwFallBackMode;
};

// Reads "MM-DD-YYYY hh:mm:ss" in place (separators become zero bytes). 1 when every field was
// present.
int GetFileDateTimeFromHeader(char* text, SYSTEMTIME* time);
// Wide to narrow into a buffer of the calling thread, valid until its next call.
char* ToASCII(const wchar_t* text);
