#include "zelt/ForkAndExec.h"
#include "zelt/fake/LogCapture.h"
#include "zelt/fake/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zelt {
namespace {

using ::testing::EndsWith;

ForkAndExecResult Shell(const std::string& script) {
  return ForkAndExecImpl([&script] { execl("/bin/sh", "sh", "-c", script.c_str(), nullptr); });
}

int ExitCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ProcessTest, StatusTellsHowTheChildEnded) {
  EXPECT_EQ(Shell("exit 0").status, 0);
  EXPECT_EQ(ExitCode(Shell("exit 7").status), 7);
  const int killed = Shell("kill -9 $$").status;
  EXPECT_TRUE(WIFSIGNALED(killed) && WTERMSIG(killed) == SIGKILL);
  const auto absent = ForkAndExecImpl([] { execl("/absent", "absent", nullptr); });
  EXPECT_EQ(ExitCode(absent.status), 127);
  EXPECT_EQ(absent.standardError, "the child failed: exec, errno 2\n");
  EXPECT_EQ(ExitCode(ForkAndExecImpl([] { throw std::runtime_error("x"); }).status), 127);
}

TEST(ProcessTest, MegabytesOnBothOutputsNeitherBlockNorPileUp) {
  const auto result = Shell(
      "head -c 3000000 /dev/zero; echo out; head -c 3000000 /dev/zero >&2; echo err >&2; exit 3");
  EXPECT_EQ(ExitCode(result.status), 3);
  EXPECT_EQ(result.standardOutput.size(), 65536U);
  EXPECT_EQ(result.standardError.size(), 65536U);
  EXPECT_THAT(result.standardOutput, EndsWith("out\n"));
  EXPECT_THAT(result.standardError, EndsWith("err\n"));
}

TEST(ProcessTest, LastLinesOfStandardErrorAreLogged) {
  const fake::LogCapture log;
  Shell("for i in $(seq 25); do echo line $i >&2; done; printf 'no end' >&2");
  ForkAndExecImpl([] { execl("/absent", "absent", nullptr); });
  std::vector<std::string> expected;
  for (int i = 7; i <= 25; ++i) {
    expected.push_back("A child process says: line " + std::to_string(i));
  }
  expected.emplace_back("A child process says: no end");
  expected.emplace_back("A child process says: the child failed: exec, errno 2");
  EXPECT_EQ(log.Texts(kLogWarning), expected);
}

TEST(ProcessTest, ChildThatTakesTooLongIsKilledAndNothingElse) {
  const fake::LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  const auto result = ForkAndExecImpl(
      [] { execl("/bin/sh", "sh", "-c", "sleep 1000 & echo $! $$; exec sleep 1000", nullptr); },
      std::chrono::milliseconds(300));
  EXPECT_TRUE(WIFSIGNALED(result.status) && WTERMSIG(result.status) == SIGKILL);
  EXPECT_EQ(log.Count("Killed a child process that did not end within 300 ms"), 1U);
  pid_t grandchild = 0;
  pid_t child = 0;
  std::istringstream(result.standardOutput) >> grandchild >> child;
  while (kill(child, 0) == 0 &&
         std::chrono::steady_clock::now() < start + std::chrono::minutes(1)) {
    std::this_thread::yield();
  }
  EXPECT_EQ(kill(child, 0), -1) << "it has been reaped";
  EXPECT_EQ(kill(grandchild, SIGTERM), 0) << "has it ended?";
}

// True for one that ends before the process that it is left behind by writes.
class LeftBehind : public testing::TestWithParam<bool> {};

TEST_P(LeftBehind, MayWriteOn) {
  const fake::TempFolder folder;
  const std::string gate = folder.path / "gate";
  const std::string outcome = folder.path / "outcome";
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  ASSERT_EQ(mkfifo(outcome.c_str(), 0600), 0);
  const auto leave_behind = [&] {
    Shell("(read line < " + gate + "; head -c 1000000 /dev/zero && head -c 1000000 /dev/zero >&2;" +
          "echo status $? > " + outcome + ") &");
  };
  if (GetParam()) {
    const pid_t parent = fork();
    if (parent == 0) {
      leave_behind();
      _exit(0);
    }
    waitpid(parent, nullptr, 0);
  } else {
    leave_behind();
  }
  std::ofstream(gate) << "go\n";
  std::string text;
  std::getline(std::ifstream(outcome), text);
  EXPECT_EQ(text, "status 0");
}

INSTANTIATE_TEST_SUITE_P(ParentEnds, LeftBehind, testing::Bool());

// What the child inherited although it should not have, one letter a fault.
void ReportLeaks() {
  const auto report = [](bool leak, char letter) {
    if (leak && write(STDOUT_FILENO, &letter, 1) != 1) {
      _exit(1);
    }
  };
  sigset_t mask;
  struct sigaction action{};
  report(sigprocmask(SIG_BLOCK, nullptr, &mask) != 0 || sigismember(&mask, SIGUSR1) != 0, 'm');
  report(sigaction(SIGPIPE, nullptr, &action) != 0 || action.sa_handler != SIG_DFL, 'h');
  char byte = 0;
  report(read(STDIN_FILENO, &byte, 1) != 0, 'i');
  for (int fd = 3; fd < 1024; ++fd) {
    report(fcntl(fd, F_GETFD) >= 0, 'f');
  }
  _exit(0);
}

TEST(ProcessTest, ChildInheritsNoSignalsAndNoDescriptors) {
  const int leaking = dup(STDERR_FILENO);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  const auto result = ForkAndExecImpl(ReportLeaks);
  std::signal(SIGPIPE, previous);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(leaking);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.standardOutput, "");
}

TEST(ProcessTest, StatusThatCannotBeHadIsMinusOneAndLogged) {
  const fake::LogCapture log;
  const auto previous = std::signal(SIGCHLD, SIG_IGN);  // the kernel reaps
  EXPECT_EQ(Shell("exit 0").status, -1);
  std::signal(SIGCHLD, previous);
  EXPECT_TRUE(log.Contains("Failed to run a child process: ")) << "there is no child to wait for";
}

TEST(ProcessTest, ChildDiesWithItsParent) {
  const fake::TempFolder folder;
  const std::string fifo = folder.path / "alive";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const pid_t parent = fork();
  if (parent == 0) {
    Shell("echo > " + fifo + "; exec sleep 1000 > " + fifo);
    _exit(0);
  }
  char byte = 0;
  const int alive = open(fifo.c_str(), O_RDONLY);
  EXPECT_EQ(read(alive, &byte, 1), 1);
  kill(parent, SIGKILL);
  waitpid(parent, nullptr, 0);
  EXPECT_EQ(read(alive, &byte, 1), 0) << "ends when the last writer is gone";
  close(alive);
}

}  // namespace
}  // namespace zelt
