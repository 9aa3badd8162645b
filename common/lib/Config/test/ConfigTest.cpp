#include "ConfigBlock.h"
#include "zelt/ConfigPublisher.h"
#include "zelt/FileDescriptor.h"
#include "zelt/InterfaceFactory.h"
#include "zelt/Paths.h"
#include "zelt/fake/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace zelt {
namespace {

using ::testing::HasSubstr;

ConfigRecord RecordOf(char mode) {
  ConfigRecord record{};
  record.workingMode.fill(mode);
  record.workingMode.back() = '\0';
  return record;
}

class ConfigTest : public testing::Test {
 protected:
  static ConfigResult Get() {
    return InterfaceFactory::Create<ConfigReaderIF>("ConfigReaderIF")->Get();
  }
  // The working mode's first and last character: they differ when the record is not whole.
  static std::string ModeOf(const ConfigResult& result) {
    const auto access = result.record.Lock();
    return {access->workingMode.front(), access->workingMode[access->workingMode.size() - 2]};
  }
  void Overwrite(std::size_t offset, char byte) const {
    std::fstream file(path_, std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset)).put(byte);
  }
  ConfigBlock::Layout* Map() const {
    const FileDescriptor file(open(path_.c_str(), O_RDWR | O_CLOEXEC));
    return static_cast<ConfigBlock::Layout*>(mmap(
        nullptr, sizeof(ConfigBlock::Layout), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0));
  }
  // Another process takes the lock, does something and dies without a chance to clean up.
  void DieHoldingLock(const std::function<void(ConfigBlock&)>& act) const {
    const pid_t child = fork();
    if (child == 0) {
      const auto block = ConfigBlock::Open(path_).block;
      block->Lock();
      act(*block);
      kill(getpid(), SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(WTERMSIG(status), SIGKILL);
  }

  fake::RootFolder root_;
  std::string path_ = ConfigSharedMemoryFile();
};

TEST_F(ConfigTest, WhatCannotBeReadIsNamed) {
  const auto expect = [this](int error, const std::string& reason) {
    const ConfigResult result = Get();
    EXPECT_FALSE(result.record);
    EXPECT_EQ(result.error, error);
    EXPECT_THAT(result.errorText, HasSubstr(path_ + ": "));
    EXPECT_THAT(result.errorText, HasSubstr(reason));
  };
  expect(ENOENT, "No such file");
  ConfigPublisher publisher(path_);
  expect(ENODATA, "nothing published yet");
  publisher.Publish(RecordOf('a'));
  EXPECT_EQ(Get().errorText, "");
  EXPECT_FALSE(SharedMemoryReadPointer<ConfigRecord>(ConfigBlock::Open(path_).block, nullptr));
  Overwrite(offsetof(ConfigBlock::Layout, version), 9);
  expect(EPROTO, "has layout 9 of");
  Overwrite(offsetof(ConfigBlock::Layout, version), ConfigBlock::kVersion);
  Overwrite(offsetof(ConfigBlock::Layout, size), 9);
  expect(EPROTO, " of " + std::to_string(sizeof(ConfigBlock::Layout) / 256 * 256 + 9) + " bytes");
  Overwrite(offsetof(ConfigBlock::Layout, magic), 'x');
  expect(EINVAL, "wrong magic number");
  std::filesystem::resize_file(path_, sizeof(ConfigBlock::Layout) - 1);
  expect(EINVAL, "bytes or more");
  std::filesystem::remove(path_);
  std::filesystem::create_symlink("elsewhere", path_);
  expect(ELOOP, "is a symbolic link");
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  expect(EISDIR, "Is a directory");
  try {
    const ConfigPublisher second(path_);
    FAIL() << "made a block in place of a directory";
  } catch (const std::runtime_error& failure) {
    EXPECT_THAT(failure.what(), HasSubstr(path_ + ": Is a directory; it cannot be replaced"));
  }
  EXPECT_THROW(InterfaceFactory::Create<ConfigReaderIF>("OtherIF"), std::runtime_error);
}

TEST_F(ConfigTest, SpoiltOfficerListAssignsNobody) {
  OfficerList list{};
  list.officers.fill({.id = {}, .name = {}, .collaborationEnabled = true});
  list.count = 40;
  list.current = 35;
  EXPECT_FALSE(list.GetCurrentOfficer().collaborationEnabled);
}

TEST_F(ConfigTest, DeathOfTheLockHolderLeavesAWholeRecord) {
  // The steps of a writer done before it died, and the record that the next to lock finds.
  const std::array outcomes = {"oo", "oo", "nn", "nn", "nn"};
  ConfigPublisher publisher(path_);
  DieHoldingLock([](ConfigBlock& block) {
    block.Stage(RecordOf('1'));
    block.Commit();
  });
  EXPECT_EQ(ModeOf(Get()), "11") << "the first record, and never published";
  for (std::size_t steps = 0; steps < outcomes.size(); ++steps) {
    SCOPED_TRACE(steps);
    publisher.Publish(RecordOf('o'));
    DieHoldingLock([steps](ConfigBlock& block) {
      if (steps > 0) block.Stage(RecordOf('n'));
      if (steps > 1) block.Commit();
      if (steps == 3) const_cast<ConfigRecord&>(block.Record()).workingMode.front() = 'n';
      if (steps > 3) block.Finish();
    });
    EXPECT_EQ(ModeOf(Get()), outcomes.at(steps));
    publisher.Publish(RecordOf('z'));
    EXPECT_EQ(ModeOf(Get()), "zz");
  }
}

TEST_F(ConfigTest, ReaderKeepsOneConfigurationWhileOthersArePublished) {
  ConfigPublisher publisher(path_);
  publisher.Publish(RecordOf('a'));
  const ConfigResult one = Get();
  publisher.Publish(RecordOf('b'));
  EXPECT_EQ(ModeOf(Get()), "bb");
  ConfigPublisher restarted(path_);
  EXPECT_EQ(ModeOf(Get()), "bb");
  restarted.Publish(RecordOf('c'));
  publisher.Publish(RecordOf('d'));
  EXPECT_EQ(ModeOf(Get()), "dd") << "the block was taken over, not replaced";
  std::filesystem::remove(path_);
  EXPECT_EQ(ModeOf(one), "aa");
}

// What happens in a process with a file system of its own for the block, with one page of room.
class FullFileSystem : public ConfigTest {
 protected:
  // `act` gives a text; "" when all went well.
  static std::string InChild(const std::function<std::string()>& act) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    const pid_t child = fork();
    if (child == 0) {
      const std::string text = act();
      _exit(write(ends[1], text.data(), text.size()) < 0 ? 1 : 0);
    }
    close(ends[1]);
    std::string text(1000, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(read(ends[0], text.data(), 1000), 0)));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0 ? text : "ended with " + std::to_string(status);
  }
  std::string Mount() const {
    const std::string folder = std::filesystem::path(path_).parent_path();
    std::filesystem::create_directories(folder);
    const bool done = unshare(CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) == 0 &&
                      mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=4k") == 0;
    return done ? "" : "no right to mount: " + std::string(std::strerror(errno));
  }
};

TEST_F(FullFileSystem, IsToldAndLeavesNothingBehind) {
  if (const std::string why = InChild([this] { return Mount(); }); !why.empty()) {
    GTEST_SKIP() << why;
  }
  EXPECT_THAT(InChild([this]() -> std::string {
                Mount();
                try {
                  ConfigPublisher{path_};
                  return "published";
                } catch (const std::runtime_error& error) {
                  const auto folder = std::filesystem::path(path_).parent_path();
                  return std::filesystem::is_empty(folder) ? error.what() : "left a file";
                }
              }),
              HasSubstr(path_ + ": No space left on device"));
  EXPECT_THAT(InChild([this] {
                Mount();
                std::ofstream(path_).flush();
                std::filesystem::resize_file(path_, sizeof(ConfigBlock::Layout));
                return Get().errorText;
              }),
              HasSubstr(path_ + ": cannot be mapped: No space left on device"));
}

TEST_F(ConfigTest, BlockOfAStrangerIsRefusedAndReplaced) {
  ConfigPublisher(path_).Publish(RecordOf('a'));
  if (chown(path_.c_str(), 4711, static_cast<gid_t>(-1)) != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  EXPECT_EQ(Get().error, EPERM);
  EXPECT_THAT(Get().errorText, HasSubstr(path_ + ": belongs to user 4711, expected root, user 0"));
  const std::string folder = std::filesystem::path(path_).parent_path();
  ASSERT_EQ(chown(folder.c_str(), 4711, static_cast<gid_t>(-1)), 0);
  EXPECT_EQ(Get().error, 0) << "the owner of the folder is none";
  ASSERT_EQ(chown(folder.c_str(), 0, static_cast<gid_t>(-1)), 0);
  ConfigPublisher(path_).Publish(RecordOf('b'));
  EXPECT_EQ(ModeOf(Get()), "bb");
  EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms{0660});
}

TEST_F(ConfigTest, LockThatIsHeldEndsTheWait) {
  ConfigPublisher(path_).Publish(RecordOf('a'));
  const auto block = ConfigBlock::Open(path_).block;
  block->Lock();
  const ConfigResult result = std::async(std::launch::async, Get).get();
  EXPECT_EQ(result.error, ETIMEDOUT);
  EXPECT_THAT(result.errorText, HasSubstr(path_ + ": cannot lock"));
  EXPECT_THAT(result.errorText, HasSubstr("within 1 s"));
  try {
    const ConfigPublisher second(path_);
    FAIL() << "this thread holds it already";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EDEADLK);
  }
  block->Unlock();
}

// The other process lets go as soon as somebody waits, which the kernel marks in the lock.
TEST_F(ConfigTest, LockIsPassedOnToAWaitingProcess) {
  ConfigPublisher(path_).Publish(RecordOf('a'));
  auto* const layout = Map();
  const std::atomic_ref<int> lock(*reinterpret_cast<int*>(&layout->mutex));
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    const auto block = ConfigBlock::Open(path_).block;
    block->Lock();
    while ((static_cast<unsigned>(lock.load()) & FUTEX_WAITERS) == 0) {
      sched_yield();
    }
    block->Unlock();
    _exit(0);
  }
  while (lock.load() == 0) {
    sched_yield();
  }
  EXPECT_EQ(Get().errorText, "");
  waitpid(child, nullptr, 0);
  munmap(layout, sizeof(ConfigBlock::Layout));
}

TEST_F(ConfigTest, BlockBeyondRepairIsReportedAndReplaced) {
  const ConfigPublisher publisher(path_);
  // Whoever recovers the lock dies in turn, before it has declared the block sound.
  DieHoldingLock([](ConfigBlock&) {});
  auto* const layout = Map();
  ASSERT_EQ(pthread_mutex_lock(&layout->mutex), EOWNERDEAD);
  pthread_mutex_unlock(&layout->mutex);
  munmap(layout, sizeof(ConfigBlock::Layout));

  EXPECT_EQ(Get().error, ENOTRECOVERABLE);
  ConfigPublisher(path_).Publish(RecordOf('a'));
  EXPECT_EQ(ModeOf(Get()), "aa");
}

}  // namespace
}  // namespace zelt
