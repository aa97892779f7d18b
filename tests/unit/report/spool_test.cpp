// The message-queue library as the plug-in loads it, and the spool it leaves behind.
#include "xq/spool.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/winux.h"
#include "platform/xq.h"
#include "support/device_root.h"

namespace {

struct XqLib {
  lapi_open_fn open = nullptr;
  lapi_close_fn close = nullptr;
  lapi_write_fn write = nullptr;
};

XqLib LoadXq() {
  setenv("WINUX_LIBRARY_PATH", ftctest::LibDir().c_str(), 1);
  XqLib lib;
  HMODULE module = LoadLibrary(L"xq_clapi_dll");
  if (!module) return lib;
  lib.open = reinterpret_cast<lapi_open_fn>(GetProcAddress(module, L"lapi_open"));
  lib.close = reinterpret_cast<lapi_close_fn>(GetProcAddress(module, L"lapi_close"));
  lib.write = reinterpret_cast<lapi_write_fn>(GetProcAddress(module, L"lapi_write"));
  return lib;
}

void* Open(const XqLib& lib) {
  void* handle = nullptr;
  uint32_t status = 99;
  EXPECT_EQ(lib.open(&handle, "127.0.0.1", "UPG_XQ_QUEUE", 0, 1, 0, 0, &status, 1), 0);
  EXPECT_EQ(status, 0u);
  return handle;
}

int32_t Write(const XqLib& lib, void* handle, const char* queue, const std::string& message,
              const char* core = nullptr) {
  uint32_t status = 0;
  return lib.write(handle, 60, 1, 248, 0, 0, &status, queue, message.c_str(),
                   static_cast<uint32_t>(message.size() + 1), 1, 0, 0, core);
}

class SpoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    lib = LoadXq();
    ASSERT_TRUE(lib.open && lib.close && lib.write) << "libxq_clapi_dll not loadable";
  }
  ftctest::DeviceRoot root;
  XqLib lib;
};

TEST_F(SpoolTest, EachWriteIsOneCompleteRecordInSequence) {
  void* h = Open(lib);
  ASSERT_NE(h, nullptr);
  // A document starting with its declaration must stay well-formed in the record file.
  const std::string doc = "<?xml version=\"1.0\"?>\n<a>x &amp; y</a>";
  ASSERT_EQ(Write(lib, h, "QV_CLIENT", doc), 0);
  ASSERT_EQ(Write(lib, h, "QV_Event_DB", "second", "~MASTERXQ"), 0);
  ASSERT_EQ(Write(lib, h, "QV_CLIENT", ""), 0);
  EXPECT_EQ(lib.close(h), 0);

  auto all = ReadSpool(root.path(), "");
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].message, doc);
  EXPECT_EQ(ftctest::ReadHostFile(all[0].path).rfind(doc, 0), 0u);
  EXPECT_EQ(all[0].path, root.path() + "/.winux/spool/QV_CLIENT/0000000001.xml");
  EXPECT_EQ(all[1].message, "second");
  EXPECT_EQ(all[1].queue, "QV_Event_DB");
  EXPECT_EQ(all[1].core, "~MASTERXQ");
  EXPECT_EQ(all[1].source, "UPG_XQ_QUEUE");
  EXPECT_EQ(all[2].message, "");
  EXPECT_EQ(all[2].sequence, 2u);
  for (const auto& r : all) {
    EXPECT_TRUE(r.complete) << r.path;
    EXPECT_EQ(r.time.size(), 27u) << r.time;
  }
  EXPECT_EQ(ReadSpool(root.path(), "QV_CLIENT").size(), 2u);
}

TEST_F(SpoolTest, RefusedWritesReportFailureAndLeaveNoRecord) {
  void* h = Open(lib);
  ASSERT_NE(h, nullptr);
  uint32_t status = 0;
  struct Case {
    const char* what;
    void* handle;
    const char* queue;
    const char* message;
    uint32_t length;
  } cases[] = {
      {"null handle", nullptr, "Q", "m", 2},    {"foreign handle", &status, "Q", "m", 2},
      {"null message", h, "Q", nullptr, 2},     {"zero length", h, "Q", "m", 0},
      {"empty queue", h, "", "m", 2},           {"queue escaping the spool", h, "..", "m", 2},
      {"queue with a slash", h, "a/b", "m", 2}, {"null queue", h, nullptr, "m", 2},
  };
  for (const Case& c : cases) {
    EXPECT_NE(lib.write(c.handle, 60, 1, 248, 0, 0, &status, c.queue, c.message, c.length, 1, 0, 0,
                        nullptr),
              0)
        << c.what;
  }
  // A queue folder that cannot be made: the write cannot be made durable.
  mkdir((root.path() + "/.winux").c_str(), 0755);
  mkdir((root.path() + "/.winux/spool").c_str(), 0755);
  ftctest::WriteHostFile(root.path() + "/.winux/spool/Blocked", "not a folder");
  EXPECT_NE(Write(lib, h, "Blocked", "m"), 0);

  EXPECT_EQ(lib.close(h), 0);
  EXPECT_NE(lib.close(h), 0) << "second close of the same handle";
  EXPECT_NE(Write(lib, h, "Q", "after close"), 0);
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
      void* h = nullptr;
      uint32_t status = 0;
      lib.open(&h, "127.0.0.1", "UPG_XQ_QUEUE", 0, 1, 0, 0, &status, 1);
      std::vector<std::thread> threads;
      int failures = 0;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          for (int i = 0; i < kEach; ++i) {
            std::string m = std::to_string(p) + "-" + std::to_string(t) + "-" + std::to_string(i);
            if (Write(lib, h, "QV_Event_DB", m) != 0) __atomic_add_fetch(&failures, 1, 0);
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
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  auto records = ReadSpool(root.path(), "QV_Event_DB");
  ASSERT_EQ(records.size(), size_t(kProcs * kThreads * kEach));
  std::map<std::string, int> lastOfWriter;
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].sequence, i + 1);
    EXPECT_TRUE(records[i].complete);
    const std::string& m = records[i].message;
    std::string writer = m.substr(0, m.rfind('-'));
    int n = std::stoi(m.substr(m.rfind('-') + 1));
    auto it = lastOfWriter.find(writer);
    if (it != lastOfWriter.end()) {
      EXPECT_EQ(n, it->second + 1) << m;
    }
    lastOfWriter[writer] = n;
  }
  EXPECT_EQ(lastOfWriter.size(), size_t(kProcs * kThreads));
}

// The writer is killed the moment lapi_write returns: the record is already whole on disk.
TEST_F(SpoolTest, RecordSurvivesKillRightAfterWrite) {
  std::string big(256 * 1024, 'x');
  for (size_t i = 0; i < big.size(); i += 97) big[i] = char('a' + i % 26);
  for (int round = 0; round < 3; ++round) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      void* h = nullptr;
      uint32_t status = 0;
      lib.open(&h, "127.0.0.1", "UPG_XQ_QUEUE", 0, 1, 0, 0, &status, 1);
      if (Write(lib, h, "QV_Event_DB", big + std::to_string(round)) != 0) _exit(1);
      raise(SIGKILL);
      _exit(2);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "write failed";
  }
  auto records = ReadSpool(root.path(), "QV_Event_DB");
  ASSERT_EQ(records.size(), 3u);
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(records[round].complete);
    EXPECT_EQ(records[round].message, big + std::to_string(round));
  }
  // Nothing half-written is left beside the records.
  for (const auto& name : xqspool::ListDir(root.path() + "/.winux/spool/QV_Event_DB"))
    EXPECT_TRUE(name == "." || name == ".." || name == ".sequence" || name.size() == 14) << name;
}

TEST(SpoolReader, DamagedRecordsAreMarkedAndStrayFilesIgnored) {
  ftctest::DeviceRoot root;
  std::string dir = root.path() + "/.winux/spool/QV_CLIENT";
  root.WriteFile("/.winux/spool/QV_CLIENT/0000000001.xml", "<cut off");
  ftctest::WriteHostFile(dir + "/0000000002.xml",
                         "abc\n<!--xq-spool time=\"t\" queue=\"QV_CLIENT\" bytes=\"7\"-->\n");
  ftctest::WriteHostFile(dir + "/.tmp.1.2", "partial");
  ftctest::WriteHostFile(dir + "/notes.txt", "x");
  auto records = ReadSpool(root.path(), "");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_FALSE(records[0].complete);
  EXPECT_EQ(records[0].message, "<cut off");
  EXPECT_FALSE(records[1].complete) << "byte count disagrees with the message";
  EXPECT_NE(FormatSpoolRecord(records[0]).find("(incomplete record)"), std::string::npos);
  EXPECT_TRUE(ReadSpool(root.path(), "../QV_CLIENT").empty());
}

TEST(SpoolReader, FormatsOneReadableLinePerRecord) {
  SpoolRecord r;
  r.queue = "QV_Event_DB";
  r.time = "2026-11-22T04:38:17.123456Z";
  r.complete = true;
  struct Case {
    const char* kind;
    const char* code;
    const char* text;
    const char* expected;
  } cases[] = {
      {"event", "205181", "Demo, 1.0",
       "2026-11-22 04:38:17.123  QV_Event_DB  event 205181  Demo, 1.0"},
      {"state", "4", "two\r\nlines", "2026-11-22 04:38:17.123  QV_Event_DB  state 4  two  lines"},
      {"autodeploy", "101", "", "2026-11-22 04:38:17.123  QV_Event_DB  autodeploy 101"},
      {"message", "", "<a>\n   <b/>\n</a>",
       "2026-11-22 04:38:17.123  QV_Event_DB  message  <a> <b/> </a>"},
  };
  for (const Case& c : cases) {
    r.kind = c.kind;
    r.code = c.code;
    r.text = c.text;
    EXPECT_EQ(FormatSpoolRecord(r), c.expected);
  }
}

}  // namespace
