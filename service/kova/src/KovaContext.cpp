#include "KovaContext.h"

#include "Log.h"

#include "zelt/InterfaceFactory.h"
#include "zelt/OfficerList.h"
#include "zelt/Paths.h"
#include "zelt/VersionInfo.h"

#include "zelt.pb.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace zelt {
namespace {

constexpr std::string_view kSerialDevice = "/dev/ttyS2";
constexpr std::uint32_t kLinkAddress = 0;
constexpr std::uint32_t kHandshakeTimeoutSeconds = 30;

// How much of the radio may wait: above the first it is held back, below the second it goes on. A
// message that was decoded takes up to thirty times these bytes.
constexpr std::size_t kHoldReceivingAbove = std::size_t{1} << 20U;
constexpr std::size_t kContinueReceivingBelow = kHoldReceivingAbove / 2;

// No frame has a longer body: the link refuses what is longer.
constexpr std::size_t kLongestBody =
    std::numeric_limits<decltype(orka::pel::BaseMessage::length)>::max();

orka::UartSettings SerialPortSettings() {
  return {.device = std::string(kSerialDevice),
          .baud_rate = 1500000,
          .stop_bits = 1,
          .data_bits = 8,
          .parity = 0,
          .flow_control = 0,
          .read_timeout = 5,
          .modem_control = false,
          .exclusive = true};
}

std::string_view ConnectedText(bool connected) {
  return connected ? "connected" : "disconnected";
}

Kova::RTConnectionStatus StatusMessage(RtConnectionState state) {
  Kova::RTConnectionStatus message;
  message.set_status(static_cast<Kova::RtConnectionState>(state));
  return message;
}

}  // namespace

KovaContext::KovaContext(std::shared_ptr<ServiceModel> model,
                         std::unique_ptr<ConfigReaderIF> configReader)
    : service_model(std::move(model)),
      service_ipc(service_model->GetServiceIPC()),
      config_reader(std::move(configReader)) {}

KovaContext::~KovaContext() {
  registration_handles.clear();  // before the radio, which their callbacks ask for room
}

void KovaContext::Init(std::unique_ptr<orka::RadioProtocol> radio,
                       std::unique_ptr<TargetAttributesIF> target) {
  version_text = VersionInfo::GetVersionAndBuildNumberText(VersionInfoFile());
  target_attributes = target ? std::move(target) : std::make_unique<TargetAttributes>(false);
  if (!radio_protocol) {
    const std::string product_id(ConvertModelToProductId(target_attributes->ModelAsString()));
    radio_protocol =
        radio ? std::move(radio)
              : std::make_unique<orka::RadioProtocol>(service_model, version_text, product_id);
  }
  ReadConfig();
}

void KovaContext::Deinit() {
  {
    const std::lock_guard lock(link_mutex);
    link_is_over = true;
  }
  StopRadioProtocol();
}

std::string_view KovaContext::ConvertModelToProductId(std::string_view model) {
  if (model == "OTTR") {
    return "ZPX";
  }
  if (model == "CM410") {
    return "C410";
  }
  KOVA_LOG(kLogError) << "Unknown model: " << model;
  return "";
}

void KovaContext::ReadConfig() {
  ZELT_LOG(kLogInfo, kConfigurationLog) << "Reading config";
  if (!config_reader) {
    try {
      config_reader = InterfaceFactory::Create<ConfigReaderIF>("ConfigReaderIF");
    } catch (const std::runtime_error& error) {
      ZELT_LOG(kLogError, kConfigReaderLog)
          << "Failed to create config reader, got exception: " << error.what();
      return;
    }
  }
  const ConfigResult config = config_reader->Get();
  if (!config.record || config.error != 0) {
    ZELT_LOG(kLogError, kConfigurationLog) << "Failed to get Config, Error: " << config.errorText;
    return;
  }

  const auto working_mode_text = config.record.Lock()->workingMode;
  const std::string working_mode(working_mode_text.data(),
                                 strnlen(working_mode_text.data(), working_mode_text.size()));
  const bool collaboration =
      config.record.Lock()->officers.GetCurrentOfficer().collaborationEnabled;
  const bool as_camera = working_mode == "Connected" && collaboration;
  radio_protocol->SetIdentifyAsCamera(as_camera);
  ZELT_LOG(kLogInfo, kConfigurationLog)
      << "Working mode: " << working_mode << ", Collaboration enabled: " << collaboration
      << ", Identify to radio as camera: " << as_camera;

  const bool streaming = config.record.Lock()->tetheredStreaming != TetheredMode::Never;
  const bool uploading = config.record.Lock()->tetheredUploading != TetheredMode::Never;
  const bool use_tethered = streaming || uploading;
  radio_protocol->SetUseTetheredConnection(use_tethered);
  ZELT_LOG(kLogInfo, kConfigurationLog)
      << "Tethered streaming: " << streaming << ", Tethered uploading: " << uploading
      << ", Use Tethered Connection: " << use_tethered;
}

// --- Outgoing ----------------------------------------------------------------------------------

bool KovaContext::SendMessage(const google::protobuf::MessageLite& message,
                              std::string_view service) {
  const bool sent =
      service_ipc->SendImpl(service, message.GetTypeName(), message.SerializeAsString()).get();
  if (!sent) {
    KOVA_LOG(kLogError) << "Failed to send";
  }
  return sent;
}

bool KovaContext::SendIpcResponse(const MessageEnvelope& envelope,
                                  const google::protobuf::MessageLite& message) {
  const std::string type = message.GetTypeName();
  const bool sent =
      service_ipc->SendResponseImpl(envelope, type, message.SerializeAsString()).get();
  if (!sent) {
    KOVA_LOG(kLogWarning) << "Failed to send response msg [" << type << "] to [" << envelope.sender
                          << "]";
  }
  return sent;
}

void KovaContext::SendGenericResponse(const MessageEnvelope& envelope, bool success,
                                      const std::string& text) {
  GenericResponse response;
  response.set_description(text);
  response.set_result_code(success ? 0 : 1);
  SendIpcResponse(envelope, response);
}

PromisedRoom KovaContext::PromiseRoom(std::size_t bytes) {
  // Counted before the link is asked: what is handed over meanwhile may count twice, but never not
  // at all.
  PromisedRoom room(promised_to_radio,
                    std::min(bytes, kLongestBody) + orka::RadioProtocol::kSendOverhead);
  if (promised_to_radio > radio_protocol->GetSendRoom()) {
    throw Busy("the link to the radio has no room");
  }
  return room;
}

AsyncCallbackHandle KovaContext::StartTimer(std::string_view name,
                                            UniqueFunction<void()> on_expiry) {
  struct Expiry {  // touched by the service thread only
    UniqueFunction<void()> handler;
    bool withdrawn = false;
  };
  auto expiry = std::make_shared<Expiry>(std::move(on_expiry));
  auto timer = service_model->AddTimer(
      name,
      [this, expiry] {
        task_queue.PushAlways([expiry] {
          if (!expiry->withdrawn) {
            expiry->handler();
          }
        });
      },
      ServiceModel::Seconds(5.0), false);
  return AsyncCallbackHandle([expiry, timer = std::move(timer)]() mutable {
    timer.Close();
    expiry->withdrawn = true;
  });
}

// --- Link to the radio -------------------------------------------------------------------------

void KovaContext::HandleRtConnectionAction(const Kova::RtConnectionAction& message) {
  if (message.action() == Kova::RtConnectionAction::START) {
    StartRadioProtocol();
  } else {
    StopRadioProtocol();
  }
}

void KovaContext::StartRadioProtocol() {
  KOVA_LOG(kLogInfo) << "Start RadioProtocol";
  const std::lock_guard lock(link_mutex);
  if (connection_state != RtConnectionState::Disconnected) {
    KOVA_LOG(kLogError) << "Radio protocol current connection status "
                        << RtConnectionStateText(connection_state);
    return;
  }
  if (link_is_over) {
    KOVA_LOG(kLogInfo) << "Radio protocol is not started, the service is shutting down";
    return;
  }
  RegisterRadioProtocolCallback();
  bool started = false;
  if (state.socket_settings) {
    KOVA_LOG(kLogInfo) << "Attempting to start radio via socket";
    started =
        radio_protocol->StartSocket(*state.socket_settings, kLinkAddress, kHandshakeTimeoutSeconds);
  } else {
    KOVA_LOG(kLogInfo) << "Attempting to start radio via UART";
    started =
        radio_protocol->StartUart(SerialPortSettings(), kLinkAddress, kHandshakeTimeoutSeconds);
  }
  if (!started) {
    KOVA_LOG(kLogError) << "Radio protocol start failed";
    return;
  }
  KOVA_LOG(kLogInfo) << "Radio protocol started";
  SetConnectionState(__func__, RtConnectionState::Connecting);
}

void KovaContext::RegisterRadioProtocolCallback() {
  if (!radio_protocol) {
    KOVA_LOG(kLogError) << "Radio Protocol not created";
    return;
  }
  KOVA_LOG(kLogInfo) << "Register to Radio Protocol notifications";
  radio_protocol->RegisterCallback(
      [this](orka::NotifyMessage kind, orka::RadioNotificationData data) {
        HandleRadioProtocolNotification(kind, std::move(data));
      });
}

void KovaContext::StopRadioProtocol() {
  KOVA_LOG(kLogInfo) << "Stop RadioProtocol";
  const std::lock_guard lock(link_mutex);
  radio_protocol->Stop();
  ++link_session;  // nothing comes of the old one any more
  SetConnectionState(__func__, RtConnectionState::Disconnected);
}

void KovaContext::SetConnectionState(const char* function, RtConnectionState status) {
  connection_state = status;
  ZELT_LOG_AS(function, kLogInfo, kContextLog)
      << "RtConnection status: " << RtConnectionStateText(status);
  PublishKovaConnectionStatus(status);
}

void KovaContext::UpdateConnectionStatus(RtConnectionState status) {
  connection_state = status;
  KOVA_LOG(kLogInfo) << "Updating RtConnection status to : " << RtConnectionStateText(status);
  PublishKovaConnectionStatus(status);
}

void KovaContext::PublishKovaConnectionStatus(RtConnectionState status) {
  const Kova::RTConnectionStatus message = StatusMessage(status);
  KOVA_LOG(kLogInfo) << "Publish message: [" << message.GetTypeName() << "]";
  Publish(message);
}

void KovaContext::RtConnectionStatusSubscribeHandler(std::string_view subscriber) {
  const std::lock_guard lock(link_mutex);  // no newer status is published before this one is sent
  KOVA_LOG(kLogInfo) << "RtConnection status: " << RtConnectionStateText(connection_state);
  SendMessage(StatusMessage(connection_state), subscriber);
}

void KovaContext::RadioConnectionSubscribeHandler(std::string_view subscriber) {
  const bool link_connected = radio_protocol->IsRadioConnected();
  Collaboration::RadioConnectionMsg message;
  message.set_connected(state.radio_connected);
  message.set_link_connected(link_connected);
  if (link_connected) {
    orka::qrx::AddDeviceDescriptorsToProtoMsg(message, radio_protocol->GetDeviceDescriptors());
  }
  KOVA_LOG(kLogInfo) << "RadioConnection status: " << ConnectedText(state.radio_connected);
  SendMessage(message, subscriber);
}

void KovaContext::HandleRtHandshakeCompleted() {
  SetConnectionState(__func__, RtConnectionState::Connected);
}

void KovaContext::HandleConnectionIsLost() {
  SetConnectionState(__func__, RtConnectionState::ConnectionIsLost);
}

void KovaContext::HandleRtHandshakeFailed() {
  SetConnectionState(__func__, RtConnectionState::HandshakeFailed);
}

void KovaContext::HandleRtUpgradeInProcess() {
  SetConnectionState(__func__, RtConnectionState::UpgradeInProcess);
}

void KovaContext::HandleIgFailed() {
  KOVA_LOG(kLogError) << "Fatal error - IG failed";
  UpdateConnectionStatus(RtConnectionState::IgFailed);
  task_queue.PushAlways(
      LinkEvent([this] { UpdateConnectionStatus(RtConnectionState::Connected); }));
}

void KovaContext::HoldReceivingWhenBehind() {
  const std::lock_guard lock(receiving_mutex);
  if (task_queue.Waiting(kRadioSource).bytes > kHoldReceivingAbove) {
    radio_protocol->HoldReceiving();  // again and again, since a new link is not held
    receiving_held = true;
  }
}

void KovaContext::ContinueReceivingWhenCaughtUp() {
  const std::lock_guard lock(receiving_mutex);
  if (receiving_held && task_queue.Waiting(kRadioSource).bytes < kContinueReceivingBelow) {
    radio_protocol->ContinueReceiving();
    receiving_held = false;
  }
}

bool KovaContext::HandleRadioConnection(const Collaboration::RadioConnectionMsg& message) {
  state.radio_connected = message.connected();
  KOVA_LOG(kLogInfo) << "Handle RadioConnection msg, status: "
                     << ConnectedText(state.radio_connected);
  return SendMessage(message, "Collaboration");
}

}  // namespace zelt
