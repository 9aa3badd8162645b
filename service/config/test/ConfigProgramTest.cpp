#include "zelt/Paths.h"
#include "zelt/fake/TestBus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace zelt {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(ConfigProgramTest, RefusesABadFileServesAGoodOneAndEndsWhenTold) {
  const fake::TestBus bus;
  const std::string root = bus.Folder() / "root";
  setenv("ZELT_ROOT", root.c_str(), 1);

  fake::ChildProcess refused({ZELT_CONFIG}, bus.Folder() / "refused.log");
  EXPECT_EQ(refused.Wait(), 1);
  EXPECT_THAT(refused.Output(), HasSubstr(ConfigFile() + ": cannot be read: No such file"));
  fake::ChildProcess checked({ZELT_CONFIG, "--check", ""}, bus.Folder() / "checked.log");
  EXPECT_EQ(checked.Wait(), 1);
  EXPECT_THAT(checked.Output(), StartsWith(": cannot be read: "));
  fake::ChildProcess version({ZELT_CONFIG, "--version"}, bus.Folder() / "version.log");
  EXPECT_EQ(version.Wait(), 0);
  EXPECT_EQ(version.Output(), KOVA_VERSION "\n");
  fake::ChildProcess good({ZELT_CONFIG, "--check", SAMPLE_CONFIG}, bus.Folder() / "good.log");
  EXPECT_EQ(good.Wait(), 0) << good.Output();

  fake::ChildProcess service({ZELT_CONFIG, "--file", SAMPLE_CONFIG}, bus.Folder() / "config.log");
  ASSERT_TRUE(service.WaitForOutput("Configuration published"));
  EXPECT_TRUE(std::filesystem::exists(ConfigSharedMemoryFile()));
  service.Signal(SIGHUP);
  ASSERT_TRUE(service.WaitForOutput("again"));
  service.Signal(SIGTERM);
  EXPECT_EQ(service.Wait(), 0) << service.Output();
}

}  // namespace
}  // namespace zelt
