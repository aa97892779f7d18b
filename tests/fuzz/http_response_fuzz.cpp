// The HTTP client reads whatever the upgrade server, or anything posing as it, sends back. The
// response is fed through a socket pair, so no network is involved and the end of the bytes is
// seen at once. Whatever the bytes, the client must stay within its buffers and never report a
// file done unless a head announced its length.
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
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "platform/winux.h"
#include "transfer/CHTTPClient.h"

namespace {

// A client whose connection is one end of a socket pair; the other end has said everything it
// has to say and shut its side.
class PairedClient : public CHTTPClient {
 public:
  explicit PairedClient(const std::string& bytes) {
    FUZZ_EXPECT(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_pair) == 0);
    fcntl(m_pair[1], F_SETFL, O_NONBLOCK);
    for (size_t done = 0; done < bytes.size();) {
      ssize_t n = send(m_pair[1], bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    shutdown(m_pair[1], SHUT_WR);
    m_socket = m_pair[0];
    SetTimeout(100);
  }
  ~PairedClient() { close(m_pair[1]); }

 private:
  int m_pair[2];
};

// Whether "name value" appears in the bytes, the value read as the client reads numbers.
bool Announced(const std::string& bytes, const char* name, uint64_t value) {
  for (size_t at = bytes.find(name); at != std::string::npos; at = bytes.find(name, at + 1)) {
    size_t p = bytes.find_first_not_of(" \t", at + std::strlen(name));
    if (p < bytes.size() && bytes[p] >= '0' && bytes[p] <= '9' &&
        std::strtoull(bytes.c_str() + p, nullptr, 10) == value)
      return true;
  }
  return false;
}

void DriveGet(uint8_t options, const std::string& response) {
  static const DWORD kBufferSizes[] = {16384, 1024, 64, 300000};
  PairedClient client(response);
  client.SetPerformChecksum(options & 4);
  client.SetXferBufferSize(kBufferSizes[(options >> 3) & 3]);
  client.SetCoreName("core");
  DeleteFile(L"\\temp\\fuzz.bin");
  if (client.Get(L"/bundle/a.bin", L"\\temp\\fuzz.bin") == 1)
    FUZZ_EXPECT(Announced(response,
                          "Content-Length:", ftcfuzz::Root().ReadFile("\\temp\\fuzz.bin").size()));
}

void DriveCheckPoint(ftcfuzz::Reader& in) {
  DWORD capacity = static_cast<DWORD>(in.Below(4096));
  DWORD held = static_cast<DWORD>(in.Below(capacity + 16));
  std::unique_ptr<char[]> buffer(new char[capacity ? capacity : 1]);
  for (DWORD i = 0; i < held && i < capacity; ++i) buffer[i] = static_cast<char>(in.Byte());
  PairedClient client(in.Rest());
  if (client.GetChkPntBlk(buffer.get(), held, capacity) == 1) FUZZ_EXPECT(held <= capacity);
}

void DriveTexts(const std::string& text) {
  std::wstring url;
  for (unsigned char c : text) url += static_cast<wchar_t>(c < 0xF0 ? c : 0x100 + c);
  std::unique_ptr<wchar_t[]> host(new wchar_t[256]()), path(new wchar_t[256]());
  WORD port = 0;
  if (CHTTPClient().ParseURL(url.c_str(), host.get(), path.get(), &port) == 1)
    FUZZ_EXPECT(wcsnlen(host.get(), 256) < 256 && wcsnlen(path.get(), 256) < 256);
  std::string stamp = text.c_str();
  SYSTEMTIME time;
  GetFileDateTimeFromHeader(&stamp[0], &time);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  CreateDirectory(L"\\temp", nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ftcfuzz::Reader in(data, size);
  uint8_t options = in.Byte();
  if ((options & 3) < 2) DriveGet(options, in.Rest());
  if ((options & 3) == 2) DriveCheckPoint(in);
  if ((options & 3) == 3) DriveTexts(in.Rest());
  return 0;
}
