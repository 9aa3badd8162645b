#pragma once

#include "orka/fake/FakeRadioProtocol.h"
#include "zelt/LogClient.h"
#include "zelt/fake/MessageText.h"

#include "Kova.pb.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// What the bridge does, log lines included, as lines of text in the order in which it was done.
namespace zelt::test {

using Trace = std::vector<std::string>;
using google::protobuf::MessageLite;

template <class T>
T With(auto set, T value = {}) {
  set(value);
  return value;
}

// The words, each with a blank behind it.
std::string Line(const auto&... words) {
  std::ostringstream line;
  ((line << words << " "), ...);
  return line.str();
}
inline std::string Describe(const std::string& type, const std::string& payload) {
  return type + "{" + fake::TextFromWire(type, payload) + "}";
}
inline std::string Describe(const MessageLite& message) {
  return Describe(message.GetTypeName(), message.SerializeAsString());
}
inline std::string Describe(const orka::qrx::FileAccessRequest& request) {
  return Line("access", int{request.operation}, request.access_code, request.file_size,
              request.file_name);
}
inline std::string Describe(const orka::FileHandleRespWrapper& response) {
  return Line("handle", response.handle_id, response.status, response.attributes,
              response.data.index());
}
inline std::string Describe(const orka::qrx::TransferDataRequest&) {
  return "a chunk without its data";
}

inline std::string Log(int level, std::string_view function, std::string_view text,
                       std::uint32_t category = 0x800A) {
  return Line("log", level, category, function, text);
}
std::string Radio(std::size_t alternative, std::uint32_t selector, const auto& message) {
  return Line("radio", alternative, selector, Describe(message));
}
inline std::string Chunk(std::uint32_t number, std::string_view data) {
  return Line("chunk", 3, number, data.size(), 0, data);
}
inline std::string Send(std::string_view service, const MessageLite& message) {
  return Line("send", service, Describe(message));
}
inline std::string Answer(std::string_view asker, std::uint64_t request,
                          const MessageLite& message) {
  return Line("answer", asker, request, Describe(message));
}
inline std::string Publish(const MessageLite& message) {
  return Line("publish", Describe(message));
}
inline std::string Timer(std::string_view name) {
  return Line("timer", name, 5, "once");
}

struct RadioLine {
  std::string operator()(const orka::fake::SendCall& call) const {
    return std::visit(
        [&](const auto& message) { return Radio(call.message.index(), call.selector, message); },
        call.message);
  }
  std::string operator()(const orka::fake::TransferCall& call) const {
    return Line("chunk", call.request.kind, call.request.chunk_number, call.request.data_size,
                call.selector, std::string(call.data.begin(), call.data.end()));
  }
  std::string operator()(const orka::fake::StartSocketCall& call) const {
    return Line("start", call.settings.address, call.settings.port, call.link_address,
                call.handshake_timeout);
  }
  std::string operator()(const orka::fake::StartUartCall& call) const {
    const auto& [device, baud, stop, bits, parity, flow, timeout, modem, exclusive] = call.settings;
    return Line("start", device, baud, stop, bits, parity, flow, timeout, modem, exclusive,
                call.link_address, call.handshake_timeout);
  }
  std::string operator()(const orka::fake::InjectCall& call) const {
    const auto& [address, kind, flags, source, destination, transaction, length] = call.header;
    return Line("inject", std::string(call.message.begin(), call.message.end()), address, int{kind},
                int{flags}, source, destination, transaction, length);
  }
  std::string operator()(const orka::fake::SetIdentifyAsCameraCall& call) const {
    return Line("camera", call.value);
  }
  std::string operator()(const orka::fake::SetUseTetheredConnectionCall& call) const {
    return Line("tethered", call.value);
  }
  std::string operator()(const orka::fake::StopCall&) const { return "stop"; }
  std::string operator()(const orka::fake::HoldCall&) const { return "hold"; }
  std::string operator()(const orka::fake::ContinueCall&) const { return "continue"; }
  std::string operator()(const orka::fake::MakeFileHandleResponseCall&) const { return "convert"; }
};

inline Trace operator+(Trace left, const Trace& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}
inline Kova::RTConnectionStatus Status(int status) {
  return With<Kova::RTConnectionStatus>(
      [&](auto& m) { m.set_status(static_cast<Kova::RtConnectionState>(status)); });
}
// The link has a new status: `text` in the log of `function`, then it is published.
inline Trace State(const char* function, const char* text, int status) {
  return {Log(6, function, text),
          Log(6, "PublishKovaConnectionStatus", "Publish message: [Kova.RTConnectionStatus]"),
          Publish(Status(status))};
}
// The status that a trace has published last.
inline std::string LastStatus(const Trace& trace) {
  const auto last = std::ranges::find_if(trace.rbegin(), trace.rend(), [](const auto& line) {
    return line.starts_with("publish Kova.RTConnectionStatus");
  });
  return last == trace.rend() ? "none" : *last;
}
inline Trace WithoutLog(Trace trace) {
  std::erase_if(trace, [](const std::string& line) { return line.starts_with("log"); });
  return trace;
}

// --- Taking the trace ----------------------------------------------------------------------------

// Any thread may add lines; log lines come in by themselves while it lives.
class Journal {
 public:
  Journal() : previous_level_(LogClient::Level()) {
    LogClient::SetLevel(kLogVerbose);
    SetLogSink(
        [](void* self, const LogRecord& line) {
          static_cast<Journal*>(self)->Add(
              Log(line.level, line.function, line.text, line.category));
        },
        this);
  }
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
  ~Journal() {
    SetLogSink(nullptr, nullptr);
    LogClient::SetLevel(previous_level_);
  }

  // Whose calls stand in the trace: those before a line come before it.
  void Watch(orka::fake::FakeRadioProtocol* radio) {
    const std::lock_guard lock(mutex_);
    radio_ = radio;
  }
  void Add(const std::string& line) {
    const std::lock_guard lock(mutex_);
    AddRadioCalls();
    lines_.push_back(line);
    changed_.notify_all();
  }
  Trace Take() {
    const std::lock_guard lock(mutex_);
    AddRadioCalls();
    return std::exchange(lines_, {});
  }
  bool WaitFor(std::string_view line) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30),
                             [&] { return std::ranges::find(lines_, line) != lines_.end(); });
  }

 private:
  void AddRadioCalls() {
    if (radio_ != nullptr) {
      for (const auto& call : radio_->TakeCalls()) {
        lines_.push_back(std::visit(RadioLine(), call));
      }
    }
  }

  const int previous_level_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Trace lines_;                                     // guarded by mutex_
  orka::fake::FakeRadioProtocol* radio_ = nullptr;  // guarded by mutex_
};

}  // namespace zelt::test
