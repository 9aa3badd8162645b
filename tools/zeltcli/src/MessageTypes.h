#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelt::cli {

// One message of a type that is known at run time only, with its fields by path
// ("request.date_time.year"). A path that the type does not have throws std::logic_error.
class MessageValue {
 public:
  explicit MessageValue(std::unique_ptr<google::protobuf::Message> message)
      : message_(std::move(message)) {}

  MessageValue& Set(std::string_view path, std::int64_t number);
  MessageValue& Set(std::string_view path, std::string text);
  // Makes a sub-message present.
  MessageValue& Touch(std::string_view path);

  std::int64_t Number(std::string_view path) const;
  std::string Text(std::string_view path) const;
  bool Has(std::string_view path) const;

  google::protobuf::Message& Get() { return *message_; }
  const google::protobuf::Message& Get() const { return *message_; }
  std::string Type() const { return message_->GetDescriptor()->full_name(); }
  std::string Bytes() const { return message_->SerializeAsString(); }
  // protobuf's own mapping, with the fields' names as the definitions have them; on one line or
  // not.
  std::string Json(bool pretty = false) const;

 private:
  std::unique_ptr<google::protobuf::Message> message_;
};

// The message types that this tool was built with. Constant after construction.
class MessageTypes {
 public:
  MessageTypes();

  // "Kova.RtVersionMsg", "Kova::RtVersionMsg", or "RtVersionMsg" where only one package has it.
  // Throws CliError with the nearest names.
  const google::protobuf::Descriptor& Find(std::string_view name) const;

  // Lists the full names of all that may be sent, in alphabetical order.
  std::vector<std::string> Names() const;

  // Makes an empty message; the type must exist.
  MessageValue New(std::string_view full_name) const;

  // Throws CliError that tells which field does not fit.
  MessageValue FromJson(const google::protobuf::Descriptor& type, std::string_view json) const;

  // Returns nothing when the type is unknown or the payload is no such message.
  std::optional<MessageValue> Parse(std::string_view full_name, std::string_view payload) const;

 private:
  google::protobuf::DescriptorPool pool_;
  mutable google::protobuf::DynamicMessageFactory factory_{&pool_};
  std::vector<const google::protobuf::Descriptor*> types_;
};

// Says what a field holds, for a human: "uint32", "START (0), STOP (1) or a number",
// "Kova.DateTime".
std::string KindOf(const google::protobuf::FieldDescriptor& field);

}  // namespace zelt::cli
