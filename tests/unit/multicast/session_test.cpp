// A whole job through the loaded plug-in: a real multicast session on loopback delivers what it
// can, and the upgrade server repairs over HTTP only what did not arrive intact.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_support.h"
#include "platform/display.h"
#include "support/scripted_http_peer.h"

namespace {

// The uftp sender of a unicast session on loopback.
std::vector<std::string> SenderArgs(int port, const std::vector<std::string>& files) {
  std::vector<std::string> args = {"uftp",      "-p", std::to_string(port), "-M", "127.0.0.1", "-I",
                                   "127.0.0.1", "-H", "127.0.0.1",          "-R", "100000"};
  args.insert(args.end(), files.begin(), files.end());
  return args;
}

std::vector<std::string> g_messages;
std::mutex g_messagesLock;

class MulticastJob : public ::testing::Test {
 protected:
  MulticastJob() : root(0.001) {
    root.WriteIdentity("hwcfg=AB12CD34\nuniqueid=MC-DEVICE\n");
    WinuxStatusDisplay d{};
    d.message = [](void*, const char* t) {
      std::lock_guard<std::mutex> g(g_messagesLock);
      g_messages.push_back(t);
    };
    WinuxRegisterStatusDisplay(&d);
  }
  ~MulticastJob() override { WinuxRegisterStatusDisplay(nullptr); }

  bool Shown(const std::string& text) {
    std::lock_guard<std::mutex> g(g_messagesLock);
    for (const auto& m : g_messages)
      if (m == text) return true;
    return false;
  }

  // good, damaged and missing .bin files and their list file, made by ftc-bundle.
  void MakeBundle() {
    for (const char* name : {"good.bin", "damaged.bin", "missing.bin"})
      content[name] = ftctest::RandomBytes(40000 + 1000 * content.size(), 7 + content.size());
    for (const auto& [name, bytes] : content) bundle.Add(name, bytes);
    std::string cmd = ftctest::BinDir() + "/ftc-bundle list " + bundle.dir() +
                      " --dest '\\Flash File Store\\mc' --mask 'AB*' >/dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0);
    list = ftctest::ReadHostFile(bundle.dir() + "/filelist.txt");
    ASSERT_NE(list.find("missing.bin,\\Flash File Store\\mc\\missing.bin,AB*,"), std::string::npos)
        << list;
  }

  uint32_t Submit(ftctest::PluginHost& host, uint16_t httpPort, int sessionPort) {
    host.BeginGroup("FileTransferConfiglet");
    host.Group("HTTPServer", {{"IPAddress", "127.0.0.1"},
                              {"HTTPPort", std::to_string(httpPort)},
                              {"BaseURL", "http://127.0.0.1:" + std::to_string(httpPort)}});
    host.Group("FileList", {{"Source", "filelist.txt"},
                            {"Dest", "\\Flash File Store\\mc\\filelist.txt"},
                            {"CRC", std::to_string(ftctest::ReferenceCrc32(list))}});
    host.Group("MulticastClient",
               {{"Parameters", "-D \"\\Flash File Store\\mc\" -P " + std::to_string(sessionPort) +
                                   " -M 127.0.0.1 -I 127.0.0.1 -T 20"}});
    host.SetField("BundleName", "MC");
    host.SetField("Version", "2.0");
    uint32_t rc = host.BeginGroup("Upgrade");
    if (rc == 0) rc = host.EndGroup("Upgrade");
    host.EndGroup("FileTransferConfiglet");
    return rc;
  }

  ftctest::DeviceRoot root;
  e2e::Bundle bundle;  // what the upgrade server holds
  e2e::Bundle sent;    // what the multicast sender holds
  std::map<std::string, std::string> content;
  std::string list;
};

TEST_F(MulticastJob, SessionDeliversAndHttpRepairsOnlyTheRest) {
  MakeBundle();
  // The session carries the list, one intact file and one damaged; the third is never sent.
  std::string damaged = content["damaged.bin"];
  damaged[damaged.size() / 2] ^= 0x5A;
  sent.Add("good.bin", content["good.bin"]);
  sent.Add("damaged.bin", damaged);
  sent.Add("filelist.txt", list);

  e2e::Server server(bundle.dir());
  ftctest::PluginHost host;
  int sessionPort = ftctest::FreeUdpPort();
  ftchost::JobWatch watch(root.path());
  ASSERT_EQ(Submit(host, server.port(), sessionPort), 0u);
  ASSERT_TRUE(ftctest::WaitUntil(
      [&] { return root.Log().find("StartMulticastClient - mc.Start") != std::string::npos; },
      std::chrono::seconds(20)));

  ftctest::Child sender(SenderArgs(
      sessionPort,
      {sent.dir() + "/filelist.txt", sent.dir() + "/good.bin", sent.dir() + "/damaged.bin"}));
  EXPECT_EQ(sender.Wait(std::chrono::seconds(30)), 0);
  ASSERT_EQ(watch.Wait(std::chrono::seconds(60)), ftchost::JobOutcome::kComplete);

  for (const auto& [name, bytes] : content)
    EXPECT_EQ(root.ReadFile("\\Flash File Store\\mc\\" + name), bytes) << name;
  std::string log = root.Log();
  EXPECT_NE(log.find("LoadFileList - multicast list file crc match"), std::string::npos);
  for (const auto& [name, times] :
       {std::pair{"filelist.txt", 0}, {"good.bin", 0}, {"damaged.bin", 1}, {"missing.bin", 1}})
    EXPECT_EQ(ftctest::Count(log, std::string("http fetching !") + name + "!"), times) << name;
  EXPECT_NE(log.find("ValidateFiles - crc mismatch, \\Flash File Store\\mc\\damaged.bin"),
            std::string::npos);
  EXPECT_NE(log.find("ValidateFiles - crc error, no file, \\Flash File Store\\mc\\missing.bin"),
            std::string::npos);
  // The receiver's status datagrams reached the display through the status thread.
  EXPECT_TRUE(Shown("Receiving good.bin"));
  EXPECT_TRUE(Shown("Receiving damaged.bin"));
}

TEST_F(MulticastJob, ProtocolVersionNamesTheReceiver) {
  ftctest::PluginHost host;
  std::string version;
  uint32_t length = 0;
  ASSERT_EQ(host.GetField("Protocol Version", &version, &length), 0u);
  ASSERT_GT(version.size(), 6u);
  EXPECT_EQ(version.rfind("uftpd ", 0), 0u) << version;
  EXPECT_TRUE(isdigit(static_cast<unsigned char>(version[6]))) << version;
  EXPECT_EQ(length, version.size());
  EXPECT_NE(root.Log().find("MCFTP Version = " + version + "\r\n"), std::string::npos);
}

}  // namespace
