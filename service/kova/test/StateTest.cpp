// The status of the link, the slots of those who ask, and the dock: what is remembered, in which
// order of steps, and who is told.

#include "Bench.h"
#include "RtConnectionState.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>

namespace zelt::test {
namespace {

// --- Link ----------------------------------------------------------------------------------------

class Link : public Bench {
 protected:
  Trace Act(int action) {
    return From("Peer", With<Kova::RtConnectionAction>([&](auto& m) {
                  m.set_action(static_cast<Kova::RtConnectionAction::Action>(action));
                }));
  }
  std::string Told() { return Subscribe("Kova.RTConnectionStatus").back(); }

  const Trace begun = {
      Log(6, "StartRadioProtocol", "Start RadioProtocol"),
      Log(6, "RegisterRadioProtocolCallback", "Register to Radio Protocol notifications")};
  const Trace serial = {Log(6, "StartRadioProtocol", "Attempting to start radio via UART"),
                        Line("start", "/dev/ttyS2", 1500000, 1, 8, 0, 0, 5, false, true, 0, 30)};
  const Trace socket = {Log(6, "StartRadioProtocol", "Attempting to start radio via socket"),
                        Line("start", "10.0.0.2", 5, 0, 30)};
  const Trace failed = {Log(3, "StartRadioProtocol", "Radio protocol start failed")};
  const Trace started = Trace{Log(6, "StartRadioProtocol", "Radio protocol started")} +
                        State("StartRadioProtocol", "RtConnection status: CONNECTING", 1);
};

TEST_F(Link, StartsOnlyFromDisconnectedAndTellsEveryStatus) {
  const std::vector<std::tuple<std::uint32_t, int, std::string>> events = {
      {42, 1, "CONNECTING"},
      {3, 2, "CONNECTION_IS_LOST"},
      {5, 3, "HANDSHAKE_FAILED"},
      {1, 4, "CONNECTED"},
      {44, 5, "UPGRADE_IN_PROCESS"}};
  for (const auto& [kind, status, text] : events) {
    EXPECT_EQ(Act(0), begun + serial + started);
    radio->Deliver(orka::NotifyMessage{kind});
    Drain();
    const Trace told = {
        Log(6, "RtConnectionStatusSubscribeHandler", "RtConnection status: " + text),
        Send("New", Status(status))};
    EXPECT_EQ(Subscribe("Kova.RTConnectionStatus"), told);
    const std::string refused = "Radio protocol current connection status " + text;
    EXPECT_EQ(Act(0), (Trace{begun[0], Log(3, "StartRadioProtocol", refused)}));
    EXPECT_EQ(Act(2)[1], "stop");
    EXPECT_EQ(Told(), Send("New", Status(0)));
  }
  // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange): on purpose
  EXPECT_EQ(RtConnectionStateText(RtConnectionState{7}), "Unknown status");
}

TEST_F(Link, FailedStartLeavesItDisconnectedButKeepsTheCallback) {
  SetAnswers([](auto& answers) { answers.start = false; });
  EXPECT_EQ(Act(0), begun + serial + failed);
  EXPECT_EQ(Told(), Send("New", Status(0)));
  radio->Deliver(orka::NotifyMessage::BatteryLevelBroadcast, Kova::BatteryLevel());
  EXPECT_EQ(Drain().size(), 2U);
}

TEST_F(Link, SocketSettingsHoldFromTheNextStartUntilTheyAreCleared) {
  for (const char* ip : {"10.0.0.1", "10.0.0.2"}) {
    From("zeltcli-1", With<Kova::SetSocketParams>([&](auto& m) { m.set_ip(ip), m.set_port(5); }));
  }
  EXPECT_EQ(Act(0), begun + socket + started);
  From("zeltcli-1", Kova::ClearSocketParams());
  Act(1);
  EXPECT_EQ(Act(0), begun + serial + started);
}

TEST_F(Link, IgFailureIsFollowedByConnectedBehindWhatIsQueued) {
  Post(47);
  Post(22, Kova::BatteryLevel());
  model->Ipc().Subscribe("Kova.RTConnectionStatus", "New");
  EXPECT_EQ(WithoutLog(Drain()), (Trace{Publish(Status(6)), Send("Battery", Kova::BatteryLevel()),
                                        Send("New", Status(6)), Publish(Status(4))}));
}

TEST_F(Link, StatusIsStoredBeforeItIsPublished) {
  model->publish_fails = true;
  EXPECT_THROW(Notify(44), std::runtime_error);
  EXPECT_EQ(Told(), Send("New", Status(5)));
  EXPECT_THROW(Notify(47), std::runtime_error);
  EXPECT_EQ(Told(), Send("New", Status(6)));
}

TEST_F(Link, NewSubscriberOfTheRadioIsToldItsWordAndDescriptorsOfALinkThatIsUp) {
  auto message = With<Collaboration::RadioConnectionMsg>([](auto& m) { m.set_connected(true); });
  Notify(2, message);
  const std::string said =
      Log(6, "RadioConnectionSubscribeHandler", "RadioConnection status: connected");
  for (const bool up : {false, true}) {
    SetAnswers([&](auto& answers) {
      answers.device_descriptors = {{0x17, 3}};
      answers.radio_connected = up;
    });
    if (up) {
      message.set_link_connected(true);
      message.add_device_descriptors()->set_attribute(Collaboration::BATTERY_STATE);
      message.mutable_device_descriptors(0)->set_value(3);
    }
    EXPECT_EQ(Subscribe("Collaboration.RadioConnectionMsg"), (Trace{said, Send("New", message)}));
  }
}

// --- Those who ask -------------------------------------------------------------------------------

// Request, kind and payload of the response, answer, warning of a second asker, then the words.
using Query =
    std::tuple<std::shared_ptr<MessageLite>, std::uint32_t, Data, std::shared_ptr<MessageLite>,
               bool, int, const char*, const char*, const char*>;
std::shared_ptr<MessageLite> Boxed(const auto& message) {
  return std::make_shared<std::decay_t<decltype(message)>>(message);
}

// clang-format off: one line a row
std::vector<Query> Queries() {
  using namespace Kova;
  const auto version = With<RtVersionMsg>([](auto& m) { *m.mutable_response() = Sample<RtVersionResponse>(); });
  const auto hardware = With<HardwareIdMsg>([](auto& m) { *m.mutable_response() = Sample<HardwareIdResponse>(); });
  const auto set = With<SetDateTimeMsg>([](auto& m) { m.mutable_response()->set_result(-4); });
  const char* no_set = "Cannot forward setDateTimeg response, requester is not set";
  return {
      {Boxed(Sample<RtVersionMsg>(1)), 9, version.response(), Boxed(version), true, 6, "HandleRtVersionResponse", "Handle RT version response to zeltcli", "Cannot send RT version response, requester is not set"},
      {Boxed(Sample<HardwareIdMsg>(1)), 10, hardware.response(), Boxed(hardware), true, 6, "HandleHardwareIdResponse", "Handle HardwareId response to zeltcli", "Cannot send HardwareId response, requester is not set"},
      {Boxed(LedBrightnessSettingMsg()), 19, Sample<LedBrightnessSettingMsg>(), Boxed(Sample<LedBrightnessSettingMsg>()), false, 6, "HandleLedBrightnessSettingResponse", "Handle LedBrightnessSetting Response to zeltcli", "Cannot forward brithness setting response, requester is not set"},
      {Boxed(GetDateTimeReq()), 34, Sample<GetDateTimeResp>(), Boxed(Sample<GetDateTimeResp>()), false, 7, "HandleGetDateTimeResponse", "Handle GetDateTime Response to zeltcli", "Cannot forward GetDateTimeg response, requester is not set"},
      {Boxed(SetDateTimeReq()), 35, set.response(), Boxed(set), false, 7, "HandleSetDateTimeResponse", "Handle SetDateTime Response to zeltcli", no_set},
      {Boxed(Sample<SetDateTimeMsg>(1)), 35, set.response(), Boxed(set), false, 7, "HandleSetDateTimeResponse", "Handle SetDateTime Response to zeltcli", no_set},
  };
}
// clang-format on

using Requester = Bench;

TEST_F(Requester, OneAnswerGoesToTheLastWhoAsked) {
  for (const auto& [request, kind, response, answer, warns, level, function, text, nobody] :
       Queries()) {
    From("A", *request);
    const Trace asked = From("zeltcli", *request);  // a service: no dash, no number
    EXPECT_EQ(asked.front().ends_with(" Already have a requester: A "), warns);
    EXPECT_EQ(asked.size(), warns ? 3U : 2U);
    Trace answered = Notify(kind, response);
    ASSERT_GE(answered.size(), 2U);
    answered.erase(answered.begin(), answered.end() - 2);
    EXPECT_EQ(answered, (Trace{Log(level, function, text), Send("zeltcli", *answer)}));
    EXPECT_EQ(Notify(kind, response).back(), Log(3, function, nobody));
  }
}

TEST_F(Requester, ToolIsAnsweredBeforeTheServiceThatAskedLater) {
  const auto response = Sample<Kova::GetDateTimeResp>();
  From("zeltcli-1", Kova::GetDateTimeReq(), 9);
  From("A", Kova::GetDateTimeReq());
  EXPECT_EQ(Notify(34, response).back(), Answer("zeltcli-1", 9, response));
  EXPECT_EQ(Notify(34, response).back(), Send("A", response));
}

TEST_F(Requester, InjectionIsAnsweredWithTheReplyAndItsHeaderIsNarrowed) {
  SetAnswers([](auto& answers) { answers.inject = {true, {'o', 'k'}}; });
  const auto request = With<Kova::InjectQrxRequest>([](auto& m) {
    m.set_payload("ab");
    auto& header = *m.mutable_header();
    header.set_h1(0x1F001), header.set_h2(0x102), header.set_h3(0x103), header.set_h4(0x1F004);
    header.set_h5(0x1F005), header.set_h6(0x1F006), header.set_h7(0x1F007);
  });
  const auto response = With<Kova::InjectQrxResponse>([](auto& m) { m.set_payload("ok"); });
  EXPECT_EQ(WithoutLog(From("zeltcli-1", request, 3)),
            (Trace{Line("inject", "ab", 0xF001, 2, 3, 0xF004, 0xF005, 0xF006, 0xF007),
                   Answer("zeltcli-1", 3, response)}));
}

// --- Dock ----------------------------------------------------------------------------------------

std::string g_script;  // stands for the network gadget script
std::string g_notes;   // where the child writes what it was asked to run, and its error output

class Dock : public Bench {
 protected:
  static MediaStreamNotification::InputNotification Input(int key, int state) {
    return With<MediaStreamNotification::InputNotification>([&](auto& m) {
      m.set_key(key);
      m.set_state(static_cast<MediaStreamNotification::InputNotification::State>(state));
    });
  }
  Trace NewSubscriber() { return Subscribe("MediaStreamNotification.InputNotification"); }
  static Trace Said(int level, const char* text) {
    return {Log(level, "HandleDockingNotification", text)};
  }
  static Trace Published(int key, int state) {
    const std::string text = "Publishing [MediaStreamNotification.InputNotification]: key " +
                             std::to_string(key) + (state == 0 ? " On" : " Off");
    return Trace{Publish(Input(key, state))} + Said(6, text.c_str());
  }
};

TEST_F(Dock, UndockIsPublishedUnderTheKeyOfTheLastDock) {
  EXPECT_EQ(Notify(13, Input(4, 1)), Published(9, 1));
  EXPECT_EQ(Notify(13, Input(7, 0)), Published(7, 0));
  EXPECT_EQ(Notify(13, Input(4, 1)), Published(7, 1));
  EXPECT_EQ(Notify(13, Input(-8, 2)), Published(-8, 2));
  EXPECT_EQ(Notify(13, Input(4, 1)), Published(-8, 1));
  const char* text = "Sending [MediaStreamNotification.InputNotification]: key -8 Off";
  EXPECT_EQ(NewSubscriber(),
            (Trace{Log(6, "DockStatusSubscribeHandler", text), Send("New", Input(-8, 1))}));
  EXPECT_EQ(Notify(13, Input(11, 0)), Published(11, 0));  // no marker
}

TEST_F(Dock, StatusIsStoredBeforeItIsPublished) {
  model->publish_fails = true;
  EXPECT_THROW(Notify(13, Input(7, 0)), std::runtime_error);
  EXPECT_EQ(NewSubscriber().back(), Send("New", Input(7, 0)));
}

TEST_F(Dock, StandardCableIsIgnoredOnlyWhenItsScriptSucceeds) {
  const Trace ignoring = Said(
      6,
      "override do_ignore_dock_for_standard_cable exists, Ignoring dock for standard cable and executing rndis.sh");
  const Trace executed = Said(6, "Executed rndis.sh successfully");
  const Trace failed = Said(3, "Failed to execute rndis.sh, not ignoring dock for standard cable");
  folder.File("etc/zelt/do_ignore_dock_for_standard_cable", "");
  g_notes = folder.path / "notes";
  const std::vector<std::pair<const char*, bool>> scripts = {
      {"exit 0", true},      {"exit 1", false}, {"exit 128", false},
      {"kill -9 $$", false}, {nullptr, false},  {"head -c 300000 /dev/zero", true}};
  for (const auto& [script, succeeds] : scripts) {
    std::string notes = "/usr/sbin/rndis.sh /usr/sbin/rndis.sh\n";
    g_script = folder.path / "missing";
    if (script != nullptr) {
      g_script = folder.File("script", std::string("#!/bin/sh\n") + script);
      std::filesystem::permissions(g_script, std::filesystem::perms::owner_all);
    } else {
      notes += "Failed to execute /usr/sbin/rndis.sh: No such file or directory\n";
    }
    std::filesystem::remove(g_notes);
    Notify(13, Input(7, 0));
    EXPECT_EQ(Notify(13, Input(11, 0)),
              ignoring + (succeeds ? executed : failed + Published(11, 0)));
    EXPECT_EQ(folder.Read("notes"), notes);
    EXPECT_EQ(NewSubscriber().back(), Send("New", Input(succeeds ? 7 : 11, 0)));
  }
  EXPECT_EQ(Notify(13, Input(10, 0)), Published(10, 0));  // neither of these is that dock
  EXPECT_EQ(Notify(13, Input(11, 1)), Published(10, 1));
  EXPECT_EQ(Notify(13, Input(11, 2)), Published(11, 2));
}

}  // namespace
}  // namespace zelt::test

// The script's path is fixed; the child runs the test's own script instead.
extern "C" int execl(const char* path, const char* arg, ...) noexcept {
  using namespace zelt::test;
  va_list more;
  va_start(more, arg);
  const char* last = va_arg(more, const char*);
  va_end(more);
  const int notes = open(g_notes.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  std::array<char*, 2> arguments = {g_script.data(), nullptr};
  if (notes < 0 || dprintf(notes, "%s %s%s\n", path, arg, last == nullptr ? "" : " more") < 0) {
    _exit(2);
  }
  if (access(g_script.c_str(), F_OK) != 0) {
    dup2(notes, STDERR_FILENO);
  }
  return execv(g_script.c_str(), arguments.data());
}
