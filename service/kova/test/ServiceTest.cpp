// The service from its start to its end, and what it reads when it starts.

#include "Bench.h"
#include "KovaService.h"

#include "zelt/InterfaceFactory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <latch>
#include <thread>

namespace zelt {

static bool factory_fails = false;

// Stands for the real factory, which fails only on other platforms.
template <>
std::unique_ptr<ConfigReaderIF> InterfaceFactory::Create<ConfigReaderIF>(std::string_view name) {
  if (factory_fails) {
    throw std::runtime_error("no " + std::string(name));
  }
  return std::make_unique<fake::FakeConfigReader>(std::make_shared<fake::FakeConfig>());
}

namespace test {
namespace {

// --- Start-up values -----------------------------------------------------------------------------

class Configuration : public BenchTest {
 protected:
  Trace Read() {
    context.ReadConfig();
    return journal.Take();
  }
  static std::string Said(const std::string& text) { return Log(6, "ReadConfig", text, 0x8007); }
  const Trace reading = {Said("Reading config")};
};

TEST_F(Configuration, FailureLeavesTheSwitchesAlone) {
  config->errorText = "no block";
  const Trace failed = {Log(3, "ReadConfig", "Failed to get Config, Error: no block", 0x8007)};
  config->error = 2;
  EXPECT_EQ(Read(), reading + failed);
  config->error = 0;
  config->empty_pointer = true;
  EXPECT_EQ(Read(), reading + failed);
}

TEST_F(Configuration, ReaderThatCannotBeMadeIsTriedAgain) {
  KovaContext other(model);
  factory_fails = true;
  other.Init(std::make_unique<orka::fake::FakeRadioProtocol>(), nullptr);
  EXPECT_EQ(journal.Take().back(),
            Log(3, "ReadConfig", "Failed to create config reader, got exception: no ConfigReaderIF",
                0x8010));
  factory_fails = false;
  other.ReadConfig();
  factory_fails = true;
  other.ReadConfig();
  EXPECT_EQ(journal.Take().size(), 6U);
}

TEST_F(Configuration, SecondInitKeepsTheRadio) {
  context.Init(std::make_unique<orka::fake::FakeRadioProtocol>(), nullptr);
  const Trace trace = journal.Take();
  EXPECT_EQ(std::ranges::count(trace, Line("camera", false)), 1);
  EXPECT_EQ(std::ranges::count(trace, Log(3, "ConvertModelToProductId", "Unknown model: ")), 0);
}

TEST_F(Configuration, OnlyExactModelsHaveAProductId) {
  EXPECT_EQ(KovaContext::ConvertModelToProductId("OTTR"), "ZPX");
  EXPECT_EQ(KovaContext::ConvertModelToProductId("CM410"), "C410");
  EXPECT_EQ(journal.Take(), Trace());
  for (const std::string model_text : {"cm410", "CM41", "", "OTTR "}) {
    EXPECT_EQ(KovaContext::ConvertModelToProductId(model_text), "");
    EXPECT_EQ(journal.Take(),
              Trace{Log(3, "ConvertModelToProductId", "Unknown model: " + model_text)});
  }
}

// --- Life ----------------------------------------------------------------------------------------

class PreparedContext : public KovaContext {
 public:
  PreparedContext(const std::shared_ptr<ServiceModel>& model, Journal& journal)
      : KovaContext(model), journal_(journal) {}
  void Init(std::unique_ptr<orka::RadioProtocol> radio,
            std::unique_ptr<TargetAttributesIF> target) override {
    journal_.Add(radio || target ? "init with something" : "init");
    const Trace before = journal_.Take();
    KovaContext::Init(std::make_unique<orka::fake::FakeRadioProtocol>(), nullptr);
    journal_.Take();
    std::ranges::for_each(before, [this](const std::string& line) { journal_.Add(line); });
  }
  void RegisterIpcCallbacks() override {
    journal_.Add("register");
    KovaContext::RegisterIpcCallbacks();
  }
  void Deinit() override {
    journal_.Add("deinit");
    on_deinit();
    KovaContext::Deinit();
  }
  std::function<void()> on_deinit = [] {};

 private:
  Journal& journal_;
};

class Life : public testing::Test {
 protected:
  Life() { factory_fails = false; }
  static std::string Said(const char* function, const char* text) {
    return Log(6, function, text, 0x8027);
  }
  static Trace Banner(const char* function, const char* text) {
    const std::string dashes(41, '-');
    return {Said(function, dashes.c_str()), Said(function, text), Said(function, dashes.c_str())};
  }
  const std::string running = Said("DoRun", "Kova service running..........");
  const std::string dying = Said("DoDie", "Kova sevice is shutting down");

  fake::RootFolder folder;
  Journal journal;
  std::shared_ptr<TracedModel> model = std::make_shared<TracedModel>(journal);
  std::shared_ptr<PreparedContext> context = std::make_shared<PreparedContext>(model, journal);
};

TEST_F(Life, EverythingInItsOrderAndWhatIsQueuedBehindTheStopNeverRuns) {
  folder.File("var/lib/zelt/collaboration_test_key", std::string(60, 'z'));
  KovaService service(model, 1000, context);
  EXPECT_EQ(journal.Take(), Trace{Log(6, "KovaService", "Creating Kova service")});
  std::thread runner([&] { service.DoRun(); });
  ASSERT_TRUE(journal.WaitFor(running));
  EXPECT_EQ(journal.Take(),
            (Trace{Log(6, "DoRun", "Starting KovaService"), "init", "register", Line("state", 5)} +
             Banner("DoRun", " Kova service READY!                    ") + Trace{running}));
  const std::string key = folder.Read("var/lib/zelt/collaboration_test_key");
  EXPECT_EQ(key.size(), 40U);
  EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), std::string::npos);

  std::latch stop_is_queued(1);
  std::vector<int> ran;
  context->TaskQueue().PushAlways([&] { stop_is_queued.wait(); });
  context->TaskQueue().PushAlways([&] { ran.push_back(1); });
  context->TaskQueue().PushAlways([&] {  // still at work when all else is done
    journal.WaitFor(Publish(Status(0)));
    journal.Add("last task");
  });
  context->on_deinit = [&] {
    context->TaskQueue().PushAlways([&] { ran.push_back(2); });
    EXPECT_THROW(context->TaskQueue().Push([] {}, "A", 0), Busy);
    stop_is_queued.count_down();
  };
  service.DoDie();
  runner.join();
  EXPECT_EQ(ran, std::vector{1});
  EXPECT_EQ(journal.Take(),
            (Trace{dying, "deinit", Log(6, "StopRadioProtocol", "Stop RadioProtocol")} +
             State("StopRadioProtocol", "RtConnection status: DISCONNECTED", 0) +
             Trace{"last task", Line("state", 1)} +
             Banner("DoDie", " Kova service SHUTDOWN complete         ")));
}

TEST_F(Life, StopThatComesBeforeTheLoopWaitsForIt) {
  KovaService service(model, 1000, context);
  std::thread stopper([&] { service.DoDie(); });
  ASSERT_TRUE(journal.WaitFor(dying));
  service.DoRun();
  stopper.join();
  const Trace trace = journal.Take();
  EXPECT_LT(std::ranges::find(trace, Line("state", 5)), std::ranges::find(trace, "deinit"));
  EXPECT_EQ(trace.back(), Banner("DoDie", "").back());
}

TEST_F(Life, SupervisorIsToldByTheThreadThatRunsTheTasksOnly) {
  KovaService service(model, 1000, context);
  std::latch entered(1);
  std::latch goes_on(1);
  std::thread runner([&] { service.DoRun(); });
  ASSERT_TRUE(journal.WaitFor(running));
  context->TaskQueue().PushAlways([&] {
    entered.count_down();
    goes_on.wait();
  });
  entered.wait();
  model->Advance(std::chrono::seconds(3));
  EXPECT_EQ(model->TimesAlive(), 0);
  goes_on.count_down();
  service.DoDie();
  runner.join();
  EXPECT_EQ(model->TimesAlive(), 3);
  EXPECT_TRUE(model->PendingTimers().empty());
}

TEST_F(Life, KeyFileThatIsAFifoIsNeitherWaitedForNorWritten) {
  std::filesystem::create_directories(folder.path / "var/lib/zelt");
  const auto path = folder.path / "var/lib/zelt/collaboration_test_key";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const auto open_reader = [&] { return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); };
  for (const bool has_reader : {true, false}) {
    context = std::make_shared<PreparedContext>(model, journal);
    KovaService service(model, 1000, context);
    int reader = has_reader ? open_reader() : -1;
    std::thread runner([&] { service.DoRun(); });
    EXPECT_TRUE(journal.WaitFor(running)) << has_reader;
    reader = has_reader ? reader : open_reader();  // so that it ends in any case
    char byte = 0;
    EXPECT_LE(::read(reader, &byte, 1), 0);
    service.DoDie();
    runner.join();
    close(reader);
    journal.Take();
  }
}

TEST_F(Life, ExceptionOfATaskLeavesTheLoop) {
  KovaService service(model, 1000, context);
  context->TaskQueue().PushAlways([] { throw std::runtime_error("handler"); });
  EXPECT_THROW(service.DoRun(), std::runtime_error);
}

}  // namespace
}  // namespace test
}  // namespace zelt
