// Random requests, right and wrong answers, expiring timers, failing sends and a link that comes
// and goes, against a small model of what the bridge should do. The seed is printed; KOVA_TEST_SEED
// sets it.

#include "Bench.h"
#include "RtConnectionState.h"

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

struct Model {
  struct Guard {
    double due = 0;
    int number = 0;
    std::string name;
    std::function<void()> expiry;
    bool fired = false;
  };
  struct Transfer {
    enum class State : std::uint8_t { Idle, Asked, Sending, Completed } state;
    std::string path, target, unread;
    std::size_t size = 0;
    std::uint16_t chunk = 0;
  };
  using State = Transfer::State;
  struct Image {
    std::string content;            // what of it is to be sent
    const char* trouble = nullptr;  // why nothing is
  };
  struct FileWords {
    std::string upper, lower;
    int level;
    std::size_t alternative;
    std::uint32_t failure;
  };

  // clang-format off: one line a step

  void Say(int level, const std::string& function, const auto&... words) {
    std::ostringstream text;
    (text << ... << words);
    trace.push_back(Log(level, function, text.str()));
  }
  void Do(const std::string& line) { trace.push_back(line); }
  void SendTo(const std::string& service, const MessageLite& message) {
    Do(Send(service, message));
    if (!bus) Say(3, "SendMessage", "Failed to send");
  }

  // --- Time
  void Start(const std::string& guarded, const std::string& name, std::function<void()> expiry) {
    Do(Timer(name));
    guards[guarded] = {.due = now + 5, .number = ++guards_set, .name = name, .expiry = std::move(expiry)};
  }
  // What is guarded by the timers that have not fired, up to a time, in the order of firing.
  auto Due(double until) const {
    std::map<std::pair<double, int>, std::string> due;
    for (const auto& [guarded, guard] : guards) {
      if (!guard.fired && guard.due <= until) due[{guard.due, guard.number}] = guarded;
    }
    return due;
  }
  void Wait(double seconds) {
    now += seconds;
    for (const auto& [when, guarded] : Due(now)) {
      guards[guarded].fired = true;
      queue.emplace_back([this, guarded, number = when.second] {
        const auto guard = guards.find(guarded);
        if (guard != guards.end() && guard->second.number == number) std::function(guard->second.expiry)();
      });
    }
  }
  Trace PendingTimers() const {
    Trace names;
    for (const auto& [when, guarded] : Due(1e9)) names.push_back(guards.at(guarded).name);
    return names;
  }
  Trace Drain() {
    for (; !queue.empty(); queue.pop_front()) queue.front()();
    return std::exchange(trace, {});
  }

  // --- Who asked
  bool Remember(const char* function, const std::string& sender, std::uint64_t request) {
    if (!sender.starts_with("zeltcli-")) return false;
    Say(6, function, kTool);
    tool = {sender, request};
    return true;
  }
  bool AnswerTool(const char* function, const MessageLite& message) {
    const auto [name, request] = std::exchange(tool, {});
    if (name.empty()) return false;
    Say(6, function, kTool);
    Do(Answer(name, request, message));
    if (!bus) Say(4, "SendIpcResponse", "Failed to send response msg [", message.GetTypeName(), "] to [", name, "]");
    return true;
  }
  void AskDate(const std::string& sender, std::uint64_t request) {
    Say(8, "SendGetDateTimeRequest", "Send GetDateTime Request");
    if (!Remember("SendGetDateTimeRequest", sender, request)) date_asker = sender;
    Do(Radio(24, 1, Kova::GetDateTimeReq()));
  }
  void Date() {
    const char* function = "HandleGetDateTimeResponse";
    if (AnswerTool(function, Kova::GetDateTimeResp())) return;
    if (date_asker.empty()) { Say(3, function, "Cannot forward GetDateTimeg response, requester is not set"); return; }
    Say(7, function, "Handle GetDateTime Response to ", date_asker);
    SendTo(std::exchange(date_asker, ""), Kova::GetDateTimeResp());
  }

  // --- Firmware
  void AskFirmware(const std::string& sender, std::uint64_t request, const std::string& path, const std::string& target, const Image& image) {
    const char* function = "HandleTransferFirmwareRequest";
    Remember(function, sender, request);
    Say(6, function, "Handle TransferFirmware request from  ", sender);
    if (image.trouble != nullptr) { Say(3, function, image.trouble, path); Finish(1); return; }
    firmware = {.state = State::Asked, .path = path, .target = target, .unread = image.content, .size = image.content.size(), .chunk = firmware.chunk};
    Do(Radio(29, 0, orka::qrx::FileAccessRequest{.operation = 1, .access_code = 2, .file_size = static_cast<std::uint32_t>(firmware.size), .file_name = target}));
    Start("access", "File Access timer", [this] {
      Say(3, "HandleFileAccessTimeout", "FileAccessResponse was not received from RT for ", firmware.target);
      Abort();
    });
  }
  void Access(const orka::qrx::FileAccessResponse& answer) {
    Say(6, "HandleFileAccessResponse", "Received FileAccessResponse from RT for [", answer.file_name, "] with result [", answer.result, "]");
    if (firmware.state != State::Asked || answer.file_name != firmware.target || answer.file_size != firmware.size) return;
    guards.erase("access");
    if (answer.result != Result::Success) { Abort(); return; }
    Say(6, "StartFileTransfer", "Starting transfer of ", firmware.path, " with size: ", firmware.size);
    firmware.state = State::Sending;
    firmware.chunk = 0;
    NextChunk();
  }
  void NextChunk() {
    const std::string data = firmware.unread.substr(0, limit);
    if (data.empty()) { Say(3, "SendFileChunk", "Failed to read file"); Abort(); return; }
    firmware.unread.erase(0, data.size());
    Say(8, "SendFileChunk", "Read:", data.size(), ", remaining: ", firmware.unread.size());
    Say(8, "SendFileChunk", "Transferring file ", firmware.path, ", chunk #", firmware.chunk, ", with size: ", data.size());
    Do(Chunk(firmware.chunk, data));
    Start("chunk", "Transfer data timer", [this] {
      Say(3, "HandleTransferDataTimeout", "FileTransferResponse was not received from RT for ", firmware.target);
      Abort();
    });
  }
  void Acknowledge(const orka::qrx::TransferDataResponse& answer) {
    Say(8, "HandleTransferDataResponse", "Received TransferDataResponse from RT for chunk#", answer.chunk_number, "] with result [", answer.result, "]");
    if (firmware.state != State::Sending || answer.chunk_number != firmware.chunk) return;
    guards.erase("chunk");
    if (answer.result != Result::Success) { Abort(); return; }
    if (!firmware.unread.empty()) { ++firmware.chunk; NextChunk(); return; }
    Say(6, "HandleTransferDataResponse", "Completed transfer of ", firmware.path);
    firmware.state = State::Completed;
    Finish(0);
  }
  void Abort() {
    firmware = {};
    Finish(1);
  }
  void Finish(std::uint32_t result) {
    Say(7, "SendTransferFirmwareResponse", "Sending TransferFirmwareResponse");
    const auto outcome = With<Kova::TransferFirmwareResponse>([&](auto& m) { m.set_result(result); });
    if (!AnswerTool("SendTransferFirmwareResponse", outcome)) SendTo("Upgrade", outcome);
  }

  // --- Files that the radio asks for
  template <class Response>
  void AskFile(const FileWords& kind, std::uint32_t id, const MessageLite& request) {
    Do(Publish(request));
    Say(kind.level, "HandleFileAccess" + kind.upper + "Request", "Publishing [", request.GetTypeName(), "]");
    pending[kind.upper] = id;
    Start(kind.upper, "File access " + kind.lower + " response timer", [this, kind] {
      Say(3, "HandleFileAccess" + kind.upper + "ResponseTimeout", "File access ", kind.lower, " response was not received from any service. Sending a failure reply...");
      Do(Radio(kind.alternative, 0, With([&](auto& m) { m.set_status(kind.failure); }, Filled<Response>(std::exchange(pending[kind.upper], 0)))));
    });
  }
  template <class Response>
  void AnswerFile(const FileWords& kind, std::uint32_t id) {
    const std::string function = "SendFileAccess" + kind.upper + "Response";
    if (pending[kind.upper] == 0) { Say(6, function, "No pending 'File Access ", kind.upper, "' request - ignoring response"); return; }
    if (pending[kind.upper] != id) { Say(6, function, "Received response for a previous request - ignoring response"); return; }
    Say(6, function, "Send file access ", kind.lower, " reply");
    guards.erase(kind.upper);
    pending.erase(kind.upper);
    Do(Radio(kind.alternative, 0, Filled<Response>(id)));
  }
  void AskHandle(const Kova::FileHandleOpenRequest& request) {
    Do(Publish(request));
    Say(6, "HandleFileHandleOpenRequest", "Publishing [Kova.FileHandleOpenRequest]");
    Start("handle " + request.file_name(), "File handle open timer", [this, request] {
      Say(6, "HandleFileHandleOpenTimeout", "File handle open timeout for ", request.file_name());
      guards.erase("handle " + request.file_name());
      Do(Radio(37, 0, orka::FileHandleRespWrapper{.handle_id = static_cast<std::uint16_t>(request.handle_id()), .status = 0x0111849C, .data = {}}));
    });
  }
  void AnswerHandle(const std::string& name) {
    Say(6, "HandleFileHandleOpenResponse", "Handle File Handle Open Response");
    Do("convert");
    Do(Radio(37, 0, orka::FileHandleRespWrapper()));
    guards.erase("handle " + name);
  }

  // --- The link
  void Become(const char* function, const std::string& words, int status) {
    link = status;
    trace = std::move(trace) + test::State(function, (words + RtConnectionStateText(RtConnectionState(status))).c_str(), status);
  }
  void Begin() {
    const char* function = "StartRadioProtocol";
    Say(6, function, "Start RadioProtocol");
    if (link != 0) { Say(3, function, "Radio protocol current connection status ", RtConnectionStateText(RtConnectionState(link))); return; }
    Say(6, "RegisterRadioProtocolCallback", "Register to Radio Protocol notifications");
    Say(6, function, "Attempting to start radio via UART");
    Do(Line("start", "/dev/ttyS2", 1500000, 1, 8, 0, 0, 5, false, true, 0, 30));
    Say(6, function, "Radio protocol started");
    Become(function, "RtConnection status: ", 1);
  }
  void End() {
    Say(6, "StopRadioProtocol", "Stop RadioProtocol");
    Do("stop");
    ++session;
    Become("StopRadioProtocol", "RtConnection status: ", 0);
  }
  void Event(std::uint32_t kind, int reported_in) {
    if (reported_in != session) return;
    switch (kind) {
      case 1: Become("HandleRtHandshakeCompleted", "RtConnection status: ", 4); break;
      case 3: Become("HandleConnectionIsLost", "RtConnection status: ", 2); break;
      case 5: Become("HandleRtHandshakeFailed", "RtConnection status: ", 3); break;
      case 44: Become("HandleRtUpgradeInProcess", "RtConnection status: ", 5); break;
      default:
        Say(3, "HandleIgFailed", "Fatal error - IG failed");
        Become("UpdateConnectionStatus", "Updating RtConnection status to : ", 6);
        queue.emplace_back([this, reported_in] {
          if (reported_in == session) Become("UpdateConnectionStatus", "Updating RtConnection status to : ", 4);
        });
    }
  }
  // clang-format on

  int link = 0;             // its status
  int session = 0;          // how often it has been stopped
  bool bus = true;          // takes what is sent
  std::uint32_t limit = 4;  // bytes in a chunk
  std::deque<std::function<void()>> queue;
  Trace trace;
  double now = 0;
  int guards_set = 0;
  std::map<std::string, Guard> guards;  // timers, by what they guard
  std::pair<std::string, std::uint64_t> tool;
  std::string date_asker;
  Transfer firmware = {};
  std::map<std::string, std::uint32_t> pending;  // the request of each kind of file request; 0 none
};

using Randomised = Bench;

TEST_F(Randomised, BridgeDoesWhatTheModelDoes) {
  const char* given = std::getenv("KOVA_TEST_SEED");
  const unsigned long seed = given != nullptr ? std::stoul(given) : std::random_device()();
  std::cout << "KOVA_TEST_SEED=" << seed << '\n';
  std::mt19937_64 random(seed);
  const auto pick = [&]<class T>(std::initializer_list<T> values) {
    return values.begin()[random() % values.size()];
  };
  const Model::FileWords write = {
      .upper = "Write", .lower = "write", .level = 7, .alternative = 26, .failure = 19};
  const Model::FileWords create = {
      .upper = "Create", .lower = "create", .level = 6, .alternative = 27, .failure = 8};
  const char* unopened = "Error: Could not open source file ";
  const char* unsized = "Failed to get size of provided firmware image : ";
  const std::string long_name(300, 'x');
  const std::map<std::string, Model::Image> images = {
      {"six", {"abcdef"}},          {"nine", {"abcdefghi"}},      {"empty", {""}},
      {"huge", {"four"}},           {"dangling", {"", unopened}}, {long_name, {"", unopened}},
      {"directory", {"", unsized}}, {"fifo", {"", unsized}}};
  for (const char* name : {"six", "nine", "empty", "huge"}) {
    folder.File(name, images.at(name).content);
  }
  std::filesystem::resize_file(folder.path / "huge", (std::uintmax_t{1} << 32U) + 4);
  std::filesystem::create_symlink("nowhere", folder.path / "dangling");
  std::filesystem::create_directory(folder.path / "directory");
  ASSERT_EQ(mkfifo((folder.path / "fifo").c_str(), 0600), 0);
  Model expected;
  const auto from_radio = [&](std::uint32_t kind, const Data& data, const auto& expect) {
    Post(kind, data);
    expected.queue.emplace_back(expect);
  };
  for (std::uint64_t step = 1; step <= 10000; ++step) {
    const std::string sender = pick({"Upgrade", "A", "B", "zeltcli-1", "zeltcli-2"});
    const auto from_peer = [&](const MessageLite& message, const auto& expect) {
      Post(sender, message, step);
      expected.queue.emplace_back(expect);
    };
    const auto id = pick({1U, 2U, 3U});
    const std::string name = pick({"x", "y"});
    // clang-format off: one line an action
    switch (random() % 18) {
      case 0: case 1: {
        const std::string image = pick({std::string("six"), std::string("nine"), std::next(images.begin(), static_cast<std::ptrdiff_t>(random() % images.size()))->first});
        const std::string path = folder.path / image;
        const auto request = With<Kova::TransferFirmwareRequest>([&](auto& m) { m.set_source_file_path(path), m.set_target_file_name(pick({"fw1", "fw2"})); });
        from_peer(request, [=, &expected, &images] { expected.AskFirmware(sender, step, path, request.target_file_name(), images.at(image)); });
        break;
      }
      case 2: case 3: {
        const std::string target = pick({expected.firmware.target, expected.firmware.target, expected.firmware.target, std::string("fw1")});
        const auto size = static_cast<std::uint32_t>(pick({expected.firmware.size, expected.firmware.size, expected.firmware.size, std::size_t{6}}));
        const orka::qrx::FileAccessResponse answer{.result = pick({Result::Success, Result::Success, Result::Busy}), .file_size = size, .file_name = target};
        from_radio(41, answer, [=, &expected] { expected.Access(answer); });
        break;
      }
      case 4: case 5: case 6: {
        const auto chunk = static_cast<std::uint16_t>(expected.firmware.chunk + pick({0, 0, 0, 1, -1}));
        const orka::qrx::TransferDataResponse answer{.result = pick({Result::Success, Result::Success, Result::Success, Result::NoSpace}), .chunk_number = chunk};
        from_radio(43, answer, [=, &expected] { expected.Acknowledge(answer); });
        break;
      }
      case 7: {
        const auto seconds = pick({0.5, 2.0, 3.0, 5.0});
        Wait(seconds), expected.Wait(seconds);
        break;
      }
      case 8: from_radio(38, Filled<Kova::FileAccessWriteRequest>(id), [=, &expected] { expected.AskFile<Kova::FileAccessWriteResponse>(write, id, Filled<Kova::FileAccessWriteRequest>(id)); }); break;
      case 9: from_peer(Filled<Kova::FileAccessWriteResponse>(id), [=, &expected] { expected.AnswerFile<Kova::FileAccessWriteResponse>(write, id); }); break;
      case 10: from_radio(40, Filled<Kova::FileAccessCreateRequest>(id), [=, &expected] { expected.AskFile<Kova::FileAccessCreateResponse>(create, id, Filled<Kova::FileAccessCreateRequest>(id)); }); break;
      case 11: from_peer(Filled<Kova::FileAccessCreateResponse>(id), [=, &expected] { expected.AnswerFile<Kova::FileAccessCreateResponse>(create, id); }); break;
      case 12: {
        const auto request = With<Kova::FileHandleOpenRequest>([&](auto& m) { m.set_file_name(name), m.set_handle_id(id + 0x10000); });
        from_radio(51, request, [=, &expected] { expected.AskHandle(request); });
        break;
      }
      case 13: from_peer(With<Kova::FileHandleOpenResponse>([&](auto& m) { m.set_file_name(name); }), [=, &expected] { expected.AnswerHandle(name); }); break;
      case 14: from_peer(Kova::GetDateTimeReq(), [=, &expected] { expected.AskDate(sender, step); }); break;
      case 15: {
        const auto action = pick({Kova::RtConnectionAction::START, Kova::RtConnectionAction::STOP});
        from_peer(With<Kova::RtConnectionAction>([&](auto& m) { m.set_action(action); }), [=, &expected] { action == Kova::RtConnectionAction::START ? expected.Begin() : expected.End(); });
        break;
      }
      case 16: {
        const auto kind = pick({1U, 3U, 5U, 44U, 47U});
        from_radio(kind, {}, [&expected, kind, session = expected.session] { expected.Event(kind, session); });
        break;
      }
      default: from_radio(34, Kova::GetDateTimeResp(), [&expected] { expected.Date(); });
    }
    // clang-format on
    if (pick({true, true, false})) {
      expected.bus = pick({true, true, false});
      expected.limit = pick({3U, 4U, 4U, 5U, 0U});
      model->sends_work = expected.bus;
      SetAnswers([&](auto& answers) {
        answers.max_transfer_data_size = static_cast<std::uint16_t>(expected.limit);
        answers.send = answers.transfer =
            pick({orka::SendResult::Sent, orka::SendResult::QueueFull});
      });
      ASSERT_EQ(Drain(), expected.Drain()) << "seed " << seed << ", step " << step;
      ASSERT_EQ(model->PendingTimers(), expected.PendingTimers())
          << "seed " << seed << ", step " << step;
    }
  }
  // No handle is kept of what is over.
  EXPECT_EQ(std::ranges::count(model->Timers(), true, &TracedModel::Timer::is_open),
            expected.guards.size());
}

}  // namespace
}  // namespace zelt::test
