#include "LogWriter.h"

#include "zelt/LogClient.h"
#include "zelt/StartThread.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <system_error>
#include <utility>
#include <vector>

namespace zelt {
namespace {

using Clock = LogLimits::Clock;
using std::chrono::milliseconds;

constexpr std::size_t kCapacity = std::size_t{1024} * 1024;
constexpr std::size_t kBatch = std::size_t{16} * 1024;
constexpr milliseconds kPause{2};  // between batches
constexpr milliseconds kFlushTime{500};
constexpr std::size_t kMaxIdentifier = 64;
constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

constinit std::atomic<LogWriter*> g_writer = nullptr;
constinit LogWriter* g_writer_of_parent = nullptr;  // for leak checkers

struct FatalSignal {
  int number;
  struct sigaction previous;
};
std::array<FatalSignal, 6> g_fatal_signals = {
    {{SIGABRT, {}}, {SIGBUS, {}}, {SIGFPE, {}}, {SIGILL, {}}, {SIGSEGV, {}}, {SIGSYS, {}}}};

// Writes what there is, and leaves the rest to whoever had the signal before.
void OnFatalSignal(int number, siginfo_t* info, void* /*context*/) {
  const int error = errno;
  if (LogWriter* const writer = LogWriter::Existing()) {
    writer->FlushInSignalHandler();
  }
  for (const FatalSignal& fatal : g_fatal_signals) {
    if (fatal.number == number) {
      sigaction(number, &fatal.previous, nullptr);
    }
  }
  // A fault comes again by itself, with all that the next handler wants to know.
  if (info->si_code <= 0 || number == SIGABRT || number == SIGSYS) {
    raise(number);
  }
  errno = error;
}

void PrepareForEnds() {
  static const bool once = [] {
    pthread_atfork(nullptr, nullptr, [] {
      if (LogWriter* const writer = g_writer.exchange(nullptr)) {
        g_writer_of_parent = writer;
      }
    });
    struct sigaction action{};
    action.sa_sigaction = &OnFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (FatalSignal& fatal : g_fatal_signals) {
      sigaction(fatal.number, &action, &fatal.previous);
    }
    return true;
  }();
  static_cast<void>(once);
}

// After the destructors of all statics.
[[gnu::destructor]] void FlushAtExit() {
  FlushLog();
}

LogChoice ChoiceOfThisProcess() {
  struct stat standard_error{};
  fstat(STDERR_FILENO, &standard_error);
  return ChooseLogOutputs(std::getenv("ZELT_LOG_JOURNAL"), std::getenv("JOURNAL_STREAM"),
                          standard_error);
}

}  // namespace

LogWriter* LogWriter::Existing() {
  return g_writer.load(std::memory_order_acquire);
}

LogWriter& LogWriter::Get() {
  if (LogWriter* const writer = Existing()) {
    return *writer;
  }
  PrepareForEnds();
  static constinit Mutex mutex;
  const Lock lock(mutex);
  if (Existing() == nullptr) {
    g_writer.store(new LogWriter, std::memory_order_release);
  }
  return *Existing();
}

LogWriter::LogWriter() : outputs_(ChoiceOfThisProcess(), kJournalSocket), queue_(kCapacity) {
  sem_init(&wake_up_, 0, 0);
  SetIdentifier(program_invocation_short_name);
}

void LogWriter::SetIdentifier(std::string_view identifier) {
  const Lock lock(mutex_);
  identifier_.clear();
  AppendEscaped(identifier_, identifier, kMaxIdentifier);
}

void LogWriter::Log(LogEntry entry, std::string_view text) {
  clock_gettime(CLOCK_REALTIME, &entry.time);
  bool wakes = false;
  {
    const Lock lock(mutex_);
    bool admitted = true;
    if (entry.level <= kLogWarning) {
      const Clock::time_point now = Clock::now();
      ReportHeldBack(now);
      admitted = limits_.Admit(entry, text, now);
    }
    if (admitted) {
      Push(entry, text);
    }
    Start();
    // It wakes by itself in time for a report that it knows of.
    wakes = queue_.Used() > sleeps_up_to_ || limits_.NextReport() < sleeps_until_;
    if (wakes) {
      StaysAwake();
    }
  }
  if (wakes) {
    sem_post(&wake_up_);
  }
}

void LogWriter::StaysAwake() {
  sleeps_until_ = {};
  sleeps_up_to_ = kCapacity;
}

void LogWriter::Push(const LogEntry& entry, std::string_view text) {
  queue_.Push(entry, text);
  pushed_.store(queue_.Pushed(), std::memory_order_relaxed);
}

void LogWriter::ReportHeldBack(Clock::time_point now) {
  if (now < limits_.NextReport()) {
    return;
  }
  std::vector<std::pair<LogEntry, std::string>> lines;
  limits_.Report(now, [&](LogEntry entry, std::string_view text, std::uint64_t count) {
    std::string line = "[" + std::to_string(count) + " more like this] " + std::string(text);
    entry.whole_size = line.size();
    entry.size = static_cast<std::uint32_t>(line.size());
    lines.emplace_back(entry, std::move(line));
  });
  for (const auto& [entry, line] : lines) {
    Push(entry, line);
  }
}

void LogWriter::Start() {
  if (is_started_) {
    return;
  }
  try {
    StartThread([this] { Run(); }).detach();
    is_started_ = true;
  } catch (const std::system_error&) {
    return;  // the next line tries again
  }
}

void LogWriter::Run() {
  pthread_setname_np(pthread_self(), "log");
  thread_ = gettid();
  LogQueue::Batch batch;
  std::string identifier;
  for (;;) {
    Clock::time_point until = Clock::now();
    std::uint64_t gone = 0;
    {
      const Lock lock(mutex_);
      ReportHeldBack(until);
      queue_.Take(kBatch, batch);
      gone = queue_.Gone();
      StaysAwake();
      if (batch.bytes.empty()) {
        until = sleeps_until_ = limits_.NextReport();
        sleeps_up_to_ = 0;
      } else if (gone == queue_.Pushed()) {
        until += kPause;
        sleeps_up_to_ = kCapacity / 2;
      }
      identifier = identifier_;
    }
    outputs_.Write(batch, identifier);
    done_.store(gone, std::memory_order_release);
    SleepUntil(until);
  }
}

void LogWriter::SleepUntil(Clock::time_point time) {
  if (time == Clock::time_point::max()) {
    sem_wait(&wake_up_);
    return;
  }
  const auto since_start = time.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(since_start);
  const std::timespec deadline{.tv_sec = seconds.count(),
                               .tv_nsec = std::chrono::nanoseconds(since_start - seconds).count()};
  sem_clockwait(&wake_up_, CLOCK_MONOTONIC, &deadline);
}

void LogWriter::Flush() {
  {
    const Lock lock(mutex_);
    ReportHeldBack(Clock::time_point::max());
  }
  WaitUntilDone(true);
}

void LogWriter::FlushInSignalHandler() {
  if (thread_ != gettid()) {
    WaitUntilDone(false);
  }
}

// Only with what a signal handler may use.
void LogWriter::WaitUntilDone(bool also_for_reader) {
  constexpr std::timespec kNap{.tv_sec = 0, .tv_nsec = 200'000};
  const std::uint64_t wanted = pushed_.load(std::memory_order_relaxed);
  const Clock::time_point end = Clock::now() + kFlushTime;
  sem_post(&wake_up_);
  while (done_.load(std::memory_order_acquire) < wanted && Clock::now() < end &&
         (also_for_reader || !outputs_.IsWaiting())) {
    nanosleep(&kNap, nullptr);
  }
}

void FlushLog() noexcept {
  try {
    if (LogWriter* const writer = LogWriter::Existing()) {
      writer->Flush();
    }
  } catch (const std::exception&) {
    return;
  }
}

}  // namespace zelt
