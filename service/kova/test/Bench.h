#pragma once

#include "KovaContext.h"

#include "orka/fake/FakeRadioProtocol.h"
#include "zelt/LogClient.h"
#include "zelt/fake/FakeConfigReader.h"
#include "zelt/fake/FakeServiceModel.h"

#include "zelt.pb.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

// The bridge between fakes of its platform and its radio. Everything that it does, log lines
// included, comes out as one trace in the order in which it was done.
namespace zelt::test {

using Trace = std::vector<std::string>;
using Data = orka::RadioNotificationData;
using google::protobuf::MessageLite;

inline constexpr const char* kTool = " --- zeltcli ----";

template <class T>
T With(auto set, T value = {}) {
  set(value);
  return value;
}

// --- The lines of a trace ------------------------------------------------------------------------

// The words, each with a blank behind it.
std::string Line(const auto&... words) {
  std::ostringstream line;
  ((line << words << " "), ...);
  return line.str();
}
inline std::string Describe(std::string_view type, std::string_view payload) {
  std::ostringstream text;
  text << type << std::hex;
  for (const char byte : payload) {
    text << " " << (static_cast<unsigned>(byte) & 0xFFU);
  }
  return text.str();
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

class TracedModel : public fake::FakeServiceModel {
 public:
  explicit TracedModel(Journal& journal) : journal_(journal) {
    Ipc().SetResult([this](const fake::FakeServiceIPC::Record& record) {
      using Kind = fake::FakeServiceIPC::Kind;
      const std::string what = Describe(record.type, record.payload);
      if (record.kind == Kind::Publish) {
        const auto hook = before_publish;
        hook();
        journal_.Add(Line("publish", what));
      } else if (record.kind == Kind::Send) {
        journal_.Add(Line("send", record.peer, what));
      } else {
        journal_.Add(Line("answer", record.peer, record.request, what));
      }
      if (publish_fails && record.kind == Kind::Publish) {
        throw std::runtime_error("no bus");
      }
      return sends_work ? fake::FakeServiceIPC::Result::True : fake::FakeServiceIPC::Result::False;
    });
  }

  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               Seconds interval, bool periodic) override {
    journal_.Add(Line("timer", name, interval.count(), periodic ? "periodic" : "once"));
    return FakeServiceModel::AddTimer(name, std::move(callback), interval, periodic);
  }
  void SetMyServiceState(service_state::State state) override {
    journal_.Add(Line("state", static_cast<std::uint32_t>(state)));
  }

  std::function<void()> before_publish = [] {};
  bool sends_work = true;
  bool publish_fails = false;  // by an exception, so that a test sees what was done before

 private:
  Journal& journal_;
};

// A folder of its own, in which the bridge also finds the device's files.
class Folder {
 public:
  Folder() : path(std::filesystem::temp_directory_path() / "kova-XXXXXX") {
    std::string name = path;
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("no temporary folder " + name);
    }
    path = name;
    setenv("ZELT_ROOT", path.c_str(), 1);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() { std::filesystem::remove_all(path); }

  // Writes a file; returns its path.
  std::string File(std::string_view name, std::string_view content) const {
    std::filesystem::create_directories((path / name).parent_path());
    std::ofstream(path / name, std::ios::binary) << content;
    return path / name;
  }
  std::string Read(std::string_view name) const {
    return (std::ostringstream() << std::ifstream(path / name).rdbuf()).str();
  }

  std::filesystem::path path;
};

class Bench : public testing::Test {
 public:
  Bench() {
    context.Init(std::unique_ptr<orka::RadioProtocol>(radio), nullptr);
    context.RegisterIpcCallbacks();
    journal.Watch(radio);
    journal.Take();
  }
  ~Bench() override { journal.Watch(nullptr); }

  // What arrives, and is queued; false when it is refused.
  bool Post(std::string_view sender, const MessageLite& message, std::uint64_t request = 1) {
    return model->Ipc().Deliver(message.GetTypeName(), sender, message.SerializeAsString(),
                                request);
  }
  void Post(std::uint32_t kind, const Data& data = {}) {
    context.HandleRadioProtocolNotification(orka::NotifyMessage{kind}, data);
  }
  void Wait(double seconds) { model->Advance(ServiceModel::Seconds(seconds)); }
  // Runs what is queued; tells what was done, without the lines of the IPC layer.
  Trace Drain() {
    while (context.TaskQueue().Size() > 0) {
      context.TaskQueue().Pop()();
    }
    Trace trace = journal.Take();
    std::erase_if(trace, [](const std::string& line) { return line.contains(" 32790 Register"); });
    return trace;
  }
  // Both at once.
  Trace From(std::string_view sender, const MessageLite& message, std::uint64_t request = 1) {
    return Post(sender, message, request), Drain();
  }
  Trace Notify(std::uint32_t kind, const Data& data = {}) { return Post(kind, data), Drain(); }
  Trace After(double seconds) { return Wait(seconds), Drain(); }
  Trace Subscribe(std::string_view topic) { return model->Ipc().Subscribe(topic, "New"), Drain(); }

  // What the radio answers from now on, where it differs from the usual.
  void SetAnswers(auto set) { radio->SetAnswers(With<orka::fake::Answers>(set)); }

  Folder folder;
  Journal journal;
  std::shared_ptr<TracedModel> model = std::make_shared<TracedModel>(journal);
  std::shared_ptr<fake::FakeConfig> config = std::make_shared<fake::FakeConfig>();
  orka::fake::FakeRadioProtocol* radio = new orka::fake::FakeRadioProtocol;  // the context's
  KovaContext context{model, std::make_unique<fake::FakeConfigReader>(config)};
};

// --- Messages ------------------------------------------------------------------------------------

// The bytes of a message with something in every field: numbers 1000 + n (outside every
// enumeration), texts, sub-messages, and fields that its type does not know. With `only`, that
// field alone.
inline std::string SampleWire(int only = 0) {
  std::string wire;
  for (int field = 1; field <= 12; ++field) {
    if (only == 0) {
      const int number = 1000 + field;
      wire += {static_cast<char>(field << 3), static_cast<char>((number & 0x7F) | 0x80),
               static_cast<char>(number >> 7)};
    }
    if (only == 0 || only == field) {
      wire += {static_cast<char>(field << 3 | 2), '\x02', '\x08', '\x05'};
    }
  }
  return wire;
}
template <class T>
T Sample(int oneof_case = 0) {
  T message;
  EXPECT_TRUE(message.ParseFromString(SampleWire(oneof_case)));
  return message;
}

}  // namespace zelt::test
