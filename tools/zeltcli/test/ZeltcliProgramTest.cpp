#include "MessageTypes.h"
#include "zelt/ServiceModel.h"
#include "zelt/fake/TestBus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace zelt::cli {
namespace {

using ::testing::HasSubstr;

// A service "Kova" that answers as the true one does, with a radio that always agrees.
class FakeKova {
 public:
  FakeKova() : model_(ServiceModel::Create("Kova")), ipc_(model_->GetServiceIPC()) {
    Respond("Kova.SetSocketParams", "zelt.GenericResponse", R"({"description":"yes"})");
    Respond("Kova.GetDateTimeReq", "Kova.GetDateTimeResp",
            R"({"date_time":{"year":2026,"month":1,"day":2,"utc_offset_minutes":-90}})");
    Respond("Kova.RtFactoryResetRequest", "Kova.RtFactoryResetResponse", R"({"result":5})");
    Respond("Kova.InjectQrxRequest", "Kova.InjectQrxResponse", R"({"payload":"hAE="})");
    On("Kova.VideoControlRequest", [this](const auto& envelope, const MessageValue& message) {
      const auto selector = message.Number("radio_send_selector");
      Answer(envelope, selector == 0 ? "Kova.GetDateTimeResp" : "Kova.VideoControlResponse",
             selector == 0 ? "{}" : R"({"result":)" + std::to_string(selector) + "}");
    });
    On("Kova.RtVersionMsg", [this](const auto& envelope, const MessageValue& message) {
      CallBeforeTelling(envelope.sender);
      if (message.Has("request")) {
        Send(envelope.sender, "Kova.RtVersionMsg",
             R"({"response":{"version":"1.2","build_number":3}})");
      }
    });
    On("Kova.TransferFirmwareRequest", [this](const auto& envelope, const MessageValue& message) {
      const bool refused = message.Text("target_file_name") == "refused";
      Answer(envelope, "Kova.TransferFirmwareResponse", refused ? R"({"result":1})" : "{}");
    });
    On("Kova.BatteryLevelRequest", [](const auto&, const MessageValue&) {});
    On("Kova.UsbStatus", [](const auto&, const MessageValue&) { throw Busy("64 MiB wait"); });
    On("Kova.RtConnectionAction", [this](const auto& envelope, const MessageValue& message) {
      const bool start = message.Number("action") == 0;
      if (start) {  // told as if another service had become ready, and at once out of date
        Send(envelope.sender, "Kova.RTConnectionStatus", Status());
      }
      status_ = start ? starts_to_.load() : "DISCONNECTED";
      Publish();
    });
    handles_.push_back(ipc_->AddSubscribeHandlerImpl(
        [this](std::string_view subscriber) {
          CallBeforeTelling(std::string(subscriber));
          Send(std::string(subscriber), "Kova.RTConnectionStatus", Status());
        },
        "Kova.RTConnectionStatus"));
    model_->SetMyServiceState(service_state::State::Ready);
  }

  // What the next start leads to.
  void StartsTo(const char* status) { starts_to_ = status; }
  // Does something before a tool is told the status or the version.
  void BeforeTelling(std::function<void(const std::string& tool)> what) {
    const std::lock_guard lock(mutex_);
    before_telling_ = std::move(what);
  }
  std::string Bytes(const std::string& type, const std::string& json) const {
    return types_.FromJson(types_.Find(type), json).Bytes();
  }

 private:
  using Handler =
      std::function<void(const ServiceIPC::MessageEnvelope&, const MessageValue& message)>;

  void On(const std::string& type, Handler handler) {
    handles_.push_back(ipc_->RegisterCallbackImpl(
        type, std::nullopt, [this, handler = std::move(handler)](const auto& envelope, auto bytes) {
          handler(envelope, *types_.Parse(envelope.type, bytes));
        }));
  }
  void Respond(const std::string& request, const std::string& answer, const std::string& json) {
    On(request,
       [=, this](const auto& envelope, const MessageValue&) { Answer(envelope, answer, json); });
  }
  void Answer(const ServiceIPC::MessageEnvelope& envelope, const std::string& type,
              const std::string& json) {
    ipc_->SendResponseImpl(envelope, type, Bytes(type, json));
  }
  void CallBeforeTelling(const std::string& tool) {
    std::unique_lock lock(mutex_);
    const auto what = before_telling_;
    lock.unlock();
    what(tool);
  }
  void Send(const std::string& to, const std::string& type, const std::string& json) {
    ipc_->SendImpl(to, type, Bytes(type, json));
  }
  std::string Status() const { return R"({"status":")" + std::string(status_) + "\"}"; }
  void Publish() {
    ipc_->PublishImpl("Kova.RTConnectionStatus", Bytes("Kova.RTConnectionStatus", Status()));
  }

  MessageTypes types_;
  std::shared_ptr<ServiceModel> model_;
  std::shared_ptr<ServiceIPC> ipc_;
  std::atomic<const char*> status_ = "CONNECTED";
  std::atomic<const char*> starts_to_ = "CONNECTED";
  std::mutex mutex_;  // of what follows
  std::function<void(const std::string&)> before_telling_ = [](const std::string&) {};
  std::vector<AsyncCallbackHandle> handles_;
};

class ZeltcliTest : public testing::Test {
 protected:
  fake::ChildProcess Start(std::vector<std::string> words) const {
    words.insert(words.begin(), ZELTCLI);
    return {std::move(words), bus_.Folder() / "output"};
  }
  // Runs the tool and compares its exit status and a part of what it prints.
  void Expect(int exit, const std::vector<std::string>& words, const std::string& output) const {
    auto tool = Start(words);
    EXPECT_EQ(tool.Wait(), exit) << testing::PrintToString(words) << tool.Output();
    EXPECT_THAT(tool.Output(), HasSubstr(output)) << testing::PrintToString(words);
  }

  fake::TestBus bus_;
  FakeKova kova_;
};

TEST_F(ZeltcliTest, AnswersComeAsResponsesAndAsMessages) {
  Expect(0, {"services"}, "Kova                     READY");
  Expect(0, {"--json", "status", "Kova"},
         R"({"ok":true,"service":"Kova","state":"READY","value":5})");
  Expect(0, {"version"}, "radio software 1.2 build 3");
  Expect(0, {"request", "Kova", "RtVersionMsg", R"({"request":{}})", "--json"},
         R"("message":{"response":{"version":"1.2","build_number":3}})");
  Expect(0, {"datetime", "get"}, "2026-01-02 00:00:00 -01:30");
  Expect(0, {"socket", "set", "::1", "4711"}, "::1 port 4711; it counts from the next start:");
  Expect(0, {"inject", "0401", "--header", "0x10,0"}, "8401");
  Expect(0, {"send", "Kova", "Kova::BatteryLevelRequest"}, "Kova took Kova.BatteryLevelRequest");
}

TEST_F(ZeltcliTest, EachKindOfFailureHasItsStatusAndAnAdvice) {
  Expect(1, {"factory-reset", "--yes"}, "refused the factory reset: result 5");
  Expect(1, {"video", "snapshot"}, "expected Kova.VideoControlResponse as the answer, got");
  Expect(2, {"factory-reset"}, "add --yes");
  Expect(2, {"socket", "set", "localhost", "1"}, "\"localhost\" is no IP address");
  Expect(1, {"video", "snapshot", "--selector", "7"}, "refused snapshot: result 7");
  for (const std::string port : {"0", "65536"}) {
    Expect(2, {"socket", "set", "::1", port}, port + " is no port");
  }
  Expect(2, {"inject", "00", "--header", "1,x"}, "is no header");
  Expect(2, {"inject", "00", "--header", "1,2,256"}, "is no header");
  Expect(2, {"inject", "00", "--header", "1,3"}, "kind 3 cannot be injected");
  Expect(2, {"video", "dance"}, "start-recording");
  Expect(2, {"lnik", "up"}, "did you mean link?");
  Expect(2, {"link", "upp"}, "did you mean link up?");
  Expect(2, {"--bogus"}, "there is no option \"--bogus\"");
  Expect(2, {"--jsn", "version"}, "did you mean --json?");
  Expect(2, {"--timeout", "5", "send", "--bogus=1"}, "there is no option \"--bogus\"");
  Expect(2, {"watch", "--count", "-1"}, "\"-1\" is no whole number");
  for (const std::string time : {"soon", "nan", "inf", "31536001"}) {
    Expect(2, {"--timeout", time, "watch"}, "\"" + time + "\" is no number of seconds");
  }
  Expect(2, {"completion", "fish"}, "give bash or zsh");
  Expect(2, {"send", "Kova", "RtVersionMsg", "@/absent"}, "cannot read /absent");
  Expect(2, {"send", "Kova", "RtVersionMsg", "@/tmp"}, "cannot read /tmp: Is a directory");
  Expect(2, {"send", "Ko va", "RtVersionMsg"}, "cannot send to \"Ko va\"");
  Expect(4, {"send", "kova", "RtVersionMsg"}, "did you mean Kova?");
  Expect(4, {"--json", "status", "Upgrade"},
         R"({"ok":false,"exit":4,"error":"there is no service)");
  Expect(4, {"send", "Upgrade", "RtVersionMsg"}, "zeltcli services shows who is there");
  Expect(5, {"send", "Kova", "RtVersionRequest"}, "did not take Kova.RtVersionRequest");
  Expect(5, {"send", "Kova", "UsbStatus"}, "no room for Kova.UsbStatus now: 64 MiB wait");
  Expect(5, {"request", "Kova", "UsbStatus"}, "try again in a moment");
  Expect(7, {"--timeout", "0.1", "request", "Kova", "BatteryLevelRequest"}, "goes to Battery");
  Expect(7, {"--timeout", "0.1", "request", "Kova", "RtConnectionAction", R"({"action":1})"},
         "Kova answers no Kova.RtConnectionAction");
  Expect(1, {"listen", "--as", "Kova"}, "is running already");
  setenv("ZELT_BUS_ADDRESS", "unix:path=/absent", 1);
  Expect(3, {"version"}, "is that bus running?");
  Expect(3, {"services"}, "unix:path=/absent");
}

TEST_F(ZeltcliTest, PolicyOfTheBusIsToldApart) {
  const std::string config = bus_.Folder() / "strict.conf";
  std::string rules = (std::ostringstream() << std::ifstream(KOVA_BUS_CONFIG).rdbuf()).str();
  rules.insert(rules.find("</policy>"), R"(<deny own_prefix="zelt.tool"/>)");
  std::ofstream(config) << rules;
  const std::string address = "unix:path=" + (bus_.Folder() / "strict").string();
  const fake::ChildProcess strict({"dbus-daemon", "--config-file=" + config, "--nofork",
                                   "--nopidfile", "--print-address", "--address=" + address},
                                  bus_.Folder() / "strict.log");
  ASSERT_TRUE(strict.WaitForOutput("guid="));
  setenv("ZELT_BUS_ADDRESS", address.c_str(), 1);
  Expect(6, {"version"}, "allow this user to own zelt.tool names");
}

TEST_F(ZeltcliTest, LinkIsFollowedToItsEnd) {
  Expect(0, {"link", "down"}, "the link is DISCONNECTED");
  Expect(0, {"link", "status"}, "the link is DISCONNECTED");
  Expect(7, {"version", "--timeout", "0"}, "the link to the radio is DISCONNECTED");
  Expect(0, {"socket", "set", "::1", "4711"}, "it counts from the next zeltcli link up");
  kova_.StartsTo("DISCONNECTED");
  Expect(1, {"link", "up"}, "Kova could not start the link");
  kova_.StartsTo("HANDSHAKE_FAILED");
  Expect(1, {"link", "up"}, "the link is HANDSHAKE_FAILED");
  Expect(7, {"version", "--timeout", "0"}, "the link to the radio is HANDSHAKE_FAILED");
  kova_.StartsTo("CONNECTING");
  Expect(7, {"link", "up", "--timeout", "0.2"}, "the link is still CONNECTING");
  Expect(0, {"link", "down"}, "the link is DISCONNECTED");
  kova_.StartsTo("CONNECTED");
  Expect(0, {"link", "up"}, "the link is CONNECTED\n");
  Expect(0, {"link", "up"}, "the link is CONNECTED; it was up already");
  Expect(0, {"link", "up", "--json"}, R"({"ok":true,"status":"CONNECTED","value":4})");
  Expect(0, {"link", "down"}, "the link is DISCONNECTED");
  kova_.StartsTo("UPGRADE_IN_PROCESS");
  Expect(1, {"link", "up"}, "the radio upgrades itself");
  Expect(1, {"link", "up"}, "the link is UPGRADE_IN_PROCESS");
}

TEST_F(ZeltcliTest, StrangerIsNotBelievedThoughItIsFirst) {
  const auto stranger = ServiceModel::Create()->GetServiceIPC();
  const auto status = kova_.Bytes("Kova.RTConnectionStatus", R"({"status":"CONNECTED"})");
  const auto version = kova_.Bytes("Kova.RtVersionMsg", R"({"response":{"version":"forged"}})");
  kova_.BeforeTelling([=](const std::string& tool) {
    stranger->PublishImpl("Kova.RTConnectionStatus", status);
    for (const auto& [type, payload] :
         {std::pair("Kova.RTConnectionStatus", status), std::pair("Kova.RtVersionMsg", version)}) {
      stranger->RequestImpl(tool, type, payload, std::chrono::milliseconds(0)).get();
    }
  });
  Expect(0, {"link", "down"}, "the link is DISCONNECTED");
  kova_.StartsTo("HANDSHAKE_FAILED");
  Expect(1, {"link", "up"}, "the link is HANDSHAKE_FAILED");
  const std::string told = R"(Kova > Kova.RTConnectionStatus {"status":"HANDSHAKE_FAILED"})";
  Expect(0, {"link", "watch", "--count", "1"}, told);
  Expect(0, {"subscribe", "RTConnectionStatus", "--count", "1"}, told);
  kova_.StartsTo("CONNECTED");
  Expect(0, {"link", "up"}, "the link is CONNECTED");
  Expect(0, {"version"}, "radio software 1.2 build 3");
  Expect(0, {"request", "Kova", "RtVersionMsg", R"({"request":{}})"}, R"("version": "1.2")");
}

TEST_F(ZeltcliTest, FirmwareIsCheckedBeforeItIsPushed) {
  const std::string image = bus_.Folder() / "image.bin";
  Expect(2, {"firmware", "push", image}, "No such file");
  Expect(2, {"firmware", "push", bus_.Folder()}, "is no regular file");
  ASSERT_EQ(mkfifo((bus_.Folder() / "fifo").c_str(), 0600), 0);
  Expect(2, {"firmware", "push", bus_.Folder() / "fifo"}, "is no regular file");
  std::ofstream(image).flush();
  Expect(2, {"firmware", "push", image}, "has 0 bytes");
  std::ofstream(image) << "x";
  Expect(0, {"firmware", "push", image}, "the radio has image.bin, 1 bytes");
  Expect(1, {"firmware", "push", image, "--as", "refused"}, "the transfer of " + image + " failed");
}

TEST_F(ZeltcliTest, WhatArrivesIsPrintedUntilTheEndThatWasAskedFor) {
  Expect(0, {"subscribe", "RTConnectionStatus", "--count", "1"},
         R"(Kova > Kova.RTConnectionStatus {"status":"CONNECTED"})");
  Expect(7, {"subscribe", "RTConnectionStatus", "--count", "2", "--timeout", "0.2"},
         "1 of 2 messages did not come");
  Expect(0, {"watch", "--timeout", "0.1"}, "");

  auto upgrade = Start({"listen", "--as", "Upgrade"});
  ASSERT_TRUE(upgrade.WaitForOutput("listening as Upgrade"));
  fake::ChildProcess send({ZELTCLI, "send", "Upgrade", "RtVersionMsg", R"({"request":{}})"},
                          bus_.Folder() / "send");
  EXPECT_EQ(send.Wait(), 0) << send.Output();
  EXPECT_TRUE(upgrade.WaitForOutput(R"( > Kova.RtVersionMsg {"request":{}})"));
  upgrade.Signal(SIGINT);
  EXPECT_EQ(upgrade.Wait(), 0);

  auto watch = Start({"--json", "watch"});
  while (!watch.Output().contains(R"("published":true,"message":{"status":"DISCONNECTED"}})")) {
    fake::ChildProcess({ZELTCLI, "link", "down"}, bus_.Folder() / "down").Wait();
  }
  bus_.Kill();
  EXPECT_EQ(watch.Wait(), 3) << "a lost bus is no quiet end";
}

}  // namespace
}  // namespace zelt::cli
