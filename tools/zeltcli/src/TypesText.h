#pragma once

#include "MessageTypes.h"
#include "Output.h"

#include <string>

namespace zelt::cli {

// Tells what Kova accepts, with where the answer goes, and what it publishes.
std::string TypesText(const Output& output);
std::string TypesJson(const MessageTypes& types);

// Tells of one type: what it is for, its fields with those of its parts, and, where Kova accepts
// it, how to send one.
std::string TypeText(const MessageTypes& types, const google::protobuf::Descriptor& type,
                     const Output& output);
std::string TypeJson(const google::protobuf::Descriptor& type);

}  // namespace zelt::cli
