#include "Control.h"
#include "ProtoJson.h"
#include "Simulator.h"
#include "orka/codec/Frame.h"
#include "orka/codec/LinkControl.h"
#include "orka/codec/MessageTable.h"
#include "orka/fake/Deadline.h"
#include "orka/fake/NotificationLog.h"
#include "zelt/fake/MessageText.h"
#include "zelt/fake/TempFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <asio/executor_work_guard.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace radiosim {
namespace {

using orka::RadioProtocol;
using orka::SendResult;
using testing::ElementsAre;
using testing::HasSubstr;
using zelt::fake::FromText;
using N = orka::NotifyMessage;
namespace fs = std::filesystem;

// A simulator on its own thread and the camera's real radio protocol, over TCP (false) or a
// pseudo-terminal (true).
class RadiosimTest : public testing::TestWithParam<bool> {
 protected:
  RadiosimTest() {
    options_.radio.store = folder_ / "store";
    options_.radio.broadcast_every = std::chrono::milliseconds(20);
    options_.restart_time = std::chrono::milliseconds(50);
  }
  ~RadiosimTest() override {
    camera_.Stop();
    Run([this] { simulator_.reset(); });
    work_.reset();
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  template <class Action>
  void Run(Action action) {
    std::promise<void> done;
    asio::post(io_, [&] {
      action();
      done.set_value();
    });
    if (!thread_.joinable()) {
      thread_ = std::thread([this] { io_.run(); });
    }
    done.get_future().wait();
  }

  void StartSimulator(const std::string& fault = {}) {
    (pty_ ? options_.pty_link : options_.listen) =
        pty_ ? (folder_ / "tty").string() : "127.0.0.1:0";
    FaultPlan plan(7);
    plan.SetBitsPerSecond(bits_per_second_);
    ASSERT_TRUE(fault.empty() || plan.Add(fault));
    std::expected<void, std::string> started;
    Run([&] {
      simulator_ = std::make_unique<Simulator>(io_, options_, std::move(plan),
                                               [this](const std::string& line) { Print(line); });
      started = simulator_->Start();
    });
    ASSERT_TRUE(started) << started.error();
    camera_.RegisterCallback(seen_.Callback());
  }
  bool StartLink(std::uint32_t timeout = 10) {
    return pty_ ? camera_.StartUart({.device = options_.pty_link, .baud_rate = 1500000}, 3, timeout)
                : camera_.StartSocket({"127.0.0.1", simulator_->Port()}, 3, timeout);
  }
  void Connect(const std::string& fault = {}) {
    StartSimulator(fault);
    ASSERT_TRUE(StartLink());
    ASSERT_TRUE(seen_.AwaitKind(N::RadioConnected));
  }
  std::string Command(const std::string& line) {
    Simulator::Reply reply;
    Run([&] { reply = simulator_->Command(line); });
    return reply ? *reply : "error: " + reply.error();
  }
  void Send(const orka::RadioOutgoingMessage& message) {
    EXPECT_EQ(camera_.SendToRadio(message, 0), SendResult::Sent);
  }

  template <class T>
  T Last(N kind) {
    return std::get<T>(seen_.Data(kind).back());
  }
  // Sends a request; returns its answer as JSON.
  template <class T>
  std::string Ask(const std::string& request, N kind) {
    seen_.Clear();
    Send(FromText<T>(request));
    return seen_.AwaitKind(kind) ? ToJson(seen_.Data(kind).back()) : "no answer";
  }

  // Writes a file chunk by chunk, as long as the radio takes it.
  orka::qrx::Result Push(const std::string& name, const std::string& content) {
    seen_.Clear();
    Send(orka::qrx::FileAccessRequest{1, 2, static_cast<std::uint32_t>(content.size()), name});
    if (!seen_.AwaitKind(N::FileAccess)) {
      return orka::qrx::Result::Failure;
    }
    auto result = Last<orka::qrx::FileAccessResponse>(N::FileAccess).result;
    const std::size_t limit = camera_.GetMaxTransferDataSize();
    std::uint16_t number = 0;
    for (std::size_t at = 0; result == orka::qrx::Result::Success && at < content.size();
         at += limit) {
      PushChunk(number, content.substr(at, limit));
      if (!seen_.AwaitKind(N::TransferData, ++number)) {
        return orka::qrx::Result::Failure;
      }
      result = Last<orka::qrx::TransferDataResponse>(N::TransferData).result;
    }
    return result;
  }
  void PushChunk(std::uint16_t number, const std::string& bytes) {
    camera_.SendTransferData(
        {3, number, static_cast<std::uint16_t>(bytes.size())}, 0,
        std::make_unique<std::vector<std::uint8_t>>(bytes.begin(), bytes.end()));
  }

  void Print(const std::string& line) {
    const std::lock_guard lock(mutex_);
    lines_ += line + '\n';
  }
  std::string Lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  orka::fake::Deadline deadline_{100};
  zelt::fake::TempFolder temporary_;
  const fs::path& folder_ = temporary_.path;
  Options options_;
  bool pty_ = false;
  std::uint32_t bits_per_second_ = 0;
  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  std::thread thread_;
  std::unique_ptr<Simulator> simulator_;
  std::mutex mutex_;
  std::string lines_;
  orka::fake::NotificationLog seen_;
  RadioProtocol camera_{nullptr, "test", "camera"};
};

class RadiosimLineTest : public RadiosimTest {
 protected:
  RadiosimLineTest() { pty_ = GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(TcpAndPty, RadiosimLineTest, testing::Bool(),
                         [](const auto& line) { return line.param ? "pty" : "tcp"; });

TEST_F(RadiosimTest, EveryRequestIsAnswered) {
  using orka::codec::Direction;
  Connect();
  for (const auto& row : orka::codec::kMessageTable) {
    const auto response = static_cast<std::uint16_t>(row.opcode | 0x8000U);
    if (row.direction != Direction::ToRadio || row.kind != orka::pel::FrameKind::Request ||
        row.name == "ShutdownRequest" ||
        FindRow(Direction::FromRadio, response, orka::pel::FrameKind::Response) == nullptr) {
      continue;
    }
    orka::codec::Bytes message;
    orka::codec::ByteWriter(message).Put(row.opcode);
    if (row.body == orka::codec::Body::Record) {  // all fields zero
      message.resize(message.size() + (row.name == "FileAccessRequest" ? 11 : 6));
    }
    EXPECT_TRUE(camera_.InjectQRXMessage(message, {}).first) << row.name;
  }
  Send(Kova::ShutdownRequest());
  EXPECT_TRUE(seen_.AwaitKind(N::ShutdownResponse));
  EXPECT_TRUE(seen_.AwaitKind(N::ConnectionLost)) << "it shuts down as asked";
  EXPECT_THAT(Command("received 1"),
              testing::AllOf(HasSubstr(R"("opcode":"0x0405","kind":"request")"),
                             HasSubstr(R"("delay_ms":0)")));
}

TEST_F(RadiosimTest, EveryNotificationCanBeSentByHand) {
  Connect();
  for (const auto& row : orka::codec::kMessageTable) {
    if (row.direction == orka::codec::Direction::FromRadio) {
      seen_.Clear();
      const std::string name(row.name);
      EXPECT_EQ(Command("notify " + name +
                        (name == "LedBrightnessResponse" ? R"( {"brightness":"High"})" : "")),
                "");
      EXPECT_TRUE(seen_.AwaitKind(row.notify)) << name;
    }
  }
  EXPECT_EQ(Command(R"(notify FileAccessResponse {"result":5,"fileSize":7,"fileName":"x"})"), "");
  EXPECT_TRUE(seen_.AwaitKind(N::FileAccess));
  EXPECT_EQ(Last<orka::qrx::FileAccessResponse>(N::FileAccess),
            (orka::qrx::FileAccessResponse{orka::qrx::Result::NoSpace, 7, "x"}));
}

TEST_F(RadiosimTest, RequestsSentByHandAreNumberedAndEachIsAnswered) {
  Connect();
  for (const char* handle : {"1", "2"}) {
    Command("notify FileHandleOpenRequest {\"handle_id\":" + std::string(handle) + "}");
  }
  ASSERT_TRUE(seen_.AwaitKind(N::FileHandleOpenRequest, 2));
  orka::FileHandleRespWrapper answer;
  for (answer.handle_id = 2; answer.handle_id > 0; --answer.handle_id) {
    Send(answer);
  }
  Send(Kova::RtVersionRequest());
  ASSERT_TRUE(seen_.AwaitKind(N::RtVersion));
  EXPECT_THAT(Command("received 3"),
              testing::ContainsRegex("\"transaction\":2,.*\n.*\"transaction\":1,.*\n"));
}

TEST_F(RadiosimTest, SettingsAreKeptAlsoThoseThatNoTableKnows) {
  Connect();
  const auto has = [](const std::string& part) { return HasSubstr(part); };
  using Date = Kova::SetDateTimeReq;
  EXPECT_THAT(Ask<Date>("date_time { year: 2031 month: 2 day: 30 }", N::SetDateTime),
              testing::Not(has(R"("result":0)")))
      << "there is no such day";
  Ask<Date>("date_time { year: 2031 month: 2 day: 28 hour: 23 utc_offset_minutes: 60 }",
            N::SetDateTime);
  EXPECT_THAT(Ask<Kova::GetDateTimeReq>("", N::GetDateTime),
              has(R"({"year":2031,"month":2,"day":28,"hour":23)"));
  Ask<Kova::RadioWlanControlOutgoingMsg>("action: CONNECT ssid: 'depot'", N::WlanControl);
  Ask<Kova::LedBrightnessSettingMsg>("brightness: 'High'", N::LedBrightness);
  EXPECT_THAT(Command("state"),
              testing::AllOf(has(R"("brightness":"High")"), has(R"("wlan_ssid":"depot")")));
  EXPECT_THAT(Ask<Kova::LedBrightnessSettingMsg>("intensity: 7", N::LedBrightness),
              has(R"("intensity":7)"));
  EXPECT_THAT(Ask<Kova::OpcodeSubscriptionMsg>("request { subscribe: true codes: [77, 2] }",
                                               N::OpcodeSubscription),
              has(R"("codes":["SUBSCRIBE_BLUETOOTH_STATUS",77])"));
  EXPECT_THAT(
      Ask<Kova::ButtonsSubscribtionMsg>(
          "request { buttons { identifier: 7 subscribed: true } buttons { identifier: 8 } }",
          N::ButtonsSubscribtion),
      testing::AllOf(has(R"({"name":"","identifier":7,"subscribed":true})"),
                     has(R"({"name":"","identifier":8,"subscribed":false})"),
                     has(R"("name":"EButton","identifier":151,"subscribed":true)")));
  Ask<Kova::RtFactoryResetRequest>("", N::FactoryReset);
  EXPECT_THAT(Command("state"), has(R"("brightness":"Medium")"));
}

TEST_F(RadiosimTest, SubscriptionsBringBroadcastsUntilTheyEnd) {
  options_.radio.drain_per_minute = 120;
  Connect();
  const auto subscription = [](const std::string& on) {
    return FromText<Kova::OpcodeSubscriptionMsg>(
        "request { subscribe: " + on + " codes: [SUBSCRIBE_BATTERY_LEVEL, SUBSCRIBE_COVERT_MODE, " +
        "SUBSCRIBE_EMERGENCY, SUBSCRIBE_LOCATION] }");
  };
  Send(subscription("true"));
  ASSERT_TRUE(seen_.AwaitKind(N::BatteryLevelBroadcast, 5));
  EXPECT_TRUE(seen_.AwaitKind(N::LocationInfo, 2));
  const auto percent = [&] { return Last<Kova::BatteryLevel>(N::BatteryLevelBroadcast).percent(); };
  const auto full = percent();
  for (std::size_t count = 6; percent() >= full; ++count) {  // the battery drains
    ASSERT_TRUE(seen_.AwaitKind(N::BatteryLevelBroadcast, count));
  }
  Send(FromText<Kova::ToggleCovertModeMsg>("enabled: true"));
  EXPECT_TRUE(seen_.AwaitKind(N::CovertModeBroadcast, 2));
  Send(FromText<Collaboration::RadioEmergencyMsg>("state: RAISED"));
  EXPECT_TRUE(seen_.AwaitKind(N::RadioEmergency, 3)) << "as it stood, the answer, the change";
  Send(subscription("false"));
  ASSERT_TRUE(seen_.AwaitKind(N::OpcodeSubscription, 2));
  EXPECT_THAT(Last<Kova::OpcodeSubscriptionMsg>(N::OpcodeSubscription).response().codes(),
              testing::IsEmpty());
  seen_.Clear();
  Send(Kova::RtVersionRequest());
  EXPECT_THAT(seen_.Await(1), ElementsAre(N::RtVersion));
}

TEST_P(RadiosimLineTest, FileIsStoredUnderItsNameWithItsDigest) {
  Connect();
  EXPECT_EQ(camera_.GetMaxTransferDataSize(), pty_ ? 4096 : 32768);
  const std::string content(100'000, 'x');
  EXPECT_EQ(Push("image.bin", content), orka::qrx::Result::Success);
  std::ifstream file(options_.radio.store / "image.bin", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
  EXPECT_THAT(Command("state"),
              HasSubstr("d69e68988157833272305aaf21f453c800346e8a3640db6578e260215542e5d4"));
}

TEST_F(RadiosimTest, NamesThatLeadOutOfTheStoreAreRefused) {
  Connect();
  for (const char* name : {"", ".", "..", "../x", "/etc/x", "a/b", "a\\b", ".hidden", "a b"}) {
    EXPECT_EQ(Push(name, "1"), orka::qrx::Result::InvalidParameter) << name;
  }
  EXPECT_EQ(Push(std::string(200, 'n'), "1"), orka::qrx::Result::InvalidParameter);
  EXPECT_FALSE(fs::exists(folder_ / "x"));
}

TEST_F(RadiosimTest, ChunksOutOfOrderAreRefusedAndRepeatedOnesNotDoubled) {
  using orka::qrx::Result;
  Connect();
  const auto push = [&](std::uint16_t number, const char* bytes) {
    seen_.Clear();
    PushChunk(number, bytes);
    EXPECT_TRUE(seen_.AwaitKind(N::TransferData));
    return Last<orka::qrx::TransferDataResponse>(N::TransferData).result;
  };
  Send(orka::qrx::FileAccessRequest{1, 2, 4, "f"});
  EXPECT_EQ(push(1, "zz"), Result::InvalidParameter);
  EXPECT_EQ(push(0, "ab"), Result::Success);
  EXPECT_EQ(push(0, "ab"), Result::Success);
  EXPECT_EQ(push(1, "cde"), Result::InvalidParameter);
  EXPECT_FALSE(fs::exists(options_.radio.store / "f")) << "not complete";
  EXPECT_EQ(push(1, "cd"), Result::Success);
  EXPECT_EQ(fs::file_size(options_.radio.store / "f"), 4);
  Send(orka::qrx::FileAccessRequest{1, 2, 4, "g"});
  EXPECT_EQ(push(0, "ab"), Result::Success);
  camera_.Stop();
  EXPECT_EQ(Command("reboot"), "");
  EXPECT_EQ(std::distance(fs::directory_iterator(options_.radio.store), {}), 1)
      << "nothing is left of the file that was given up";
}

// What three version requests and then a hardware identity request bring under one fault.
struct FaultCase {
  const char* fault;
  std::vector<N> expected;
};
const std::vector<FaultCase> kFaultCases = {
    {"drop message=RtVersionResponse count=1", {N::RtVersion, N::RtVersion, N::HardwareId}},
    {"drop message=RtVersionRequest direction=in after=1", {N::RtVersion, N::HardwareId}},
    {"duplicate message=RtVersionResponse count=1",
     {N::RtVersion, N::RtVersion, N::RtVersion, N::RtVersion, N::HardwareId}},
    {"delay message=RtVersionResponse count=1 delay_ms=400",
     {N::RtVersion, N::RtVersion, N::HardwareId, N::RtVersion}},
    {"delay message=RtVersionRequest direction=in after=2 delay_ms=400",
     {N::RtVersion, N::RtVersion, N::HardwareId, N::RtVersion}},
    {"reorder message=RtVersionResponse",
     {N::RtVersion, N::RtVersion, N::HardwareId, N::RtVersion}},
    {"corrupt message=RtVersionResponse count=2", {N::RtVersion, N::HardwareId}},
    {"truncate message=RtVersionResponse count=1", {N::RtVersion, N::RtVersion, N::HardwareId}},
    {"half-frame message=RtVersionResponse after=1", {N::RtVersion, N::ConnectionLost}},
    {"silent message=RtVersionResponse after=1", {N::RtVersion, N::ConnectionLost}},
    {"drop message=KeepAlive",
     {N::RtVersion, N::RtVersion, N::RtVersion, N::HardwareId, N::ConnectionLost}},
    {"reboot message=RtVersionRequest direction=in", {N::ConnectionLost}},  // last: it is away then
};

TEST_P(RadiosimLineTest, FaultsOfFramesDoWhatTheySay) {
  for (const FaultCase& fault_case : kFaultCases) {
    SCOPED_TRACE(fault_case.fault);
    if (!simulator_) {
      Connect();
    } else {
      seen_.Clear();
      ASSERT_TRUE(StartLink());
      ASSERT_TRUE(seen_.AwaitKind(N::RadioConnected)) << "it takes the camera again";
    }
    Command("fault clear");
    ASSERT_EQ(Command(std::string("fault ") + fault_case.fault), "");
    seen_.Clear();
    const std::size_t room = camera_.GetSendRoom();
    Run([&] {  // the simulator finds them all at once, whatever holds us up
      for (int i = 0; i < 3; ++i) {
        Send(Kova::RtVersionRequest());
      }
      Send(Kova::HardwareIdRequest());
      while (camera_.GetSendRoom() < room) {
        std::this_thread::yield();
      }
    });
    EXPECT_EQ(seen_.Await(fault_case.expected.size()), fault_case.expected);
    EXPECT_THAT(Command("faults"), testing::ContainsRegex("fired [1-9]\n")) << "not at each tick";
    camera_.Stop();
  }
}

// Both requests come late by the same, the first after its session is over.
TEST_P(RadiosimLineTest, LateRequestOfAnEarlierSessionIsForgotten) {
  Connect("delay direction=in delay_ms=200");
  Send(Kova::RtVersionRequest());
  camera_.Stop();
  seen_.Clear();
  ASSERT_TRUE(StartLink());
  ASSERT_TRUE(seen_.AwaitKind(N::RadioConnected));
  Send(Kova::HardwareIdRequest());
  EXPECT_THAT(seen_.Await(3), ElementsAre(N::HandshakeCompleted, N::RadioConnected, N::HardwareId));
}

TEST_F(RadiosimTest, FaultsOfAnswersDoWhatTheySay) {
  using orka::qrx::Result;
  Connect();
  const std::string content(100'000, 'x');
  const auto under = [&](const std::string& fault, const std::string& pushed) {
    Command("fault clear");
    EXPECT_EQ(Command("fault " + fault), "");
    return Push("f", pushed);
  };
  EXPECT_EQ(under("refuse-access result=5", ""), Result::NoSpace);
  EXPECT_EQ(under("refuse-chunk chunk=3", content), Result::Failure);
  EXPECT_EQ(Last<orka::qrx::TransferDataResponse>(N::TransferData).chunk_number, 3);
  EXPECT_FALSE(fs::exists(options_.radio.store / "f")) << "neither empty nor complete";
  EXPECT_EQ(under("wrong-name", content), Result::Success);
  EXPECT_EQ(Last<orka::qrx::FileAccessResponse>(N::FileAccess).file_name, "fx");
  EXPECT_EQ(under("wrong-size", content), Result::Success);
  EXPECT_EQ(Last<orka::qrx::FileAccessResponse>(N::FileAccess).file_size, 100'001);
  EXPECT_EQ(under("wrong-chunk after=3", content), Result::Success);
  EXPECT_EQ(Last<orka::qrx::TransferDataResponse>(N::TransferData).chunk_number, 4);
  for (const std::string frames : {"direction=in", "direction=out"}) {
    EXPECT_EQ(under("delay delay_ms=1 chunk=2 " + frames, content), Result::Success);
    EXPECT_THAT(Command("faults"), HasSubstr("chunk=2: matched 1, fired 1\n")) << frames;
  }
  EXPECT_EQ(Command("fault wrong-transaction"), "");
  const std::vector<std::uint8_t> version = {0x04, 0x01};
  EXPECT_FALSE(camera_.InjectQRXMessage(version, {}).first);
}

TEST_P(RadiosimLineTest, UnansweredHandshakeFailsAndTheNextSucceeds) {
  StartSimulator("no-handshake");
  ASSERT_TRUE(StartLink(2));  // a second hello goes unanswered, too
  EXPECT_TRUE(seen_.AwaitKind(N::HandshakeFailed));
  camera_.Stop();
  EXPECT_THAT(Command("faults"), testing::ContainsRegex("fired [2-9]"));
  EXPECT_EQ(Command("fault clear"), "");
  EXPECT_EQ(Command("fault delay message=HelloAnswer delay_ms=1200"), "");  // after a second hello
  ASSERT_TRUE(StartLink());
  EXPECT_TRUE(seen_.AwaitKind(N::HandshakeCompleted));
  EXPECT_EQ(Command("close"), "");
  EXPECT_TRUE(seen_.AwaitKind(N::ConnectionLost));
}

// A chunk takes longer than a side may be silent.
TEST_P(RadiosimLineTest, SlowLineIsNotTakenForALostOne) {
  bits_per_second_ = 9600;
  options_.max_transfer_size = 2900;
  Connect();
  auto since = std::chrono::steady_clock::now();
  EXPECT_EQ(Push("slow", std::string(2900, 's')), orka::qrx::Result::Success);
  EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(2500));
  since = std::chrono::steady_clock::now();
  Command(R"(notify FileAccessWriteRequest {"file_name":")" + std::string(300, 'n') + "\"}");
  EXPECT_TRUE(seen_.AwaitKind(N::FileAccessWriteRequest));
  EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(250));
  EXPECT_TRUE(camera_.IsRadioConnected());
  EXPECT_THAT(Command("faults"), HasSubstr("slow line of 9600 bits per second: slowed"));
}

// A camera that died in the middle of a frame, on a line that is not quiet.
TEST_F(RadiosimTest, CameraThatSendsOnlyNoiseIsLost) {
  StartSimulator();
  const auto frame = [](const orka::codec::Bytes& payload) {
    orka::codec::Bytes bytes;
    orka::codec::AppendFrame({.kind = 3}, payload, bytes);
    return bytes;
  };
  asio::io_context io;
  asio::ip::tcp::socket line(io);
  line.connect({asio::ip::address_v4::loopback(), simulator_->Port()});
  const auto since = std::chrono::steady_clock::now();
  asio::write(line, asio::buffer(frame(Encode(orka::codec::Hello{}))));
  for (asio::error_code gone; !gone && !Lines().contains("the camera is silent");) {
    asio::write(line, asio::buffer("noise", 5), gone);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the pace of the noise
  }
  EXPECT_THAT(Lines(), HasSubstr("link ends: the camera is silent"));
  EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(2500));
}

TEST_F(RadiosimTest, CommandsNameWhatWasWrong) {
  Connect();
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"bogus", "unknown command \"bogus\""},
      {"notify Nobody {}", "no \"Nobody\""},
      {R"(notify Docking {"kex":1})", "kex: Cannot find field"},
      {R"(notify FileAccessResponse {"result":300})", "result: at most 255"},
      {R"(notify FileAccessResponse {"file":1})", "file: Cannot find field"},
      {R"(notify LedBrightnessResponse {"brightness":"Dim"})",
       "no counterpart for brightness \"Dim\""},
      {"received many", "\"many\" is no number"},
      {"silent maybe", R"("on" or "off")"},
      {"fault explode", "unknown fault \"explode\""},
      {"fault drop when=now", "unknown key \"when\""},
      {"fault drop after=x", "\"x\" makes no sense for after"},
      {"fault drop message=Nothing", "the radio sends no \"Nothing\""},
      {"fault corrupt direction=in", "for frames of the radio only"},
      {"fault wrong-chunk message=Docking", "for TransferDataResponse only"},
      {"fault drop message=Hello", "the radio sends no \"Hello\""},
      {"fault drop message=HelloAnswer direction=in", "the camera sends no \"HelloAnswer\""},
      {"fault delay message=KeepAlive direction=in", "delay does nothing to the camera's link"},
      {"fault wrong-transaction message=Docking", "for responses only"},
      {"fault drop message=Docking chunk=1", "Docking has no chunk number"},
  };
  for (const auto& [command, error] : cases) {
    EXPECT_THAT(Command(command), testing::AllOf(HasSubstr("error: "), HasSubstr(error)));
  }
}

// Which of these frames a rule hits, in words: '*' for each that it does.
std::string Hits(FaultPlan& plan) {
  using Chunk = std::optional<std::uint16_t>;
  const struct {
    bool incoming;
    std::string_view message;
    bool is_response;
    bool is_link_control;
    Chunk chunk;
  } frames[] = {
      {true, "TransferDataRequest", false, false, Chunk(1)},
      {true, "TransferDataRequest", false, false, Chunk(2)},
      {false, "TransferDataResponse", true, false, Chunk(1)},
      {false, "TransferDataResponse", true, false, Chunk(2)},
      {false, "Docking", false, false, {}},
      {false, "KeepAlive", false, true, {}},
      {true, "KeepAlive", false, true, {}},
  };
  std::string hits;
  for (const auto& [incoming, message, is_response, is_link_control, chunk] : frames) {
    hits += plan.Fire(incoming, message, is_response, is_link_control, chunk).empty() ? '.' : '*';
  }
  return hits;
}
std::string Hits(const std::string& rule, std::uint64_t seed = 1) {
  FaultPlan plan(seed);
  EXPECT_TRUE(plan.Add(rule)) << rule;
  std::string hits = Hits(plan);
  for (int more = rule.contains("probability") ? 200 : 0; more > 0; --more) {
    hits += Hits(plan);
  }
  return hits;
}

TEST(FaultPlan, RulesHitWhatTheyName) {
  for (const auto& [rule, hits] : std::vector<std::pair<const char*, const char*>>{
           {"drop", "..***.."},
           {"drop direction=in", "**....."},
           {"drop message=KeepAlive", ".....*."},
           {"drop direction=in message=KeepAlive", "......*"},
           {"delay chunk=2", "...*..."},
           {"delay direction=in chunk=2", ".*....."},
           {"wrong-transaction", "..**..."},
           {"corrupt after=1 count=1", "...*..."},
           {"refuse-chunk", "......."}}) {
    EXPECT_EQ(Hits(rule), hits) << rule;
  }
  const std::string rule = "drop probability=0.3";
  const std::string hits = Hits(rule, 7);
  EXPECT_NEAR(static_cast<double>(std::ranges::count(hits, '*')), 0.3 * 603, 60);
  EXPECT_EQ(Hits(rule, 7), hits);
  EXPECT_NE(Hits(rule, 8), hits);
}

TEST_F(RadiosimTest, PlanFileNamesFileAndLineOfWhatIsWrong) {
  const auto load = [&](const std::string& text) {
    const fs::path path = folder_ / "plan.toml";
    std::ofstream(path) << text;
    FaultPlan plan;
    if (const auto loaded = plan.Load(path.string()); !loaded) {
      return loaded.error();
    }
    const std::string hits = Hits(plan);
    return std::to_string(plan.BitsPerSecond()) + " bit/s " + hits + '\n' + plan.Report();
  };
  const std::string rule = "[[fault]]\nkind = \"drop\"\nmessage = \"Docking\"\nprobability = 0.5\n";
  std::set<std::string> seeds;  // by what they lead to
  for (int seed = 0; seed < 10; ++seed) {
    seeds.insert(load("seed = " + std::to_string(seed) + "\nbits_per_second = 9600\n" + rule));
  }
  const std::string report = "\nfault drop direction=out message=Docking: matched 1, fired ";
  EXPECT_THAT(seeds, ElementsAre("9600 bit/s ....*.." + report + "1\n",
                                 "9600 bit/s ......." + report + "0\n"));
  for (const auto& [text, error] : std::vector<std::pair<std::string, std::string>>{
           {"seed = \"x\"", ":1: seed"},
           {"\nfaults = 1", ":2: \"faults\" is not expected"},
           {"[[fault]]\nkind = \"explode\"", ":1: unknown fault"},
           {"[[fault]]\nkind = \"drop\"\nafter = -1", ":3: \"-1\" makes no sense"},
           {"[[fault]]\nkind = \"silent\"\nmessage = \"Nix\"", ":1: the radio sends no"},
           {"seed = ", ":1: "}}) {
    EXPECT_THAT(load(text), HasSubstr("plan.toml" + error));
  }
}

TEST_F(RadiosimTest, ControlSocketServesCommandsAndReplacesAStaleOne) {
  StartSimulator();
  const std::string path = (folder_ / "control").string();
  EXPECT_EQ(RunControlClient(path, "state"), 2) << "nobody is there";
  for (int round = 0; round < 2; ++round) {
    std::unique_ptr<Control> control;
    Run([&] {
      control = std::make_unique<Control>(io_, *simulator_);
      EXPECT_TRUE(control->Start(path));
      EXPECT_FALSE(Control(io_, *simulator_).Start(path)) << "it is served already";
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(RunControlClient(path, "state"), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("\"link_up\":false"));
    EXPECT_EQ(RunControlClient(path, "bogus"), 1);
    EXPECT_EQ(RunControlClient(path, "state\nquit"), 1) << "two commands";
    Run([&] { control.reset(); });
  }
  asio::io_context hung;
  const asio::local::stream_protocol::acceptor acceptor(hung, path);
  EXPECT_EQ(RunControlClient(path, "state", std::chrono::milliseconds(20)), 2) << "no reply";
}

TEST_F(RadiosimTest, NewCameraTakesThePlaceOfTheOldOne) {
  Connect();
  RadioProtocol other(nullptr, "", "");
  orka::fake::NotificationLog seen;
  other.RegisterCallback(seen.Callback());
  ASSERT_TRUE(other.StartSocket({"127.0.0.1", simulator_->Port()}, 0, 10));
  EXPECT_TRUE(seen.AwaitKind(N::HandshakeCompleted));
  EXPECT_TRUE(seen_.AwaitKind(N::ConnectionLost));
  other.Stop();
}

TEST_F(RadiosimTest, StartNamesWhatIsWrong) {
  for (const auto& [listen, error] :
       std::vector<std::pair<std::string, std::string>>{{"", "either --listen"},
                                                        {"localhost:1", "is not ADDRESS:PORT"},
                                                        {"127.0.0.1:x", "is not ADDRESS"},
                                                        {"127.0.0.1", "is not ADDRESS"},
                                                        {"192.0.2.1:1", "cannot listen"}}) {
    Run([&] {
      Options options;
      options.listen = listen;
      Simulator simulator(io_, options, FaultPlan(), [](const std::string&) {});
      const auto started = simulator.Start();
      ASSERT_FALSE(started);
      EXPECT_THAT(started.error(), HasSubstr(error));
    });
  }
}

}  // namespace
}  // namespace radiosim
