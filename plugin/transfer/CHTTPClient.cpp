#include "transfer/CHTTPClient.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <memory>
#include <new>
#include <string_view>

#include "log/LogMsg.h"
#include "log/display.h"
#include "platform/faults.h"
#include "platform/hostclasses.h"
#include "platform/sockets.h"
#include "platform/winux.h"
#include "transfer/FTCCCRC32.h"

std::atomic<DWORD> CHTTPClient::m_BundleRxBytes{0};
std::atomic<DWORD> CHTTPClient::m_dwFallBackMode{0};

namespace {

const DWORD kUrlChars = 256;
const size_t kRequestScratch = 65536;
const size_t kPathBytes = 256;
const size_t kTimestampBytes = 256;
// Body reads take this much at a time whatever the configured transfer buffer size: fewer
// system calls per megabyte, and memory stays flat.
const DWORD kBodyReadSize = 256 * 1024;

const char* Text(const char* s) {
  return s ? s : "(null)";
}

// Searches the response head only: body bytes may hold anything, NULs included.
const char* Find(std::string_view head, const char* name) {
  size_t at = head.find(name);
  return at == std::string_view::npos ? nullptr : head.data() + at + std::strlen(name);
}

// "%lu" after a header name: blanks, then decimal digits. False without digits; values past
// 32 bits set overflow and saturate.
bool ReadNumber(const char* p, const char* end, DWORD& value, bool& overflow) {
  while (p < end && (*p == ' ' || *p == '\t')) ++p;
  uint64_t v = 0;
  bool digits = false;
  overflow = false;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    digits = true;
    v = v * 10 + static_cast<uint64_t>(*p - '0');
    if (v > 0xFFFFFFFFull) {
      overflow = true;
      v = 0xFFFFFFFFull;
    }
  }
  value = static_cast<DWORD>(v);
  return digits;
}

// The head ends at the first blank line; bodyStart is set past it.
bool FindHeadEnd(const char* buffer, size_t length, size_t& bodyStart) {
  std::string_view all(buffer, length);
  size_t at = all.find("\r\n\r\n");
  if (at != std::string_view::npos) {
    bodyStart = at + 4;
    return true;
  }
  at = all.find("\n\n");
  if (at != std::string_view::npos) {
    bodyStart = at + 2;
    return true;
  }
  return false;
}

// Wide to narrow (UTF-8) into out[capacity]; false when it does not fit.
bool Narrow(const wchar_t* text, char* out, size_t capacity) {
  if (capacity == 0) return false;
  out[0] = 0;
  size_t chars = std::wcslen(text);
  if (chars * 4 + 1 <= capacity) {
    WideCharToMultiByte(CP_ACP, 0, text, -1, out, static_cast<int>(capacity), nullptr, nullptr);
    out[capacity - 1] = 0;
    return true;
  }
  std::unique_ptr<char[]> wide(new (std::nothrow) char[chars * 4 + 1]);
  if (!wide) return false;
  WideCharToMultiByte(CP_ACP, 0, text, -1, wide.get(), static_cast<int>(chars * 4 + 1), nullptr,
                      nullptr);
  wide[chars * 4] = 0;
  size_t len = std::strlen(wide.get());
  if (len >= capacity) return false;
  std::memcpy(out, wide.get(), len + 1);
  return true;
}

void Debug(const wchar_t* text) {
  OutputDebugString(text);
}

// Get's answer when a damaged or short file may be requested again.
const int kRequestAgain = -1;
const char kBadAlloc[] = "FileTransferConfiglet - CHTTPClinent::Get - bad alloc\r\n";

// An exit with nothing to release.
int GiveUp(const char* line) {
  LogMsg("%s", line);
  return 0;
}

// A response the download cannot use: the debug text, when there is one, goes out before the
// connection is dropped, the log line after.
struct Refusal {
  const wchar_t* debug;
  const char* line;
};
const Refusal kNo200 = {L"get - no 200 ok\r\n",
                        "FileTransferConfiglet - CHttpClient:Get - bad ret 5\r\n"};
const Refusal kNoLength = {L"get - no length\r\n",
                           "FileTransferConfiglet - CHttpClient:Get - bad ret 6\r\n"};
const Refusal kNoCRC = {L"get - no CRC32\r\n",
                        "FileTransferConfiglet - CHttpClient:Get - bad ret 7\r\n"};
const Refusal kBlockTooLarge = {L"get - Chk Pnt Blk size error\r\n",
                                "FileTransferConfiglet - CHttpClient:Get - bad ret 8\r\n"};
const Refusal kNoHeadEnd = {nullptr,
                            "FileTransferConfiglet - CHttpClient:Get - no end of header\r\n"};

// What a usable response head said.
struct Head {
  DWORD contentLength = 0;
  DWORD attributes = 0;
  DWORD expectedCRC = 0;
};

void LogTimestamp(const char* value, const char* end) {
  if (!value) {
    LogMsg("FileTransferConfiglet - CHttpClient:Get - No Content-timestamp\r\n");
    return;
  }
  char timestamp[kTimestampBytes] = {};
  size_t n = 0;
  while (value + n < end && n < sizeof timestamp - 1 && value[n] != '\r' && value[n] != '\n') ++n;
  std::memcpy(timestamp, value, n);
  LogMsg("FileTransferConfiglet - Content-timestamp: %s\r\n", timestamp);
}

// Reads the head's values into out; the refusal when the file cannot be taken from it.
const Refusal* ReadHeaders(std::string_view head, bool headComplete, bool needCRC,
                           DWORD maxBlockSize, Head& out) {
  const char* end = head.data() + head.size();
  bool overflow = false;
  if (!Find(head, "200 OK")) return &kNo200;
  const char* value = Find(head, "Content-Length:");
  if (!value || !ReadNumber(value, end, out.contentLength, overflow) || overflow) return &kNoLength;

  value = Find(head, "Content-Attributes:");
  if (value)
    ReadNumber(value, end, out.attributes, overflow);
  else
    LogMsg("FileTransferConfiglet - CHttpClient:Get - No Content-Attributes\r\n");
  LogTimestamp(Find(head, "Content-timestamp:"), end);

  if (needCRC) {
    value = Find(head, "Content-CRC32:");
    if (!value || !ReadNumber(value, end, out.expectedCRC, overflow) || overflow) return &kNoCRC;
  }
  // The server's check-point framing is accepted, but the body is read as plain data.
  value = Find(head, "CheckPoint-BlockSize:");
  if (value) {
    DWORD blockSize = 0;
    ReadNumber(value, end, blockSize, overflow);
    if (blockSize > maxBlockSize) return &kBlockTooLarge;
    LogMsg("FileTransferConfiglet - check pointing is true\r\n");
  }
  if (!headComplete) return &kNoHeadEnd;
  return nullptr;
}

thread_local std::unique_ptr<char[]> pW2ABuff;

}  // namespace

char* ToASCII(const wchar_t* text) {
  if (!text) text = L"";
  size_t size = std::wcslen(text) + 1;
  pW2ABuff.reset(new (std::nothrow) char[size]);
  if (!pW2ABuff) return const_cast<char*>("");
  std::memset(pW2ABuff.get(), 0, size);
  // One byte per character, as the log's converter: wider characters are cut.
  WideCharToMultiByte(CP_ACP, 0, text, -1, pW2ABuff.get(), static_cast<int>(size), nullptr,
                      nullptr);
  pW2ABuff[size - 1] = 0;
  return pW2ABuff.get();
}

int GetFileDateTimeFromHeader(char* text, SYSTEMTIME* time) {
  if (!text || !text[0] || !time) return 0;
  std::memset(time, 0, sizeof *time);
  const char separators[] = {'-', '-', ' ', ':', ':'};
  WORD* fields[] = {&time->wMonth, &time->wDay,    &time->wYear,
                    &time->wHour,  &time->wMinute, &time->wSecond};
  char* p = text;
  for (size_t i = 0; i < sizeof separators; ++i) {
    char* sep = std::strchr(p, separators[i]);
    if (!sep) {
      *fields[i] = static_cast<WORD>(std::atoi(p));
      return 0;
    }
    *sep = 0;
    *fields[i] = static_cast<WORD>(std::atoi(p));
    p = sep + 1;
  }
  time->wSecond = static_cast<WORD>(std::atoi(p));
  return 1;
}

CHTTPClient::CHTTPClient()
    : m_dwConnectedPort(0),
      m_dwConnectedAddr(0xFFFFFFFFu),
      m_hWorkingSemaphore(nullptr),
      m_dwTimeout(10000),
      m_dwXferBufferSize(16384),
      m_pXferBuffer(nullptr),
      m_dwXferCapacity(0),
      m_pszType(nullptr),
      m_pszFamily(nullptr),
      m_pszModel(nullptr),
      m_pszSerialNum(nullptr),
      m_bPerformChecksum(1),
      m_pFile(new (std::nothrow) FileIO()),
      m_bLastCRCGood(1),
      m_dwWrittenCRC(0xFFFFFFFFu),
      m_pszCoreName(nullptr),
      m_pStatusFunction(nullptr) {
  SetDrainTimeout(m_dwTimeout);
}

CHTTPClient::~CHTTPClient() {
  Disconnect();
  if (m_socket != -1) Close();
  CSocketIO::Shutdown();
  if (m_pFile) {
    m_pFile->Close();
    delete m_pFile;
  }
  delete[] m_pXferBuffer;
  delete[] m_pszType;
  delete[] m_pszFamily;
  delete[] m_pszModel;
  delete[] m_pszSerialNum;
  delete[] m_pszCoreName;
}

void CHTTPClient::SetText(char*& member, const char* text) {
  if (!text) return;
  delete[] member;
  size_t len = std::strlen(text);
  member = new (std::nothrow) char[len + 1];
  if (member) std::memcpy(member, text, len + 1);
}

int CHTTPClient::Init() {
  return Startup() ? 1 : 0;
}

int CHTTPClient::EnsureXferBuffer() {
  DWORD want = m_dwXferBufferSize > kBodyReadSize ? m_dwXferBufferSize : kBodyReadSize;
  if (!m_pXferBuffer || m_dwXferCapacity < want) {
    delete[] m_pXferBuffer;
    m_pXferBuffer = FTC_PLUGIN_FAULT("ftc/plugin/transfer-buffer", ENOMEM)
                        ? nullptr
                        : new (std::nothrow) char[want];
    m_dwXferCapacity = m_pXferBuffer ? want : 0;
    if (!m_pXferBuffer) return 0;
  }
  std::memset(m_pXferBuffer, 0, m_dwXferBufferSize);  // the part a response head may use
  return 1;
}

int CHTTPClient::ParseURL(const wchar_t* url, wchar_t* host, wchar_t* path, WORD* port) {
  *port = 0;
  if (!url || std::wcslen(url) >= kUrlChars) return 0;
  wchar_t work[kUrlChars] = {};
  std::wcscpy(work, url);
  if (_wcsnicmp(work, L"http:\\", 7) != 0 && _wcsnicmp(work, L"http://", 7) != 0) return 0;

  size_t portStart = 0, pathStart = 0;
  for (size_t i = 7; i < kUrlChars && work[i]; ++i) {
    if (work[i] == L':') portStart = i + 1;
    if (work[i] == L'\\' || work[i] == L'/') {
      pathStart = i + 1;
      break;
    }
  }
  size_t hostEnd = std::wcslen(work);
  if (pathStart) {
    std::wcscpy(path, work + pathStart);
    hostEnd = pathStart;
  }
  if (portStart) {
    DWORD value = 0;
    size_t portEnd = pathStart ? pathStart : hostEnd;
    for (size_t i = portStart; i < portEnd && iswdigit(work[i]); ++i)
      value = value * 10 + static_cast<DWORD>(work[i] - L'0');
    *port = static_cast<WORD>(value);
    hostEnd = portStart - 1;
  }
  // Without a port the host keeps the separator: such URLs never resolve, so servers are
  // always named with an explicit port.
  size_t hostLen = hostEnd > 7 ? hostEnd - 7 : 0;
  std::wmemcpy(host, work + 7, hostLen);
  host[hostLen] = 0;
  return 1;
}

int CHTTPClient::OpenURL(const wchar_t* url, wchar_t* path) {
  if (!url) return 0;
  LogMsg("FileTransferConfiglet - CHTTPClient::OpenURL - entering !%s!\r\n", ToASCII(url));
  wchar_t host[kUrlChars] = {};
  WORD port = 0;
  if (!ParseURL(url, host, path, &port)) {
    LogMsg("FileTransferConfiglet - CHTTPClient::OpenURL ParseURL error\r\n");
    return 0;
  }
  DWORD address = GetHostIpAddress(host);
  // Address 0 would reach this machine itself on Linux: an unresolved host never connects.
  if (address == 0) {
    LogMsg("FileTransferConfiglet - OpenURL - could not connect\r\n");
    return 0;
  }

  if (IsConnected()) {
    // A kept-alive connection is reused only while the peer has neither closed it nor left
    // stray bytes on it; either would spoil the next response.
    bool healthy = SocketWriteable(1) && !ReadableNow();
    if (healthy && port == m_dwConnectedPort && address == m_dwConnectedAddr) return 1;
    Disconnect();
    Close();
  }
  if (!CreateTcpSocket()) {
    LogMsg("FileTransferConfiglet - OpenURL - could not create socket\r\n");
    return 0;
  }
  SetMode(0);
  if (Connect(address, port, m_dwTimeout)) {
    m_dwConnectedPort = port;
    m_dwConnectedAddr = address;
    return 1;
  }
  LogMsg("FileTransferConfiglet - OpenURL - could not connect\r\n");
  if (m_socket != -1) Close();
  return 0;
}

int CHTTPClient::CloseURL() {
  Disconnect();
  return Close();
}

void CHTTPClient::CloseFile() {
  if (m_pFile) m_pFile->Close();
}

void CHTTPClient::UpdateStatus(DWORD done, DWORD total) {
  if (m_pStatusFunction) m_pStatusFunction(done, total);
  if (m_hWorkingSemaphore) {
    LONG previous = 0;
    WinuxReleaseSemaphore(m_hWorkingSemaphore, 1, &previous);
  }
}

int CHTTPClient::FormatRequest(char* out, size_t capacity, const wchar_t* path) {
  std::unique_ptr<char[]> narrowPath(new (std::nothrow) char[std::wcslen(path) * 4 + 1]);
  if (!narrowPath) return -1;
  if (!Narrow(path, narrowPath.get(), std::wcslen(path) * 4 + 1)) return -1;
  char dotted[INET_ADDRSTRLEN] = {};
  const char* hostText = IPToString(ntohl(m_dwConnectedAddr), dotted);
  int n = std::snprintf(out, capacity,
                        "GET %s HTTP/1.1\r\nHost: %s\r\nUser-Agent: UpgradeClient\r\nAccept: "
                        "*/*\r\nConnection: Keep-Alive\r\nType: %s\r\nFamily: %s\r\nModel: "
                        "%s\r\nSerialNum: %s\r\nCore-name: %s\r\nBundle-rx: %d\r\nHTTP-fallback: "
                        "%d\r\nCache-Control: no-cache\r\n\r\n",
                        narrowPath.get(), Text(hostText), Text(m_pszType), Text(m_pszFamily),
                        Text(m_pszModel), Text(m_pszSerialNum), Text(m_pszCoreName),
                        static_cast<int>(m_BundleRxBytes.load()),
                        static_cast<int>(m_dwFallBackMode.load()));
  if (n < 0 || static_cast<size_t>(n) >= capacity) return -1;
  return n;
}

int CHTTPClient::Get(const wchar_t* path, const wchar_t* localFile) {
  if (path && !path[0]) return GiveUp("FileXferConfiglet - CHttpClient:Get - bad ret 1\r\n");
  // No attempt limit: only success or a failed request ends the repeats.
  for (;;) {
    int result = GetOnce(path, localFile);
    if (result != kRequestAgain) return result;
  }
}

int CHTTPClient::GetOnce(const wchar_t* path, const wchar_t* localFile) {
  m_bDiskFull = false;
  if (!EnsureXferBuffer()) return GiveUp(kBadAlloc);
  if (!path || !localFile)
    return GiveUp("FileTransferConfiglet - CHttpClient:Get - bad ret 1.1\r\n");
  {
    std::unique_ptr<char[]> scratch(new (std::nothrow) char[kRequestScratch]);
    if (!scratch) return GiveUp(kBadAlloc);
    if (!SendRequest(scratch.get(), kRequestScratch, path))
      return DropConnection("FileTransferConfiglet - CHttpClient:Get - bad ret 2\r\n");
  }
  if (!SocketReadable(m_dwTimeout))
    return DropConnection("FileTransferConfiglet - CHttpClient:Get - bad ret 3\r\n");
  int got = ReadHead();
  if (got < 0) return DropConnection("FileTransferConfiglet - CHttpClient:Get - bad ret 4\r\n");

  char* buffer = m_pXferBuffer;
  size_t bodyStart = 0;
  bool headComplete = FindHeadEnd(buffer, size_t(got), bodyStart);
  Head head;
  if (const Refusal* refusal =
          ReadHeaders(std::string_view(buffer, headComplete ? bodyStart : size_t(got)),
                      headComplete, m_bPerformChecksum != 0, m_dwXferBufferSize, head))
    return DropConnection(refusal->line, refusal->debug);

  // Bytes past the content length belong to no file; they are dropped and the connection
  // is not kept, since whatever follows on it cannot be trusted.
  DWORD inBuffer = DWORD(got) - DWORD(bodyStart);
  bool surplus = inBuffer > head.contentLength;
  if (surplus) inBuffer = head.contentLength;
  std::memmove(buffer, buffer + bodyStart, inBuffer);

  char narrowPath[kPathBytes] = {};
  if (!OpenLocalFile(localFile, head.contentLength, narrowPath, sizeof narrowPath)) {
    OutputGUIMsgA("%s", narrowPath);
    OutputGUIMsgA("file open error");
    LogMsg("FileTransferConfiglet - OpenForWriting - error, %s\r\n", narrowPath);
    return EndAttempt(0);  // the writer never opened: closing it does nothing
  }
  LogMsg("FileTransferConfiglet - after OPenForWriting - success, !%s%%\r\n", narrowPath);

  if (head.contentLength == 0) {
    OutputGUIMsgA("filesize = 0");
    LogMsg("FileTransferConfiglet - after OpenForWriting - zero length file, !%s%%\r\n",
           narrowPath);
    return EndAttempt(1);
  }
  m_pFile->Seek(0);
  if (inBuffer) {
    if (!WriteLocal(buffer, inBuffer)) {
      OutputGUIMsgA("fileWrite error - %s\r\n", narrowPath);
      LogMsg("FileTransferConfiglet - httpClient - first write error\r\n");
      return EndAttempt(0);
    }
    if (inBuffer == head.contentLength) {
      LogMsg("FileTransferConfiglet - httpClient - file complete in first frame\r\n");
      return EndAttempt(1);
    }
  }
  BodyEnd end = ReadBody(inBuffer, head.contentLength);
  m_bDiskFull = end == BodyEnd::kNoRoom;
  if (end == BodyEnd::kReadFailed || m_bDiskFull) return EndAttempt(0);
  bool complete = end == BodyEnd::kComplete;

  CloseFile();
  int setResult = m_pFile->SetAttributes(narrowPath, head.attributes);
  LogMsg("Setting file attributes, %s, %d, %d\r\n", narrowPath, static_cast<int>(head.attributes),
         setResult);
  bool success = complete && (!m_bPerformChecksum || CrcMatches(narrowPath, head.expectedCRC));
  if (success) BumpBundleRxBytes(head.contentLength);

  bool dropped = surplus || (complete && BytesPending() > 0);
  if (dropped) {
    LogMsg("FileTransferConfiglet - httpClient - data past content length, closing\r\n");
    CloseURL();
  }
  Sleep(50);
  if (success) return 1;
  return dropped ? 0 : kRequestAgain;
}

bool CHTTPClient::SendRequest(char* scratch, size_t capacity, const wchar_t* path) {
  int length = FormatRequest(scratch, capacity, path);
  if (length < 0) return false;
  LogMsg("\r\n");
  LogMsg("%s", scratch);
  LogMsg("\r\n\r\n");
  return SendData(scratch, DWORD(length)) >= DWORD(length);
}

int CHTTPClient::ReadHead() {
  const DWORD room = m_dwXferBufferSize;
  int got = 0;
  if (!ReadData(m_pXferBuffer, static_cast<int>(room), got)) return -1;
  // A head split over several segments is gathered, but never past the transfer buffer size.
  size_t bodyStart = 0;
  while (!FindHeadEnd(m_pXferBuffer, size_t(got), bodyStart) && DWORD(got) < room &&
         SocketReadable(m_dwTimeout)) {
    int more = 0;
    if (!ReadData(m_pXferBuffer + got, static_cast<int>(room - DWORD(got)), more)) break;
    got += more;
  }
  return got;
}

bool CHTTPClient::OpenLocalFile(const wchar_t* localFile, DWORD length, char* narrowPath,
                                size_t capacity) {
  bool pathFits = Narrow(localFile, narrowPath, capacity);
  // A fresh writer per download; the previous one is released rather than leaked.
  if (m_pFile) {
    m_pFile->Close();
    delete m_pFile;
  }
  m_pFile = new (std::nothrow) FileIO();
  if (!m_pFile || !pathFits) return false;
  m_dwWrittenCRC = 0xFFFFFFFFu;
  m_pFile->PrepareForWriting(narrowPath);
  m_pFile->RemoveStale(narrowPath);
  return m_pFile->OpenForWriting(narrowPath, 0, length) != 0;
}

CHTTPClient::BodyEnd CHTTPClient::ReadBody(DWORD received, DWORD length) {
  for (;;) {
    if (!SocketReadable(m_dwTimeout)) {
      LogMsg("FileTransferConfiglet - httpclient, server not sending data 3\r\n");
      return BodyEnd::kCut;
    }
    // Never read past this body: the next response on the connection starts there.
    DWORD want = length - received;
    if (want > m_dwXferCapacity) want = m_dwXferCapacity;
    int n = 0;
    if (!ReadData(m_pXferBuffer, static_cast<int>(want), n)) {
      OutputGUIMsgA("Read data error 2\r\n");
      LogMsg("FileTransferConfiglet - m_HTTP.ReadData error\r\n");
      return BodyEnd::kReadFailed;
    }
    m_pFile->Seek(received);
    if (!WriteLocal(m_pXferBuffer, DWORD(n))) {
      DWORD error = GetLastError();
      LogMsg("FileTransferConfiglet - file->Write error, %d\r\n", static_cast<int>(error));
      // A full disk stays full: asking for the file again would fill it again, forever.
      return error == ERROR_DISK_FULL ? BodyEnd::kNoRoom : BodyEnd::kCut;
    }
    received += DWORD(n);
    UpdateStatus(received, length);
    if (received == length) {
      LogMsg("FileTransferConfiglet - http file size match, transfer success\r\n");
      return BodyEnd::kComplete;
    }
  }
}

int CHTTPClient::WriteLocal(const char* data, DWORD length) {
  if (!m_pFile->Write(data, length)) return 0;
  m_dwWrittenCRC = FTCCCRC32::Update(m_dwWrittenCRC, data, length);
  return 1;
}

bool CHTTPClient::CrcMatches(const char* narrowPath, DWORD expected) {
  LogMsg("performing CRC check\r\n");
  DWORD computed = 0;
  LogMsg("FileTransferConfiglet - FILECRC32\r\n");
  FTCCCRC32 crc;
  // The body is written in order from offset 0, so the running CRC is the file's.
  if (crc.WrittenCRC32(m_dwWrittenCRC, computed) != 0) {
    LogMsg("FileTransferConfiglet - RAMFILECRC32 or FILECRC32 returned error\r\n");
    return false;
  }
  if (computed == expected) {
    LogMsg("FileTransferConfiglet - good CRC\r\n");
    m_bLastCRCGood = 1;
    return true;
  }
  OutputGUIMsgA("CRC failed\r\n");
  Debug(L"CRC failed\r\n");
  LogMsg("FileTransferConfiglet - CRC error, %s, %d, %d\r\n", narrowPath,
         static_cast<int>(expected), static_cast<int>(computed));
  m_bLastCRCGood = 0;
  return false;
}

int CHTTPClient::DropConnection(const char* line, const wchar_t* debug) {
  if (debug) Debug(debug);
  CloseURL();
  LogMsg("%s", line);
  return 0;
}

int CHTTPClient::EndAttempt(int result) {
  // The peer can close its side while the file is being closed, so the drain rarely waits.
  HalfClose();
  CloseFile();
  CloseURL();
  return result;
}

void CHTTPClient::SendUpgradeComplete(const char* error) {
  if (!m_pXferBuffer && !EnsureXferBuffer()) return;
  char* out = m_pXferBuffer;
  size_t capacity = m_dwXferCapacity;
  // Bounded pieces: the head always ends with its blank line, however long the texts.
  int n = std::snprintf(out, capacity,
                        "GET HTTP/1.1\r\nCore-name: %.1024s\r\nBundle-rx: %d\r\nHTTP-fallback: "
                        "%d\r\nBundle-transfer: COMPLETE\r\n",
                        Text(m_pszCoreName), static_cast<int>(m_BundleRxBytes.load()),
                        static_cast<int>(m_dwFallBackMode.load()));
  size_t used = n > 0 ? size_t(n) : 0;
  if (error && error[0]) {
    int room = static_cast<int>(capacity - used - 16);
    int m = std::snprintf(out + used, capacity - used, "Error: %.*s\r\n", room, error);
    if (m > 0) used += size_t(m);
  }
  std::snprintf(out + used, capacity - used, "\r\n");
  used += 2;
  LogMsg("%s", out);
  SendData(out, DWORD(used));
  LogMsg("FileTransferConfiglet - CHTTPClient::SendUpgradeComplete - Exiting\r\n");
}

int CHTTPClient::GetChkPntBlk(char* buffer, DWORD& count, DWORD capacity) {
  DWORD held = count;
  if (!buffer || capacity < 8 || held > capacity) return 0;
  auto fill = [&](DWORD target) {
    while (held < target) {
      if (!SocketReadable(m_dwTimeout)) return false;
      if (BytesPending() == 0) Sleep(20);
      int n = 0;
      if (!ReadData(buffer + held, static_cast<int>(target - held), n)) return false;
      held += DWORD(n);
    }
    return true;
  };
  if (!fill(8)) return 0;
  const unsigned char* h = reinterpret_cast<const unsigned char*>(buffer);
  DWORD length = DWORD(h[0]) << 24 | DWORD(h[1]) << 16 | DWORD(h[2]) << 8 | h[3];
  DWORD crc = DWORD(h[4]) << 24 | DWORD(h[5]) << 16 | DWORD(h[6]) << 8 | h[7];
  std::memmove(buffer, buffer + 8, held - 8);
  held -= 8;
  if (length > capacity) return 0;
  if (!fill(length)) return 0;
  FTCCCRC32 check;
  if (check.CalcBufferCRC(buffer, length) != crc) return 0;
  count = held;
  return 1;
}
