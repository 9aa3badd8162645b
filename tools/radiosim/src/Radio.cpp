#include "Radio.h"

#include "orka/ConversionTables.h"
#include "orka/codec/Codec.h"
#include "orka/codec/LinkControl.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace radiosim {
namespace {

using orka::codec::Direction;
using orka::codec::FindRow;
using orka::pel::FrameKind;
using orka::qrx::Result;

constexpr std::size_t kDebugLogLimit = 32UL * 1024;
constexpr std::size_t kDebugLogPart = 4096;
constexpr int kOk = 0;
constexpr int kFailure = static_cast<int>(Result::Failure);
constexpr int kInvalid = static_cast<int>(Result::InvalidParameter);

template <class T>
const T& As(const Received& received) {
  return std::get<T>(received.message);
}

std::chrono::sys_time<std::chrono::milliseconds> SystemNow() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// The tables.

// What can be subscribed to and has a state to tell. It is told to a new subscriber and when it
// changes.
struct Radio::Subscribable {
  Kova::SubscriptionMsgCode code;
  bool repeated;  // also told again and again
  std::string_view broadcast;
  orka::RadioNotificationData (*state)(const Radio& radio);
};
const std::array<Radio::Subscribable, 7> Radio::kSubscribables = {{
    {Kova::SUBSCRIBE_BATTERY_LEVEL, true, "BatteryLevelBroadcast",
     [](const Radio& radio) -> orka::RadioNotificationData { return radio.Battery(); }},
    {Kova::SUBSCRIBE_BLUETOOTH_STATUS, true, "BluetoothStatusBroadcast",
     [](const Radio& radio) -> orka::RadioNotificationData { return radio.Bluetooth(); }},
    {Kova::SUBSCRIBE_LTE_STATUS, true, "LteStatusBroadcast",
     [](const Radio& radio) -> orka::RadioNotificationData { return radio.Lte(); }},
    {Kova::SUBSCRIBE_COVERT_MODE, false, "CovertModeBroadcast",
     [](const Radio& radio) -> orka::RadioNotificationData {
       Kova::ToggleCovertModeMsg message;
       message.set_enabled(radio.configuration_.covert);
       return message;
     }},
    {Kova::SUBSCRIBE_WLAN_STATUS, true, "WlanStatusBroadcast",
     [](const Radio& radio) -> orka::RadioNotificationData { return radio.Wlan(); }},
    {Kova::SUBSCRIBE_EMERGENCY, false, "EmergencyBroadcast",
     [](const Radio& radio) -> orka::RadioNotificationData { return radio.emergency_; }},
    {Kova::SUBSCRIBE_LOCATION, true, "LocationBroadcast",
     [](const Radio& radio) -> orka::RadioNotificationData {
       Kova::LocationInfoMsg message;
       *message.mutable_broadcast() = radio.Location();
       return message;
     }},
}};

// What is not listed is answered with an empty response, if it has one.
Radio::Handler Radio::FindHandler(const orka::codec::MessageRow& row) {
  struct Answer {
    std::string_view name;  // in the message table
    Handler handler;
  };
  static constexpr auto kAnswers = std::to_array<Answer>({
      {"LocationRequest", &Radio::TellLocation},
      {"EmergencyRequest", &Radio::TakeEmergency},
      {"RtVersionRequest", &Radio::TellVersion},
      {"HardwareIdRequest", &Radio::TellHardwareId},
      {"ShutdownRequest", &Radio::ShutDown},
      {"FeedbackAction", &Radio::Feedback},
      {"SerialNumberRequest", &Radio::TellSerialNumber},
      {"BtMacAddressRequest", &Radio::TellBtMacAddress},
      {"BatteryLevelRequest", &Radio::TellBattery},
      {"ConfigurationSetRequest", &Radio::SetConfiguration},
      {"ButtonsSubscribtionRequest", &Radio::SubscribeButtons},
      {"LedBrightnessRequest", &Radio::SetBrightness},
      {"BluetoothConfigRequest", &Radio::SetBluetooth},
      {"BluetoothStatusRequest", &Radio::TellBluetooth},
      {"GattConfigGetRequest", &Radio::TellGatt},
      {"GattConfigSetRequest", &Radio::SetGatt},
      {"GattConfigResetRequest", &Radio::ResetGatt},
      {"WlanControlRequest", &Radio::ControlWlan},
      {"WlanHotspotControlRequest", &Radio::ControlHotspot},
      {"CovertModeRequest", &Radio::SetCovertMode},
      {"FactoryResetRequest", &Radio::FactoryReset},
      {"OpcodeSubscriptionRequest", &Radio::Subscribe},
      {"MicStatusRequest", &Radio::TellMicrophone},
      {"GetDateTimeRequest", &Radio::TellDateTime},
      {"SetDateTimeRequest", &Radio::SetDateTime},
      {"DebugLogRequest", &Radio::TellDebugLog},
      {"FileAccessRequest", &Radio::GrantFileAccess},
      {"TransferDataRequest", &Radio::TakeChunk},
      {"RsmUpdateRequest", &Radio::UpdateRsm},
      {"VideoControlRequest", &Radio::ControlVideo},
      {"LteControlRequest", &Radio::ControlLte},
      {"IoTRegistrationRequest", &Radio::RegisterIoT},
      {"IoTConnectionStatusQuery", &Radio::TellIoTStatus},
      {"RadioStatusResponse", &Radio::TakeCameraStatus},
      {"GattConfigNotification", &Radio::TakeGattNotification},
      {"RadioStatusBroadcast", &Radio::TakeCameraStatus},
      {"IoTD2CData", &Radio::TakeIoTData},
  });
  // Without FindRow: under the sanitizers, GCC takes no pointer that it gives for constant.
  static_assert(std::ranges::all_of(kAnswers, [](const Answer& answer) {
    return std::ranges::any_of(orka::codec::kMessageTable, [&](const orka::codec::MessageRow& to) {
      return to.direction == Direction::ToRadio && to.name == answer.name;
    });
  }));
  const auto* answer = std::ranges::find(kAnswers, row.name, &Answer::name);
  return answer != kAnswers.end() ? answer->handler : &Radio::AnswerEmpty;
}

// ------------------------------------------------------------------------------------------------

Radio::Radio(Settings settings, Outside outside)
    : settings_(std::move(settings)),
      outside_(std::move(outside)),
      store_(settings_.store, outside_.log),
      battery_percent_(settings_.battery_percent) {}

Radio::Configuration Radio::FactoryConfiguration() {
  Configuration configuration;
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
  debug_log_ += std::string(received.row->name) + '\n';
  if (debug_log_.size() > kDebugLogLimit) {
    debug_log_.erase(0, debug_log_.size() - kDebugLogLimit);
  }
  (this->*FindHandler(*received.row))(received);
}

void Radio::Respond(const Received& received, const orka::RadioNotificationData& data) {
  const auto opcode = static_cast<std::uint16_t>(received.row->opcode | orka::codec::kResponseBit);
  outside_.send(*FindRow(Direction::FromRadio, opcode, FrameKind::Response), data,
                received.header.transaction, received.header.destination);
}

void Radio::Broadcast(std::string_view name, const orka::RadioNotificationData& data) {
  outside_.send(*FindRow(Direction::FromRadio, name), data, 0, 0);
}

void Radio::BroadcastIfSubscribed(Kova::SubscriptionMsgCode code) {
  if (!subscriptions_.contains(code)) {
    return;
  }
  const auto* row = std::ranges::find(kSubscribables, code, &Subscribable::code);
  if (row != kSubscribables.end()) {
    Broadcast(row->broadcast, row->state(*this));
  }
}

void Radio::Tick(Clock::time_point now) {
  const std::chrono::duration<double> passed =
      last_tick_ == Clock::time_point() ? Clock::duration(0) : now - last_tick_;
  last_tick_ = now;
  battery_percent_ =
      std::max(0.0, battery_percent_ - settings_.drain_per_minute * passed.count() / 60);
  track_ += passed.count();
  if (now >= next_broadcast_) {
    next_broadcast_ = now + settings_.broadcast_every;
    for (const Subscribable& row : kSubscribables) {
      if (row.repeated) {
        BroadcastIfSubscribed(row.code);
      }
    }
    if (rsm_progress_ >= 0) {
      rsm_progress_ = std::min(rsm_progress_ + 25, 100);
      Kova::RsmUpdateResponse progress;
      progress.set_progress(static_cast<std::uint32_t>(rsm_progress_));
      Broadcast("RsmUpdateProgress", progress);
      if (rsm_progress_ == 100) {
        rsm_progress_ = -1;
      }
    }
  }
  if (location_interval_.count() > 0 && now >= next_location_) {
    next_location_ = now + location_interval_;
    Kova::LocationInfoMsg message;
    *message.mutable_broadcast() = Location();
    Broadcast("LocationBroadcast", message);
  }
}

void Radio::SessionEnded() {
  store_.Abort();
  subscriptions_.clear();
  location_interval_ = std::chrono::seconds(0);
  rsm_progress_ = -1;
}

// ------------------------------------------------------------------------------------------------
// Identity, date and time, power.

void Radio::TellVersion(const Received& received) {
  Kova::RtVersionResponse response;
  response.set_version(settings_.version);
  response.set_build_number(settings_.build_number);
  Respond(received, response);
}

void Radio::TellHardwareId(const Received& received) {
  Kova::HardwareIdResponse response;
  response.set_hardware_id(settings_.hardware_id);
  response.set_revision(settings_.revision);
  Respond(received, response);
}

void Radio::TellSerialNumber(const Received& received) {
  Kova::SerialNumberMsg response = As<Kova::SerialNumberMsg>(received);
  response.set_serial_number("SIM" + std::to_string(1000 + response.type()));
  Respond(received, response);
}

void Radio::TellBtMacAddress(const Received& received) {
  Kova::BtMacAddressMsg response = As<Kova::BtMacAddressMsg>(received);
  response.set_address(std::string("\x02\x00\x5E\x10\x00", 5) + static_cast<char>(response.type()));
  Respond(received, response);
}

void Radio::TellDateTime(const Received& received) {
  using namespace std::chrono;
  const auto local = SystemNow() + clock_offset_ + minutes(utc_offset_minutes_);
  const auto day = floor<days>(local);
  const year_month_day date(day);
  const hh_mm_ss time(floor<seconds>(local - day));
  Kova::GetDateTimeResp response;
  Kova::DateTime& out = *response.mutable_date_time();
  out.set_year(static_cast<std::uint32_t>(static_cast<int>(date.year())));
  out.set_month(static_cast<unsigned>(date.month()));
  out.set_day(static_cast<unsigned>(date.day()));
  out.set_hour(static_cast<std::uint32_t>(time.hours().count()));
  out.set_minute(static_cast<std::uint32_t>(time.minutes().count()));
  out.set_second(static_cast<std::uint32_t>(time.seconds().count()));
  out.set_utc_offset_minutes(utc_offset_minutes_);
  Respond(received, response);
}

void Radio::SetDateTime(const Received& received) {
  using namespace std::chrono;
  const Kova::DateTime& wanted = As<Kova::SetDateTimeReq>(received).date_time();
  const year_month_day date(year(static_cast<int>(wanted.year())), month(wanted.month()),
                            day(wanted.day()));
  Kova::SetDateTimeResp response;
  if (wanted.year() < 1970 || wanted.year() > 9999 || !date.ok() || wanted.hour() > 23 ||
      wanted.minute() > 59 || wanted.second() > 59 || wanted.utc_offset_minutes() < -720 ||
      wanted.utc_offset_minutes() > 840) {
    response.set_result(kInvalid);
  } else {
    utc_offset_minutes_ = wanted.utc_offset_minutes();
    const auto utc = sys_days(date) + hours(wanted.hour()) + minutes(wanted.minute()) +
                     seconds(wanted.second()) - minutes(utc_offset_minutes_);
    clock_offset_ = utc - SystemNow();
  }
  Respond(received, response);
}

Kova::BatteryLevel Radio::Battery() const {
  Kova::BatteryLevel level;
  level.set_percent(static_cast<std::uint32_t>(std::lround(battery_percent_)));
  level.set_millivolts(static_cast<std::uint32_t>(3300 + std::lround(battery_percent_ * 9)));
  level.set_milliamperes(-180);
  level.set_temperature_decidegrees(284);
  return level;
}

void Radio::TellBattery(const Received& received) {
  Respond(received, Battery());
}

void Radio::ShutDown(const Received& received) {
  const std::chrono::milliseconds delay(
      std::min(As<Kova::ShutdownRequest>(received).delay_ms(), 60'000U));
  Kova::ShutdownResponse response;
  response.set_delay_ms(static_cast<std::uint32_t>(delay.count()));
  Respond(received, response);
  outside_.restart(delay);
}

void Radio::FactoryReset(const Received& received) {
  Broadcast("FactoryResetAccepted", std::string());
  auto gatt_of_pairings = configuration_.bluetooth;
  configuration_ = FactoryConfiguration();
  if (As<Kova::RtFactoryResetRequest>(received).keep_pairings()) {
    configuration_.bluetooth = std::move(gatt_of_pairings);
  }
  Respond(received, Kova::RtFactoryResetResponse());
}

void Radio::TellDebugLog(const Received& received) {
  const std::uint32_t wanted = As<Kova::RtDebugLogMsg>(received).request().max_bytes();
  const std::size_t limit = wanted == 0 ? debug_log_.size() : wanted;
  std::string_view rest = std::string_view(debug_log_).substr(0, limit);
  do {
    Kova::RtDebugLogMsg message;
    auto& response = *message.mutable_response();
    const std::string_view part = rest.substr(0, kDebugLogPart);
    rest.remove_prefix(part.size());
    response.set_log(std::string(part));
    response.set_more(!rest.empty());
    Respond(received, message);
  } while (!rest.empty());
}

// ------------------------------------------------------------------------------------------------
// Settings and subscriptions.

void Radio::SetConfiguration(const Received& received) {
  const auto& request = As<Kova::ConfigurationSetMsg>(received).request();
  configuration_.values[request.configuration_id()] = request.value();
  Kova::ConfigurationSetMsg message;
  message.mutable_response()->set_configuration_id(request.configuration_id());
  Respond(received, message);
}

void Radio::SubscribeButtons(const Received& received) {
  for (const auto& button : As<Kova::ButtonsSubscribtionMsg>(received).request().buttons()) {
    configuration_.buttons[button.identifier()] = button;
  }
  Kova::ButtonsSubscribtionMsg message;
  auto& response = *message.mutable_response();
  for (const auto& [code, button] : configuration_.buttons) {
    *response.add_buttons() = button;
  }
  Respond(received, message);
}

void Radio::SetBrightness(const Received& received) {
  configuration_.brightness = As<Kova::LedBrightnessSettingMsg>(received);
  configuration_.brightness.set_result(kOk);
  Respond(received, configuration_.brightness);
}

void Radio::SetBluetooth(const Received& received) {
  const auto& request = As<Kova::BluetoothConfigMsg>(received).request();
  auto& bluetooth = configuration_.bluetooth;
  const bool known = Kova::BluetoothConfigMsg::Mode_IsValid(request.mode());
  if (known) {
    bluetooth.set_mode(request.mode());
    if (!request.device_name().empty()) {
      bluetooth.set_device_name(request.device_name());
    }
  }
  Kova::BluetoothConfigMsg message;
  *message.mutable_response() = bluetooth;
  message.mutable_response()->set_result(known ? kOk : kInvalid);
  Respond(received, message);
  if (known) {
    BroadcastIfSubscribed(Kova::SUBSCRIBE_BLUETOOTH_STATUS);
  }
}

Kova::BluetoothStatusMsg Radio::Bluetooth() const {
  Kova::BluetoothStatusMsg message;
  auto& status = *message.mutable_broadcast();
  status.set_enabled(configuration_.bluetooth.mode() != Kova::BluetoothConfigMsg::MODE_OFF);
  if (status.enabled()) {
    auto& device = *status.add_devices();
    device.set_address(std::string("\x02\x00\x5E\x20\x00\x01", 6));
    device.set_name("Headset");
    device.set_connected(true);
    device.set_rssi_dbm(-52);
  }
  return message;
}

void Radio::TellBluetooth(const Received& received) {
  Kova::BluetoothStatusMsg message;
  *message.mutable_response() = Bluetooth().broadcast();
  Respond(received, message);
}

void Radio::TellGatt(const Received& received) {
  const auto& request = As<Kova::GattConfigMsg>(received).get_request();
  Kova::GattConfigMsg message;
  auto& response = *message.mutable_get_response();
  for (const auto& [name, value] : configuration_.gatt) {
    if (request.names().empty() || std::ranges::count(request.names(), name) > 0) {
      auto& property = *response.add_properties();
      property.set_name(static_cast<Kova::GattConfigPropertyName>(name));
      property.set_value(value);
    }
  }
  Respond(received, message);
}

void Radio::SetGatt(const Received& received) {
  const auto& request = As<Kova::GattConfigMsg>(received).set_request();
  for (const auto& property : request.properties()) {
    configuration_.gatt[property.name()] = property.value();
  }
  Kova::GattConfigMsg message;
  message.mutable_set_response();
  Respond(received, message);
  Kova::GattConfigMsg changed;
  *changed.mutable_broadcast()->mutable_properties() = request.properties();
  Broadcast("GattConfigBroadcast", changed);
}

void Radio::ResetGatt(const Received& received) {
  configuration_.gatt = FactoryConfiguration().gatt;
  Kova::GattConfigMsg message;
  message.mutable_set_response();
  Respond(received, message);
}

void Radio::SetCovertMode(const Received& received) {
  const bool enabled = As<Kova::ToggleCovertModeMsg>(received).enabled();
  const bool changed = std::exchange(configuration_.covert, enabled) != enabled;
  Kova::ToggleCovertModeMsg response;
  response.set_enabled(enabled);
  Respond(received, response);
  if (changed) {
    BroadcastIfSubscribed(Kova::SUBSCRIBE_COVERT_MODE);
  }
}

void Radio::Subscribe(const Received& received) {
  const auto& request = As<Kova::OpcodeSubscriptionMsg>(received).request();
  for (const int code : request.codes()) {
    if (request.subscribe()) {
      subscriptions_.insert(code);
    } else {
      subscriptions_.erase(code);
    }
  }
  Kova::OpcodeSubscriptionMsg message;
  auto& response = *message.mutable_response();
  for (const int code : subscriptions_) {
    response.add_codes(static_cast<Kova::SubscriptionMsgCode>(code));
  }
  Respond(received, message);
  if (request.subscribe()) {
    for (const int code : request.codes()) {  // where it stands now
      BroadcastIfSubscribed(static_cast<Kova::SubscriptionMsgCode>(code));
    }
  }
}

void Radio::TellMicrophone(const Received& received) {
  Kova::MicStatusMsg message;
  auto& status = *message.mutable_response();
  status.set_connected(true);
  status.set_muted(configuration_.covert);
  status.set_gain_percent(70);
  Respond(received, message);
}

void Radio::Feedback(const Received& received) {
  static constexpr std::array<std::string_view, 3> kKinds = {"vibrates", "plays a tone",
                                                             "flashes its LED"};
  const auto& action = As<Kova::FeedbackAction>(received);
  const auto kind = static_cast<std::size_t>(action.kind());
  outside_.log("the radio " + std::string(kind < kKinds.size() ? kKinds[kind] : "does nothing") +
               ", pattern " + std::to_string(action.pattern()));
}

// ------------------------------------------------------------------------------------------------
// Files.

void Radio::GrantFileAccess(const Received& received) {
  const auto& request = As<orka::qrx::FileAccessRequest>(received);
  const auto refused = outside_.refuse("FileAccessResponse", std::nullopt);
  if (refused) {
    store_.Abort();
  }
  const Result result = refused ? *refused : store_.Begin(request);
  Respond(received, orka::qrx::FileAccessResponse{result, request.file_size, request.file_name});
}

void Radio::TakeChunk(const Received& received) {
  const auto& request = As<orka::qrx::TransferDataRequest>(received);
  const auto refused = outside_.refuse("TransferDataResponse", request.chunk_number);
  if (refused) {
    store_.Abort();
  }
  const Result result = refused ? *refused : store_.Write(request, received.chunk);
  Respond(received, orka::qrx::TransferDataResponse{result, request.chunk_number});
}

void Radio::UpdateRsm(const Received& received) {
  const auto& request = As<Kova::RsmUpdateRequest>(received);
  const bool found = settings_.store.empty() || store_.Has(request.file_name());
  Kova::RsmUpdateResponse response;
  response.set_result(found ? kOk : static_cast<int>(Result::NotFound));
  Respond(received, response);
  if (found) {
    rsm_progress_ = 0;
  }
}

// ------------------------------------------------------------------------------------------------
// Video, location, networks.

void Radio::ControlVideo(const Received& received) {
  const auto& request = As<Kova::VideoControlRequest>(received);
  last_video_action_ = request.action();
  Kova::VideoControlResponse response;
  response.set_radio_send_selector(request.radio_send_selector());
  response.set_request_id(request.request_id());
  response.set_action(request.action());
  Respond(received, response);
}

Kova::LocationInfoMsg::Location Radio::Location() const {
  // A walk around a block, once in ten minutes.
  const double angle = track_ * 2 * std::numbers::pi / 600;
  Kova::LocationInfoMsg::Location location;
  location.set_latitude(52.0 + 0.001 * std::sin(angle));
  location.set_longitude(4.0 + 0.0016 * std::cos(angle));
  location.set_altitude_m(12);
  location.set_accuracy_m(3.5F);
  location.set_speed_mps(1.2F);
  location.set_heading(static_cast<float>(std::fmod(720 - angle * 180 / std::numbers::pi, 360)));
  const auto now = SystemNow() + clock_offset_;
  location.set_time_ms(static_cast<std::uint64_t>(now.time_since_epoch().count()));
  return location;
}

void Radio::TellLocation(const Received& received) {
  location_interval_ =
      std::chrono::seconds(As<Kova::LocationInfoMsg>(received).request().interval_s());
  next_location_ = last_tick_ + location_interval_;
  Kova::LocationInfoMsg message;
  *message.mutable_response() = Location();
  Respond(received, message);
}

void Radio::TakeEmergency(const Received& received) {
  const auto before = std::exchange(emergency_, As<Collaboration::RadioEmergencyMsg>(received));
  auto response = emergency_;
  if (emergency_.state() == Collaboration::RadioEmergencyMsg::RAISED) {
    response.set_state(Collaboration::RadioEmergencyMsg::ACKNOWLEDGED);
  }
  Respond(received, response);
  if (before.state() != emergency_.state() || before.emergency_id() != emergency_.emergency_id()) {
    BroadcastIfSubscribed(Kova::SUBSCRIBE_EMERGENCY);
  }
}

Kova::RadioWlanControlIncomingMsg Radio::Wlan() const {
  Kova::RadioWlanControlIncomingMsg status;
  status.set_enabled(configuration_.wlan_enabled);
  status.set_connected(configuration_.wlan_enabled && !configuration_.wlan_ssid.empty());
  if (status.connected()) {
    status.set_ssid(configuration_.wlan_ssid);
    status.set_rssi_dbm(-61);
  }
  return status;
}

void Radio::ControlWlan(const Received& received) {
  using Message = Kova::RadioWlanControlOutgoingMsg;
  const auto& request = As<Message>(received);
  int result = kOk;
  switch (request.action()) {
    case Message::STATUS:
    case Message::SCAN:
      break;
    case Message::ENABLE:
    case Message::DISABLE:
      configuration_.wlan_enabled = request.action() == Message::ENABLE;
      break;
    case Message::CONNECT:
      if (!configuration_.wlan_enabled || request.ssid().empty() || request.ssid().size() > 32) {
        result = configuration_.wlan_enabled ? kInvalid : kFailure;
      } else {
        configuration_.wlan_ssid = request.ssid();
      }
      break;
    case Message::DISCONNECT:
      configuration_.wlan_ssid.clear();
      break;
    default:
      result = static_cast<int>(Result::NotSupported);
  }
  Kova::RadioWlanControlIncomingMsg response = Wlan();
  response.set_result(result);
  if (request.action() == Message::SCAN && configuration_.wlan_enabled) {
    for (const char* ssid : {"station", "depot", "guest"}) {
      response.add_found_ssids(ssid);
    }
  }
  Respond(received, response);
  if (request.action() != Message::STATUS && request.action() != Message::SCAN && result == kOk) {
    BroadcastIfSubscribed(Kova::SUBSCRIBE_WLAN_STATUS);
  }
}

void Radio::ControlHotspot(const Received& received) {
  using Message = Kova::RadioWlanHotspotControlOutgoingMsg;
  const auto& request = As<Message>(received);
  if (request.action() == Message::START) {
    configuration_.hotspot_active = true;
    if (!request.ssid().empty()) {
      configuration_.hotspot_ssid = request.ssid();
    }
  } else if (request.action() == Message::STOP) {
    configuration_.hotspot_active = false;
  }
  Kova::RadioWlanHotspotControlIncomingMsg response;
  response.set_result(
      Message::Action_IsValid(request.action()) ? kOk : static_cast<int>(Result::NotSupported));
  response.set_active(configuration_.hotspot_active);
  response.set_ssid(configuration_.hotspot_ssid);
  response.set_clients(configuration_.hotspot_active ? 1 : 0);
  Respond(received, response);
}

Kova::RadioLteControlIncoming Radio::Lte() const {
  Kova::RadioLteControlIncoming status;
  status.set_enabled(configuration_.lte_enabled);
  status.set_registered(configuration_.lte_enabled);
  if (configuration_.lte_enabled) {
    status.set_operator_name("Sim Mobile");
    status.set_rsrp_dbm(-95);
  }
  return status;
}

void Radio::ControlLte(const Received& received) {
  using Message = Kova::RadioLteControlOutgoing;
  const auto action = As<Message>(received).action();
  const bool changes = action == Message::ENABLE || action == Message::DISABLE;
  if (changes) {
    configuration_.lte_enabled = action == Message::ENABLE;
  }
  Kova::RadioLteControlIncoming response = Lte();
  response.set_result(Message::Action_IsValid(action) ? kOk
                                                      : static_cast<int>(Result::NotSupported));
  Respond(received, response);
  if (changes) {
    BroadcastIfSubscribed(Kova::SUBSCRIBE_LTE_STATUS);
  }
}

void Radio::RegisterIoT(const Received& received) {
  const auto& request = As<Collaboration::IoTRegistrationRequest>(received);
  configuration_.iot_device = request.unregister() ? "" : request.device_id();
  Collaboration::IoTRegistrationResponse response;
  response.set_device_id(request.device_id());
  response.set_result(request.device_id().empty() ? kInvalid : kOk);
  Respond(received, response);
  Collaboration::IoTConnectionStatus status;
  status.set_status(configuration_.iot_device.empty() ? Collaboration::IoTConnectionStatus::OFFLINE
                                                      : Collaboration::IoTConnectionStatus::ONLINE);
  Broadcast("IoTConnectionStatusBroadcast", status);
}

void Radio::TellIoTStatus(const Received& received) {
  Collaboration::IoTConnectionStatus status;
  status.set_status(configuration_.iot_device.empty() ? Collaboration::IoTConnectionStatus::OFFLINE
                                                      : Collaboration::IoTConnectionStatus::ONLINE);
  Respond(received, status);
}

void Radio::TakeIoTData(const Received& received) {
  const auto& data = As<Collaboration::IoTD2CDataMessage>(received);
  if (configuration_.iot_device.empty()) {
    return;  // nobody is registered
  }
  // The cloud of a simulated radio sends everything back.
  Collaboration::IoTC2DDataMessage echo;
  echo.set_message_id(data.message_id());
  echo.set_topic(data.topic());
  echo.set_data(data.data());
  Broadcast("IoTC2DData", echo);
}

// ------------------------------------------------------------------------------------------------
// What the camera tells.

void Radio::AnswerEmpty(const Received& received) {
  orka::codec::Bytes payload;
  orka::codec::ByteWriter(payload).Put(
      static_cast<std::uint16_t>(received.row->opcode | orka::codec::kResponseBit));
  const auto response = orka::codec::DecodeFromRadio(FrameKind::Response, payload);
  if (received.row->kind == FrameKind::Request && response.message) {
    Respond(received, *response.message);
  }
}

void Radio::TakeCameraStatus(const Received& received) {
  const auto& message = As<Kova::RadioStatusMsg>(received);
  camera_ = message.has_broadcast() ? message.broadcast() : message.response();
}

void Radio::TakeGattNotification(const Received& received) {
  const auto& notification = As<Kova::GattConfigMsg>(received).notification();
  outside_.log("passed on to the GATT peer: characteristic " +
               std::to_string(notification.characteristic()) + ", " +
               std::to_string(notification.value().size()) + " bytes");
}

json::State Radio::State() const {
  json::State state;
  state.set_version(settings_.version);
  state.set_hardware_id(settings_.hardware_id);
  state.set_battery_percent(std::round(battery_percent_ * 10) / 10);
  state.set_brightness(configuration_.brightness.brightness());
  state.set_bluetooth_mode(static_cast<std::uint32_t>(configuration_.bluetooth.mode()));
  state.set_bluetooth_name(configuration_.bluetooth.device_name());
  state.set_gatt_properties(static_cast<std::uint32_t>(configuration_.gatt.size()));
  state.set_configuration_values(static_cast<std::uint32_t>(configuration_.values.size()));
  state.set_covert(configuration_.covert);
  state.set_wlan_enabled(configuration_.wlan_enabled);
  state.set_wlan_ssid(configuration_.wlan_ssid);
  state.set_lte_enabled(configuration_.lte_enabled);
  state.set_hotspot_active(configuration_.hotspot_active);
  state.set_iot_device(configuration_.iot_device);
  state.set_emergency(static_cast<std::uint32_t>(emergency_.state()));
  state.set_last_video_action(static_cast<std::uint32_t>(last_video_action_));
  state.set_camera_recording(camera_.recording());
  state.set_clock_offset_s(static_cast<double>(clock_offset_.count()) / 1000);
  state.set_utc_offset_minutes(utc_offset_minutes_);
  state.set_file_in_transfer(store_.InTransfer());
  state.set_file_name(store_.LastName());
  state.set_file_bytes(static_cast<std::uint32_t>(store_.Received()));
  state.set_file_sha256(store_.LastSha256());
  for (const int code : subscriptions_) {
    state.add_subscriptions(static_cast<std::uint32_t>(code));
  }
  for (const auto& [code, button] : configuration_.buttons) {
    if (button.subscribed()) {
      state.add_subscribed_buttons(button.name().empty() ? std::to_string(code) : button.name());
    }
  }
  return state;
}

}  // namespace radiosim
