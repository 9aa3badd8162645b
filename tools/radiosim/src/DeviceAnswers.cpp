#include "Answers.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <numbers>
#include <utility>

// The device itself: identity, clock, power, files, what the camera tells and records, where it is.
namespace radiosim {
namespace {

using orka::qrx::Result;

constexpr std::size_t kDebugLogPart = 4096;

// ------------------------------------------------------------------------------------------------
// Identity.

Kova::RtVersionResponse TellVersion(const Radio& radio, const Kova::RtVersionRequest& /*request*/) {
  Kova::RtVersionResponse response;
  response.set_version(radio.settings.version);
  response.set_build_number(radio.settings.build_number);
  return response;
}

Kova::HardwareIdResponse TellHardwareId(const Radio& radio,
                                        const Kova::HardwareIdRequest& /*request*/) {
  Kova::HardwareIdResponse response;
  response.set_hardware_id(radio.settings.hardware_id);
  response.set_revision(radio.settings.revision);
  return response;
}

Kova::SerialNumberMsg TellSerialNumber(const Radio& /*radio*/,
                                       const Kova::SerialNumberMsg& request) {
  Kova::SerialNumberMsg response = request;
  response.set_serial_number("SIM" + std::to_string(1000 + request.type()));
  return response;
}

Kova::BtMacAddressMsg TellBtMacAddress(const Radio& /*radio*/,
                                       const Kova::BtMacAddressMsg& request) {
  Kova::BtMacAddressMsg response = request;
  response.set_address(std::string("\x02\x00\x5E\x10\x00", 5) + static_cast<char>(request.type()));
  return response;
}

// ------------------------------------------------------------------------------------------------
// The clock.

std::chrono::sys_time<std::chrono::milliseconds> SystemNow() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

Kova::GetDateTimeResp TellDateTime(const Radio& radio, const Kova::GetDateTimeReq& /*request*/) {
  using namespace std::chrono;
  const int utc_offset = radio.state.utc_offset_minutes();
  const auto local = SystemNow() + radio.clock_offset + minutes(utc_offset);
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
  out.set_utc_offset_minutes(utc_offset);
  return response;
}

Kova::SetDateTimeResp SetDateTime(Radio& radio, const Kova::SetDateTimeReq& request) {
  using namespace std::chrono;
  const Kova::DateTime& wanted = request.date_time();
  const year_month_day date(year(static_cast<int>(wanted.year())), month(wanted.month()),
                            day(wanted.day()));
  Kova::SetDateTimeResp response;
  if (wanted.year() < 1970 || wanted.year() > 9999 || !date.ok() || wanted.hour() > 23 ||
      wanted.minute() > 59 || wanted.second() > 59 || wanted.utc_offset_minutes() < -720 ||
      wanted.utc_offset_minutes() > 840) {
    response.set_result(kInvalid);
  } else {
    radio.state.set_utc_offset_minutes(wanted.utc_offset_minutes());
    const auto utc = sys_days(date) + hours(wanted.hour()) + minutes(wanted.minute()) +
                     seconds(wanted.second()) - minutes(wanted.utc_offset_minutes());
    radio.clock_offset = utc - SystemNow();
  }
  return response;
}

// ------------------------------------------------------------------------------------------------
// Power, signs to the user, log.

Kova::BatteryLevel TellBattery(const Radio& radio, const Kova::BatteryLevelRequest& /*request*/) {
  return Battery(radio);
}

void ShutDown(const Radio& radio, const Kova::ShutdownRequest& request, const Received& received) {
  const std::uint32_t delay = std::min(request.delay_ms(), 60'000U);
  Kova::ShutdownResponse response;
  response.set_delay_ms(delay);
  radio.Respond(received, response);
  radio.callbacks.restart(std::chrono::milliseconds(delay));
}

void GiveFeedback(const Radio& radio, const Kova::FeedbackAction& action) {
  static constexpr std::array<std::string_view, 3> kKinds = {"vibrates", "plays a tone",
                                                             "flashes its LED"};
  const auto kind = static_cast<std::size_t>(action.kind());
  radio.callbacks.log("the radio " +
                      std::string(kind < kKinds.size() ? kKinds[kind] : "does nothing") +
                      ", pattern " + std::to_string(action.pattern()));
}

void TellDebugLog(const Radio& radio, const Kova::RtDebugLogMsg& message,
                  const Received& received) {
  const std::uint32_t wanted = message.request().max_bytes();
  std::string_view rest = radio.debug_log;
  rest = rest.substr(0, wanted == 0 ? rest.size() : wanted);
  do {
    Kova::RtDebugLogMsg part;
    auto& response = *part.mutable_response();
    response.set_log(std::string(rest.substr(0, kDebugLogPart)));
    rest.remove_prefix(response.log().size());
    response.set_more(!rest.empty());
    radio.Respond(received, part);
  } while (!rest.empty());
}

// ------------------------------------------------------------------------------------------------
// Files.

orka::qrx::FileAccessResponse GrantFileAccess(Radio& radio,
                                              const orka::qrx::FileAccessRequest& request) {
  const auto refused = radio.callbacks.refuse("FileAccessResponse", std::nullopt);
  if (refused) {
    radio.store.Abort();
  }
  return {refused ? *refused : radio.store.Begin(request), request.file_size, request.file_name};
}

void TakeChunk(Radio& radio, const orka::qrx::TransferDataRequest& request,
               const Received& received) {
  const auto refused = radio.callbacks.refuse("TransferDataResponse", request.chunk_number);
  if (refused) {
    radio.store.Abort();
  }
  const Result result = refused ? *refused : radio.store.Write(request, received.chunk);
  radio.Respond(received, orka::qrx::TransferDataResponse{result, request.chunk_number});
}

Kova::RsmUpdateResponse UpdateRsm(Radio& radio, const Kova::RsmUpdateRequest& request) {
  const bool found = radio.settings.store.empty() || radio.store.Has(request.file_name());
  if (found) {
    radio.rsm_progress = 0;
  }
  Kova::RsmUpdateResponse response;
  response.set_result(found ? kOk : static_cast<int>(Result::NotFound));
  return response;
}

// ------------------------------------------------------------------------------------------------
// The camera, and where it is.

Kova::VideoControlResponse ControlVideo(Radio& radio, const Kova::VideoControlRequest& request) {
  radio.state.set_last_video_action(static_cast<std::uint32_t>(request.action()));
  Kova::VideoControlResponse response;
  response.set_radio_send_selector(request.radio_send_selector());
  response.set_request_id(request.request_id());
  response.set_action(request.action());
  return response;
}

void TakeCameraStatus(Radio& radio, const Kova::RadioStatusMsg& message) {
  const auto& status = message.has_broadcast() ? message.broadcast() : message.response();
  radio.state.set_camera_recording(status.recording());
}

Kova::LocationInfoMsg TellLocation(Radio& radio, const Kova::LocationInfoMsg& message) {
  radio.location_interval = std::chrono::seconds(message.request().interval_s());
  radio.next_location = radio.last_tick + radio.location_interval;
  Kova::LocationInfoMsg response;
  *response.mutable_response() = Location(radio);
  return response;
}

void TakeEmergency(Radio& radio, const Collaboration::RadioEmergencyMsg& request,
                   const Received& received) {
  const auto before = std::exchange(radio.emergency, request);
  auto response = request;
  if (request.state() == Collaboration::RadioEmergencyMsg::RAISED) {
    response.set_state(Collaboration::RadioEmergencyMsg::ACKNOWLEDGED);
  }
  radio.Respond(received, response);
  if (before.state() != request.state() || before.emergency_id() != request.emergency_id()) {
    radio.BroadcastIfSubscribed(Kova::SUBSCRIBE_EMERGENCY);
  }
}

}  // namespace

Kova::BatteryLevel Battery(const Radio& radio) {
  Kova::BatteryLevel level;
  level.set_percent(static_cast<std::uint32_t>(std::lround(radio.battery_percent)));
  level.set_millivolts(static_cast<std::uint32_t>(3300 + std::lround(radio.battery_percent * 9)));
  level.set_milliamperes(-180);
  level.set_temperature_decidegrees(284);
  return level;
}

Kova::LocationInfoMsg::Location Location(const Radio& radio) {
  // A walk around a block, once in ten minutes.
  const double angle = radio.track * 2 * std::numbers::pi / 600;
  Kova::LocationInfoMsg::Location location;
  location.set_latitude(52.0 + 0.001 * std::sin(angle));
  location.set_longitude(4.0 + 0.0016 * std::cos(angle));
  location.set_altitude_m(12);
  location.set_accuracy_m(3.5F);
  location.set_speed_mps(1.2F);
  location.set_heading(static_cast<float>(std::fmod(720 - angle * 180 / std::numbers::pi, 360)));
  const auto now = SystemNow() + radio.clock_offset;
  location.set_time_ms(static_cast<std::uint64_t>(now.time_since_epoch().count()));
  return location;
}

std::span<const Answer> DeviceAnswers() {
  static constexpr auto kAnswers = std::to_array<Answer>({
      On<TellVersion>("RtVersionRequest"),
      On<TellHardwareId>("HardwareIdRequest"),
      On<TellSerialNumber>("SerialNumberRequest"),
      On<TellBtMacAddress>("BtMacAddressRequest"),
      On<TellDateTime>("GetDateTimeRequest"),
      On<SetDateTime>("SetDateTimeRequest"),
      On<TellBattery>("BatteryLevelRequest"),
      On<ShutDown>("ShutdownRequest"),
      On<GiveFeedback>("FeedbackAction"),
      On<TellDebugLog>("DebugLogRequest"),
      On<GrantFileAccess>("FileAccessRequest"),
      On<TakeChunk>("TransferDataRequest"),
      On<UpdateRsm>("RsmUpdateRequest"),
      On<ControlVideo>("VideoControlRequest"),
      On<TakeCameraStatus>("RadioStatusResponse"),
      On<TakeCameraStatus>("RadioStatusBroadcast"),
      On<TellLocation>("LocationRequest"),
      On<TakeEmergency>("EmergencyRequest"),
  });
  return kAnswers;
}

}  // namespace radiosim
