#include "zelt/ForkAndExec.h"
#include "zelt/fake/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <string>

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

TEST(ProcessTest, GrandchildThatKeepsTheOutputsOpenIsNotWaitedFor) {
  const auto result = Shell("sleep 1000 & echo $!");
  const pid_t grandchild = std::stoi(result.standardOutput);
  EXPECT_EQ(kill(grandchild, SIGTERM), 0) << "has it ended?";
}

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
  EXPECT_EQ(log.Count("Failed to run a child process: waitpid: No child processes"), 1U);
}

TEST(ProcessTest, ChildDiesWithItsParent) {
  const std::string fifo = testing::TempDir() + "alive." + std::to_string(getpid());
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
  unlink(fifo.c_str());
}

}  // namespace
}  // namespace zelt
