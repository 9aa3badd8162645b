#pragma once

#include "orka/codec/Bytes.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

// Networks, files and devices have names of any bytes, but a protobuf text is UTF-8, and one that
// is not costs its whole message. So on the way in each byte of a text that is not UTF-8 becomes
// the code point 0xF700 + byte, U+F780 to U+F7FF, of private use; and each of these becomes its
// byte again on the way out. A text that has such code points of its own is taken for bytes, too.
// So what is given back to the radio is what the radio said, byte for byte.
namespace orka::codec {

std::string EscapeText(std::string_view text);
std::string UnescapeText(std::string_view text);

// A text of a message: the numbers of the fields that lead to it, then zeros.
struct TextField {
  std::string_view message;  // "Kova.RtVersionResponse"
  std::array<std::uint8_t, 3> path;
};

// Does the same to every text of a message's body; what is not text stays as it is. `told` is the
// number of the first field whose text changed, or 0. False when `body` is no message.
bool EscapeTexts(std::string_view message, ByteView body, Bytes& out, unsigned& told);
bool UnescapeTexts(std::string_view message, ByteView body, Bytes& out);

// Tells whether the body may hold escaped bytes, or what looks like them.
bool MayHoldEscapes(ByteView body);

// Every text of the messages of the link.
// clang-format off: one line a message
inline constexpr auto kTextFields = std::to_array<TextField>({
    {"Collaboration.IoTC2DDataMessage", {2}},
    {"Collaboration.IoTD2CDataMessage", {2}},
    {"Collaboration.IoTRegistrationRequest", {1}},
    {"Collaboration.IoTRegistrationResponse", {2}},
    {"Collaboration.VideoTagControlRequest", {2}},
    {"Kova.BluetoothConfigMsg", {1, 2}}, {"Kova.BluetoothConfigMsg", {2, 3}}, {"Kova.BluetoothConfigMsg", {3, 3}},
    {"Kova.BluetoothStatusMsg", {2, 2, 2}}, {"Kova.BluetoothStatusMsg", {3, 2, 2}},
    {"Kova.ButtonsSubscribtionMsg", {1, 1, 1}}, {"Kova.ButtonsSubscribtionMsg", {2, 2, 1}},
    {"Kova.FileAccessCreateRequest", {1}},
    {"Kova.FileAccessCreateResponse", {1}},
    {"Kova.FileAccessWriteRequest", {1}},
    {"Kova.FileAccessWriteResponse", {1}}, {"Kova.FileAccessWriteResponse", {8}},
    {"Kova.FileAccessWriteSessionEnd", {1}},
    {"Kova.FileHandleOpenRequest", {1}},
    {"Kova.HardwareIdResponse", {1}},
    {"Kova.LedBrightnessSettingMsg", {1}},
    {"Kova.RadioLteControlIncoming", {4}},
    {"Kova.RadioLuiError", {2}},
    {"Kova.RadioWlanControlIncomingMsg", {4}}, {"Kova.RadioWlanControlIncomingMsg", {6}},
    {"Kova.RadioWlanControlOutgoingMsg", {2}}, {"Kova.RadioWlanControlOutgoingMsg", {3}},
    {"Kova.RadioWlanHotspotControlIncomingMsg", {3}},
    {"Kova.RadioWlanHotspotControlOutgoingMsg", {2}}, {"Kova.RadioWlanHotspotControlOutgoingMsg", {3}},
    {"Kova.RsmUpdateRequest", {1}}, {"Kova.RsmUpdateRequest", {2}},
    {"Kova.RtVersionResponse", {1}},
    {"Kova.SerialNumberMsg", {2}},
    {"Kova.UserPresenceInfoResponse", {4}},
    {"Kova.VideoControlRequest", {4}},
});
// clang-format on

}  // namespace orka::codec
