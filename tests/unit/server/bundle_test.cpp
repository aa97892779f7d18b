// ftc-bundle's list and job files, read the way the plug-in reads them.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/device_root.h"
#include "support/helpers.h"
#include "support/scripted_http_peer.h"

namespace {

std::string Bundle(const std::string& args, int* status) {
  return ftctest::RunCommand(ftctest::BinDir() + "/ftc-bundle " + args, status);
}

class BundleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = root.path() + "/Demo";
    std::filesystem::create_directories(dir + "/os/sub");
    ftctest::WriteHostFile(dir + "/os/sub/app.bin", "123456789");
    ftctest::WriteHostFile(dir + "/read me.txt", "hello");
  }
  ftctest::DeviceRoot root;
  std::string dir;
};

TEST_F(BundleTest, ListFileHasOneEntryPerFileInTheDeviceFormat) {
  int status = -1;
  std::string out =
      Bundle("list '" + dir + "' --dest '\\Flash File Store\\Demo\\' --mask 'AB?D*'", &status);
  ASSERT_EQ(status, 0) << out;
  std::string list = ftctest::ReadHostFile(dir + "/filelist.txt");
  // source, destination, masks, CRC, size; sources are URL paths the server decodes again.
  EXPECT_EQ(list,
            "os/sub/app.bin,\\Flash File Store\\Demo\\os\\sub\\app.bin,AB?D*,3421780262,9\r\n"
            "read%20me.txt,\\Flash File Store\\Demo\\read me.txt,AB?D*," +
                std::to_string(ftctest::ReferenceCrc32("hello")) + ",5\r\n");
  EXPECT_NE(out.find(std::to_string(ftctest::ReferenceCrc32(list))), std::string::npos) << out;
  // Listing again does not list the list file.
  Bundle("list '" + dir + "' --dest '\\Flash File Store\\Demo\\' --mask 'AB?D*'", &status);
  EXPECT_EQ(ftctest::ReadHostFile(dir + "/filelist.txt"), list);
}

TEST_F(BundleTest, RefusesWhatTheDeviceCannotRepresent) {
  int status = -1;
  ftctest::WriteHostFile(dir + "/a,b.bin", "x");
  Bundle("list '" + dir + "' --dest '\\D'", &status);
  EXPECT_EQ(status, 1);
  std::filesystem::remove(dir + "/a,b.bin");
  Bundle("list '" + dir + "' --dest '\\" + std::string(250, 'p') + "'", &status);
  EXPECT_EQ(status, 1);
  Bundle("list '" + dir + "' --dest '\\D' --mask 'a,b'", &status);
  EXPECT_EQ(status, 2);
  Bundle("job '" + dir + "' --server http://127.0.0.1 --dest '\\D'", &status);
  EXPECT_EQ(status, 2);  // the plug-in needs an explicit port
}

// ftc-host runs the job file end to end; here its escaping and its list form.
TEST_F(BundleTest, JobFileEscapesItsTextsOrNamesTheListInsteadOfTheFiles) {
  int status = -1;
  std::string out = Bundle("job '" + dir + "' --server http://127.0.0.1:8789 --dest '\\FFS' " +
                               "--bundle 'R&D' --version 2.1",
                           &status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_NE(out.find("<Field Name=\"Source\">read%20me.txt</Field>"), std::string::npos) << out;
  EXPECT_NE(out.find("<Field Name=\"BundleName\">R&amp;D</Field>"), std::string::npos) << out;

  // With a list file, the job names the list and leaves the files to it.
  ASSERT_EQ((Bundle("list '" + dir + "' --dest '\\FFS'", &status), status), 0);
  std::string list = ftctest::ReadHostFile(dir + "/filelist.txt");
  out =
      Bundle("job '" + dir + "' --server http://127.0.0.1:8789 --dest '\\FFS' --list filelist.txt",
             &status);
  ASSERT_EQ(status, 0) << out;
  EXPECT_NE(
      out.find("<Group Name=\"FileList\">\n      <Field Name=\"Source\">filelist.txt</Field>\n"
               "      <Field Name=\"Dest\">\\FFS\\filelist.txt</Field>\n"
               "      <Field Name=\"CRC\">" +
               std::to_string(ftctest::ReferenceCrc32(list)) + "</Field>"),
      std::string::npos)
      << out;
  EXPECT_EQ(out.find("Download"), std::string::npos);
  EXPECT_NE(out.find("<Field Name=\"BundleName\">Demo</Field>"), std::string::npos);
}

}  // namespace
