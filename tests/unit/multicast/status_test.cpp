// The plug-in's side of multicast reception: status datagrams, the status socket and thread,
// and the launch of the receiver.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "config/UpgradeConfig.h"
#include "engine/job_state.h"
#include "engine/multicast_job.h"
#include "platform/display.h"
#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"
#include "transfer/multicast.h"

namespace {

// Progress and amount big-endian at 2 and 8; bytes 0 and 4 are read but not used.
std::string Datagram(int progress, uint32_t amount, const std::string& text) {
  std::string d(12, '\0');
  d[0] = 1, d[4] = '\x7f', d[2] = char(progress >> 8), d[3] = char(progress);
  for (int i = 0; i < 4; ++i) d[8 + i] = char(amount >> (24 - 8 * i));
  return d + text;
}

// What the registered status display was asked to show.
struct Shown {
  std::mutex lock;
  std::vector<std::string> events;  // "msg:TEXT", "p1:N", "p2:N"

  void Add(const std::string& e) {
    std::lock_guard<std::mutex> g(lock);
    events.push_back(e);
  }
  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> g(lock);
    std::vector<std::string> out;
    out.swap(events);
    return out;
  }
  size_t Count() {
    std::lock_guard<std::mutex> g(lock);
    return events.size();
  }
};

class MulticastStatusThread : public ::testing::Test {
 protected:
  void SetUp() override {
    WinuxStatusDisplay d{};
    d.context = &shown;
    d.message = [](void* c, const char* t) {
      static_cast<Shown*>(c)->Add(std::string("msg:") + t);
    };
    d.progress1 = [](void* c, int p) { static_cast<Shown*>(c)->Add("p1:" + std::to_string(p)); };
    d.progress2 = [](void* c, int p) { static_cast<Shown*>(c)->Add("p2:" + std::to_string(p)); };
    WinuxRegisterStatusDisplay(&d);
    SetTotalBytesToTransfer(200);
    m_dwBytesTransfered = 0;
  }
  void TearDown() override { WinuxRegisterStatusDisplay(nullptr); }

  // Sends one datagram to the status port and waits until the display has seen n events.
  std::vector<std::string> Send(int port, const std::string& bytes, size_t n) {
    ftctest::SendDatagram(port, bytes);
    ftctest::WaitUntil([&] { return shown.Count() >= n; }, std::chrono::seconds(5));
    return shown.Take();
  }

  ftctest::DeviceRoot root;
  Shown shown;
};

TEST_F(MulticastStatusThread, DatagramsDriveTheProgressBars) {
  int port = 0;
  ASSERT_EQ(CreateStatusThreadSocket(&port), 1);
  EXPECT_GE(port, 5655);
  static MCFileDoneFunction fileDone = BumpOverallProgress;
  DWORD id = 0;
  HANDLE thread = CreateThread(nullptr, 0, StatusThread, &fileDone, 0, &id);
  ASSERT_NE(thread, nullptr);
  CloseHandle(thread);

  using V = std::vector<std::string>;
  // A new text resets the item bar before it is shown.
  EXPECT_EQ(Send(port, Datagram(0, 0, "Receiving a.bin"), 3),
            (V{"p1:0", "msg:Receiving a.bin", "p1:0"}));
  // The same text again is not shown again; 99 adds nothing to the overall bar.
  EXPECT_EQ(Send(port, Datagram(99, 50, "Receiving a.bin"), 1), (V{"p1:99"}));
  EXPECT_EQ(Send(port, Datagram(100, 50, "Receiving a.bin"), 2), (V{"p1:100", "p2:25"}));
  EXPECT_EQ(m_dwBytesTransfered.load(), 50u);

  CloseStatusThreadSocket();
  // The thread leaves through its receive error once the socket is shut.
  std::string log = root.Log();
  EXPECT_NE(log.find("FileTransferConfiglet - MCStatusThread - recvfrom got error\r\n"),
            std::string::npos);
}

TEST(MulticastLaunch, StatusPortMovesUpWhenTakenAndTheReceiverLearnsIt) {
  ftctest::DeviceRoot root;
  int taken = 5655;
  int held = ftctest::BoundUdp(&taken);  // already taken by another case is as good
  UpgradeConfig cfg;
  // An option the receiver refuses: Start returns at once.
  cfg.SetMCProcessParms("-Q 1");
  StartMulticastClient(&cfg);

  std::string log = root.Log();
  const std::string head =
      "FileTransferConfiglet - StartMulticastClient - mc.Start, !-Q 1 -UA=127.0.0.1 -UP=";
  size_t at = log.find(head);
  ASSERT_NE(at, std::string::npos) << log;
  int port = atoi(log.c_str() + at + head.size());
  EXPECT_GT(port, 5655);
  EXPECT_LT(port, 5700);
  EXPECT_EQ(log.compare(at + head.size() + std::to_string(port).size(), 3, "!\r\n"), 0);
  EXPECT_NE(log.find("FileTransferConfiglet - StartMulticastClient - Exiting\r\n", at),
            std::string::npos);
  // The status thread has ended and the port is free again.
  int again = port;
  close(ftctest::BoundUdp(&again));
  EXPECT_EQ(again, port);
  close(held);
}

TEST(MulticastLaunch, EmptyParametersStartNothing) {
  ftctest::DeviceRoot root;
  UpgradeConfig cfg;
  StartMulticastClient(&cfg);
  std::string log = root.Log();
  EXPECT_EQ(log.find("mc.Start"), std::string::npos);
  const std::string exiting = "FileTransferConfiglet - StartMulticastClient - Exiting\r\n";
  ASSERT_GE(log.size(), exiting.size());
  EXPECT_EQ(log.substr(log.size() - exiting.size()), exiting);
}

}  // namespace
