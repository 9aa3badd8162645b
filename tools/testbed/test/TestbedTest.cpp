// The whole program, with everything that it starts.

#include "zelt/fake/TestBus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Process = zelt::fake::ChildProcess;
using Words = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr const char* kShow = "echo at=$ZELT_TESTBED=; zeltcli link status";
constexpr const char* kPids = "echo pids $BUS_PID $CONFIG_PID $RADIO_PID $KOVA_PID $KEEPER_PID $$ ";
// Leaves something behind, of which one does not want to end.
constexpr const char* kLeave = "sleep 1000 & a=$!; (trap '' TERM; exec sleep 1000) & b=$!; ";

class Testbed : public testing::Test {
 protected:
  Testbed() { fs::create_directories(folder_); }
  ~Testbed() override { fs::remove_all(folder_); }

  std::unique_ptr<Process> Start(Words words) {
    words.insert(words.begin(), {"env", "TMPDIR=" + folder_.string(), ZELT_TESTBED});
    return std::make_unique<Process>(words, folder_ / (std::to_string(++started_) + ".log"));
  }
  std::unique_ptr<Process> StartShell(Words words, const std::string& script) {
    words.insert(words.end(), {"--", "sh", "-c", script});
    return Start(words);
  }
  // What they left in the folder for such things.
  std::size_t Left() const {
    std::size_t left = 0;
    for (const auto& entry : fs::directory_iterator(folder_)) {
      left += entry.is_directory() ? 1 : 0;
    }
    return left;
  }

  const fs::path folder_ = fs::temp_directory_path() / ("testbed-" + std::to_string(getpid()));

 private:
  int started_ = 0;
};

// The processes of a line of `kPids`, to be asked whether all of them have ended.
class Pids {
 public:
  explicit Pids(const Process& process) {
    std::istringstream line(process.WaitForLine("pids ").substr(5));
    for (pid_t pid = 0; line >> pid;) {
      ends_.push_back({static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0});
    }
  }
  Pids(const Pids&) = delete;
  Pids& operator=(const Pids&) = delete;
  ~Pids() {
    for (const pollfd& end : ends_) {
      close(end.fd);
    }
  }

  std::size_t Count() const { return ends_.size(); }
  // Waits for all of them, but not longer than this: true when they have ended.
  bool HaveEnded(std::chrono::milliseconds longest) {
    const auto deadline = std::chrono::steady_clock::now() + longest;
    return std::ranges::all_of(ends_, [deadline](pollfd& end) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      return end.fd < 0 || poll(&end, 1, std::max(0, static_cast<int>(left.count()))) == 1;
    });
  }

 private:
  std::vector<pollfd> ends_;
};

TEST_F(Testbed, SeveralAtOnceEachWithALinkThatIsUp) {
  const std::string fault = "--fault=drop message=RtVersionResponse";
  const std::unique_ptr<Process> beds[] = {
      StartShell({}, kShow), StartShell({"--serial"}, kShow),
      StartShell({"--keeper", "--radio-option=" + fault},
                 std::string(kShow) + " && "
                                      "zeltcli link keep status && ! zeltcli --timeout 1 version")};
  std::set<std::string> folders;
  for (const auto& bed : beds) {
    EXPECT_EQ(bed->Wait(), 0) << bed->Output();
    EXPECT_TRUE(bed->Output().contains("the link is CONNECTED\n")) << bed->Output();
    folders.insert(bed->WaitForLine("at="));
  }
  EXPECT_TRUE(beds[2]->Output().contains("on: ")) << beds[2]->Output();
  EXPECT_EQ(folders.size(), std::size(beds));
  EXPECT_EQ(Left(), 0U);
}

TEST_F(Testbed, LogsStayWhenTheCommandFails) {
  const std::string kill_kova =
      "; kill -KILL $KOVA_PID; while kill -0 $KOVA_PID 2>/dev/null; do sleep 0.01; done";
  const auto bed = StartShell({}, kShow + kill_kova + "; exit 3");
  EXPECT_EQ(bed->Wait(), 3);
  const std::string at = bed->WaitForLine("at=");
  const fs::path folder = at.substr(3, at.size() - 4);
  EXPECT_TRUE(bed->Output().contains("sh ended with status 3; the logs are in " + folder.string()))
      << bed->Output();
  EXPECT_TRUE(bed->Output().contains("kova had ended with status 137")) << bed->Output();
  EXPECT_GT(fs::file_size(folder / "kova.log"), 0U);
  EXPECT_EQ(Start({"--", "no-such-program"})->Wait(), 127);
  EXPECT_EQ(StartShell({}, "kill -KILL $$")->Wait(), 128 + SIGKILL);
}

// Also what hangs, and what somebody else has started.
TEST_F(Testbed, NothingIsLeftWhenTheCommandEndsOrASignalComes) {
  for (const int signal : {0, SIGTERM, SIGINT}) {
    const std::string end = signal == 0 ? "kill -STOP $RADIO_PID" : "exec sleep 1000";
    const auto bed = StartShell({"--keeper"}, std::string(kLeave) + kPids + "$a $b; " + end);
    Pids pids(*bed);
    ASSERT_EQ(pids.Count(), 8U);
    bed->Signal(signal);
    EXPECT_EQ(bed->Wait(), signal == 0 ? 0 : 128 + signal) << bed->Output();
    EXPECT_TRUE(pids.HaveEnded(0ms)) << signal;
  }
  EXPECT_EQ(Left(), 2U);  // the logs of those that failed
}

TEST_F(Testbed, AKilledOneTakesItsChildrenWithIt) {
  const auto bed = StartShell({"--keeper"}, std::string(kPids) + "; exec sleep 1000");
  Pids pids(*bed);
  bed->Signal(SIGKILL);
  EXPECT_TRUE(pids.HaveEnded(20s));
}

TEST_F(Testbed, WithoutACommandItStaysAndPrintsItsEnvironment) {
  const auto bed = Start({"--no-link", "--folder", (folder_ / "it's").string()});
  bed->WaitForLine("export KOVA_PID=");
  const fs::path log = folder_ / "tool.log";
  const std::string lines = ". \"" + (folder_ / "it's").string() + "/env\"; ";
  Process tool({"sh", "-c", lines + "zeltcli link status; zeltcli link up"}, log);
  EXPECT_EQ(tool.Wait(), 0) << tool.Output();
  EXPECT_TRUE(tool.Output().contains("DISCONNECTED")) << tool.Output();
  bed->Signal(SIGINT);
  EXPECT_EQ(bed->Wait(), 0) << bed->Output();
  EXPECT_TRUE(fs::exists(folder_ / "it's/kova.log"));
  EXPECT_EQ(Left(), 1U);
}

TEST_F(Testbed, SaysWhatDoesNotComeUp) {
  std::ofstream(folder_ / "bad") << "no = \"such key\"\n";
  const auto bed = StartShell({"--config", (folder_ / "bad").string()}, "true");
  EXPECT_EQ(bed->Wait(), 125);
  EXPECT_TRUE(bed->Output().contains("config has ended with status 1")) << bed->Output();
  EXPECT_TRUE(bed->Output().contains("no: unknown key")) << bed->Output();  // the end of its log
  EXPECT_EQ(Start({"--folder", folder_.string()})->Wait(), 125);            // not empty
  EXPECT_EQ(Start({"true"})->Wait(), 125);                                  // no -- before it
}

}  // namespace
