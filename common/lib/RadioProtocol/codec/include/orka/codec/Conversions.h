#pragma once

#include "orka/RadioMessages.h"

#include <concepts>
#include <string>

// Where a conversion table exists, the wire carries the radio's code in the message's own field.
// ToCodes is applied before a message is encoded and ToNames after it was decoded, on both ends.
// False when a value has no counterpart; `error` then names it.
namespace orka::codec {

// codes[]: subscription codes and opcodes
bool ToCodes(Kova::OpcodeSubscriptionMsg& message, std::string& error);
bool ToNames(Kova::OpcodeSubscriptionMsg& message, std::string& error);

// names[] and properties[].name: property names and descriptor codes
bool ToCodes(Kova::GattConfigMsg& message, std::string& error);
bool ToNames(Kova::GattConfigMsg& message, std::string& error);

// buttons[]: the wire carries `identifier`, and no name
bool ToCodes(Kova::ButtonsSubscribtionMsg& message, std::string& error);
bool ToNames(Kova::ButtonsSubscribtionMsg& message, std::string& error);

// The wire carries `intensity`, and no brightness.
bool ToCodes(Kova::LedBrightnessSettingMsg& message, std::string& error);
bool ToNames(Kova::LedBrightnessSettingMsg& message, std::string& error);

// `action`, in each of the messages that have one
bool ToCode(Kova::VideoActionType& action, std::string& error);
bool ToName(Kova::VideoActionType& action, std::string& error);

template <class T>
concept HasVideoAction = requires(const T& message) {
  { message.action() } -> std::same_as<Kova::VideoActionType>;
};
template <HasVideoAction T>
bool ToCodes(T& message, std::string& error) {
  auto action = message.action();
  const bool known = ToCode(action, error);
  message.set_action(action);
  return known;
}
template <HasVideoAction T>
bool ToNames(T& message, std::string& error) {
  auto action = message.action();
  const bool known = ToName(action, error);
  message.set_action(action);
  return known;
}

// device_descriptors[].attribute: attribute names and attribute bytes. Those that the camera does
// not know are skipped; an attribute or value above 255 has no counterpart.
bool ToCodes(Collaboration::RadioConnectionMsg& message, std::string& error);
bool ToNames(Collaboration::RadioConnectionMsg& message, std::string& error);

template <class T>
concept Converted = requires(T& message, std::string& error) { ToCodes(message, error); };

}  // namespace orka::codec
