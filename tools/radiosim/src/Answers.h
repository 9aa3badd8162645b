#pragma once

#include "Radio.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <variant>

// How the radio answers: a table by subject, a row a message.
namespace radiosim {

struct Answer {
  std::string_view name;  // in the message table
  void (*run)(Radio& radio, const Received& received);
};

constexpr int kOk = 0;
constexpr int kInvalid = static_cast<int>(orka::qrx::Result::InvalidParameter);
constexpr int kNotSupported = static_cast<int>(orka::qrx::Result::NotSupported);

// Calls an answer with what was received, and sends what it returns.
template <class Result, class SomeRadio, class Message, class... More>
void Run(Result (*answer)(SomeRadio&, const Message&, More...), Radio& radio,
         const Received& received) {
  const auto& message = std::get<Message>(received.message);
  if constexpr (!std::is_void_v<Result>) {
    radio.Respond(received, answer(radio, message));
  } else if constexpr (sizeof...(More) > 0) {
    answer(radio, message, received);
  } else {
    answer(radio, message);
  }
}

// Returns the place of an answer's message in the union of those that the camera sends.
template <class Result, class SomeRadio, class Message, class... More>
consteval std::uint8_t AlternativeOf(Result (*)(SomeRadio&, const Message&, More...)) {
  return orka::codec::table::IndexOf<Message>(
      static_cast<const orka::RadioOutgoingMessage*>(nullptr));
}

// Makes a row. `answer` takes the radio and the message, and returns the response. If it returns
// nothing, it may also take what was received, and respond itself when it wants to.
template <auto answer>
consteval Answer On(std::string_view name) {
  // Without FindRow: under the sanitizers, GCC takes no pointer that it gives for constant.
  if (std::ranges::none_of(orka::codec::kMessageTable, [&](const orka::codec::MessageRow& row) {
        return row.direction == orka::codec::Direction::ToRadio && row.name == name &&
               row.alternative == AlternativeOf(answer);
      })) {
    throw "the camera sends no such message of this type";  // at compile time
  }
  return {name, [](Radio& radio, const Received& received) { Run(answer, radio, received); }};
}

std::span<const Answer> DeviceAnswers();
std::span<const Answer> SettingsAnswers();
std::span<const Answer> NetworkAnswers();

// Make what is also told unasked.
Kova::BatteryLevel Battery(const Radio& radio);
Kova::BluetoothStatusMsg Bluetooth(const Radio& radio);
Kova::LocationInfoMsg::Location Location(const Radio& radio);
Kova::RadioWlanControlIncomingMsg Wlan(const Radio& radio);
Kova::RadioLteControlIncoming Lte(const Radio& radio);

}  // namespace radiosim
