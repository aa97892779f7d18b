#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "support/device_root.h"
#include "support/helpers.h"
#include "support/scripted_http_peer.h"
#include "transfer/CSocketIO.h"
#include "transfer/FTCCCRC32.h"

namespace {

using Clock = std::chrono::steady_clock;
using ftctest::ElapsedMs;
using ftctest::Reply;

bool ConnectTo(CSocketIO& s, uint16_t port) {
  return s.CreateTcpSocket() && s.SetMode(0) && s.Connect(htonl(INADDR_LOOPBACK), port, 2000);
}

TEST(SocketIO, ConnectFailuresCloseTheSocketAndAreLogged) {
  ftctest::DeviceRoot root;
  CSocketIO none;
  EXPECT_EQ(none.Connect(htonl(INADDR_LOOPBACK), 80, 100), 0);  // no socket yet

  // A port bound but not listening refuses connections, and stays ours for the whole case.
  int holder = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(getsockname(holder, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  uint16_t closedPort = ntohs(addr.sin_port);

  CSocketIO s;
  EXPECT_FALSE(ConnectTo(s, closedPort));
  EXPECT_EQ(s.IsConnected(), 0);
  std::string log = root.ReadFile("/tmp/FileXfer.txt");
  EXPECT_NE(log.find("FileTransferConfiglet - CSocketIO::Connect - Error !111%\r\n"),
            std::string::npos)
      << log;
  close(holder);
}

TEST(SocketIO, WaitsAreBoundedByTheirTimeouts) {
  ftctest::DeviceRoot root;
  // Keeps talking, slowly, whatever the client does.
  Reply chatter;
  chatter.bytes = std::string(400, 'x');
  chatter.chunk = 4;
  chatter.delayMs = 20;
  chatter.noRead = true;
  ftctest::ScriptedHttpPeer quiet({Reply::Raw("")});
  ftctest::ScriptedHttpPeer talker({chatter});

  CSocketIO s;
  ASSERT_TRUE(ConnectTo(s, quiet.Port()));
  auto start = Clock::now();
  EXPECT_EQ(s.SocketReadable(150), 0);
  EXPECT_GE(ElapsedMs(start), 140);
  EXPECT_EQ(s.SocketWriteable(150), 1);

  CSocketIO t;
  ASSERT_TRUE(ConnectTo(t, talker.Port()));
  t.SetDrainTimeout(200);
  start = Clock::now();
  EXPECT_EQ(t.Disconnect(), 1);
  EXPECT_LT(ElapsedMs(start), 1500);  // the peer would talk for 2 s
}

// Whole files are checked by every job; here the empty and the missing one.
TEST(Crc32, FileCrcOfAnEmptyOrMissingFile) {
  ftctest::DeviceRoot root;
  root.WriteFile("\\Flash File Store\\empty.bin", "");
  FTCCCRC32 crc;
  EXPECT_EQ(crc.CalcBufferCRC("123456789", 9), 0xCBF43926u);
  DWORD value = 12345;
  EXPECT_EQ(crc.FileCRC32(L"\\Flash File Store\\empty.bin", value), 0u);
  EXPECT_EQ(value, 0u);
  value = 12345;
  EXPECT_EQ(crc.FileCRC32(L"\\Flash File Store\\missing.bin", value), DWORD(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(value, 0u);
  auto lines = [](const char* middle) {
    return std::string("FTCCCRC32::FileCRC32 - In\r\nFTCCCRC32::FileCRC32 - ") + middle +
           "\r\nFTCCCRC32::FileCRC32 - close file\r\nFTCCCRC32::FileCRC32 - Out\r\n";
  };
  EXPECT_EQ(root.Log(), lines("readFile file") + lines("file open error"));

  DWORD untouched = 77;
  EXPECT_EQ(crc.RAMFileCRC32(L"RAM:x", untouched, 10), 0u);
  EXPECT_EQ(untouched, 77u);
}

}  // namespace
