#pragma once

#include "orka/RadioMessages.h"

#include <google/protobuf/message.h>

#include <optional>
#include <string>
#include <string_view>

// Messages as JSON, by protobuf's own mapping: field names in lowerCamelCase (the names of the
// .proto files are read, too), bytes in base64, enumerations by name. Fields of the system's
// messages are left out at their default. The definitions are part of the program. Any thread.
namespace radiosim {

std::string ToJson(const google::protobuf::MessageLite& message);

// Of this program's own messages, with all fields.
std::string ToJson(const google::protobuf::Message& message);

// Replaces `message`; empty text is an empty message. False when the text is no JSON or does not
// fit; `error` then names the field.
bool FromJson(std::string_view json, google::protobuf::MessageLite& message, std::string& error);

// The same for whatever a union of the link holds: the radio's own records are those of
// radiosim.proto, a raw body is a string.
std::string ToJson(const orka::RadioOutgoingMessage& message);
std::string ToJson(const orka::RadioNotificationData& data);

// The alternative `index` of a notification from JSON.
std::optional<orka::RadioNotificationData> NotificationFromJson(std::size_t index,
                                                                std::string_view json,
                                                                std::string& error);

}  // namespace radiosim
