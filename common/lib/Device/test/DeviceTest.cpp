#include "zelt/FileSize.h"
#include "zelt/Paths.h"
#include "zelt/RegularFile.h"
#include "zelt/TargetAttributes.h"
#include "zelt/VersionInfo.h"
#include "zelt/fake/LogCapture.h"
#include "zelt/fake/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zelt {
namespace {

class DeviceTest : public testing::Test {
 protected:
  DeviceTest() {
    setenv("ZELT_ROOT", (root_ + "//").c_str(), 1);
    std::filesystem::create_directories(root_ + "/etc/zelt");
  }
  static std::string VersionOf(std::string_view content) {
    std::ofstream(VersionInfoFile()) << content;
    return VersionInfo::GetVersionAndBuildNumberText(VersionInfoFile());
  }

  fake::RootFolder folder_;
  const std::string root_ = folder_.path;
  fake::LogCapture log_;
};

TEST_F(DeviceTest, VersionTextSurvivesAHandEditedFile) {
  EXPECT_EQ(VersionOf("VERSION=1.2.3\nBUILD_NUMBER=77\n"), "1.2.3 build 77");
  EXPECT_EQ(VersionOf("# VERSION=0\r\n VERSION = 1.2#3 # now\r\nother\nBUILD_NUMBER="), "1.2#3");
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_EQ(VersionOf("BUILD_NUMBER=77\n"), "unknown");
  EXPECT_EQ(log_.Count("Software version is unknown: no VERSION in " + VersionInfoFile()), 1U);
}

TEST_F(DeviceTest, UnreadableFilesAreNamed) {
  const std::string path = VersionInfoFile();
  const auto expect_reason = [&](const std::string& reason) {
    EXPECT_EQ(VersionInfo::GetVersionAndBuildNumberText(path), "unknown");
    EXPECT_EQ(log_.Lines().back().text,
              "Software version is unknown: " + path + ": cannot be read: " + reason);
    std::filesystem::remove(path);
  };
  expect_reason("No such file or directory");
  std::filesystem::create_directory(path);
  expect_reason("is no regular file");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expect_reason("is no regular file");
  std::filesystem::create_symlink("/dev/zero", path);
  expect_reason("is no regular file");
  std::ofstream(path).flush();
  std::filesystem::resize_file(path, 65537);
  expect_reason("is larger than 65536 bytes");
  EXPECT_EQ(VersionOf("VERSION=1" + std::string(65536 - 9, '\n')), "1") << "just small enough";

  EXPECT_EQ(TargetAttributes(false).ModelAsString(), "");
  EXPECT_TRUE(log_.Contains(TargetAttributesFile() + ": cannot be read: No such file"));
  EXPECT_THROW(TargetAttributes(true), std::runtime_error);
  std::ofstream(TargetAttributesFile()) << "MODEL=OTTR\n";
  EXPECT_EQ(TargetAttributes(true).ModelAsString(), "OTTR");
}

TEST_F(DeviceTest, OnlyRegularFilesAreSizedReadAndWritten) {
  std::ofstream(root_ + "/image") << "12345";
  std::filesystem::create_symlink("image", root_ + "/link");
  EXPECT_EQ(GetFileSize(root_ + "/link"), 5U);
  EXPECT_TRUE(WriteRegularFile(root_ + "/link", "1\n\r"));
  EXPECT_TRUE(WriteRegularFile(root_ + "/new", ""));
  std::stringstream content;
  content << OpenRegularFile(root_ + "/link").rdbuf();
  EXPECT_EQ(content.str(), "1\n\r");

  std::filesystem::create_symlink("fifo", root_ + "/to-fifo");
  ASSERT_EQ(mkfifo((root_ + "/fifo").c_str(), 0600), 0);
  const int both_ends = open((root_ + "/fifo").c_str(), O_RDWR | O_CLOEXEC);
  for (const std::string& none : {root_ + "/fifo", root_ + "/to-fifo", root_ + "/etc",
                                  std::string("/dev/zero"), root_ + "/absent/file"}) {
    EXPECT_EQ(GetFileSize(none), std::nullopt) << none;
    EXPECT_FALSE(OpenRegularFile(none).is_open()) << none;
    EXPECT_FALSE(WriteRegularFile(none, "x")) << none;
  }
  close(both_ends);
  EXPECT_FALSE(OpenRegularFile(root_ + "/fifo").is_open());  // without a writer it would wait
}

}  // namespace
}  // namespace zelt
