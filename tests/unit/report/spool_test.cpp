// The message-queue library as the plug-in loads it, and the spool it leaves behind.
#include "xq/spool.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/winux.h"
#include "platform/xq.h"
#include "support/device_root.h"
#include "support/spool_writer.h"
#include "xq/outbox.h"

namespace {

class SpoolTest : public ::testing::Test {
 protected:
  void* Open() {
    void* handle = xq.Open();
    EXPECT_NE(handle, nullptr);
    return handle;
  }
  int32_t Write(void* handle, const char* queue, const std::string& message,
                const char* core = nullptr) {
    return xq.Write(handle, queue, message, core);
  }
  ftctest::DeviceRoot root;
  ftctest::SpoolWriter xq;
  lapi_close_fn close = xq.close;
  lapi_write_fn write = xq.write;
};

TEST_F(SpoolTest, EachWriteIsOneCompleteRecordInSequence) {
  void* h = Open();
  // A document starting with its declaration must stay well-formed in the record file.
  const std::string doc = "<?xml version=\"1.0\"?>\n<a>x &amp; y</a>";
  ASSERT_EQ(Write(h, "QV_CLIENT", doc), 0);
  ASSERT_EQ(Write(h, "QV_Event_DB", "second", "~MASTERXQ"), 0);
  ASSERT_EQ(Write(h, "QV_CLIENT", ""), 0);
  EXPECT_EQ(close(h), 0);

  auto all = ReadSpool(root.path(), "");
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].path, root.path() + "/.winux/spool/QV_CLIENT/0000000001.xml");
  EXPECT_EQ(ftctest::ReadHostFile(all[0].path).rfind(doc + "\n<!--", 0), 0u);
  EXPECT_EQ(all[0].message, doc);
  EXPECT_EQ(all[1].queue + " " + all[1].core + " " + all[1].source + " " + all[1].message,
            "QV_Event_DB ~MASTERXQ UPG_XQ_QUEUE second");
  EXPECT_EQ(all[2].sequence, 2u);
  EXPECT_EQ(all[2].message, "");
  for (const auto& r : all) EXPECT_TRUE(r.complete && r.time.size() == 27) << r.time;
  EXPECT_EQ(ReadSpool(root.path(), "QV_CLIENT").size(), 2u);

  // A counter that fell behind (lost in a crash) never costs an existing record.
  root.WriteFile("/.winux/spool/QV_CLIENT/.sequence", "1\n");
  h = Open();
  ASSERT_EQ(Write(h, "QV_CLIENT", "third"), 0);
  EXPECT_EQ(close(h), 0);
  auto queue = ReadSpool(root.path(), "QV_CLIENT");
  ASSERT_EQ(queue.size(), 3u);
  EXPECT_EQ(queue[1].message + "," + queue[2].message, ",third");
  EXPECT_EQ(queue[2].sequence, 3u);
}

// Delivery empties queues while writers go on: a number it retired is never handed out again,
// not even after the queue's counter was lost.
TEST_F(SpoolTest, RetiredNumbersAreNeverHandedOutAgain) {
  const std::string dir = root.path() + "/.winux/spool/QV_CLIENT";
  void* h = Open();
  for (const char* m : {"m1", "m2", "m3"}) ASSERT_EQ(Write(h, "QV_CLIENT", m), 0);
  std::string error;
  ASSERT_TRUE(xqspool::RetireRecords(root.path(), "QV_CLIENT", {{1, false}, {3, true}}, &error));
  // A record another agent already took counts as retired.
  ASSERT_TRUE(xqspool::RetireRecords(root.path(), "QV_CLIENT", {{2, false}, {1, false}}, &error))
      << error;
  EXPECT_TRUE(ReadSpool(root.path(), "QV_CLIENT").empty());
  EXPECT_EQ(ftctest::ReadHostFile(dir + "/rejected/0000000003.xml").rfind("m3\n<!--", 0), 0u);
  unlink((dir + "/.sequence").c_str());
  ASSERT_EQ(Write(h, "QV_CLIENT", "m4"), 0);

  // Writers racing a retirer: every number is used once, in the writers' order.
  const int kEach = 40;
  std::vector<std::thread> writers;
  for (int t = 0; t < 2; ++t)
    writers.emplace_back([&, t] {
      void* own = Open();
      for (int i = 0; i < kEach; ++i)
        Write(own, "QV_CLIENT", std::to_string(t) + "-" + std::to_string(i));
      close(own);
    });
  std::map<uint64_t, std::string> retired;
  std::atomic<bool> writing{true};
  std::thread retirer([&] {
    for (bool last = false; !last;) {
      last = !writing;
      std::vector<xqspool::Retirement> batch;
      for (const SpoolRecord& r : ReadSpool(root.path(), "QV_CLIENT")) {
        EXPECT_TRUE(retired.emplace(r.sequence, r.message).second) << r.sequence << " reused";
        batch.push_back({r.sequence, false});
      }
      std::string why;
      EXPECT_TRUE(xqspool::RetireRecords(root.path(), "QV_CLIENT", batch, &why)) << why;
    }
  });
  for (auto& w : writers) w.join();
  writing = false;
  retirer.join();
  close(h);
  ASSERT_EQ(retired.size(), size_t(1 + 2 * kEach));
  EXPECT_EQ(retired.begin()->first, 4u);
  EXPECT_EQ(retired.rbegin()->first, uint64_t(4 + 2 * kEach));
  std::map<std::string, int> next;
  for (const auto& [seq, m] : retired) {
    if (seq == 4) continue;
    size_t dash = m.find('-');
    EXPECT_EQ(std::stoi(m.substr(dash + 1)), next[m.substr(0, dash)]++) << m;
  }
}

TEST_F(SpoolTest, RefusedWritesReportFailureAndLeaveNoRecord) {
  void* h = Open();
  uint32_t status = 0;
  struct Case {
    void* handle;
    const char* queue;
    const char* message;
    uint32_t length;
  } cases[] = {
      {nullptr, "Q", "m", 2}, {&status, "Q", "m", 2}, {h, "Q", nullptr, 2}, {h, "Q", "m", 0},
      {h, "", "m", 2},        {h, "..", "m", 2},      {h, "a/b", "m", 2},   {h, nullptr, "m", 2},
  };
  for (const Case& c : cases) {
    EXPECT_NE(
        write(c.handle, 60, 1, 248, 0, 0, &status, c.queue, c.message, c.length, 1, 0, 0, nullptr),
        0)
        << (c.queue ? c.queue : "(null queue)");
  }
  // The queue's folder cannot be made: the write cannot be made durable.
  root.WriteFile("/.winux/spool/Blocked", "not a folder");
  EXPECT_NE(Write(h, "Blocked", "m"), 0);
  EXPECT_EQ(close(h), 0);
  EXPECT_NE(close(h), 0);
  EXPECT_NE(Write(h, "Q", "after close"), 0);
  EXPECT_TRUE(ReadSpool(root.path(), "").empty());
}

// Writers in several processes, several threads each: every record lands once, numbers run
// without gaps and each writer's messages keep their order.
TEST_F(SpoolTest, ConcurrentWritersAcrossProcessesGetDistinctIncreasingNumbers) {
  const int kProcs = 3, kThreads = 3, kEach = 10;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcs; ++p) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      void* h = Open();
      std::atomic<int> failures{0};
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          for (int i = 0; i < kEach; ++i) {
            std::string m = std::to_string(p) + "-" + std::to_string(t) + "-" + std::to_string(i);
            if (Write(h, "QV_Event_DB", m) != 0) ++failures;
          }
        });
      }
      for (auto& th : threads) th.join();
      _exit(failures == 0 ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  auto records = ReadSpool(root.path(), "QV_Event_DB");
  ASSERT_EQ(records.size(), size_t(kProcs * kThreads * kEach));
  std::map<std::string, int> next;
  for (size_t i = 0; i < records.size(); ++i) {
    const std::string& m = records[i].message;
    EXPECT_EQ(records[i].sequence, i + 1);
    size_t dash = m.rfind('-');
    EXPECT_EQ(std::stoi(m.substr(dash + 1)), next[m.substr(0, dash)]++) << m;
  }
  EXPECT_EQ(next.size(), size_t(kProcs * kThreads));
}

TEST(SpoolReader, DamagedRecordsAreMarkedAndStrayFilesIgnored) {
  ftctest::DeviceRoot root;
  root.WriteFile("/.winux/spool/QV_CLIENT/0000000001.xml", "<cut off");
  root.WriteFile("/.winux/spool/QV_CLIENT/0000000002.xml",
                 "abc\n<!--xq-spool time=\"t\" queue=\"QV_CLIENT\" bytes=\"7\"-->\n");
  root.WriteFile("/.winux/spool/QV_CLIENT/.tmp.1.2", "partial");
  root.WriteFile("/.winux/spool/QV_CLIENT/notes.txt", "x");
  auto records = ReadSpool(root.path(), "");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "<cut off");
  EXPECT_FALSE(records[0].complete);
  EXPECT_FALSE(records[1].complete) << "byte count disagrees with the message";
  EXPECT_EQ(FormatSpoolRecord(records[0]),
            "-  QV_CLIENT    message  <cut off  (incomplete record)");
  EXPECT_TRUE(ReadSpool(root.path(), "../QV_CLIENT").empty());
}

// Kinds are read off the document; what is no document is kept whole as a message.
TEST(SpoolReader, DecodesKnownDocumentsAndRefusesBrokenOnes) {
  auto state = [](const std::string& reason) {
    return "<?xml version=\"1.0\"?><DevInfo><Subsystem Name=\"QV_Client\"><Group "
           "Name=\"Ready-to-Work\"><Field Name=\"State\">1</Field>\t<Field Name=\"Reason\">" +
           reason + "</Field></Group></Subsystem></DevInfo>";
  };
  struct Case {
    std::string message, decoded;
  } cases[] = {
      {state("a &amp; b\r\n"), "state 1 a & b\r\n"},
      {state("R&D  "), "state 1 R&D  "},  // a bare ampersand is taken as written
      {state("<disk>"), "message  " + state("<disk>")},
      {"<DevInfo><Group Name=\"errorLogMsg\"><Field Name=\"msgNum\">7</Field></Group></DevInfo>",
       "event 7 "},
      {"plain text", "message  plain text"},
  };
  for (const Case& c : cases) {
    SpoolRecord r;
    r.message = c.message;
    xqspool::DecodeMessage(&r);
    EXPECT_EQ(r.kind + " " + r.code + " " + r.text, c.decoded);
  }
}

}  // namespace
