#include "Answers.h"

#include <algorithm>
#include <utility>

// What is set and kept, most of it until a factory reset; and what is subscribed to.
namespace radiosim {
namespace {

Kova::ConfigurationSetMsg SetConfiguration(Radio& radio, const Kova::ConfigurationSetMsg& message) {
  const auto& request = message.request();
  radio.configuration.values[request.configuration_id()] = request.value();
  Kova::ConfigurationSetMsg response;
  response.mutable_response()->set_configuration_id(request.configuration_id());
  return response;
}

Kova::ButtonsSubscribtionMsg SubscribeButtons(Radio& radio,
                                              const Kova::ButtonsSubscribtionMsg& message) {
  for (const auto& button : message.request().buttons()) {
    radio.configuration.buttons[button.identifier()] = button;
  }
  Kova::ButtonsSubscribtionMsg response;
  for (const auto& [code, button] : radio.configuration.buttons) {
    *response.mutable_response()->add_buttons() = button;
  }
  return response;
}

Kova::LedBrightnessSettingMsg SetBrightness(Radio& radio,
                                            const Kova::LedBrightnessSettingMsg& request) {
  radio.configuration.brightness = request;
  radio.configuration.brightness.set_result(kOk);
  return radio.configuration.brightness;
}

void SetCovertMode(Radio& radio, const Kova::ToggleCovertModeMsg& request,
                   const Received& received) {
  const bool changed = radio.configuration.state.covert() != request.enabled();
  radio.configuration.state.set_covert(request.enabled());
  Kova::ToggleCovertModeMsg response;
  response.set_enabled(request.enabled());
  radio.Respond(received, response);
  if (changed) {
    radio.BroadcastIfSubscribed(Kova::SUBSCRIBE_COVERT_MODE);
  }
}

Kova::MicStatusMsg TellMicrophone(const Radio& radio, const Kova::MicStatusMsg& /*request*/) {
  Kova::MicStatusMsg response;
  auto& status = *response.mutable_response();
  status.set_connected(true);
  status.set_muted(radio.configuration.state.covert());
  status.set_gain_percent(70);
  return response;
}

void SetBluetooth(Radio& radio, const Kova::BluetoothConfigMsg& message, const Received& received) {
  const auto& request = message.request();
  auto& bluetooth = radio.configuration.bluetooth;
  const bool known = Kova::BluetoothConfigMsg::Mode_IsValid(request.mode());
  if (known) {
    bluetooth.set_mode(request.mode());
    if (!request.device_name().empty()) {
      bluetooth.set_device_name(request.device_name());
    }
  }
  Kova::BluetoothConfigMsg response;
  *response.mutable_response() = bluetooth;
  response.mutable_response()->set_result(known ? kOk : kInvalid);
  radio.Respond(received, response);
  if (known) {
    radio.BroadcastIfSubscribed(Kova::SUBSCRIBE_BLUETOOTH_STATUS);
  }
}

Kova::BluetoothStatusMsg TellBluetooth(const Radio& radio,
                                       const Kova::BluetoothStatusMsg& /*request*/) {
  Kova::BluetoothStatusMsg response;
  *response.mutable_response() = Bluetooth(radio).broadcast();
  return response;
}

Kova::GattConfigMsg TellGatt(const Radio& radio, const Kova::GattConfigMsg& message) {
  const auto& names = message.get_request().names();
  Kova::GattConfigMsg response;
  auto& told = *response.mutable_get_response();
  for (const auto& [name, value] : radio.configuration.gatt) {
    if (names.empty() || std::ranges::count(names, name) > 0) {
      auto& property = *told.add_properties();
      property.set_name(static_cast<Kova::GattConfigPropertyName>(name));
      property.set_value(value);
    }
  }
  return response;
}

Kova::GattConfigMsg GattIsSet() {
  Kova::GattConfigMsg response;
  response.mutable_set_response();
  return response;
}

void SetGatt(Radio& radio, const Kova::GattConfigMsg& message, const Received& received) {
  const auto& properties = message.set_request().properties();
  for (const auto& property : properties) {
    radio.configuration.gatt[property.name()] = property.value();
  }
  radio.Respond(received, GattIsSet());
  Kova::GattConfigMsg changed;
  *changed.mutable_broadcast()->mutable_properties() = properties;
  radio.Broadcast("GattConfigBroadcast", changed);
}

Kova::GattConfigMsg ResetGatt(Radio& radio, const Kova::GattConfigMsg& /*request*/) {
  radio.configuration.gatt = Radio::FactoryConfiguration().gatt;
  return GattIsSet();
}

void TakeGattNotification(const Radio& radio, const Kova::GattConfigMsg& message) {
  const auto& notification = message.notification();
  radio.callbacks.log("passed on to the GATT peer: characteristic " +
                      std::to_string(notification.characteristic()) + ", " +
                      std::to_string(notification.value().size()) + " bytes");
}

Kova::RtFactoryResetResponse ResetAll(Radio& radio, const Kova::RtFactoryResetRequest& request) {
  radio.Broadcast("FactoryResetAccepted", std::string());
  auto paired = std::move(radio.configuration.bluetooth);
  radio.configuration = Radio::FactoryConfiguration();
  if (request.keep_pairings()) {
    radio.configuration.bluetooth = std::move(paired);
  }
  return {};
}

void Subscribe(Radio& radio, const Kova::OpcodeSubscriptionMsg& message, const Received& received) {
  const auto& request = message.request();
  for (const int code : request.codes()) {
    if (request.subscribe()) {
      radio.subscriptions.insert(code);
    } else {
      radio.subscriptions.erase(code);
    }
  }
  Kova::OpcodeSubscriptionMsg response;
  auto& told = *response.mutable_response();
  for (const int code : radio.subscriptions) {
    told.add_codes(static_cast<Kova::SubscriptionMsgCode>(code));
  }
  radio.Respond(received, response);
  for (const int code : request.codes()) {  // where it stands now
    radio.BroadcastIfSubscribed(static_cast<Kova::SubscriptionMsgCode>(code));
  }
}

}  // namespace

Kova::BluetoothStatusMsg Bluetooth(const Radio& radio) {
  Kova::BluetoothStatusMsg message;
  auto& status = *message.mutable_broadcast();
  status.set_enabled(radio.configuration.bluetooth.mode() != Kova::BluetoothConfigMsg::MODE_OFF);
  if (status.enabled()) {
    auto& device = *status.add_devices();
    device.set_address(std::string("\x02\x00\x5E\x20\x00\x01", 6));
    device.set_name("Headset");
    device.set_connected(true);
    device.set_rssi_dbm(-52);
  }
  return message;
}

std::span<const Answer> SettingsAnswers() {
  static constexpr auto kAnswers = std::to_array<Answer>({
      On<SetConfiguration>("ConfigurationSetRequest"),
      On<SubscribeButtons>("ButtonsSubscribtionRequest"),
      On<SetBrightness>("LedBrightnessRequest"),
      On<SetCovertMode>("CovertModeRequest"),
      On<TellMicrophone>("MicStatusRequest"),
      On<SetBluetooth>("BluetoothConfigRequest"),
      On<TellBluetooth>("BluetoothStatusRequest"),
      On<TellGatt>("GattConfigGetRequest"),
      On<SetGatt>("GattConfigSetRequest"),
      On<ResetGatt>("GattConfigResetRequest"),
      On<TakeGattNotification>("GattConfigNotification"),
      On<ResetAll>("FactoryResetRequest"),
      On<Subscribe>("OpcodeSubscriptionRequest"),
  });
  return kAnswers;
}

}  // namespace radiosim
