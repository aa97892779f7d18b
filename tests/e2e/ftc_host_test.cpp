// ftc-host as an operator runs it: exit codes and messages for good, refused and bad jobs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "e2e_support.h"

namespace {

using e2e::HostRun;
using e2e::Launch;

class FtcHost : public ::testing::Test {
 protected:
  FtcHost() : root(0.001) {}
  std::string WriteJob(const std::string& xml) {
    std::string path = root.path() + "/../" + std::to_string(getpid()) + "-job.xml";
    ftctest::WriteHostFile(path, xml);
    jobs.push_back(path);
    return path;
  }
  ~FtcHost() override {
    for (const std::string& j : jobs) unlink(j.c_str());
  }
  std::vector<std::string> Common() {
    return {"--root",       root.path(),
            "--plugin",     ftctest::LibDir() + "/libFileTransferConfiglet.so",
            "--time-scale", "0.001"};
  }
  HostRun RunJob(const std::string& xml) {
    std::vector<std::string> args = {"run", WriteJob(xml)};
    for (const std::string& a : Common()) args.push_back(a);
    return Launch(args);
  }

  ftctest::DeviceRoot root;
  e2e::Bundle bundle;
  std::vector<std::string> jobs;
};

TEST_F(FtcHost, BadJobFilesAndCommandLinesExitTwoWithWhereAndWhy) {
  struct Case {
    const char* xml;
    const char* says;
  } cases[] = {
      {"<DevInfo>\n <Subsystem Name=\"FileTransferConfiglet\">\n  <Field>x</Field>\n"
       " </Subsystem>\n</DevInfo>\n",
       "line 3, column 3: <Field> has no Name"},
      {"<Config/>\n", "must be <DevInfo>"},
      {"", "line 1, column 1"},
  };
  for (const Case& c : cases) {
    HostRun run = RunJob(c.xml);
    EXPECT_EQ(run.exit, 2) << c.xml;
    EXPECT_NE(run.output.find(c.says), std::string::npos) << run.output;
  }
  EXPECT_EQ(Launch({"run", "/nonexistent/job.xml", "--root", root.path()}).exit, 2);
  EXPECT_EQ(Launch({}).exit, 2);
  EXPECT_EQ(Launch({"frobnicate", "--root", root.path()}).exit, 2);
  EXPECT_EQ(Launch({"run", "a.xml", "--time-scale", "fast"}).exit, 2);
}

TEST_F(FtcHost, RunsAJobAndSummarisesIt) {
  bundle.Add("a.bin", ftctest::RandomBytes(300000, 3));
  bundle.Add("b.bin", "bee");
  e2e::Server server(bundle.dir());
  // The job as ftc-bundle writes it, with one field the plug-in does not know.
  std::string xml = e2e::MakeJob(bundle.dir(), server.url());
  const std::string upgrade = "<Group Name=\"Upgrade\"";
  ASSERT_NE(xml.find(upgrade), std::string::npos) << xml;
  xml.replace(xml.find(upgrade), 0, "<Field Name=\"NoSuchField\">x</Field>");
  HostRun run = RunJob(xml);
  EXPECT_EQ(run.exit, 0) << run.output;
  EXPECT_NE(run.output.find("SetField NoSuchField = \"x\" -> 0x822B0003 unknown group or field"),
            std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("outcome:        succeeded"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("files fetched:  2"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("2 match their CRC, 0 damaged"), std::string::npos) << run.output;

  // The same job again: everything is intact, nothing is fetched.
  run = RunJob(xml);
  EXPECT_EQ(run.exit, 0) << run.output;
  EXPECT_NE(run.output.find("files fetched:  0"), std::string::npos) << run.output;
}

TEST_F(FtcHost, AFailedPreflightTestIsARefusal) {
  HostRun run = RunJob(e2e::kRefusedJob);
  EXPECT_EQ(run.exit, 1) << run.output;
  EXPECT_NE(run.output.find("EndGroup Upgrade -> 0xC4111005 a pre-flight test failed"),
            std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("outcome:        refused"), std::string::npos) << run.output;
}

TEST_F(FtcHost, RegistryAndIdentityForOperators) {
  std::vector<std::string> r = {"--root", root.path()};
  auto with = [&](std::vector<std::string> a) {
    a.insert(a.end(), r.begin(), r.end());
    return Launch(a);
  };
  EXPECT_EQ(with({"reg", "set", "HKEY_LOCAL_MACHINE\\SOFTWARE\\T", "Name", "hello"}).exit, 0);
  EXPECT_EQ(with({"reg", "set", "HKLM\\SOFTWARE\\T", "Count", "0x10", "--dword"}).exit, 0);
  EXPECT_EQ(with({"reg", "get", "HKLM\\SOFTWARE\\T", "Name"}).output, "hello\n");
  EXPECT_EQ(with({"reg", "get", "HKLM\\SOFTWARE\\T", "Count"}).output, "16 (REG_DWORD)\n");
  EXPECT_EQ(with({"reg", "get", "HKLM\\SOFTWARE\\T", "Absent"}).exit, 1);
  EXPECT_EQ(with({"reg", "get", "NOPE\\X", "v"}).exit, 2);
  EXPECT_EQ(with({"reg", "set", "HKLM\\X", "v", "twelve", "--dword"}).exit, 2);
  root.WriteIdentity("serial=S123\nhwcfg=AB12\n");
  HostRun id = with({"identity"});
  EXPECT_EQ(id.exit, 0);
  EXPECT_NE(id.output.find("S123"), std::string::npos) << id.output;
  EXPECT_NE(id.output.find("AB12"), std::string::npos) << id.output;
}

}  // namespace
