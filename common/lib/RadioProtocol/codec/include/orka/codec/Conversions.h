#pragma once

#include "orka/RadioMessages.h"

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

// `action`
bool ToCodes(Kova::VideoControlRequest& message, std::string& error);
bool ToNames(Kova::VideoControlRequest& message, std::string& error);
bool ToCodes(Kova::VideoControlResponse& message, std::string& error);
bool ToNames(Kova::VideoControlResponse& message, std::string& error);
bool ToCodes(Kova::VideoControlBroadcast& message, std::string& error);
bool ToNames(Kova::VideoControlBroadcast& message, std::string& error);

// device_descriptors[].attribute: attribute names and attribute bytes. Those that the camera does
// not know are skipped; an attribute or value above 255 has no counterpart.
bool ToCodes(Collaboration::RadioConnectionMsg& message, std::string& error);
bool ToNames(Collaboration::RadioConnectionMsg& message, std::string& error);

template <class T>
concept Converted = requires(T& message, std::string& error) { ToCodes(message, error); };

}  // namespace orka::codec
