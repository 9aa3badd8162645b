// The bus side of every measurement: sends what is to reach the radio, takes what comes from it.
//
// usage: bench_service bus ADDRESS SIDE      the services "Collaboration" and "Upgrade" in one
//        bench_service mqtt SOCKET SIDE      the same for a broker
//        bench_service subscribe ADDRESS SIDE TOPIC CONNECTIONS     subscribers, nothing else
//   SIDE  the radio's socket for notes
#include "Load.h"
#include "Wire.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <deque>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

constexpr const char* kPath = "/zelt/ServiceIPC";
constexpr const char* kInterface = "zelt.ServiceIPC1";
constexpr const char* kKova = "zelt.service.Kova";
constexpr std::uint32_t kReady = 5;
constexpr std::size_t kSmallest = 32;

int Check(int result, const char* what) {
  if (result < 0) {
    errno = -result;
    zelt::ThrowErrno(what);
  }
  return result;
}

// Where the service sends to and receives from. `on_message` gets type and payload.
class Endpoint {
 public:
  std::function<void(View type, View payload)> on_message;

  virtual ~Endpoint() = default;
  virtual void Send(const char* type, View payload) = 0;
  virtual bool Process() = 0;  // true when something came
  virtual pollfd Watched() const = 0;
};

class MqttEndpoint : public Endpoint {
 public:
  explicit MqttEndpoint(const std::string& socket) : stream_(ConnectUnix(socket, SOCK_STREAM)) {
    ::fcntl(stream_.Fd(), F_SETFL, O_NONBLOCK);
    stream_.Out() = MqttWire::Connect("service", "down");
    stream_.Flush();
  }
  // Each message is written at once, as sd-bus does it.
  void Send(const char* /*type*/, View payload) override {
    wire_.Append({}, opcode::kRelayedUp, payload, ++sent_, stream_.Out());
    stream_.Flush();
  }
  bool Process() override {
    stream_.Flush();
    if (!stream_.Fill()) {
      throw std::runtime_error("the broker has gone");
    }
    Incoming message;
    bool any = false;
    for (std::size_t size = 0; (size = wire_.Read(stream_.In(), message, stream_.Out())) > 0;) {
      any = true;
      if (message.header.kind != FrameKind::LinkControl) {
        on_message(kDownType, message.body);
      }
      stream_.Take(size);
      stream_.Flush();
    }
    return any;
  }
  pollfd Watched() const override {
    return {.fd = stream_.Fd(), .events = stream_.Events(), .revents = 0};
  }

 private:
  Stream stream_;
  MqttWire wire_{"up"};
  unsigned sent_ = 0;
};

// One connection to the bus. Everything that comes is seen by one filter.
class BusEndpoint : public Endpoint {
 public:
  std::function<void(std::uint64_t call, bool taken)> on_reply;  // may be empty
  std::function<void(std::uint32_t state)> on_state;             // likewise

  explicit BusEndpoint(const std::string& address) {
    Check(sd_bus_new(&bus_), "no bus");
    Check(sd_bus_set_address(bus_, address.c_str()), "the bus's address");
    Check(sd_bus_set_bus_client(bus_, 1), "bus client");
    Check(sd_bus_start(bus_), "cannot connect to the bus");
    Check(sd_bus_add_filter(bus_, nullptr, &BusEndpoint::OnMessage, this), "filter");
  }
  BusEndpoint(const BusEndpoint&) = delete;
  BusEndpoint& operator=(const BusEndpoint&) = delete;
  ~BusEndpoint() override { sd_bus_flush_close_unref(bus_); }

  void Own(const char* name) { Check(sd_bus_request_name(bus_, name, 0), name); }
  void Match(const std::string& rule) {
    Check(sd_bus_add_match(bus_, nullptr, rule.c_str(), &BusEndpoint::Ignore, nullptr),
          rule.c_str());
  }

  void Send(const char* type, View payload) override { Call(type, payload); }
  std::uint64_t Call(const char* type, View payload) {
    sd_bus_message* message = nullptr;
    std::uint64_t cookie = 0;
    Check(sd_bus_message_new_method_call(bus_, &message, kKova, kPath, kInterface, "Send"), "call");
    sd_bus_message_set_auto_start(message, 0);
    sd_bus_message_append_basic(message, 's', type);
    sd_bus_message_append_array(message, 'y', payload.data(), payload.size());
    constexpr std::uint64_t kNoRequest = 0;
    sd_bus_message_append_basic(message, 't', &kNoRequest);
    Check(sd_bus_send(bus_, message, &cookie), "cannot send");
    sd_bus_message_unref(message);
    return cookie;
  }

  bool Process() override {
    bool any = false;
    while (Check(sd_bus_process(bus_, nullptr), "the bus") > 0) {
      any = true;
    }
    return any;
  }
  pollfd Watched() const override {
    return {.fd = sd_bus_get_fd(bus_),
            .events = static_cast<short>(sd_bus_get_events(bus_)),
            .revents = 0};
  }

 private:
  static int Ignore(sd_bus_message* /*message*/, void* /*self*/, sd_bus_error* /*error*/) {
    return 0;
  }

  static int OnMessage(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    return static_cast<BusEndpoint*>(self)->Handle(message);
  }
  int Handle(sd_bus_message* message) {
    const char* type = nullptr;
    const void* payload = nullptr;
    std::size_t size = 0;
    std::uint64_t call = 0;
    const bool is_send = sd_bus_message_is_method_call(message, kInterface, "Send") > 0;
    if (is_send || sd_bus_message_is_signal(message, kInterface, "Published") > 0) {
      Check(sd_bus_message_read_basic(message, 's', static_cast<void*>(&type)), "type");
      Check(sd_bus_message_read_array(message, 'y', &payload, &size), "payload");
      on_message(type, View(static_cast<const char*>(payload), size));
      if (is_send) {
        Check(sd_bus_reply_method_return(message, "b", 1), "cannot acknowledge");
      }
      return 1;
    }
    if (on_reply && sd_bus_message_get_reply_cookie(message, &call) >= 0) {
      int taken = 0;
      if (sd_bus_message_is_method_error(message, nullptr) == 0) {
        sd_bus_message_read_basic(message, 'b', &taken);
        sd_bus_message_rewind(message, 1);
      }
      on_reply(call, taken != 0);
    }
    if (on_state && sd_bus_message_is_signal(message, "org.freedesktop.DBus.Properties",
                                             "PropertiesChanged") > 0) {
      std::uint32_t state = 0;
      if (sd_bus_message_skip(message, "s") >= 0 &&
          sd_bus_message_read(message, "a{sv}", 1, &type, "u", &state) >= 0) {
        on_state(state);
      }
    }
    return 0;
  }

  sd_bus* bus_ = nullptr;
};

class Service {
 public:
  Service(const std::string& kind, const std::string& where, const std::string& side)
      : side_(ConnectUnix(side, SOCK_SEQPACKET)) {
    if (kind == "mqtt") {
      endpoint_ = std::make_unique<MqttEndpoint>(where);
    } else {
      auto bus = std::make_unique<BusEndpoint>(where);
      bus->Own("zelt.service.Collaboration");
      bus->Own("zelt.service.Upgrade");
      bus_ = bus.get();
      endpoint_ = std::move(bus);
    }
    endpoint_->on_message = [this](View type, View payload) { Received(type, payload); };
  }

  int Run() {
    CommandLine commands({
        {"probe", [this](const Words&) { return Probe(); }},
        {"roundtrip", [this](const Words& words) { return RoundTrip(words); }},
        {"up", [this](const Words& words) { return Up(words); }},
        {"burst", [this](const Words& words) { return Burst(words); }},
        {"firmware", [this](const Words& words) { return Firmware(words); }},
        {"handles", [this](const Words& words) { return Handles(words); }},
        {"ready", [this](const Words& words) { return Ready(words); }},
    });
    while (!Pump(&commands)) {
    }
    return 0;
  }

 private:
  // Handles what is there; waits when there is nothing. True when the driver wants no more.
  bool Pump(CommandLine* commands = nullptr, int milliseconds = 1000) {
    bool any = endpoint_->Process();
    for (SideNote note; ReceiveNote(side_.Get(), note); any = true) {
      counted_ = note.value;
    }
    if (any) {
      return false;
    }
    std::array watched = {
        pollfd{.fd = commands != nullptr ? 0 : -1, .events = POLLIN, .revents = 0},
        endpoint_->Watched(), pollfd{.fd = side_.Get(), .events = POLLIN, .revents = 0}};
    ::poll(watched.data(), watched.size(), milliseconds);
    return commands != nullptr && watched.front().revents != 0 && !commands->Serve();
  }

  void Received(View type, View payload) {
    if (type == kDownType && echoes_awaited_) {
      const std::int64_t now = Now();
      in_order_ = in_order_ && NumberOf(Sample::Relayed, payload) == received_ % kRing;
      latencies_.Add(now - sent_at_[RingPlace(received_++)]);
      latest_ = now;
      if (received_ % kRing == 0 && !Matches(payload)) {
        in_order_ = false;
      }
    } else if (type == kDownType) {
      SendNote(side_.Get(), {SideNote::Kind::Received, NumberOf(Sample::Relayed, payload), Now()});
    } else if (type == "Kova.TransferFirmwareResponse") {
      firmware_result_ = payload.empty();  // its result 0 is not written
    } else if (type == "Kova.FileHandleOpenRequest") {
      handle_requests_.emplace_back(payload);
    }
  }

  // What came back is what was sent, but for the number.
  bool Matches(View payload) const {
    return payload.size() == message_.size() && payload.substr(3) == View(message_).substr(3);
  }

  void Begin(std::size_t size, char mark) {
    message_ = MakeSample(Sample::Relayed, size, mark);
    sent_ = 0;
    received_ = 0;
    in_order_ = true;
    latencies_ = {};
    latencies_.Reserve(1U << 20U);
    latest_ = Now();
  }

  void SendNext() {
    SetNumber(Sample::Relayed, message_, static_cast<unsigned>(sent_));
    sent_at_[RingPlace(sent_++)] = Now();
    endpoint_->Send(kUpType, message_);
  }

  std::string Report(std::int64_t start, std::int64_t done) {
    return Field("count", static_cast<double>(done)) +
           Field("lost", static_cast<double>(sent_ - done)) + Field("in_order", in_order_ ? 1 : 0) +
           Field("seconds", static_cast<double>(latest_ - start) / kSecond) +
           Field("p50", latencies_.Percentile(0.5)) +
           Field("p99", latencies_.Percentile(0.99), true);
  }

  // probe: does a message reach the radio by now?
  std::string Probe() {
    Begin(kSmallest, kCount);
    const std::int64_t before = counted_;
    SendNext();
    AwaitCount(before + 1, kSecond / 10);
    return Field("carried", counted_ > before ? 1 : 0, true);
  }

  // roundtrip SIZE WINDOW SECONDS COUNT: to the radio and back, until time or count (0: no count)
  // is over.
  std::string RoundTrip(const Words& words) {
    const auto window = static_cast<std::int64_t>(Number(words.at(2)));
    const auto length = static_cast<std::int64_t>(Real(words.at(3)) * kSecond);
    const auto count = static_cast<std::int64_t>(Number(words.at(4)));
    Begin(Number(words.at(1)), kEcho);
    echoes_awaited_ = true;
    const std::int64_t start = Now();
    while (Now() - latest_ < kLostAfter) {
      const bool over = latest_ - start >= length || (count != 0 && sent_ == count);
      while (!over && sent_ - received_ < window && (count == 0 || sent_ < count)) {
        SendNext();
      }
      if (sent_ == received_ && (over || sent_ == count)) {
        break;
      }
      Pump();
    }
    echoes_awaited_ = false;
    return Report(start, received_);
  }

  // up SIZE WINDOW SECONDS: to the radio, which counts.
  std::string Up(const Words& words) {
    const auto window = static_cast<std::int64_t>(Number(words.at(2)));
    const auto length = static_cast<std::int64_t>(Real(words.at(3)) * kSecond);
    Begin(Number(words.at(1)), kCount);
    const std::int64_t before = counted_;
    const std::int64_t start = Now();
    for (latest_ = start; latest_ - start < length && Now() - latest_ < kLostAfter;) {
      while (sent_ - (counted_ - before) < window) {
        SendNext();
      }
      const std::int64_t seen = counted_;
      Pump();
      latest_ = counted_ != seen ? Now() : latest_;
    }
    AwaitCount(before + sent_);
    latest_ = Now();
    return Report(start, counted_ - before);
  }

  // The radio tells of every eighth; at the end it is asked, until nothing more comes.
  void AwaitCount(std::int64_t count, std::int64_t lost_after = kLostAfter) {
    for (std::int64_t latest = Now(); counted_ < count && Now() - latest < lost_after;) {
      const std::int64_t seen = counted_;
      SendNote(side_.Get(), {SideNote::Kind::Tell});
      Pump(nullptr, 1);
      latest = counted_ != seen ? Now() : latest;
    }
  }

  // burst COUNT SIZE SECONDS: to the radio, as fast as the bus takes them; those that are refused
  // for now are sent again. SECONDS is how long it may take.
  std::string Burst(const Words& words) {
    const auto count = static_cast<std::int64_t>(Number(words.at(1)));
    const auto until = Now() + static_cast<std::int64_t>(Real(words.at(3)) * kSecond);
    constexpr std::int64_t kUnanswered = 256;  // the bus has a limit, too
    Begin(Number(words.at(2)), kCount);
    const std::int64_t before = counted_;
    const std::int64_t start = Now();
    std::int64_t replies = 0;
    std::int64_t taken = 0;
    bus_->on_reply = [&](std::uint64_t /*call*/, bool is_taken) {
      ++replies;
      taken += is_taken ? 1 : 0;
    };
    while (taken < count && Now() < until) {
      while (taken + (sent_ - replies) < count && sent_ - replies < kUnanswered) {
        SendNext();
      }
      Pump();
    }
    bus_->on_reply = nullptr;
    const std::int64_t accepted = Now();
    AwaitCount(before + taken);
    return Field("taken", static_cast<double>(taken)) +
           Field("refused", static_cast<double>(replies - taken)) +
           Field("lost", static_cast<double>(taken - (counted_ - before))) +
           Field("seconds", static_cast<double>(Now() - start) / kSecond) +
           Field("accepted_after", static_cast<double>(accepted - start) / kSecond, true);
  }

  // firmware PATH NAME
  std::string Firmware(const Words& words) {
    Bytes request;
    AppendText(request, 1, words.at(1));
    AppendText(request, 2, words.at(2));
    firmware_result_.reset();
    const std::int64_t start = Now();
    bus_->Call("Kova.TransferFirmwareRequest", request);
    while (!firmware_result_ && Now() - start < 24 * kLostAfter) {
      Pump();
    }
    return Field("ok", firmware_result_.value_or(false) ? 1 : 0) +
           Field("seconds", static_cast<double>(Now() - start) / kSecond, true);
  }

  // handles COUNT: waits for that many requests for file handles and then answers them all.
  std::string Handles(const Words& words) {
    const std::size_t count = Number(words.at(1));
    if (!std::exchange(hears_handles_, true)) {
      bus_->Match(std::string("type='signal',interface='") + kInterface +
                  "',member='Published',arg0='Kova.FileHandleOpenRequest'");
    }
    std::cout << "{}" << std::endl;  // it listens
    for (std::int64_t latest = Now();
         handle_requests_.size() < count && Now() - latest < kLostAfter;) {
      const std::size_t seen = handle_requests_.size();
      Pump();
      latest = handle_requests_.size() != seen ? Now() : latest;
    }
    for (const Bytes& request : handle_requests_) {
      bus_->Call("Kova.FileHandleOpenResponse", request);  // name and number are the same fields
      endpoint_->Process();
    }
    return Field("requests", static_cast<double>(std::exchange(handle_requests_, {}).size()), true);
  }

  // ready LOG PROGRAM [ARGUMENT]...: from its start until it says that it is ready; then ends it.
  std::string Ready(const Words& words) {
    if (!std::exchange(hears_states_, true)) {
      bus_->Match(std::string("type='signal',interface='org.freedesktop.DBus.Properties',"
                              "member='PropertiesChanged',path='") +
                  kPath + "'");
    }
    std::int64_t ready_at = 0;
    bus_->on_state = [&](std::uint32_t state) { ready_at = state == kReady ? Now() : ready_at; };
    std::vector<char*> arguments;
    for (std::size_t i = 2; i < words.size(); ++i) {
      arguments.push_back(const_cast<char*>(words[i].c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, 1, words.at(1).c_str(),
                                       O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = 0;
    const std::int64_t start = Now();
    const int error =
        ::posix_spawn(&pid, arguments.front(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
      errno = error;
      zelt::ThrowErrno("cannot start " + words.at(2));
    }
    while (ready_at == 0 && Now() - start < kLostAfter) {
      Pump();
    }
    bus_->on_state = nullptr;
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    return Field("ms", ready_at == 0 ? 0 : static_cast<double>(ready_at - start) / 1e6, true);
  }

  std::unique_ptr<Endpoint> endpoint_;
  BusEndpoint* bus_ = nullptr;  // the same, when it is one
  zelt::FileDescriptor side_;
  Bytes message_;
  std::array<std::int64_t, kRing> sent_at_{};
  std::int64_t sent_ = 0;
  std::int64_t received_ = 0;
  std::int64_t latest_ = 0;
  std::int64_t counted_ = 0;  // by the radio
  bool in_order_ = true;
  bool echoes_awaited_ = false;
  Latencies latencies_;
  std::optional<bool> firmware_result_;
  std::vector<Bytes> handle_requests_;
  bool hears_handles_ = false;
  bool hears_states_ = false;
};

// Many subscribers of one topic, each with a connection and a line to the radio of its own.
int Subscribe(const std::string& address, const std::string& side, const std::string& topic,
              std::size_t count) {
  struct Subscriber {
    Subscriber(const std::string& bus, const std::string& notes)
        : endpoint(bus), side(ConnectUnix(notes, SOCK_SEQPACKET)) {}
    BusEndpoint endpoint;
    zelt::FileDescriptor side;
  };
  std::deque<Subscriber> all;
  std::vector<pollfd> watched = {{.fd = 0, .events = POLLIN, .revents = 0}};
  for (std::size_t i = 0; i < count; ++i) {
    Subscriber& added = all.emplace_back(address, side);
    added.endpoint.on_message = [&added](View, View payload) {
      SendNote(added.side.Get(),
               {SideNote::Kind::Received, NumberOf(Sample::Published, payload), Now()});
    };
    added.endpoint.Match(std::string("type='signal',interface='") + kInterface +
                         "',member='Published',arg0='" + topic + "'");
    watched.push_back({.fd = -1, .events = 0, .revents = POLLIN});
  }
  std::cout << "{}" << std::endl;
  while (watched.front().revents == 0) {
    for (std::size_t i = 0; i < count; ++i) {
      if (watched[i + 1].revents != 0) {
        all[i].endpoint.Process();
      }
      watched[i + 1] = all[i].endpoint.Watched();
    }
    ::poll(watched.data(), watched.size(), -1);
  }
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::RunMain("bench_service", [&] {
    const bench::Words words(argv, argv + argc);
    if (argc == 6 && words[1] == "subscribe") {
      return bench::Subscribe(words[2], words[3], words[4], bench::Number(words[5]));
    }
    if (argc != 4) {
      throw std::runtime_error("see the head of Service.cpp");
    }
    return bench::Service(words[1], words[2], words[3]).Run();
  });
}
