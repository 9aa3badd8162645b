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
using Result = fake::FakeServiceIPC::Result;

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
inline std::string Chunk(std::uint16_t number, std::string_view data) {
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
inline std::string RadioLine(const orka::fake::Call& call) {
  using namespace orka::fake;
  if (const auto* send = std::get_if<SendCall>(&call)) {
    return std::visit(
        [&](const auto& message) { return Radio(send->message.index(), send->selector, message); },
        send->message);
  }
  if (const auto* chunk = std::get_if<TransferCall>(&call)) {
    return Line("chunk", chunk->request.kind, chunk->request.chunk_number, chunk->request.data_size,
                chunk->selector, std::string(chunk->data.begin(), chunk->data.end()));
  }
  if (const auto* start = std::get_if<StartSocketCall>(&call)) {
    return Line("start", start->settings.address, start->settings.port, start->link_address,
                start->handshake_timeout);
  }
  if (const auto* start = std::get_if<StartUartCall>(&call)) {
    const orka::UartSettings& uart = start->settings;
    return Line("start", uart.device, uart.baud_rate, uart.stop_bits, uart.data_bits, uart.parity,
                uart.flow_control, uart.read_timeout, uart.modem_control, uart.exclusive,
                start->link_address, start->handshake_timeout);
  }
  if (const auto* inject = std::get_if<InjectCall>(&call)) {
    const auto& [address, kind, flags, source, destination, transaction, length] = inject->header;
    return Line("inject", std::string(inject->message.begin(), inject->message.end()), address,
                int{kind}, int{flags}, source, destination, transaction, length);
  }
  if (const auto* camera = std::get_if<SetIdentifyAsCameraCall>(&call)) {
    return Line("camera", camera->value);
  }
  if (const auto* tethered = std::get_if<SetUseTetheredConnectionCall>(&call)) {
    return Line("tethered", tethered->value);
  }
  return std::holds_alternative<StopCall>(call) ? "stop" : "convert";
}

inline Trace operator+(Trace left, const Trace& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
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
      std::ranges::transform(radio_->TakeCalls(), std::back_inserter(lines_), RadioLine);
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
      journal_.Add(record.kind == Kind::Publish ? Line("publish", what)
                   : record.kind == Kind::Send  ? Line("send", record.peer, what)
                                               : Line("answer", record.peer, record.request, what));
      if (publish_fails && record.kind == Kind::Publish) {
        throw std::runtime_error("no bus");
      }
      return result;
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

  Result result = Result::True;  // of every send
  bool publish_fails = false;

 private:
  Journal& journal_;
};

// A folder of its own, in which the bridge also finds the device's files.
class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "kova-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("no temporary folder " + name);
    }
    path = name;
    std::filesystem::create_directories(path / "etc/zelt");
    std::filesystem::create_directories(path / "var/lib/zelt");
    setenv("ZELT_ROOT", path.c_str(), 1);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }

  // The path of a file with this content.
  std::string File(std::string_view name, std::string_view content) const {
    std::ofstream(path / name, std::ios::binary) << content;
    return path / name;
  }
  std::string Read(std::string_view name) const {
    return (std::ostringstream() << std::ifstream(path / name).rdbuf()).str();
  }

  std::filesystem::path path;
};

class Target : public TargetAttributesIF {
 public:
  std::string ModelAsString() const override { return "OTTR"; }
};

class Bench {
 public:
  Bench() {
    context.Init(std::unique_ptr<orka::RadioProtocol>(radio), std::make_unique<Target>());
    context.RegisterIpcCallbacks();
    journal.Watch(radio);
    journal.Take();
  }
  ~Bench() { journal.Watch(nullptr); }

  // What arrives, and is queued.
  void Post(std::string_view sender, const MessageLite& message, std::uint64_t request = 1) {
    model->Ipc().Deliver(message.GetTypeName(), sender, message.SerializeAsString(), request);
  }
  void Post(std::uint32_t kind, const Data& data = {}) {
    context.HandleRadioProtocolNotification(orka::NotifyMessage{kind}, data);
  }
  // Runs what is queued; tells what was done, without the lines of the IPC layer.
  Trace Drain() {
    while (auto task = context.TaskQueue().TryPop()) {
      (*task)();
    }
    Trace trace = journal.Take();
    std::erase_if(trace, [](const std::string& line) { return line.contains(" 32790 Register"); });
    return trace;
  }
  // Both at once.
  Trace From(std::string_view sender, const MessageLite& message, std::uint64_t request = 1) {
    Post(sender, message, request);
    return Drain();
  }
  Trace Notify(std::uint32_t kind, const Data& data = {}) {
    Post(kind, data);
    return Drain();
  }
  Trace Subscribe(std::string_view topic, std::string_view subscriber) {
    model->Ipc().Subscribe(topic, subscriber);
    return Drain();
  }
  void Wait(double seconds) { model->Advance(ServiceModel::Seconds(seconds)); }
  Trace After(double seconds) {
    Wait(seconds);
    return Drain();
  }

  Folder folder;
  Journal journal;
  std::shared_ptr<TracedModel> model = std::make_shared<TracedModel>(journal);
  std::shared_ptr<fake::FakeConfig> config = std::make_shared<fake::FakeConfig>();
  orka::fake::FakeRadioProtocol* radio = new orka::fake::FakeRadioProtocol;  // the context's
  KovaContext context{model, std::make_unique<fake::FakeConfigReader>(config)};
};

class BenchTest : public testing::Test, public Bench {};

// --- Messages ------------------------------------------------------------------------------------

// A message with something in every field: numbers 1000 + n (outside every enumeration), texts,
// sub-messages, and fields that its type does not know. With `oneof_case`, only that field.
template <class T>
T Sample(int oneof_case = 0) {
  std::string wire;
  for (int field = 1; field <= 12; ++field) {
    if (oneof_case == 0) {
      const int number = 1000 + field;
      wire += {static_cast<char>(field << 3), static_cast<char>((number & 0x7F) | 0x80),
               static_cast<char>(number >> 7)};
    }
    if (oneof_case == 0 || oneof_case == field) {
      wire += {static_cast<char>(field << 3 | 2), '\x02', '\x08', '\x05'};
    }
  }
  T message;
  EXPECT_TRUE(message.ParseFromString(wire));
  return message;
}

template <class T>
T With(auto set, T message = {}) {
  set(message);
  return message;
}
inline GenericResponse Success(const char* text) {
  return With<GenericResponse>([&](auto& m) { m.set_description(text); });
}

}  // namespace zelt::test
