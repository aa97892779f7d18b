// Pull-file requests through the loaded plug-in against a scripted HTTP peer, and the server
// address taken from the registry.
#include "engine/pull_file.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/winux.h"
#include "support/device_root.h"
#include "support/helpers.h"
#include "support/plugin_host.h"
#include "support/registry.h"
#include "support/scripted_http_peer.h"

namespace {

using ftctest::Reply;

const char kDest[] = "\\Flash File Store\\pulled\\app.bin";

std::string Narrow(const std::wstring& w) {
  return std::string(w.begin(), w.end());
}

using ftctest::Count;

class PullFile : public ::testing::Test {
 protected:
  PullFile() {
    root.WriteIdentity("hwcfg=AB12CD34\nuniqueid=PULL-DEVICE\n");
    ftctest::PluginHost::ClearSendUps();
  }

  bool WaitForComplete() {
    return ftctest::WaitUntil(
        [&] {
          auto s = ftctest::PluginHost::SentUp("state");
          return !s.empty() && s.back() == "1 File Transfer Complete";
        },
        std::chrono::seconds(20));
  }
  uint32_t Pull(ftctest::PluginHost& host, const std::string& url) {
    return host.Group("PullFile", {{"SrcUrl", url},
                                   {"SrcFile", "pkg\\app.bin"},
                                   {"DestFile", kDest},
                                   {"FileID", "AppBundle"}});
  }

  ftctest::DeviceRoot root;
};

const std::string kBody = "pulled file body\n";
const Reply kCompletionAck = Reply::Raw("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");

// The server is the registered one; the file arrives on the third attempt.
TEST_F(PullFile, SucceedsAfterTwoFailedAttempts) {
  ftctest::ScriptedHttpPeer peer({Reply::Raw("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"),
                                  Reply::Raw("HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n"),
                                  Reply::Ok(kBody, ftctest::ReferenceCrc32(kBody)),
                                  kCompletionAck});
  ASSERT_TRUE(ftctest::SetServerIP(L"127.0.0.1:" + std::to_wstring(peer.Port())));
  ftctest::PluginHost host;
  ASSERT_EQ(Pull(host, "http://%XQ_SERVERIP%:1"), 0u);
  ASSERT_TRUE(WaitForComplete()) << root.Log();

  EXPECT_EQ(root.ReadFile(kDest), kBody);
  std::string log = root.Log();
  EXPECT_EQ(Count(log, "PullFilethread - retrying 1\r\n"), 2);
  EXPECT_EQ(Count(log, "PullFilethread - retrying 2\r\n"), 0);
  EXPECT_EQ(
      Count(log, "PullFileThread - " + Narrow(peer.Url()) + ", pkg\\app.bin, " + kDest + "\r\n"),
      3);
  EXPECT_EQ(Count(log, "PullFilethread - FileXfer Complete\r\n"), 1);
  const std::string dest = kDest;
  EXPECT_EQ(ftctest::Spooled(root, "event"),
            (std::vector<std::string>{"205186 " + dest, "205185 " + dest}));
  EXPECT_EQ(ftctest::PluginHost::SentUp("state"),
            (std::vector<std::string>{"1 Transfering file - " + dest, "1 File Transfer Complete"}));
  // Three fetches of the file, then the completion report on the same private client.
  std::vector<std::string> requests = peer.Requests();
  ASSERT_EQ(requests.size(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_NE(requests[i].find("app.bin"), std::string::npos);
  EXPECT_NE(requests[3].find("Bundle-transfer: COMPLETE"), std::string::npos) << requests[3];
  EXPECT_NE(root.ReadFile("\\temp\\Quovera\\QVSubSystems\\QVBundles.xml").find("AppBundle"),
            std::string::npos);
}

TEST(PullFileServer, TokenIsReplacedByTheRegisteredAddress) {
  const std::wstring tooLong(200, L'a');
  struct Case {
    const wchar_t* value;  // null: no registry value
    const char* url;
    const char* expected;
  } cases[] = {
      {nullptr, "http://%XQ_SERVERIP%:8000", "http://%XQ_SERVERIP%:8000"},
      {L"10.1.2.3", "http://%XQ_SERVERIP%:8000", "http://10.1.2.3:8789"},
      {L"10.1.2.3:9000", "http://%XQ_SERVERIP%", "http://10.1.2.3:9000"},
      {L"http://10.1.2.3:9001/", "%XQ_SERVERIP%", "http://10.1.2.3:9001"},
      {L"10.1.2.3", "http://192.0.2.1:8000", "http://192.0.2.1:8000"},
      // Longer than the 64 characters read: not read, so the URL is left alone.
      {tooLong.c_str(), "http://%XQ_SERVERIP%", "http://%XQ_SERVERIP%"},
  };
  for (const Case& c : cases) {
    ftctest::DeviceRoot root;
    if (c.value) {
      ASSERT_TRUE(ftctest::SetServerIP(c.value));
    }
    char url[256];
    snprintf(url, sizeof url, "%s", c.url);
    SubstituteServerIP(url);
    EXPECT_STREQ(url, c.expected) << c.url;
  }
}

// ftc-host pull drives the same request from the command line and says how it ended.
TEST(PullCommand, ReportsTheOutcomeInItsExitCode) {
  ftctest::ScriptedHttpPeer peer(
      {Reply::Ok(kBody, ftctest::ReferenceCrc32(kBody)), kCompletionAck});
  struct Case {
    std::string url;
    const char* bundle;
    int exitCode;
    const char* said;
  } cases[] = {
      {Narrow(peer.Url()), "AppBundle", 0, "pulled 17 bytes"},
      {"http://127.0.0.1:1", "AppBundle", 1, "pull failed: 10 attempts"},
      {Narrow(peer.Url()), "", 2, "--bundle is required"},
  };
  for (const Case& c : cases) {
    ftctest::DeviceRoot root;
    int status = -1;
    std::string out = ftctest::RunCommand(
        ftctest::BinDir() + "/ftc-host pull --url '" + c.url + "' --file 'pkg\\app.bin' --dest '" +
            kDest + "' --root " + root.path() + " --time-scale 0.001" +
            (c.bundle[0] ? " --bundle " + std::string(c.bundle) : ""),
        &status);
    EXPECT_EQ(status, c.exitCode) << out;
    EXPECT_NE(out.find(c.said), std::string::npos) << out;
    EXPECT_EQ(root.Exists(kDest), c.exitCode == 0) << c.url;
    if (c.exitCode == 0) {
      EXPECT_NE(out.find(std::string("event 205185: ") + kDest), std::string::npos) << out;
    }
  }
}

}  // namespace
