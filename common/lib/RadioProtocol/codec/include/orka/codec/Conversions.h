#pragma once

#include "orka/RadioMessages.h"

#include <concepts>
#include <cstddef>
#include <sstream>
#include <string>
#include <string_view>

// Where a conversion table exists, the wire carries the radio's code in the message's own field.
// ToCodes is applied before a message is encoded and ToNames after it was decoded, on both ends.
//
// What a table does not have passes through: a number as the same number, a button or a brightness
// by its code alone. Left out is only what cannot be said on the other side: a number that means
// something else there, and a name without a code. It is left out element by element, and
// `left_out` names it. False: nothing is left of what was asked for, so the message must not go.
namespace orka::codec {

// A few values by name, and how many more there were.
class LeftOut {
 public:
  template <class Value>
  void Add(std::string_view what, const Value& value) {
    if (count_++ < kNamed) {
      std::ostringstream text;
      text << (count_ > 1 ? ", " : "") << what << ' ' << value;
      text_ += text.str();
    }
  }
  bool IsEmpty() const { return count_ == 0; }
  std::string Text() const {
    return count_ <= kNamed ? text_ : text_ + " and " + std::to_string(count_ - kNamed) + " more";
  }

 private:
  static constexpr std::size_t kNamed = 5;

  std::string text_;
  std::size_t count_ = 0;
};

// codes[]: subscription codes and opcodes
bool ToCodes(Kova::OpcodeSubscriptionMsg& message, LeftOut& left_out);
bool ToNames(Kova::OpcodeSubscriptionMsg& message, LeftOut& left_out);

// names[] and properties[].name: property names and descriptor codes
bool ToCodes(Kova::GattConfigMsg& message, LeftOut& left_out);
bool ToNames(Kova::GattConfigMsg& message, LeftOut& left_out);

// buttons[]: the wire carries `identifier`, and no name
bool ToCodes(Kova::ButtonsSubscribtionMsg& message, LeftOut& left_out);
bool ToNames(Kova::ButtonsSubscribtionMsg& message, LeftOut& left_out);

// The wire carries `intensity`, and no brightness.
bool ToCodes(Kova::LedBrightnessSettingMsg& message, LeftOut& left_out);
bool ToNames(Kova::LedBrightnessSettingMsg& message, LeftOut& left_out);

// `action`, in each of the messages that have one
bool ToCode(Kova::VideoActionType& action, LeftOut& left_out);
bool ToName(Kova::VideoActionType& action, LeftOut& left_out);

template <class T>
concept HasVideoAction = requires(const T& message) {
  { message.action() } -> std::same_as<Kova::VideoActionType>;
};
template <HasVideoAction T>
bool ToCodes(T& message, LeftOut& left_out) {
  auto action = message.action();
  const bool expressed = ToCode(action, left_out);
  message.set_action(action);
  return expressed;
}
template <HasVideoAction T>
bool ToNames(T& message, LeftOut& left_out) {
  auto action = message.action();
  const bool expressed = ToName(action, left_out);
  message.set_action(action);
  return expressed;
}

// device_descriptors[].attribute: attribute names and attribute bytes. Here those that the table
// does not have are left out; so is a value above 255.
bool ToCodes(Collaboration::RadioConnectionMsg& message, LeftOut& left_out);
bool ToNames(Collaboration::RadioConnectionMsg& message, LeftOut& left_out);

template <class T>
concept Converted = requires(T& message, LeftOut& left_out) { ToCodes(message, left_out); };

}  // namespace orka::codec
