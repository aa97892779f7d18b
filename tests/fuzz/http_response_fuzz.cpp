// The HTTP client reads whatever the upgrade server, or anything posing as it, sends back. The
// response is fed through a socket pair so no network is involved and the end of the bytes is
// seen at once. Whatever the bytes, the client must stay within its buffers and never report a
// file done unless it has the length and (with checksums on) the CRC-32 a head announced.
//
// Input: one byte choosing what to drive and how, then:
//   Get: the response bytes;
//   check-point block: a capacity byte, a byte count already held, those bytes, then the stream;
//   URL and timestamp texts: the text.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/winux.h"
#include "support/scripted_http_peer.h"
#include "transfer/CHTTPClient.h"

namespace {

const wchar_t kLocal[] = L"\\temp\\fuzz.bin";

// A client whose connection is one end of a socket pair.
class PairedClient : public CHTTPClient {
 public:
  void Adopt(int fd) { m_socket = fd; }
};

// The peer end: everything it has to say is queued, then its side is shut.
int Feed(const std::string& bytes) {
  int pair[2];
  FUZZ_EXPECT(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
  int big = 1 << 20;
  setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
  setsockopt(pair[0], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  fcntl(pair[1], F_SETFL, O_NONBLOCK);
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = send(pair[1], bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  shutdown(pair[1], SHUT_WR);
  return pair[0] | pair[1] << 16;
}

// Every value announced after name anywhere in the bytes, read as the client reads numbers.
std::set<uint64_t> Announced(const std::string& bytes, const char* name) {
  std::set<uint64_t> values;
  size_t n = std::strlen(name);
  for (size_t at = bytes.find(name); at != std::string::npos; at = bytes.find(name, at + 1)) {
    size_t p = at + n;
    while (p < bytes.size() && (bytes[p] == ' ' || bytes[p] == '\t')) ++p;
    uint64_t v = 0;
    bool digits = false;
    for (; p < bytes.size() && bytes[p] >= '0' && bytes[p] <= '9' && v < (1ull << 40); ++p) {
      v = v * 10 + static_cast<uint64_t>(bytes[p] - '0');
      digits = true;
    }
    if (digits) values.insert(v);
  }
  return values;
}

// What the plug-in logged since the last call.
std::string NewLog() {
  static std::streamoff seen = 0;
  std::ifstream log(ftcfuzz::Root().HostPath("/tmp/FileXfer.txt"), std::ios::binary);
  log.seekg(0, std::ios::end);
  std::streamoff end = log.tellg();
  if (!log || end < 0) return "";
  if (end < seen) seen = 0;
  std::string text(static_cast<size_t>(end - seen), '\0');
  log.seekg(seen);
  log.read(&text[0], static_cast<std::streamsize>(text.size()));
  seen = end;
  return text;
}

void DriveGet(uint8_t options, const std::string& response) {
  static const DWORD kBufferSizes[] = {16384, 1024, 64, 300000};
  bool checksum = options & 4;
  int fds = Feed(response);
  int peer = fds >> 16;
  {
    PairedClient client;
    client.SetTimeout(100);
    client.SetPerformChecksum(checksum);
    client.SetXferBufferSize(kBufferSizes[(options >> 3) & 3]);
    client.SetCoreName("core");
    client.Adopt(fds & 0xFFFF);
    DeleteFile(kLocal);
    NewLog();
    if (client.Get(L"/bundle/a.bin", kLocal) == 1) {
      std::string file = ftcfuzz::Root().ReadFile("\\temp\\fuzz.bin");
      FUZZ_EXPECT(Announced(response, "Content-Length:").count(file.size()) == 1);
      // An empty body, or one whole in the first read, is taken unchecked; the engine checks
      // the file against its list later.
      bool firstFrame = NewLog().find("file complete in first frame") != std::string::npos;
      if (checksum && !firstFrame && !file.empty())
        FUZZ_EXPECT(Announced(response, "Content-CRC32:").count(ftctest::ReferenceCrc32(file)) ==
                    1);
    }
  }
  close(peer);
}

void DriveCheckPoint(ftcfuzz::Reader& in) {
  DWORD capacity = static_cast<DWORD>(in.Below(4096));
  DWORD held = static_cast<DWORD>(in.Below(capacity + 16));
  std::unique_ptr<char[]> buffer(new char[capacity ? capacity : 1]);
  for (DWORD i = 0; i < held && i < capacity; ++i) buffer[i] = static_cast<char>(in.Byte());
  int fds = Feed(in.Rest());
  {
    PairedClient client;
    client.SetTimeout(100);
    client.Adopt(fds & 0xFFFF);
    DWORD count = held;
    if (client.GetChkPntBlk(buffer.get(), count, capacity) == 1) FUZZ_EXPECT(count <= capacity);
  }
  close(fds >> 16);
}

void DriveTexts(const std::string& text) {
  std::wstring url;
  for (unsigned char c : text) url += static_cast<wchar_t>(c < 0xF0 ? c : 0x100 + c);
  std::unique_ptr<wchar_t[]> host(new wchar_t[256]()), path(new wchar_t[256]());
  WORD port = 0;
  CHTTPClient client;
  if (client.ParseURL(url.c_str(), host.get(), path.get(), &port) == 1) {
    FUZZ_EXPECT(wcsnlen(host.get(), 256) < 256);
    FUZZ_EXPECT(wcsnlen(path.get(), 256) < 256);
  }
  std::string stamp = text.c_str();
  SYSTEMTIME time;
  GetFileDateTimeFromHeader(&stamp[0], &time);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ftcfuzz::Root();
  CreateDirectory(L"\\temp", nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  uint8_t options = in.Byte();
  switch (options & 3) {
    case 0:
    case 1:
      DriveGet(options, in.Rest());
      break;
    case 2:
      DriveCheckPoint(in);
      break;
    case 3:
      DriveTexts(in.Rest());
      break;
  }
  return 0;
}
