#include "Radio.h"

#include "Answers.h"
#include "orka/ConversionTables.h"
#include "orka/codec/Codec.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <utility>

namespace radiosim {
namespace {

using orka::RadioNotificationData;
using orka::codec::Direction;
using orka::codec::FindRow;
using orka::pel::FrameKind;

constexpr std::size_t kDebugLogLimit = 32UL * 1024;

// What can be subscribed to and has a state to tell. It is told to a new subscriber and when it
// changes.
struct Subscribable {
  Kova::SubscriptionMsgCode code;
  bool repeated;  // also told again and again
  std::string_view broadcast;
  RadioNotificationData (*state)(const Radio& radio);
};

RadioNotificationData CovertMode(const Radio& radio) {
  Kova::ToggleCovertModeMsg message;
  message.set_enabled(radio.configuration.state.covert());
  return message;
}

RadioNotificationData LocationBroadcast(const Radio& radio) {
  Kova::LocationInfoMsg message;
  *message.mutable_broadcast() = Location(radio);
  return message;
}

template <auto state>
RadioNotificationData Tell(const Radio& radio) {
  return state(radio);
}

constexpr auto kSubscribables = std::to_array<Subscribable>({
    {Kova::SUBSCRIBE_BATTERY_LEVEL, true, "BatteryLevelBroadcast", Tell<Battery>},
    {Kova::SUBSCRIBE_BLUETOOTH_STATUS, true, "BluetoothStatusBroadcast", Tell<Bluetooth>},
    {Kova::SUBSCRIBE_LTE_STATUS, true, "LteStatusBroadcast", Tell<Lte>},
    {Kova::SUBSCRIBE_COVERT_MODE, false, "CovertModeBroadcast", CovertMode},
    {Kova::SUBSCRIBE_WLAN_STATUS, true, "WlanStatusBroadcast", Tell<Wlan>},
    {Kova::SUBSCRIBE_EMERGENCY, false, "EmergencyBroadcast",
     [](const Radio& radio) -> RadioNotificationData { return radio.emergency; }},
    {Kova::SUBSCRIBE_LOCATION, true, "LocationBroadcast", LocationBroadcast},
});

// Answers a request that no table knows with an empty response, if it has one.
void AnswerEmpty(const Radio& radio, const Received& received) {
  orka::codec::Bytes payload;
  orka::codec::ByteWriter(payload).Put(
      static_cast<std::uint16_t>(received.row->opcode | orka::codec::kResponseBit));
  const auto response = orka::codec::DecodeFromRadio(FrameKind::Response, payload);
  if (received.row->kind == FrameKind::Request && response.message) {
    radio.Respond(received, *response.message);
  }
}

}  // namespace

Radio::Radio(Settings its_settings, Callbacks its_callbacks)
    : settings(std::move(its_settings)),
      callbacks(std::move(its_callbacks)),
      store(settings.store, callbacks.log),
      battery_percent(settings.battery_percent) {
  state.set_version(settings.version);
  state.set_hardware_id(settings.hardware_id);
}

Radio::Configuration Radio::FactoryConfiguration() {
  Configuration configuration;
  configuration.state.set_wlan_enabled(true);
  configuration.state.set_lte_enabled(true);
  configuration.brightness.set_brightness("Medium");
  configuration.bluetooth.set_mode(Kova::BluetoothConfigMsg::MODE_ON);
  configuration.bluetooth.set_device_name("Radio simulator");
  configuration.gatt = {{Kova::GATT_DEVICE_NAME, "Radio simulator"},
                        {Kova::GATT_APPEARANCE, std::string("\x00\x40", 2)},
                        {Kova::GATT_TX_POWER, std::string("\x04", 1)},
                        {Kova::GATT_MTU, std::string("\xF7\x00", 2)}};
  for (const auto& [name, code] : orka::kButtonIdentifiers) {
    auto& button = configuration.buttons[static_cast<std::uint32_t>(code)];
    button.set_name(name);
    button.set_identifier(static_cast<std::uint32_t>(code));
    button.set_subscribed(name == "EButton");
  }
  return configuration;
}

void Radio::Handle(const Received& received) {
  debug_log += std::string(received.row->name) + '\n';
  if (debug_log.size() > kDebugLogLimit) {
    debug_log.erase(0, debug_log.size() - kDebugLogLimit);
  }
  for (const auto answers : {DeviceAnswers(), SettingsAnswers(), NetworkAnswers()}) {
    const auto answer = std::ranges::find(answers, received.row->name, &Answer::name);
    if (answer != answers.end()) {
      answer->run(*this, received);
      return;
    }
  }
  AnswerEmpty(*this, received);
}

void Radio::Respond(const Received& received, const RadioNotificationData& data) const {
  const auto opcode = static_cast<std::uint16_t>(received.row->opcode | orka::codec::kResponseBit);
  callbacks.send(*FindRow(Direction::FromRadio, opcode, FrameKind::Response), data,
                 received.header.transaction, received.header.destination);
}

void Radio::Broadcast(std::string_view name, const RadioNotificationData& data) const {
  callbacks.send(*FindRow(Direction::FromRadio, name), data, 0, 0);
}

void Radio::BroadcastIfSubscribed(Kova::SubscriptionMsgCode code) const {
  const auto* row = std::ranges::find(kSubscribables, code, &Subscribable::code);
  if (subscriptions.contains(code) && row != kSubscribables.end()) {
    Broadcast(row->broadcast, row->state(*this));
  }
}

void Radio::Tick(Clock::time_point now) {
  const std::chrono::duration<double> passed =
      last_tick == Clock::time_point() ? Clock::duration(0) : now - last_tick;
  last_tick = now;
  battery_percent =
      std::max(0.0, battery_percent - settings.drain_per_minute * passed.count() / 60);
  track += passed.count();
  if (now >= next_broadcast) {
    next_broadcast = now + settings.broadcast_every;
    for (const Subscribable& row : kSubscribables) {
      if (row.repeated) {
        BroadcastIfSubscribed(row.code);
      }
    }
    if (rsm_progress >= 0) {
      rsm_progress = std::min(rsm_progress + 25, 100);
      Kova::RsmUpdateResponse progress;
      progress.set_progress(static_cast<std::uint32_t>(rsm_progress));
      Broadcast("RsmUpdateProgress", progress);
      if (rsm_progress == 100) {
        rsm_progress = -1;
      }
    }
  }
  if (location_interval.count() > 0 && now >= next_location) {
    next_location = now + location_interval;
    Broadcast("LocationBroadcast", LocationBroadcast(*this));
  }
}

void Radio::SessionEnded() {
  store.Abort();
  subscriptions.clear();
  location_interval = std::chrono::seconds(0);
  rsm_progress = -1;
}

json::State Radio::State() const {
  json::State told = state;
  told.MergeFrom(configuration.state);
  told.set_battery_percent(std::round(battery_percent * 10) / 10);
  told.set_brightness(configuration.brightness.brightness());
  told.set_bluetooth_mode(static_cast<std::uint32_t>(configuration.bluetooth.mode()));
  told.set_bluetooth_name(configuration.bluetooth.device_name());
  told.set_gatt_properties(static_cast<std::uint32_t>(configuration.gatt.size()));
  told.set_configuration_values(static_cast<std::uint32_t>(configuration.values.size()));
  told.set_emergency(static_cast<std::uint32_t>(emergency.state()));
  told.set_clock_offset_s(static_cast<double>(clock_offset.count()) / 1000);
  told.set_file_in_transfer(store.InTransfer());
  told.set_file_name(store.LastName());
  told.set_file_bytes(static_cast<std::uint32_t>(store.Received()));
  told.set_file_sha256(store.LastSha256());
  for (const int code : subscriptions) {
    told.add_subscriptions(static_cast<std::uint32_t>(code));
  }
  for (const auto& [code, button] : configuration.buttons) {
    if (button.subscribed()) {
      told.add_subscribed_buttons(button.name().empty() ? std::to_string(code) : button.name());
    }
  }
  return told;
}

}  // namespace radiosim
