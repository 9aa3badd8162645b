// Random requests, right and wrong answers, expiring timers and failing sends, against a small
// model of what the bridge should do. The seed is printed; KOVA_TEST_SEED sets it.

#include "Bench.h"

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
    double due;
    int number;
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
    guards[guarded] = {now + 5, ++guards_set, name, std::move(expiry)};
  }
  void Wait(double seconds) {
    now += seconds;
    std::map<std::pair<double, int>, std::string> due;
    for (auto& [guarded, guard] : guards) {
      if (guard.due <= now && !std::exchange(guard.fired, guard.due <= now)) due[{guard.due, guard.number}] = guarded;
    }
    for (const auto& [when, guarded] : due) {
      queue.emplace_back([this, guarded, number = when.second] {
        const auto guard = guards.find(guarded);
        if (guard != guards.end() && guard->second.number == number) std::function(guard->second.expiry)();
      });
    }
  }
  Trace Pending() const {
    std::map<std::pair<double, int>, std::string> pending_timers;
    for (const auto& [guarded, guard] : guards) {
      if (!guard.fired) pending_timers[{guard.due, guard.number}] = guard.name;
    }
    Trace names;
    for (const auto& [when, name] : pending_timers) names.push_back(name);
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
    if (date_asker.empty()) return Say(3, function, "Cannot forward GetDateTimeg response, requester is not set");
    Say(7, function, "Handle GetDateTime Response to ", date_asker);
    SendTo(std::exchange(date_asker, ""), Kova::GetDateTimeResp());
  }

  // --- Firmware
  void AskFirmware(const std::string& sender, std::uint64_t request, const std::string& path, const std::string& target, const char* image) {
    const char* function = "HandleTransferFirmwareRequest";
    Remember(function, sender, request);
    Say(6, function, "Handle TransferFirmware request from  ", sender);
    if (image == nullptr) return Say(3, function, "Error: Could not open source file ", path), Finish(1);
    firmware = {State::Asked, path, target, image, std::strlen(image), firmware.chunk};
    Do(Radio(29, 0, orka::qrx::FileAccessRequest{1, 2, static_cast<std::uint32_t>(firmware.size), target}));
    Start("access", "File Access timer", [this] {
      Say(3, "HandleFileAccessTimeout", "FileAccessResponse was not received from RT for ", firmware.target);
      Abort();
    });
  }
  void Access(const orka::qrx::FileAccessResponse& answer) {
    Say(6, "HandleFileAccessResponse", "Received FileAccessResponse from RT for [", answer.file_name, "] with result [", answer.result, "]");
    if (firmware.state != State::Asked || answer.file_name != firmware.target || answer.file_size != firmware.size) return;
    guards.erase("access");
    if (answer.result != Result::Success) return Abort();
    Say(6, "StartFileTransfer", "Starting transfer of ", firmware.path, " with size: ", firmware.size);
    firmware.state = State::Sending;
    firmware.chunk = 0;
    NextChunk();
  }
  void NextChunk() {
    const std::string data = firmware.unread.substr(0, limit);
    if (data.empty()) return Say(3, "SendFileChunk", "Failed to read file"), Abort();
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
    if (answer.result != Result::Success) return Abort();
    if (!firmware.unread.empty()) return ++firmware.chunk, NextChunk();
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
    if (pending[kind.upper] == 0) return Say(6, function, "No pending 'File Access ", kind.upper, "' request - ignoring response");
    if (pending[kind.upper] != id) return Say(6, function, "Received response for a previous request - ignoring response");
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
      Do(Radio(37, 0, orka::FileHandleRespWrapper{static_cast<std::uint16_t>(request.handle_id()), 0x0111849C, 0, {}}));
    });
  }
  void AnswerHandle(const std::string& name) {
    Say(6, "HandleFileHandleOpenResponse", "Handle File Handle Open Response");
    Do("convert");
    Do(Radio(37, 0, orka::FileHandleRespWrapper()));
    guards.erase("handle " + name);
  }
  // clang-format on

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
  std::cout << "KOVA_TEST_SEED=" << seed << std::endl;
  std::mt19937_64 random(seed);
  const auto pick = [&]<class T>(std::initializer_list<T> values) {
    return values.begin()[random() % values.size()];
  };
  const Model::FileWords write = {"Write", "write", 7, 26, 19},
                         create = {"Create", "create", 6, 27, 8};
  const std::map<std::string, const char*> images = {
      {"six", "abcdef"}, {"nine", "abcdefghi"}, {"none", ""}, {"missing", nullptr}};
  Model expected;
  for (const auto& [name, image] : images) {
    if (image != nullptr) {
      folder.File(name, image);
    }
  }
  const auto from_radio = [&](std::uint32_t kind, const Data& data, auto expect) {
    Post(kind, data);
    expected.queue.emplace_back(expect);
  };
  for (std::uint64_t step = 1; step <= 10000; ++step) {
    const std::string sender = pick({"Upgrade", "A", "B", "zeltcli-1", "zeltcli-2"});
    const auto from_peer = [&](const MessageLite& message, auto expect) {
      Post(sender, message, step);
      expected.queue.emplace_back(expect);
    };
    const auto id = pick({1U, 2U, 3U});
    const std::string name = pick({"x", "y"});
    // clang-format off: one line an action
    switch (random() % 16) {
      case 0: case 1: {
        const std::string image = pick({"six", "nine", "none", "missing"}), path = folder.path / image;
        const auto request = With<Kova::TransferFirmwareRequest>([&](auto& m) { m.set_source_file_path(path), m.set_target_file_name(pick({"fw1", "fw2"})); });
        from_peer(request, [=, &expected, &images] { expected.AskFirmware(sender, step, path, request.target_file_name(), images.at(image)); });
        break;
      }
      case 2: case 3: {
        const std::string target = pick({expected.firmware.target, expected.firmware.target, expected.firmware.target, std::string("fw1")});
        const auto size = static_cast<std::uint32_t>(pick({expected.firmware.size, expected.firmware.size, expected.firmware.size, std::size_t{6}}));
        const orka::qrx::FileAccessResponse answer{pick({Result::Success, Result::Success, Result::Busy}), size, target};
        from_radio(41, answer, [=, &expected] { expected.Access(answer); });
        break;
      }
      case 4: case 5: case 6: {
        const auto chunk = static_cast<std::uint16_t>(expected.firmware.chunk + pick({0, 0, 0, 1, -1}));
        const orka::qrx::TransferDataResponse answer{pick({Result::Success, Result::Success, Result::Success, Result::NoSpace}), chunk};
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
      ASSERT_EQ(model->PendingTimers(), expected.Pending()) << "seed " << seed << ", step " << step;
    }
  }
}

}  // namespace
}  // namespace zelt::test
