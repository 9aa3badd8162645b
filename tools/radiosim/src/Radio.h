#pragma once

#include "FileStore.h"
#include "orka/RadioMessages.h"
#include "orka/codec/Bytes.h"
#include "orka/codec/MessageTable.h"
#include "orka/pel.h"
#include "radiosim.pb.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace radiosim {

// What the camera sent.
struct Received {
  const orka::codec::MessageRow* row = nullptr;
  orka::pel::BaseMessage header;
  orka::RadioOutgoingMessage message;
  orka::codec::Bytes chunk;
};

// The device behind the link: its state, and how it answers. It knows neither line nor faults.
// One thread.
class Radio {
 public:
  using Clock = std::chrono::steady_clock;

  struct Settings {
    std::string version = "SIM 1.0.0";
    std::uint32_t build_number = 100;
    std::string hardware_id = "SIM-HW";
    std::uint32_t revision = 1;
    double battery_percent = 90;
    double drain_per_minute = 0.5;                    // per cent
    std::chrono::milliseconds broadcast_every{5000};  // of what is subscribed to
    std::filesystem::path store;                      // empty: files are taken and forgotten
  };
  struct Outside {
    // Sends a message of the table. `transaction` 0 for what answers nothing.
    std::function<void(const orka::codec::MessageRow& row, const orka::RadioNotificationData& data,
                       std::uint16_t transaction, std::uint16_t part)>
        send;
    // Asked before a file is begun or a chunk taken, with the name of the answer: the result with
    // which to refuse it, or nothing.
    std::function<std::optional<orka::qrx::Result>(std::string_view answer,
                                                   std::optional<std::uint16_t> chunk)>
        refuse;
    std::function<void(const std::string& line)> log;
    std::function<void(std::chrono::milliseconds after)> restart;
  };

  Radio(Settings settings, Outside outside);

  void Handle(const Received& received);

  // To be called a few times a second.
  void Tick(Clock::time_point now);

  // The camera is gone: a file in transfer is given up, subscriptions end.
  void SessionEnded();

  json::State State() const;

 private:
  struct Subscribable;
  using Handler = void (Radio::*)(const Received& received);
  static const std::array<Subscribable, 7> kSubscribables;
  static Handler FindHandler(const orka::codec::MessageRow& row);

  void Respond(const Received& received, const orka::RadioNotificationData& data);
  void Broadcast(std::string_view name, const orka::RadioNotificationData& data);
  void BroadcastIfSubscribed(Kova::SubscriptionMsgCode code);

  // One a row of the table to the radio.
  void TellLocation(const Received& received);
  void TakeEmergency(const Received& received);
  void TellVersion(const Received& received);
  void TellHardwareId(const Received& received);
  void ShutDown(const Received& received);
  void Feedback(const Received& received);
  void TellSerialNumber(const Received& received);
  void TellBtMacAddress(const Received& received);
  void TellBattery(const Received& received);
  void SetConfiguration(const Received& received);
  void SubscribeButtons(const Received& received);
  void SetBrightness(const Received& received);
  void SetBluetooth(const Received& received);
  void TellBluetooth(const Received& received);
  void TellGatt(const Received& received);
  void SetGatt(const Received& received);
  void ResetGatt(const Received& received);
  void ControlWlan(const Received& received);
  void ControlHotspot(const Received& received);
  void SetCovertMode(const Received& received);
  void FactoryReset(const Received& received);
  void Subscribe(const Received& received);
  void TellMicrophone(const Received& received);
  void TellDateTime(const Received& received);
  void SetDateTime(const Received& received);
  void TellDebugLog(const Received& received);
  void GrantFileAccess(const Received& received);
  void TakeChunk(const Received& received);
  void UpdateRsm(const Received& received);
  void ControlVideo(const Received& received);
  void ControlLte(const Received& received);
  void RegisterIoT(const Received& received);
  void TellIoTStatus(const Received& received);
  void AnswerEmpty(const Received& received);  // the camera's answers and broadcasts
  void TakeCameraStatus(const Received& received);
  void TakeGattNotification(const Received& received);
  void TakeIoTData(const Received& received);

  Kova::BatteryLevel Battery() const;
  Kova::BluetoothStatusMsg Bluetooth() const;
  Kova::LocationInfoMsg::Location Location() const;
  Kova::RadioWlanControlIncomingMsg Wlan() const;
  Kova::RadioLteControlIncoming Lte() const;

  // What a factory reset resets.
  struct Configuration {
    Kova::LedBrightnessSettingMsg brightness;
    Kova::BluetoothConfigMsg::Response bluetooth;
    std::map<int, std::string> gatt;                                        // by property name
    std::map<std::uint32_t, Kova::ButtonsSubscribtionMsg::Button> buttons;  // by code
    std::map<std::uint32_t, std::string> values;
    bool covert = false;
    bool wlan_enabled = true;
    std::string wlan_ssid;
    bool lte_enabled = true;
    bool hotspot_active = false;
    std::string hotspot_ssid = "sim-hotspot";
    std::string iot_device;
  };
  static Configuration FactoryConfiguration();

  const Settings settings_;
  const Outside outside_;
  FileStore store_;
  Configuration configuration_ = FactoryConfiguration();
  std::set<int> subscriptions_;  // Kova::SubscriptionMsgCode
  std::chrono::milliseconds clock_offset_{0};
  int utc_offset_minutes_ = 0;
  double battery_percent_;
  double track_ = 0;  // seconds of walking
  Kova::RadioStatusMsg::Status camera_;
  Kova::VideoActionType last_video_action_ = Kova::VIDEO_ACTION_NONE;
  Collaboration::RadioEmergencyMsg emergency_;
  std::string debug_log_;
  int rsm_progress_ = -1;                      // per cent; -1: no update
  std::chrono::seconds location_interval_{0};  // 0: not asked for
  Clock::time_point last_tick_;
  Clock::time_point next_broadcast_;
  Clock::time_point next_location_;
};

}  // namespace radiosim
