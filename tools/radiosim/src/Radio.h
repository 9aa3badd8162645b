#pragma once

#include "FileStore.h"
#include "orka/RadioMessages.h"
#include "orka/codec/Bytes.h"
#include "orka/codec/MessageTable.h"
#include "orka/pel.h"
#include "radiosim.pb.h"

#include <chrono>
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

// The device behind the link: its state, and how it answers. It knows neither line nor faults. It
// is open to its answers, which stand by subject in DeviceAnswers.cpp, SettingsAnswers.cpp and
// NetworkAnswers.cpp. One thread.
struct Radio {
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
  struct Callbacks {
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

  Radio(Settings its_settings, Callbacks its_callbacks);

  void Handle(const Received& received);

  // Lets time pass: drains the battery, broadcasts what is due. To be called many times a second.
  void Tick(Clock::time_point now);

  // Gives up a file in transfer, and ends the subscriptions, as the camera is gone.
  void SessionEnded();

  json::State State() const;

  // ----------------------------------------------------------------------------------------------
  // For the answers.

  void Respond(const Received& received, const orka::RadioNotificationData& data) const;
  void Broadcast(std::string_view name, const orka::RadioNotificationData& data) const;
  void BroadcastIfSubscribed(Kova::SubscriptionMsgCode code) const;

  // What a factory reset resets.
  struct Configuration {
    json::State state;  // the fields that have no other home
    Kova::LedBrightnessSettingMsg brightness;
    Kova::BluetoothConfigMsg::Response bluetooth;
    std::map<int, std::string> gatt;                                        // by property name
    std::map<std::uint32_t, Kova::ButtonsSubscribtionMsg::Button> buttons;  // by code
    std::map<std::uint32_t, std::string> values;
    std::string hotspot_ssid = "sim-hotspot";
  };
  static Configuration FactoryConfiguration();

  const Settings settings;
  const Callbacks callbacks;
  FileStore store;
  Configuration configuration = FactoryConfiguration();
  json::State state;            // the other fields that have no other home
  std::set<int> subscriptions;  // Kova::SubscriptionMsgCode
  std::chrono::milliseconds clock_offset{0};
  double battery_percent;
  double track = 0;  // seconds of walking
  Collaboration::RadioEmergencyMsg emergency;
  std::string debug_log;
  int rsm_progress = -1;                      // per cent; -1: no update
  std::chrono::seconds location_interval{0};  // 0: not asked for
  Clock::time_point last_tick;
  Clock::time_point next_broadcast;
  Clock::time_point next_location;
};

}  // namespace radiosim
