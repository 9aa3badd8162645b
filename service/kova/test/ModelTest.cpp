// Random requests, right and wrong answers, expiring timers, failing sends and a link that comes
// and goes, against a small model of what the bridge should do (what it should say of it stands in
// the stories). The seed is printed; KOVA_TEST_SEED sets it.

#include "Bench.h"

#include <sys/stat.h>

#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <random>

namespace zelt::test {
namespace {

using orka::qrx::Result;

// The fields that request and reply share, each with a value of its own.
template <class T>
T Filled(std::uint32_t id) {
  T message;
  message.set_file_name("f" + std::to_string(id));
  message.set_request_id(id);
  message.set_file_size(id + 20);
  message.set_overwrite(id % 2 == 1);
  if constexpr (requires { message.set_append(true); }) {
    message.set_offset(id + 30);
    message.set_append(id % 2 == 0);
    message.set_compressed(id % 3 == 0);
  } else {
    message.set_file_type(id + 30);
    message.set_temporary(id % 3 == 0);
  }
  return message;
}

// The two kinds of files that the radio asks for.
struct WriteKind {
  using Request = Kova::FileAccessWriteRequest;
  using Response = Kova::FileAccessWriteResponse;
  static constexpr std::uint32_t kNotification = 38;
  static constexpr std::size_t kAlternative = 26;
  static constexpr std::uint32_t kFailure = 19;
  static constexpr const char* kTimer = "File access write response timer";
};
struct CreateKind {
  using Request = Kova::FileAccessCreateRequest;
  using Response = Kova::FileAccessCreateResponse;
  static constexpr std::uint32_t kNotification = 40;
  static constexpr std::size_t kAlternative = 27;
  static constexpr std::uint32_t kFailure = 8;
  static constexpr const char* kTimer = "File access create response timer";
};

struct Guard {
  double due = 0;
  int number = 0;
  std::string name;
  std::function<void()> expiry;
  bool fired = false;
};

struct Model {
  enum class State : std::uint8_t { Idle, Asked, Sending, Completed };
  struct Transfer {
    State state = State::Idle;
    std::string target;
    std::string unread;
    std::size_t size = 0;
    std::uint16_t chunk = 0;
  };

  // --- Time

  void Start(const std::string& guarded, const std::string& name, std::function<void()> expiry) {
    trace.push_back(Timer(name));
    guards[guarded] = {now + 5, ++guards_set, name, std::move(expiry)};
  }
  // What is guarded by the timers that have not fired, up to a time, in the order of firing.
  auto Due(double until) const {
    std::map<std::pair<double, int>, std::string> due;
    for (const auto& [guarded, guard] : guards) {
      if (!guard.fired && guard.due <= until) {
        due[{guard.due, guard.number}] = guarded;
      }
    }
    return due;
  }
  void Wait(double seconds) {
    now += seconds;
    for (const auto& [when, guarded] : Due(now)) {
      guards[guarded].fired = true;
      queue.emplace_back([this, guarded, number = when.second] {
        const auto guard = guards.find(guarded);
        if (guard != guards.end() && guard->second.number == number) {
          std::function(guard->second.expiry)();
        }
      });
    }
  }
  Trace PendingTimers() const {
    Trace names;
    for (const auto& [when, guarded] : Due(1e9)) {
      names.push_back(guards.at(guarded).name);
    }
    return names;
  }
  Trace Drain() {
    for (; !queue.empty(); queue.pop_front()) {
      queue.front()();
    }
    return std::exchange(trace, {});
  }

  // --- Who asked

  bool Remember(const std::string& sender, std::uint64_t request) {
    const bool is_tool = sender.starts_with("zeltcli-");
    if (is_tool) {
      tool = {sender, request};
    }
    return is_tool;
  }
  bool AnswerTool(const MessageLite& message) {
    const auto [name, request] = std::exchange(tool, {});
    if (!name.empty()) {
      trace.push_back(Answer(name, request, message));
    }
    return !name.empty();
  }
  void AskDate(const std::string& sender, std::uint64_t request) {
    if (!Remember(sender, request)) {
      date_asker = sender;
    }
    trace.push_back(Radio(24, 1, Kova::GetDateTimeReq()));
  }
  void Date() {
    if (!AnswerTool(Kova::GetDateTimeResp()) && !date_asker.empty()) {
      trace.push_back(Send(std::exchange(date_asker, ""), Kova::GetDateTimeResp()));
    }
  }

  // --- Firmware

  // `image` is what of it can be sent; nothing when it cannot be opened or has no size.
  void AskFirmware(const std::string& sender, std::uint64_t request, const std::string& target,
                   const std::optional<std::string>& image) {
    Remember(sender, request);
    if (!image) {
      Finish(1);
      return;
    }
    firmware = {State::Asked, target, *image, image->size(), firmware.chunk};
    const auto size = static_cast<std::uint32_t>(image->size());
    trace.push_back(Radio(29, 0, orka::qrx::FileAccessRequest{1, 2, size, target}));
    Start("access", "File Access timer", [this] { Abort(); });
  }
  void Access(const orka::qrx::FileAccessResponse& answer) {
    if (firmware.state != State::Asked || answer.file_name != firmware.target ||
        answer.file_size != firmware.size) {
      return;
    }
    guards.erase("access");
    if (answer.result != Result::Success) {
      Abort();
      return;
    }
    firmware.state = State::Sending;
    firmware.chunk = 0;
    NextChunk();
  }
  void NextChunk() {
    const std::string data = firmware.unread.substr(0, limit);
    if (data.empty()) {
      Abort();
      return;
    }
    firmware.unread.erase(0, data.size());
    trace.push_back(Chunk(firmware.chunk, data));
    Start("chunk", "Transfer data timer", [this] { Abort(); });
  }
  void Acknowledge(const orka::qrx::TransferDataResponse& answer) {
    if (firmware.state != State::Sending || answer.chunk_number != firmware.chunk) {
      return;
    }
    guards.erase("chunk");
    if (answer.result != Result::Success) {
      Abort();
    } else if (!firmware.unread.empty()) {
      ++firmware.chunk;
      NextChunk();
    } else {
      firmware.state = State::Completed;
      Finish(0);
    }
  }
  void Abort() {
    firmware = {};
    Finish(1);
  }
  void Finish(std::uint32_t result) {
    Kova::TransferFirmwareResponse outcome;
    outcome.set_result(result);
    if (!AnswerTool(outcome)) {
      trace.push_back(Send("Upgrade", outcome));
    }
  }

  // --- Files that the radio asks for

  template <class Kind>
  void AskFile(std::uint32_t id) {
    trace.push_back(Publish(Filled<typename Kind::Request>(id)));
    pending[Kind::kTimer] = id;
    Start(Kind::kTimer, Kind::kTimer, [this] {
      auto failure = Filled<typename Kind::Response>(std::exchange(pending[Kind::kTimer], 0));
      failure.set_status(Kind::kFailure);
      trace.push_back(Radio(Kind::kAlternative, 0, failure));
    });
  }
  template <class Kind>
  void AnswerFile(std::uint32_t id) {
    if (pending[Kind::kTimer] == id) {
      guards.erase(Kind::kTimer);
      pending.erase(Kind::kTimer);
      trace.push_back(Radio(Kind::kAlternative, 0, Filled<typename Kind::Response>(id)));
    }
  }
  void AskHandle(const Kova::FileHandleOpenRequest& request) {
    trace.push_back(Publish(request));
    const std::string guarded = "handle " + request.file_name();
    const auto id = static_cast<std::uint16_t>(request.handle_id());
    Start(guarded, "File handle open timer", [this, guarded, id] {
      guards.erase(std::string(guarded));
      trace.push_back(Radio(37, 0, orka::FileHandleRespWrapper{id, 0x0111849C, 0, {}}));
    });
  }
  void AnswerHandle(const std::string& name) {
    trace.emplace_back("convert");
    trace.push_back(Radio(37, 0, orka::FileHandleRespWrapper()));
    guards.erase("handle " + name);
  }

  // --- The link

  void Become(int status) {
    link = status;
    trace.push_back(Publish(Status(status)));
  }
  void Begin() {
    if (link == 0) {
      trace.push_back(Line("start", "/dev/ttyS2", 1500000, 1, 8, 0, 0, 5, false, true, 0, 30));
      Become(1);
    }
  }
  void End() {
    trace.emplace_back("stop");
    ++session;
    Become(0);
  }
  void Event(std::uint32_t kind, int reported_in) {
    static const std::map<std::uint32_t, int> kStatus = {{1, 4}, {3, 2}, {5, 3}, {44, 5}, {47, 6}};
    if (reported_in != session) {
      return;
    }
    Become(kStatus.at(kind));
    if (kind == 47) {
      queue.emplace_back([this, reported_in] { Event(1, reported_in); });
    }
  }

  int link = 0;             // its status
  int session = 0;          // how often it has been stopped
  std::uint32_t limit = 4;  // bytes in a chunk
  std::deque<std::function<void()>> queue;
  Trace trace;
  double now = 0;
  int guards_set = 0;
  std::map<std::string, Guard> guards;  // timers, by what they guard
  std::pair<std::string, std::uint64_t> tool;
  std::string date_asker;
  Transfer firmware;
  std::map<std::string, std::uint32_t> pending;  // the file request of each kind; 0: none
};

class Randomised : public BenchTest {
 public:
  Randomised() {
    const char* given = std::getenv("KOVA_TEST_SEED");
    const unsigned long seed = given != nullptr ? std::stoul(given) : std::random_device()();
    std::cout << "KOVA_TEST_SEED=" << seed << '\n';
    random_.seed(seed);
    images_[std::string(300, 'x')] = std::nullopt;  // no name of a file
    for (const auto& [name, content] : images_) {
      if (content) {
        folder.File(name, *content);
      }
    }
    std::filesystem::resize_file(folder.path / "huge", (std::uintmax_t{1} << 32U) + 4);
    std::filesystem::create_symlink("nowhere", folder.path / "dangling");
    std::filesystem::create_directory(folder.path / "directory");
    EXPECT_EQ(mkfifo((folder.path / "fifo").c_str(), 0600), 0);
  }

  template <class T>
  T Pick(std::initializer_list<T> values) {
    return values.begin()[random_() % values.size()];
  }

  // What comes to the bridge, and what the model does in its place.
  template <class Does>
  void FromPeer(const MessageLite& message, Does does) {
    Post(sender_, message, step_);
    model_.queue.emplace_back(does);
  }
  template <class Does>
  void FromRadio(std::uint32_t kind, const Data& data, Does does) {
    Post(kind, data);
    model_.queue.emplace_back(does);
  }

  void Firmware() {
    Kova::TransferFirmwareRequest request;
    const auto any = static_cast<std::ptrdiff_t>(random_() % images_.size());
    const auto image = Pick<std::string>({"six", "nine", std::next(images_.begin(), any)->first});
    request.set_source_file_path(folder.path / image);
    request.set_target_file_name(Pick({"fw1", "fw2"}));
    FromPeer(request, [=, this, sender = sender_, step = step_] {
      model_.AskFirmware(sender, step, request.target_file_name(), images_.at(image));
    });
  }
  void Access() {
    const auto& [state, target, unread, size, chunk] = model_.firmware;
    const orka::qrx::FileAccessResponse answer{
        .result = Pick({Result::Success, Result::Success, Result::Busy}),
        .file_size = static_cast<std::uint32_t>(Pick({size, size, size, std::size_t{6}})),
        .file_name = Pick<std::string>({target, target, target, "fw1"})};
    FromRadio(41, answer, [=, this] { model_.Access(answer); });
  }
  void Acknowledge() {
    const orka::qrx::TransferDataResponse answer{
        .result = Pick({Result::Success, Result::Success, Result::Success, Result::NoSpace}),
        .chunk_number = static_cast<std::uint16_t>(model_.firmware.chunk + Pick({0, 0, 0, 1, -1}))};
    FromRadio(43, answer, [=, this] { model_.Acknowledge(answer); });
  }
  void Time() {
    const auto seconds = Pick({0.5, 2.0, 3.0, 5.0});
    Wait(seconds);
    model_.Wait(seconds);
  }
  template <class Kind>
  void File() {
    const auto id = Pick({1U, 2U, 3U});
    if (Pick({true, false})) {
      FromRadio(Kind::kNotification, Filled<typename Kind::Request>(id),
                [=, this] { model_.AskFile<Kind>(id); });
    } else {
      FromPeer(Filled<typename Kind::Response>(id), [=, this] { model_.AnswerFile<Kind>(id); });
    }
  }
  void Handle() {
    const std::string name = Pick({"x", "y"});
    if (Pick({true, false})) {
      Kova::FileHandleOpenRequest request;
      request.set_file_name(name);
      request.set_handle_id(Pick({0x10001U, 2U, 3U}));
      FromRadio(51, request, [=, this] { model_.AskHandle(request); });
    } else {
      Kova::FileHandleOpenResponse response;
      response.set_file_name(name);
      FromPeer(response, [=, this] { model_.AnswerHandle(name); });
    }
  }
  void Date() {
    if (Pick({true, false})) {
      FromPeer(Kova::GetDateTimeReq(),
               [this, sender = sender_, step = step_] { model_.AskDate(sender, step); });
    } else {
      FromRadio(34, Kova::GetDateTimeResp(), [this] { model_.Date(); });
    }
  }
  void Link() {
    if (Pick({true, false})) {
      Kova::RtConnectionAction action;
      action.set_action(Pick({Kova::RtConnectionAction::START, Kova::RtConnectionAction::STOP}));
      FromPeer(action, [this, starts = action.action() == Kova::RtConnectionAction::START] {
        starts ? model_.Begin() : model_.End();
      });
    } else {
      const auto kind = Pick({1U, 3U, 5U, 44U, 47U});
      FromRadio(kind, {}, [this, kind, session = model_.session] { model_.Event(kind, session); });
    }
  }

 protected:
  std::mt19937_64 random_;
  std::map<std::string, std::optional<std::string>> images_ = {
      {"six", "abcdef"},     {"nine", "abcdefghi"},      {"empty", ""},
      {"huge", "four"},      {"dangling", std::nullopt}, {"directory", std::nullopt},
      {"fifo", std::nullopt}};
  Model model_;
  std::string sender_;
  std::uint64_t step_ = 0;
};

TEST_F(Randomised, BridgeDoesWhatTheModelDoes) {
  using Action = void (Randomised::*)();
  while (++step_ <= 10000) {
    SCOPED_TRACE(step_);
    sender_ = Pick({"Upgrade", "A", "B", "zeltcli-1", "zeltcli-2"});
    const auto action = Pick<Action>(
        {&Randomised::Firmware, &Randomised::Access, &Randomised::Acknowledge,
         &Randomised::Acknowledge, &Randomised::Time, &Randomised::File<WriteKind>,
         &Randomised::File<CreateKind>, &Randomised::Handle, &Randomised::Date, &Randomised::Link});
    (this->*action)();
    if (Pick({true, true, false})) {
      model->sends_work = Pick({true, true, false});
      model_.limit = Pick({3U, 4U, 4U, 5U, 0U});
      SetAnswers([&](auto& answers) {
        answers.max_transfer_data_size = static_cast<std::uint16_t>(model_.limit);
        answers.send = answers.transfer =
            Pick({orka::SendResult::Sent, orka::SendResult::QueueFull});
      });
      ASSERT_EQ(WithoutLog(Drain()), model_.Drain());
      ASSERT_EQ(model->PendingTimers(), model_.PendingTimers());
    }
  }
  // No handle is kept of what is over.
  EXPECT_EQ(std::ranges::count(model->Timers(), true, &TracedModel::Timer::is_open),
            model_.guards.size());
}

}  // namespace
}  // namespace zelt::test
