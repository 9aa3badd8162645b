// Every message of the catalogue and every notification of the radio, each on a fresh bridge: what
// it does with the message, under which name and level it says so, and that content which the
// bridge does not know passes unchanged.

#include "Bench.h"

#include "orka/codec/MessageTable.h"

#include <set>

namespace zelt::test {
namespace {

enum class Via : std::uint8_t { Message, ToolMessage, Topic, Radio };

struct Row {
  Via via = Via::Message;
  std::string type;  // of the message, or the topic
  std::string sender;
  std::string payload;
  std::uint32_t kind = 0;       // of the notification,
  std::size_t alternative = 0;  // and of its payload; kNotRead: whatever it is
  Data data;
  Trace expected;
  Trace for_tool;           // of an answer that may go to a tool: the lines before it,
  std::string description;  // and the answer itself
  bool fills_slot = false;  // a request after which such an answer goes to the tool that asked

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.type << " " << row.kind; }
};

constexpr std::size_t kNotRead = 99;
constexpr std::uint32_t kOfMessage = 1001;  // the first field of a sample

template <class T>
Row Ipc(const Trace& expected, const T& message = Sample<T>(), const char* sender = "Peer") {
  return With<Row>([&](Row& row) {
    row.type = message.GetTypeName();
    row.sender = sender;
    row.payload = message.SerializeAsString();
    row.expected = expected;
  });
}
template <class T>
Row Tool(const Trace& expected, const T& message = Sample<T>()) {
  return With([](Row& row) { row.via = Via::ToolMessage; }, Ipc<T>(expected, message, "zeltcli-1"));
}
template <class T>
Row Topic(const Trace& expected) {
  return With([](Row& row) { row.via = Via::Topic; }, Ipc<T>(expected, {}));
}
Row Event(std::uint32_t kind, const Trace& expected, const Data& data = {},
          std::size_t alternative = kNotRead) {
  return With<Row>([&](Row& row) {
    row.via = Via::Radio;
    row.kind = kind;
    row.alternative = alternative;
    row.data = data;
    row.expected = expected;
  });
}
template <class T>
Row In(std::uint32_t kind, std::size_t alternative, const Trace& expected, const T& message) {
  return Event(kind, expected, message, alternative);
}
// An answer that goes to the tool which asked last, else where `usual` says.
template <class T>
Row InForTool(std::uint32_t kind, std::size_t alternative, const char* function, const Trace& first,
              const Trace& usual, int level = 6, const char* text = kTool) {
  return With<Row>(
      [&](Row& row) {
        row.for_tool = first + Trace{Log(level, function, text)};
        row.description = Describe(Sample<T>());
      },
      In<T>(kind, alternative, first + usual, Sample<T>()));
}
// A tool's request that fills the slot, before or after it goes to the radio.
template <class T>
Row Ask(const char* function, int level, const char* text, const std::string& to_radio,
        bool before = false, const T& message = Sample<T>()) {
  const Trace steps = {Log(6, function, kTool), to_radio};
  return With<Row>(
      [](Row& row) { row.fills_slot = true; },
      Ipc<T>({Log(level, function, text), steps[before ? 0 : 1], steps[before ? 1 : 0]}, message,
             "zeltcli-1"));
}

// To the radio as it is.
template <class T>
Row Out(const char* function, int level, const char* text, std::size_t alternative,
        std::uint32_t selector, int oneof_case = 0) {
  const T message = Sample<T>(oneof_case);
  return Ipc<T>({Log(level, function, text), Radio(alternative, selector, message)}, message);
}
// Not for the radio: one line and nothing else, or not even that.
template <class T>
Row Drop(const char* function, const char* text, int oneof_case) {
  return Ipc<T>(text == nullptr ? Trace() : Trace{Log(3, function, text)}, Sample<T>(oneof_case));
}
// From the radio to a service as it is.
template <class T>
Row In(std::uint32_t kind, std::size_t alternative, const char* function, int level,
       const char* text, const char* service, const T& message = Sample<T>()) {
  return In<T>(kind, alternative, {Log(level, function, text), Send(service, message)}, message);
}
std::string Ack(const char* text) {
  return Answer("zeltcli-1", 1, With<GenericResponse>([&](auto& m) { m.set_description(text); }));
}

const char* const kWrong = "Wrong type of the message!";

// clang-format off: one line a row
// In the order of the catalogue; several rows may stand for one entry.
std::vector<Row> CatalogueRows() {
  using namespace Kova;
  using namespace Collaboration;
  const auto firmware_failed = With<TransferFirmwareResponse>([](auto& m) { m.set_result(1); });
  const auto inject_failed = With<InjectQrxResponse>([](auto& m) { m.set_result(1); });
  const orka::FileHandleRespWrapper handle{.handle_id = 1002, .status = 1003, .attributes = 1004, .data = std::vector<std::uint8_t>{8, 5}};
  return {
      Ipc<RtConnectionAction>(Trace{Log(6, "StopRadioProtocol", "Stop RadioProtocol"), "stop"} + State("StopRadioProtocol", "RtConnection status: DISCONNECTED", 0)),
      Out<ShutdownResponse>("SendShutdownResponse", 6, "Send ShutdownResponse", 5, 0),
      Out<ShutdownRequest>("SendShutdownRequest", 6, "Send Shutdown request", 6, 0),
      Out<SerialNumberMsg>("SendSerialNumberMsg", 7, "Send SerNumber request", 3, kOfMessage),
      Out<BtMacAddressMsg>("SendBtMacAddrMsg", 7, "Send BtMacAddress request", 4, kOfMessage),
      Ipc<RtVersionMsg>({Log(7, "SendRtVersionRequest", "Send RT version request"), Radio(38, 0, Sample<RtVersionMsg>(1).request())}, Sample<RtVersionMsg>(1)),
      Drop<RtVersionMsg>("SendRtVersionRequest", "RT version request is not a request", 2),
      Ipc<HardwareIdMsg>({Log(7, "SendHardwareIdRequest", "Send HardwareId request"), Radio(39, 0, Sample<HardwareIdMsg>(1).request())}, Sample<HardwareIdMsg>(1)),
      Drop<HardwareIdMsg>("SendHardwareIdRequest", "HardwareId request is not a request", 2),
      Out<AmbaUpdateStatus>("SendAmbaUpdateStatus", 6, "Send Amba ready status", 7, 0),
      Out<RtDebugLogMsg>("SendRtDebugLogRequest", 7, "Send RT debug log request", 28, 0),
      Out<FeedbackAction>("SendFeedbackAction", 7, "Send FeedbackAction", 8, 0),
      Ipc<FeedbackAction>({Log(7, "SendFeedbackAction", "Send FeedbackAction"), Radio(8, 0, FeedbackAction()), Log(6, "SendFeedbackAction", kTool), Ack("request sent")}, {}, "zeltcli-1"),
      Out<ConfigurationSetMsg>("SendConfigurationSetRequest", 7, "Send Configuration set request", 9, 0),
      Out<ButtonsSubscribtionMsg>("SendButtonsSubscribtionRequest", 7, "Send Buttons Subscribtion request", 10, 0),
      Out<LedBrightnessSettingMsg>("SendLedBrightnessSettingRequest", 7, "Send LedBrightnessSetting request", 14, 0),
      Out<RadioStatusMsg>("SendRadioStatus", 7, "Send radio status broadcast", 16, 0, 3),
      Out<RadioStatusMsg>("SendRadioStatus", 7, "Send radio status response", 16, 0, 2),
      Drop<RadioStatusMsg>("SendRadioStatus", kWrong, 1),
      Out<BatteryLevelRequest>("SendBatteryLevelRequest", 8, "Handle BatteryLevelRequest", 18, 0),
      Out<UsbStatus>("SendUsbStatus", 7, "Send USB status", 20, 0),
      Out<BluetoothConfigMsg>("SendBluetoothConfigRequest", 7, "Send BluetoothConfig request", 11, 0),
      Ask<BluetoothConfigMsg>("SendBluetoothConfigRequest", 7, "Send BluetoothConfig request", Radio(11, 0, Sample<BluetoothConfigMsg>())),
      Out<BluetoothStatusMsg>("SendBluetoothStatusRequest", 7, "Send BluetoothStatus request", 12, 0),
      Ask<BluetoothStatusMsg>("SendBluetoothStatusRequest", 7, "Send BluetoothStatus request", Radio(12, 0, Sample<BluetoothStatusMsg>())),
      Out<GattConfigMsg>("SendGattConfigMsg", 7, "Send GattConfig message", 13, 0),
      Ask<GattConfigMsg>("SendGattConfigMsg", 7, "Send GattConfig message", Radio(13, 0, Sample<GattConfigMsg>(1)), false, Sample<GattConfigMsg>(1)),
      Ipc<GattConfigMsg>({Log(7, "SendGattConfigMsg", "Send GattConfig message"), Radio(13, 0, Sample<GattConfigMsg>(7)), Log(6, "SendGattConfigMsg", kTool), Ack("request sent")}, Sample<GattConfigMsg>(7), "zeltcli-1"),
      Tool<SetSocketParams>({Log(6, "HandleSetSocketParams", "Recieved socket parameters"), Log(6, "HandleSetSocketParams", "Set socket params. Ip is \b\x05 and the port is: 1002"), Ack("")}),
      Tool<ClearSocketParams>({Log(6, "HandleClearSocketParams", "Clearing socket parameters"), Ack("")}),
      With<Row>([](Row& row) { row.via = Via::ToolMessage; }, Ask<RtFactoryResetRequest>("SendRtFactoryResetRequest", 6, "Send Rt Factory Reset Request", Radio(21, 0, Sample<RtFactoryResetRequest>()))),
      Tool<InjectQrxRequest>({Log(6, "HandleInjectQrxRequest", "Handle Inject Qrx Request"), Line("inject", "ab", 5, 0, 0, 0, 0, 0, 0), Answer("zeltcli-1", 1, inject_failed)}, With<InjectQrxRequest>([](auto& m) { m.set_payload("ab"), m.mutable_header()->set_h1(5); })),
      Tool<InjectQrxRequest>({Log(6, "HandleInjectQrxRequest", "Handle Inject Qrx Request"), Line("inject", "", 0, 0, 0, 0, 0, 0, 0), Answer("zeltcli-1", 1, inject_failed)}, {}),
      Out<RadioEmergencyMsg>("SendRadioEmergencyRequest", 7, "Send Emergency request", 0, 1),
      Out<VideoTagControlReply>("SendVideoTagControlReply", 7, "Send VideoTagControl reply", 1, 1),
      Out<LocationInfoMsg>("SendLocationInformationRequest", 8, "Send Location Information request", 2, 1, 1),
      Drop<LocationInfoMsg>("", nullptr, 2),
      Ipc<LocationInfoMsg>({Log(8, "SendLocationInformationRequest", "Send Location Information request"), Radio(2, 1, Sample<LocationInfoMsg>(1)), Log(6, "SendLocationInformationRequest", kTool), Ack("Request sent")}, Sample<LocationInfoMsg>(1), "zeltcli-1"),
      Out<OpcodeSubscriptionMsg>("SendOpcodeSubscriptionRequest", 7, "Send OpcodeSubscription request", 22, 0),
      Ask<OpcodeSubscriptionMsg>("SendOpcodeSubscriptionRequest", 7, "Send OpcodeSubscription request", Radio(22, 0, Sample<OpcodeSubscriptionMsg>())),
      Out<ToggleCovertModeMsg>("SetCovertMode", 7, "Send Covert mode request", 15, 0),
      Topic<RTConnectionStatus>({Log(6, "RtConnectionStatusSubscribeHandler", "RtConnection status: DISCONNECTED"), Send("New", RTConnectionStatus())}),
      Topic<MediaStreamNotification::InputNotification>({Log(6, "DockStatusSubscribeHandler", "No dock status to send")}),
      Topic<RadioConnectionMsg>({Log(6, "RadioConnectionSubscribeHandler", "RadioConnection status: disconnected"), Send("New", RadioConnectionMsg())}),
      Out<UsbRouteMsg>("SendUsbRouteResponse", 7, "Send usb route response", 19, 0, 2),
      Drop<UsbRouteMsg>("SendUsbRouteResponse", kWrong, 1),
      Out<MicStatusMsg>("SendMicStatusRequest", 7, "Send Mic Status Request", 23, 0),
      Out<GetDateTimeReq>("SendGetDateTimeRequest", 8, "Send GetDateTime Request", 24, 1),
      Ask<GetDateTimeReq>("SendGetDateTimeRequest", 8, "Send GetDateTime Request", Radio(24, 1, Sample<GetDateTimeReq>()), true),
      Out<SetDateTimeReq>("SendSetDateTimeRequest", 8, "Send SetDateTime Request", 25, 0),
      Ask<SetDateTimeReq>("SendSetDateTimeRequest", 8, "Send SetDateTime Request", Radio(25, 0, Sample<SetDateTimeReq>()), true),
      Ipc<SetDateTimeMsg>({Log(8, "SendSetDateTimeRequest", "Send SetDateTime Request"), Radio(25, 0, Sample<SetDateTimeMsg>(1).request())}, Sample<SetDateTimeMsg>(1)),
      Ask<SetDateTimeMsg>("SendSetDateTimeRequest", 8, "Send SetDateTime Request", Radio(25, 0, Sample<SetDateTimeMsg>(1).request()), true, Sample<SetDateTimeMsg>(1)),
      Drop<SetDateTimeMsg>("HandleSetDateTimeMsg", "Wrong type of the message! Expected request", 2),
      Ipc<TransferFirmwareRequest>({Log(6, "HandleTransferFirmwareRequest", "Handle TransferFirmware request from  Peer"), Log(3, "HandleTransferFirmwareRequest", "Error: Could not open source file \b\x05"), Log(7, "SendTransferFirmwareResponse", "Sending TransferFirmwareResponse"), Send("Upgrade", firmware_failed)}),
      Ipc<FileAccessWriteResponse>({Log(6, "SendFileAccessWriteResponse", "No pending 'File Access Write' request - ignoring response")}),
      Out<RsmUpdateRequest>("SendRsmUpdateRequest", 6, "Send RsmUpdate request", 31, 0),
      Out<RadioWlanControlOutgoingMsg>("SendWlanControlRequest", 7, "Send RadioWlanControlOutgoingMsg", 17, 2),
      Out<RadioLteControlOutgoing>("SendLteStatusReqMsg", 6, "Send LTE status request", 33, 2),
      Out<RadioWlanHotspotControlOutgoingMsg>("SendWlanHotspotControlRequest", 7, "Send WlanHotspotControlOutgoingMsg", 32, 2),
      Out<VideoControlRequest>("HandleBwcVideoControlRequest", 6, "Handle Cli Video Control Request", 35, kOfMessage),
      Ask<VideoControlRequest>("HandleBwcVideoControlRequest", 6, "Handle Cli Video Control Request", Radio(35, 0, VideoControlRequest()), true, {}),
      Out<VideoControlResponse>("HandleVideoControlResponse", 6, "Handle video control Response from Collaboration service", 36, kOfMessage),
      Out<VideoControlBroadcast>("HandleVideoControlBroadcast", 6, "Handle video control Broadcast", 34, kOfMessage),
      Ipc<FileHandleOpenResponse>({Log(6, "HandleFileHandleOpenResponse", "Handle File Handle Open Response"), "convert", Radio(37, 0, handle)}),
      Ipc<FileAccessCreateResponse>({Log(6, "SendFileAccessCreateResponse", "No pending 'File Access Create' request - ignoring response")}),
      Out<UserPresenceInfoResponse>("HandleUserPresenceInfoResponse", 6, "Handle User Presence Info Response", 40, kOfMessage),
      Out<IoTD2CDataMessage>("HandleIoTD2CDataMessage", 6, "Handle IoT D2C Data Message", 43, 2),
      Out<IoTRegistrationRequest>("HandleIoTRegisterRequest", 6, "Handle IoT Register Request", 41, 2),
      Out<IoTConnectionStatusQuery>("HandleIoTConnectionStatusQueryRequest", 6, "Handle Query IoT Connection Status Request", 42, 2),
  };
}

// In the order of the kinds; several rows may stand for one kind.
std::vector<Row> NotificationRows() {
  using namespace Kova;
  using namespace Collaboration;
  using MediaStreamNotification::InputNotification;
  const auto connected = With<RadioConnectionMsg>([](auto& m) { m.set_connected(true); });
  const auto type = [](auto message, std::uint32_t value) { message.set_type(value); return message; };
  const auto serial = [&](std::uint32_t value) { return type(Sample<SerialNumberMsg>(), value); };
  const auto address = [&](std::uint32_t value) { return type(Sample<BtMacAddressMsg>(), value); };
  const auto event = [](const char* text, Row row) { row.expected.insert(row.expected.begin(), Log(6, "HandleRadioProtocolNotification", text)); return row; };
  return {
      Event(0, {Log(6, "HandleRadioConnection", "Handle RadioConnection msg, status: connected"), Send("Collaboration", connected)}),
      Event(1, State("HandleRtHandshakeCompleted", "RtConnection status: CONNECTED", 4)),
      In<RadioConnectionMsg>(2, 3, "HandleRadioConnection", 6, "Handle RadioConnection msg, status: connected", "Collaboration"),
      In<RadioConnectionMsg>(2, 3, "HandleRadioConnection", 6, "Handle RadioConnection msg, status: disconnected", "Collaboration", With<RadioConnectionMsg>([](auto& m) { m.set_link_connected(true); })),
      Event(3, State("HandleConnectionIsLost", "RtConnection status: CONNECTION_IS_LOST", 2)),
      In<RadioEmergencyMsg>(4, 2, "HandleRadioEmergencyResponse", 7, "Handle Emergency response", "Collaboration"),
      Event(5, State("HandleRtHandshakeFailed", "RtConnection status: HANDSHAKE_FAILED", 3)),
      In<ShutdownRequest>(6, 6, "HandleShutdownRequest", 6, "Handle ShutdownRequest", "Controller"),
      In<ShutdownResponse>(7, 7, "HandleShutdownResponse", 6, "Received Shutdown Response from RT", "Controller"),
      In<LocationInfoMsg>(8, 20, "HandleLocationInformationIncoming", 8, "Handling incoming Location Information msg", "Collaboration"),
      In<RtVersionResponse>(9, 8, {Log(3, "HandleRtVersionResponse", "Cannot send RT version response, requester is not set")}, {}),
      In<HardwareIdResponse>(10, 9, {Log(3, "HandleHardwareIdResponse", "Cannot send HardwareId response, requester is not set")}, {}),
      In<SerialNumberMsg>(11, 10, "HandleSerialNumberIncomingMsg", 6, "Handle SerialNumber incoming message from Radio", "Collaboration", serial(1)),
      In<SerialNumberMsg>(11, 10, "HandleSerialNumberIncomingMsg", 6, "Handle SerialNumber incoming message from Radio", "Collaboration", serial(2)),
      In<SerialNumberMsg>(11, 10, "HandleSerialNumberIncomingMsg", 6, "Handle SerialNumber incoming message", "RsmControl", serial(0)),
      In<SerialNumberMsg>(11, 10, "HandleSerialNumberIncomingMsg", 6, "Handle SerialNumber incoming message", "RsmControl", serial(3)),
      In<BtMacAddressMsg>(12, 11, "HandleBtMacAddrIncomingMsg", 6, "Handle BtMacAddress incoming message ", "Collaboration", address(1)),
      In<BtMacAddressMsg>(12, 11, "HandleBtMacAddrIncomingMsg", 6, "Handle BtMacAddress incoming message ", "RsmControl", address(3)),
      In<InputNotification>(13, 1, {Publish(Sample<InputNotification>()), Log(6, "HandleDockingNotification", "Publishing [MediaStreamNotification.InputNotification]: key 1001 Off")}, Sample<InputNotification>()),
      In<ButtonsSubscribtionMsg>(14, 13, "HandleButtonsSubscribtionResponse", 6, "Handle Buttons Subscribtion Response", "RsmControl"),
      In<ConfigurationSetMsg>(15, 12, "HandleConfigurationSetResponse", 6, "Handle Configuration set response", "RsmControl"),
      In<InputNotification>(16, 1, "HandlePhysicalUserInput", 6, "Handle pysical user input", "Controller"),
      InForTool<BluetoothConfigMsg>(17, 14, "HandleBluetoothConfigIncommingMsg", {Log(6, "HandleBluetoothConfigIncommingMsg", "Handle BluetoothConfig response")}, {Publish(Sample<BluetoothConfigMsg>())}),
      InForTool<BluetoothStatusMsg>(18, 15, "HandleBluetoothStatusIncommingMsg", {Log(6, "HandleBluetoothStatusIncommingMsg", "Handle BluetoothStatus incomming msg")}, {Publish(Sample<BluetoothStatusMsg>())}),
      In<LedBrightnessSettingMsg>(19, 17, {Log(3, "HandleLedBrightnessSettingResponse", "Cannot forward brithness setting response, requester is not set")}, {}),
      Event(20, {Log(6, "HandleRadioProtocolNotification", "Got Factory Reset response notification")}),
      InForTool<GattConfigMsg>(21, 16, "HandleGattConfigIncommingMsg", {Log(6, "HandleGattConfigIncommingMsg", "Handle GattConfig incomming Msg")}, {Send("SmartControl", Sample<GattConfigMsg>())}),
      In<BatteryLevel>(22, 24, "HandleBatteryLevel", 7, "Handle BatteryLevel", "Battery"),
      In<BatteryLevel>(23, 24, "HandleBatteryLevel", 7, "Handle BatteryLevel", "Battery"),
      In<ToggleCovertModeMsg>(24, 18, "HandleSetCovertModeResponse", 6, "Handle Radio Profile Control response", "Controller"),
      In<ToggleCovertModeMsg>(25, 18, "HandleSetCovertModeBroadcast", 6, "Handle Radio Profile Control Broadcast", "Controller"),
      Event(26, {Log(6, "HandleRadioProtocolNotification", "Got USB Status request notification")}),
      In<RadioStatusMsg>(27, 19, "HandleRadioStatusRequest", 6, "Handle radio status request", "RsmControl"),
      In<RadioWlanControlIncomingMsg>(28, 21, "HandleWlanControlIncomingMsg", 7, "Handle Wlan Control Incoming Msg", "Collaboration"),
      In<UsbRouteMsg>(29, 22, "HandleUsbRouteRequest", 7, "Handle UsbRouteRequest", "RsmControl"),
      In<RadioWlanHotspotControlIncomingMsg>(30, 36, "HandleWlanHotspotControlIncomingMsg", 7, "Handle Wlan Hotspot Control incoming Msg", "Collaboration"),
      In<MicStatusMsg>(31, 25, "HandleMicStatusResponse", 7, "Handle HandleMicStatus Response to rsmService", "RsmControl"),
      InForTool<RtFactoryResetResponse>(32, 23, "HandleRtFactoryResetResponse", {Log(6, "HandleRtFactoryResetResponse", "Handle Rt Factory Reset Response")}, {}, 7, " ---Handle Rt Factory Reset Response to zeltcli ----"),
      InForTool<OpcodeSubscriptionMsg>(33, 5, "HandleOpcodeSubscriptionResponse", {Log(6, "HandleOpcodeSubscriptionResponse", "Handle OpcodeSubscription response")}, {Send("RsmControl", Sample<OpcodeSubscriptionMsg>())}),
      InForTool<GetDateTimeResp>(34, 26, "HandleGetDateTimeResponse", {}, {Log(3, "HandleGetDateTimeResponse", "Cannot forward GetDateTimeg response, requester is not set")}),
      InForTool<SetDateTimeResp>(35, 27, "HandleSetDateTimeResponse", {Log(7, "HandleSetDateTimeResponse", "Handle SetDateTime Response with result 1001")}, {Log(3, "HandleSetDateTimeResponse", "Cannot forward setDateTimeg response, requester is not set")}),
      In<VideoTagControlRequest>(36, 4, "HandleVideoTagControlRequest", 7, "Handle VideoTagControl Request", "Collaboration"),
      In<RsmUpdateResponse>(37, 34, "HandleRsmUpdateResponse", 6, "Handle RsmUpdate response", "Upgrade"),
      In<FileAccessWriteRequest>(38, 28, {Publish(Sample<FileAccessWriteRequest>()), Log(7, "HandleFileAccessWriteRequest", "Publishing [Kova.FileAccessWriteRequest]"), Timer("File access write response timer")}, Sample<FileAccessWriteRequest>()),
      In<FileAccessWriteSessionEnd>(39, 29, {Log(7, "HandleFileAccessWriteSessionEnd", "Handle file access write session end - Publishing message"), Publish(Sample<FileAccessWriteSessionEnd>())}, Sample<FileAccessWriteSessionEnd>()),
      In<FileAccessCreateRequest>(40, 30, {Publish(Sample<FileAccessCreateRequest>()), Log(6, "HandleFileAccessCreateRequest", "Publishing [Kova.FileAccessCreateRequest]"), Timer("File access create response timer")}, Sample<FileAccessCreateRequest>()),
      In<orka::qrx::FileAccessResponse>(41, 32, {Log(6, "HandleFileAccessResponse", "Received FileAccessResponse from RT for [fw] with result [Busy]")}, {.result = orka::qrx::Result::Busy, .file_size = 3, .file_name = "fw"}),
      Event(42, {Log(7, "HandleRadioProtocolNotification", "Got Transfer Data request notification")}),
      In<orka::qrx::TransferDataResponse>(43, 33, {Log(8, "HandleTransferDataResponse", "Received TransferDataResponse from RT for chunk#7] with result [Success]")}, {.result = orka::qrx::Result::Success, .chunk_number = 7}),
      Event(44, State("HandleRtUpgradeInProcess", "RtConnection status: UPGRADE_IN_PROCESS", 5)),
      In<RtDebugLogMsg>(45, 31, "HandleRtDebugLogResponse", 8, "Handle RT Debug log response response", "RsmControl"),
      In<RadioLuiError>(46, 35, "HandleRadioLuiError", 6, "Handle Radio LUI error 1001", "Controller"),
      In<RadioLuiError>(46, 35, "HandleRadioLuiError", 6, "Handle Radio LUI error 4294967295", "Controller", With<RadioLuiError>([](auto& m) { m.set_code(~0U); })),
      Event(47, Trace{Log(3, "HandleIgFailed", "Fatal error - IG failed")} + State("UpdateConnectionStatus", "Updating RtConnection status to : IG_FAILED", 6) + State("UpdateConnectionStatus", "Updating RtConnection status to : CONNECTED", 4)),
      In<RadioLteControlIncoming>(48, 37, "HandleLteStatusIncomingMsg", 6, "Handle LTE status message", "Collaboration"),
      In<VideoControlRequest>(49, 38, "HandleRadioVideoControlRequest", 6, "Handle video control Request ", "Collaboration"),
      InForTool<VideoControlResponse>(50, 39, "HandleRadioVideoControlResponse", {Log(6, "HandleRadioVideoControlResponse", "Handle video control Response from Radio")}, {Send("Collaboration", Sample<VideoControlResponse>())}),
      In<FileHandleOpenRequest>(51, 40, {Publish(Sample<FileHandleOpenRequest>()), Log(6, "HandleFileHandleOpenRequest", "Publishing [Kova.FileHandleOpenRequest]"), Timer("File handle open timer")}, Sample<FileHandleOpenRequest>()),
      event("Event User Presence Info Request", In<UserPresenceInfoRequest>(52, 41, "HandleUserPresenceInfoRequest", 6, "Handle User Presence Info Request", "Collaboration")),
      event("Event IoT C2D Data Message Incoming", In<IoTC2DDataMessage>(53, 42, "HandleIoTC2DDataMessage", 6, "Handle IoT C2D Data Message", "Collaboration")),
      event("Event IoT Register Response", In<IoTRegistrationResponse>(54, 43, "HandleIoTRegisterResponse", 6, "Handle IoT Register Response", "Collaboration")),
      event("Event IoT Connection Status Response", In<IoTConnectionStatus>(55, 44, "HandleIoTConnectionStatusIncoming", 6, "Handle IoT Connection Status Response", "Collaboration")),
  };
}
// clang-format on

class Relay : public Bench, public testing::WithParamInterface<Row> {};

TEST_P(Relay, DoesWhatItsRowSays) {
  const Row& row = GetParam();
  if (row.via == Via::Topic) {
    EXPECT_EQ(Subscribe(row.type), row.expected);
  } else if (row.via == Via::Radio) {
    EXPECT_TRUE(row.alternative == kNotRead || row.alternative == row.data.index());
    EXPECT_EQ(Notify(row.kind, row.data), row.expected);
  } else {
    ASSERT_TRUE(model->Ipc().Deliver(row.type, row.sender, row.payload, 1));
    EXPECT_EQ(journal.Take(),
              (Trace{Log(8, "RegisterCallback", "Calling ipc callback for " + row.type, 0x8016),
                     Log(7, "RegisterCallback",
                         "Received [" + row.type + "] from [" + row.sender + "]", 0x8016)}));
    EXPECT_EQ(Drain(), row.expected);
  }
}

std::string RowName(const testing::TestParamInfo<Row>& info) {
  const std::string what =
      info.param.via == Via::Radio ? "kind_" + std::to_string(info.param.kind) : info.param.type;
  std::string name = what + "_row_" + std::to_string(info.index);
  std::ranges::replace(name, '.', '_');
  return name;
}
INSTANTIATE_TEST_SUITE_P(Catalogue, Relay, testing::ValuesIn(CatalogueRows()), RowName);
INSTANTIATE_TEST_SUITE_P(Notification, Relay, testing::ValuesIn(NotificationRows()), RowName);

// The first row of each type.
std::vector<Row> Entries() {
  std::vector<Row> rows = CatalogueRows();
  const auto rest = std::ranges::unique(rows, {}, &Row::type);
  rows.erase(rest.begin(), rest.end());
  return rows;
}

using CatalogueTest = Bench;

TEST_F(CatalogueTest, EveryRegistrationHasItsRowInOrderAndIsOpenToAnySender) {
  std::vector<fake::FakeServiceIPC::Registration> expected;
  for (const Row& row : Entries()) {
    expected.push_back({.is_topic = row.via == Via::Topic, .name = row.type});
  }
  EXPECT_EQ(model->Ipc().Registrations(), expected);
}

TEST_F(CatalogueTest, MalformedPayloadIsOneErrorLineAndNoCall) {
  for (const Row& row : Entries()) {
    if (row.via != Via::Topic) {
      model->Ipc().Deliver(row.type, "zeltcli-1", "\xff");
      EXPECT_EQ(context.TaskQueue().Size(), 0U) << row.type;
      EXPECT_EQ(journal.Take(),
                (Trace{Log(3, "RegisterCallback",
                           "Failed to unpack IPC message of type " + row.type, 0x8016)}));
    }
  }
}

TEST_F(CatalogueTest, ToolOnlyMessagesOfOthersEndAfterTheReceivedLine) {
  for (const Row& row : Entries()) {
    for (const char* sender : {"Upgrade", "zeltcli", "Zeltcli-1", " zeltcli-1", ":1.42"}) {
      model->Ipc().Deliver(row.type, sender, row.payload);
      EXPECT_EQ(context.TaskQueue().Size(), row.via == Via::Message ? 1U : 0U)
          << row.type << " from " << sender;
      EXPECT_EQ(journal.Take().size(), row.via == Via::Topic ? 0U : 2U);
      Drain();
    }
  }
}

TEST_F(CatalogueTest, OnlyWhatIsForTheRadioNeedsRoomAtTheLink) {
  const std::set<std::string> others = {"Kova.RtConnectionAction", "Kova.SetSocketParams",
                                        "Kova.ClearSocketParams"};
  SetAnswers([](auto& answers) { answers.send_room = 0; });
  for (const Row& row : Entries()) {
    if (row.via != Via::Topic) {
      EXPECT_EQ(model->Ipc().Deliver(row.type, row.sender, row.payload), others.contains(row.type))
          << row.type;
    }
  }
}

// One payload of each alternative.
template <std::size_t... index>
std::vector<Data> AllAlternatives(std::index_sequence<index...>) {
  return {Data(std::in_place_index<index>)...};
}

TEST_F(CatalogueTest, EveryKindTakesItsAlternativeOnlyAndKindsBeyondAreSilent) {
  const auto payloads = AllAlternatives(std::make_index_sequence<std::variant_size_v<Data>>());
  std::set<std::uint32_t> kinds;
  for (const Row& row : NotificationRows()) {
    kinds.insert(row.kind);
    const bool logged_only = row.kind == 20 || row.kind == 26 || row.kind == 42;
    for (const Data& data : payloads) {
      Post(row.kind, data);
      std::ostringstream mismatch;
      mismatch << "Message type [" << row.kind
               << "] and data type (index in variant =" << data.index() << ") mismatch";
      const bool fits = row.alternative == kNotRead || row.alternative == data.index();
      const Trace trace = journal.Take();
      EXPECT_EQ(
          std::ranges::count(trace, Log(3, "HandleRadioProtocolNotification", mismatch.str())),
          fits ? 0 : 1);
      EXPECT_LE(trace.size(), (fits ? 0U : 1U) + (logged_only || row.kind >= 52 ? 1U : 0U));
      EXPECT_EQ(context.TaskQueue().Size(), fits && !logged_only ? 1U : 0U) << mismatch.str();
      Drain();
    }
  }
  for (const auto& message : orka::codec::kMessageTable) {
    if (message.direction == orka::codec::Direction::FromRadio) {
      EXPECT_TRUE(kinds.contains(static_cast<std::uint32_t>(message.notify))) << message.name;
    }
  }
  const auto count = static_cast<std::uint32_t>(kinds.size());
  EXPECT_EQ(*kinds.rbegin(), count - 1);
  for (const std::uint32_t kind : {count, count + 1, 1000U, 0x80000000U, 0xFFFFFFFFU}) {
    for (const Data& data : payloads) {
      EXPECT_EQ(Notify(kind, data), Trace());
    }
  }
}

// --- The tool's slot -----------------------------------------------------------------------------

using ToolSlot = Bench;

TEST_F(ToolSlot, FirstAnswerGoesToTheLatestToolAndTheNextOneItsUsualWay) {
  const auto answers = NotificationRows();
  for (const Row& request : CatalogueRows()) {
    if (request.type.contains("DateTime") && !request.fills_slot) {
      continue;  // remembered in a slot of its own
    }
    for (const Row& answer : answers) {
      if (answer.for_tool.empty()) {
        continue;
      }
      model->Ipc().Deliver(request.type, request.sender, request.payload, 11);
      if (request.fills_slot) {
        model->Ipc().Deliver(request.type, "zeltcli-2", request.payload, 22);
        for (const Row& other : answers) {
          if (other.for_tool.empty()) {
            Post(other.kind, other.data);  // leaves the slot alone
          }
        }
        Drain();
        EXPECT_EQ(Notify(answer.kind, answer.data),
                  answer.for_tool + Trace{Line("answer", "zeltcli-2", 22, answer.description)});
      }
      Drain();
      EXPECT_EQ(Notify(answer.kind, answer.data), answer.expected) << request.type;
    }
  }
}

}  // namespace
}  // namespace zelt::test
