#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

// Messages as text, e.g. `request { codes: [4, 77] }`. A test with it has KOVA_FULL_PROTOBUF.
namespace zelt::fake {

// An empty message of this type, which knows its fields' names.
inline std::unique_ptr<google::protobuf::Message> NewMessage(const std::string& type) {
  static const auto* const pool = [] {
    auto* const made = new google::protobuf::DescriptorPool;
    google::protobuf::FileDescriptorSet set;
    std::ifstream file(KOVA_MESSAGES);
    set.ParseFromIstream(&file);
    for (const auto& one : set.file()) {
      made->BuildFile(one);
    }
    return made;
  }();
  static auto* const factory = new google::protobuf::DynamicMessageFactory;
  const auto* descriptor = pool->FindMessageTypeByName(type);
  if (descriptor == nullptr) {
    throw std::invalid_argument("no message \"" + type + "\"");
  }
  return std::unique_ptr<google::protobuf::Message>(factory->GetPrototype(descriptor)->New());
}

inline std::string WireFromText(const std::string& type, const std::string& text) {
  const auto message = NewMessage(type);
  if (!google::protobuf::TextFormat::ParseFromString(text, message.get())) {
    throw std::invalid_argument(type + " has no " + text);
  }
  return message->SerializeAsString();
}

template <class T>
T FromText(const std::string& text) {
  T message;
  message.ParseFromString(WireFromText(message.GetTypeName(), text));
  return message;
}

// The same message in the bytes that a sender would write.
inline std::string Rewritten(const std::string& type, const std::string& wire) {
  const auto message = NewMessage(type);
  message->ParseFromString(wire);
  return message->SerializeAsString();
}

// In one line; fields that the type does not know by their numbers.
inline std::string TextFromWire(const std::string& type, const std::string& wire) {
  const auto message = NewMessage(type);
  message->ParseFromString(wire);
  return message->ShortDebugString();
}

}  // namespace zelt::fake
