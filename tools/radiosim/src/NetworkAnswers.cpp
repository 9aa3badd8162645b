#include "Answers.h"

// WLAN, hotspot, LTE, and the cloud behind them.
namespace radiosim {
namespace {

void ControlWlan(Radio& radio, const Kova::RadioWlanControlOutgoingMsg& request,
                 const Received& received) {
  using Message = Kova::RadioWlanControlOutgoingMsg;
  json::State& state = radio.configuration.state;
  int result = kOk;
  bool changes = true;
  switch (request.action()) {
    case Message::STATUS:
    case Message::SCAN:
      changes = false;
      break;
    case Message::ENABLE:
    case Message::DISABLE:
      state.set_wlan_enabled(request.action() == Message::ENABLE);
      break;
    case Message::CONNECT:
      if (!state.wlan_enabled()) {
        result = static_cast<int>(orka::qrx::Result::Failure);
      } else if (request.ssid().empty() || request.ssid().size() > 32) {
        result = kInvalid;
      } else {
        state.set_wlan_ssid(request.ssid());
      }
      break;
    case Message::DISCONNECT:
      state.clear_wlan_ssid();
      break;
    default:
      result = kNotSupported;
  }
  Kova::RadioWlanControlIncomingMsg response = Wlan(radio);
  response.set_result(result);
  if (request.action() == Message::SCAN && state.wlan_enabled()) {
    for (const char* ssid : {"station", "depot", "guest"}) {
      response.add_found_ssids(ssid);
    }
  }
  radio.Respond(received, response);
  if (changes && result == kOk) {
    radio.BroadcastIfSubscribed(Kova::SUBSCRIBE_WLAN_STATUS);
  }
}

Kova::RadioWlanHotspotControlIncomingMsg ControlHotspot(
    Radio& radio, const Kova::RadioWlanHotspotControlOutgoingMsg& request) {
  using Message = Kova::RadioWlanHotspotControlOutgoingMsg;
  json::State& state = radio.configuration.state;
  if (request.action() == Message::START) {
    state.set_hotspot_active(true);
    if (!request.ssid().empty()) {
      radio.configuration.hotspot_ssid = request.ssid();
    }
  } else if (request.action() == Message::STOP) {
    state.set_hotspot_active(false);
  }
  Kova::RadioWlanHotspotControlIncomingMsg response;
  response.set_result(Message::Action_IsValid(request.action()) ? kOk : kNotSupported);
  response.set_active(state.hotspot_active());
  response.set_ssid(radio.configuration.hotspot_ssid);
  response.set_clients(state.hotspot_active() ? 1 : 0);
  return response;
}

void ControlLte(Radio& radio, const Kova::RadioLteControlOutgoing& request,
                const Received& received) {
  using Message = Kova::RadioLteControlOutgoing;
  const auto action = request.action();
  const bool changes = action == Message::ENABLE || action == Message::DISABLE;
  if (changes) {
    radio.configuration.state.set_lte_enabled(action == Message::ENABLE);
  }
  Kova::RadioLteControlIncoming response = Lte(radio);
  response.set_result(Message::Action_IsValid(action) ? kOk : kNotSupported);
  radio.Respond(received, response);
  if (changes) {
    radio.BroadcastIfSubscribed(Kova::SUBSCRIBE_LTE_STATUS);
  }
}

Collaboration::IoTConnectionStatus TellIoTStatus(
    const Radio& radio, const Collaboration::IoTConnectionStatusQuery& /*request*/) {
  Collaboration::IoTConnectionStatus status;
  status.set_status(radio.configuration.state.iot_device().empty()
                        ? Collaboration::IoTConnectionStatus::OFFLINE
                        : Collaboration::IoTConnectionStatus::ONLINE);
  return status;
}

void RegisterIoT(Radio& radio, const Collaboration::IoTRegistrationRequest& request,
                 const Received& received) {
  radio.configuration.state.set_iot_device(request.unregister() ? "" : request.device_id());
  Collaboration::IoTRegistrationResponse response;
  response.set_device_id(request.device_id());
  response.set_result(request.device_id().empty() ? kInvalid : kOk);
  radio.Respond(received, response);
  radio.Broadcast("IoTConnectionStatusBroadcast", TellIoTStatus(radio, {}));
}

void TakeIoTData(const Radio& radio, const Collaboration::IoTD2CDataMessage& data) {
  if (radio.configuration.state.iot_device().empty()) {
    return;  // nobody is registered
  }
  // The cloud of a simulated radio sends everything back.
  Collaboration::IoTC2DDataMessage echo;
  echo.set_message_id(data.message_id());
  echo.set_topic(data.topic());
  echo.set_data(data.data());
  radio.Broadcast("IoTC2DData", echo);
}

}  // namespace

Kova::RadioWlanControlIncomingMsg Wlan(const Radio& radio) {
  const json::State& state = radio.configuration.state;
  Kova::RadioWlanControlIncomingMsg status;
  status.set_enabled(state.wlan_enabled());
  status.set_connected(state.wlan_enabled() && !state.wlan_ssid().empty());
  if (status.connected()) {
    status.set_ssid(state.wlan_ssid());
    status.set_rssi_dbm(-61);
  }
  return status;
}

Kova::RadioLteControlIncoming Lte(const Radio& radio) {
  const bool enabled = radio.configuration.state.lte_enabled();
  Kova::RadioLteControlIncoming status;
  status.set_enabled(enabled);
  status.set_registered(enabled);
  if (enabled) {
    status.set_operator_name("Sim Mobile");
    status.set_rsrp_dbm(-95);
  }
  return status;
}

std::span<const Answer> NetworkAnswers() {
  static constexpr auto kAnswers = std::to_array<Answer>({
      On<ControlWlan>("WlanControlRequest"),
      On<ControlHotspot>("WlanHotspotControlRequest"),
      On<ControlLte>("LteControlRequest"),
      On<RegisterIoT>("IoTRegistrationRequest"),
      On<TellIoTStatus>("IoTConnectionStatusQuery"),
      On<TakeIoTData>("IoTD2CData"),
  });
  return kAnswers;
}

}  // namespace radiosim
