#pragma once

#include "orka/RadioMessages.h"

#include <google/protobuf/message.h>

#include <expected>
#include <string>
#include <string_view>

// Messages as JSON, by protobuf's own mapping, as zeltcli prints them: field names as in the .proto
// files (lowerCamelCase is read, too), bytes in base64, enumerations by name, fields without
// presence also at their default. The definitions are part of the program. Any thread.
namespace radiosim {

std::string ToJson(const google::protobuf::MessageLite& message);

// Returns the name of a C++ type in the .proto files: "Kova::X" is "Kova.X".
std::string ProtoName(std::string_view type);
std::string ToJson(const google::protobuf::Message& message);  // this program's own

// Replaces `message`; empty text is an empty message. Names the field when the text is no JSON or
// does not fit.
std::expected<void, std::string> FromJson(std::string_view json,
                                          google::protobuf::MessageLite& message);

// The same for whatever a union of the link holds: the radio's own records are those of
// radiosim.proto, a raw body is a string.
std::string ToJson(const orka::RadioOutgoingMessage& message);
std::string ToJson(const orka::RadioNotificationData& data);

// Returns the alternative `index` of a notification.
std::expected<orka::RadioNotificationData, std::string> NotificationFromJson(std::size_t index,
                                                                             std::string_view json);

}  // namespace radiosim
