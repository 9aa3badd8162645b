#include "ConfigFile.h"
#include "ConfigService.h"
#include "zelt/InterfaceFactory.h"
#include "zelt/Paths.h"
#include "zelt/fake/FakeServiceModel.h"
#include "zelt/fake/LogCapture.h"
#include "zelt/fake/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace zelt {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ConfigServiceTest : public testing::Test {
 protected:
  ParsedConfig Parse(const std::string& content) const {
    return ReadConfigFile(folder_.File("etc/zelt/config.toml", content));
  }
  // The problems of a file, without the file's name in front.
  std::vector<std::string> Problems(const std::string& content) const {
    std::vector<std::string> problems = Parse(content).problems;
    for (std::string& problem : problems) {
      EXPECT_EQ(problem.find(ConfigFile() + ":"), 0U) << problem;
      problem.erase(0, ConfigFile().size() + 1);
    }
    return problems;
  }

  fake::RootFolder folder_;
  const std::string root_ = folder_.path;
};

TEST_F(ConfigServiceTest, SampleIsReadWhole) {
  const ParsedConfig parsed = ReadConfigFile(SAMPLE_CONFIG);
  EXPECT_THAT(parsed.problems, IsEmpty());
  EXPECT_EQ(Summary(parsed.record),
            "working mode \"Connected\", tethered streaming automatic, tethered uploading never, 2 "
            "officers, current officer 4711");
  EXPECT_TRUE(parsed.record.officers.GetCurrentOfficer().collaborationEnabled);
  EXPECT_STREQ(parsed.record.officers.officers[1].name.data(), "B. Sample");
  EXPECT_FALSE(parsed.record.officers.officers[1].collaborationEnabled);
  EXPECT_EQ(parsed.record.tetheredStreaming, TetheredMode::Automatic);
  EXPECT_EQ(parsed.record.tetheredUploading, TetheredMode::Never);
}

TEST_F(ConfigServiceTest, ConfigurationWithoutCurrentOfficerIsAssignedToNobody) {
  const std::string mode = "working_mode = \"" + std::string(32, 'm') + "\"\n";
  for (const char* officers : {"", "[[officers]]\nid = \"1\"\ncollaboration_enabled = true"}) {
    const ParsedConfig parsed = Parse(mode + "tethered_streaming = \"always\"\n" + officers);
    EXPECT_THAT(parsed.problems, IsEmpty());
    EXPECT_EQ(parsed.record.tetheredStreaming, TetheredMode::Always);
    EXPECT_THAT(Summary(parsed.record), testing::EndsWith(" officers, current officer nobody"));
    EXPECT_FALSE(parsed.record.officers.GetCurrentOfficer().collaborationEnabled);
  }
}

TEST_F(ConfigServiceTest, AllProblemsOfAFileAreToldInItsOrder) {
  EXPECT_THAT(
      Problems("tethered_streaming = \"sometimes\"\n"
               "tethered_uploading = 1\n"
               "working_mode = \"" +
               std::string(33, 'm') +
               "\"\n"
               "colour = \"red\"\n"
               "current_officer = \"3\"\n"
               "[[officers]]\n"
               "id = \"1\"\n"
               "name = \"two\\nlines\"\n"
               "[[officers]]\n"
               "id = \"1\"\n"
               "collaboration_enabled = \"yes\"\n"
               "rank = 1\n"
               "[[officers]]\n"
               "name = \"\\u007f\"\n"
               "[[officers]]\n"
               "id = \"\"\n"),
      ElementsAre(
          R"(1: tethered_streaming: expected "automatic", "never" or "always", found "sometimes")",
          R"(2: tethered_uploading: expected "automatic", "never" or "always", found integer)",
          HasSubstr("3: working_mode: expected a text of 1 to 32 bytes"),
          HasSubstr("4: colour: unknown key, expected one of working_mode,"),
          R"(5: current_officer: expected the id of an officer of this file, found "3")",
          HasSubstr("8: name: expected a text of 0 to 64 bytes without control characters"),
          R"(10: id: expected an id that no other officer has, found "1")",
          R"(11: collaboration_enabled: expected true or false, found "yes")",
          HasSubstr("12: rank: unknown key"), HasSubstr("13: id: missing"),
          HasSubstr("14: name: expected a text"), HasSubstr("16: id: expected a text of 1 to")));
}

TEST_F(ConfigServiceTest, ManyOrLongProblemsDoNotFloodTheReader) {
  std::string content = "working_mode = \"" + std::string(100, 'm') + "\"\n";
  for (int i = 0; i < 1000; ++i) {
    content += "key" + std::to_string(i) + " = 1\n";
  }
  const ParsedConfig parsed = Parse(content + "\"a\\nb\" = 1\n");
  EXPECT_EQ(parsed.problem_count, 1002U);
  ASSERT_EQ(parsed.problems.size(), 21U);
  EXPECT_THAT(parsed.problems[0], testing::EndsWith("found \"" + std::string(80, 'm') + "...\""));
  EXPECT_THAT(parsed.problems[19], HasSubstr(":20: key18: unknown key"));
  EXPECT_EQ(parsed.problems[20], ConfigFile() + ": 982 more problems");
  EXPECT_THAT(Problems("\"a\\nb\" = 1\n").back(), HasSubstr("a?b: unknown key"));
}

TEST_F(ConfigServiceTest, FilesThatAreNoConfigurationAtAll) {
  const std::string mode = "working_mode = \"x\"\n";
  std::string deep = "a";
  for (int i = 0; i < 200000; ++i) {
    deep += ".a";
  }
  for (const std::string& line : {deep + " = 1", "[" + deep + "]", "[[" + deep + "]]"}) {
    EXPECT_THAT(Problems(mode + line), ElementsAre("2: more than 32 dots in a line"));
  }
  EXPECT_THAT(Problems(mode + "\t# " + std::string(100, '.')), IsEmpty());
  EXPECT_THAT(Problems(mode + "a = " + std::string(100000, '[')), ElementsAre(HasSubstr("depth")));
  EXPECT_THAT(Problems(""), ElementsAre(HasSubstr("working_mode: missing")));
  EXPECT_THAT(Problems(mode + "= 3\n"), ElementsAre(HasSubstr("2: ")));
  EXPECT_THAT(Problems(mode + "officers = [1]"), ElementsAre(HasSubstr("[[officers]] sections")));
  std::string crowd = mode;
  for (int id = 0; id < 33; ++id) {
    crowd += "[[officers]]\nid = \"" + std::to_string(id) + "\"\n";
  }
  EXPECT_THAT(Problems(crowd), ElementsAre("66: officers: expected at most 32, found 33"));
  EXPECT_THAT(Problems(std::string(1U << 20U, '\n') + mode),
              ElementsAre(" cannot be read: is larger than 1048576 bytes"));
  ASSERT_EQ(mkfifo((root_ + "/fifo").c_str(), 0600), 0);
  EXPECT_THAT(ReadConfigFile(root_ + "/fifo").problems,
              ElementsAre(HasSubstr("is no regular file")));
  EXPECT_THAT(ReadConfigFile(root_ + "/absent").problems,
              ElementsAre(root_ + "/absent: cannot be read: No such file or directory"));
}

TEST_F(ConfigServiceTest, ServiceThatCannotPublishIsNeverReady) {
  const auto model = std::make_shared<fake::FakeServiceModel>();
  std::ofstream(root_ + "/run").flush();
  ConfigService service(model, ConfigFile(), {});
  EXPECT_THROW(service.DoRun(), std::runtime_error);
  EXPECT_THAT(model->States(), IsEmpty());
}

TEST_F(ConfigServiceTest, BadReloadKeepsTheRecordInForce) {
  const fake::LogCapture log;
  const auto model = std::make_shared<fake::FakeServiceModel>();
  const auto mode = [] {
    const auto result = InterfaceFactory::Create<ConfigReaderIF>("ConfigReaderIF")->Get();
    return std::string(result.record.Lock()->workingMode.data());
  };
  BlockReloadSignal();
  ConfigService service(model, ConfigFile(), Parse("working_mode = \"one\"").record);
  std::jthread runner([&service] { service.DoRun(); });
  ASSERT_TRUE(log.WaitFor("published: working mode \"one\""));
  EXPECT_EQ(mode(), "one");

  Parse("working_mode = 2");
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(log.WaitFor("that is in force stays, because of 1 problem(s)"));
  EXPECT_TRUE(log.Contains("/etc/zelt/config.toml:1: working_mode: expected a text"));
  EXPECT_EQ(mode(), "one");

  Parse("working_mode = \"three\"");
  kill(getpid(), SIGHUP);
  ASSERT_TRUE(log.WaitFor("published: working mode \"three\""));
  EXPECT_EQ(mode(), "three");

  std::filesystem::remove_all(root_ + "/run");
  std::ofstream(root_ + "/run").flush();
  kill(getpid(), SIGHUP);
  EXPECT_TRUE(log.WaitFor("that is in force stays, publishing failed"));

  service.DoDie();
  runner.join();
  EXPECT_THAT(model->States(),
              ElementsAre(service_state::State::Ready, service_state::State::Stopped));
}

}  // namespace
}  // namespace zelt
