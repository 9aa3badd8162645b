#include "MessageTypes.h"

#include "CliError.h"
#include "Descriptors.h"
#include "Words.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <regex>
#include <stdexcept>
#include <utility>

namespace zelt::cli {
namespace {

namespace pb = google::protobuf;

// The message and the field that a path leads to. Sub-messages on the way are made when `message`
// may be changed.
template <class MessageType>
std::pair<MessageType*, const pb::FieldDescriptor*> Resolve(MessageType& root,
                                                            std::string_view path) {
  MessageType* message = &root;
  while (true) {
    const auto dot = path.find('.');
    const auto* const field =
        message->GetDescriptor()->FindFieldByName(std::string(path.substr(0, dot)));
    if (field == nullptr) {
      throw std::logic_error(message->GetDescriptor()->full_name() + " has no field " +
                             std::string(path));
    }
    if (dot == std::string_view::npos) {
      return {message, field};
    }
    if constexpr (std::is_const_v<MessageType>) {
      message = &message->GetReflection()->GetMessage(*message, field);
    } else {
      message = message->GetReflection()->MutableMessage(message, field);
    }
    path.remove_prefix(dot + 1);
  }
}

std::vector<std::string> FieldNames(const pb::Descriptor& type) {
  std::vector<std::string> names;
  names.reserve(static_cast<std::size_t>(type.field_count()));
  for (int i = 0; i < type.field_count(); ++i) {
    names.push_back(type.field(i)->name());
  }
  return names;
}

// The field at a path such as "request.codes[1]"; nullptr when there is none.
const pb::FieldDescriptor* FieldAt(const pb::Descriptor* type, std::string path) {
  path = std::regex_replace(path, std::regex(R"(\[[^\]]*\])"), "");
  const pb::FieldDescriptor* field = nullptr;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find('.', begin), path.size());
    field = type == nullptr ? nullptr : type->FindFieldByName(path.substr(begin, end - begin));
    if (field == nullptr) {
      return nullptr;
    }
    type = field->message_type();
    begin = end + 1;
  }
  return field;
}

CliError DoesNotFit(const pb::Descriptor& type, const std::string& what, std::string hint) {
  if (hint.empty()) {
    hint = "zeltcli types " + type.full_name() + " shows its fields";
  }
  return {Exit::Usage, "the JSON does not fit " + type.full_name() + ": " + what, hint};
}

// Turns the library's message into one that names the field as the caller wrote it.
CliError Explain(const pb::Descriptor& type, std::string text) {
  std::smatch match;
  if (std::regex_match(text, match, std::regex(R"((?:\((.*)\) )?(.*): Cannot find field\.)"))) {
    const std::string parent = match[1];
    const pb::FieldDescriptor* const field = parent.empty() ? nullptr : FieldAt(&type, parent);
    const pb::Descriptor& owner =
        field != nullptr && field->message_type() != nullptr ? *field->message_type() : type;
    const std::string path = parent.empty() ? match[2].str() : parent + "." + match[2].str();
    const auto names = FieldNames(owner);
    std::string hint = DidYouMean(match[2].str(), names);
    if (hint.empty()) {
      hint = owner.full_name() + (names.empty() ? " has no fields" : " has " + Join(names, ", "));
    }
    return DoesNotFit(type, "there is no field \"" + path + "\"", hint);
  }
  if (std::regex_match(text, match, std::regex(R"(\((.*)\): invalid value (.*) for type .*)"))) {
    const pb::FieldDescriptor* const field = FieldAt(&type, match[1]);
    return DoesNotFit(type, "field \"" + match[1].str() + "\" cannot be " + match[2].str(),
                      field == nullptr ? "" : "expected " + KindOf(*field));
  }
  if (std::regex_search(text, match, std::regex("oneof field '(.*)' is already set"))) {
    return DoesNotFit(type, "only one field of " + match[1].str() + " can be set", {});
  }
  // A fault of the syntax: what, a part of the text, and a mark under the place.
  text.erase(0, text.find_first_not_of(": "));
  const std::size_t first = text.find('\n');
  const std::size_t last = text.rfind('\n');
  if (first < last && text.ends_with('^')) {
    const std::size_t mark = text.size() - last - 2;  // blanks in front of it
    const std::string rest = text.substr(std::min(first + 1 + mark, last), last - first - 1 - mark);
    text.resize(first);
    text += rest.empty() ? " Here: the end." : " Here: " + rest;
  }
  std::ranges::replace(text, '\n', ' ');
  return DoesNotFit(type, text, {});
}

}  // namespace

MessageValue& MessageValue::Set(std::string_view path, std::int64_t number) {
  const auto [message, field] = Resolve(*message_, path);
  const pb::Reflection& reflection = *message->GetReflection();
  switch (field->cpp_type()) {
    case pb::FieldDescriptor::CPPTYPE_INT32:
      reflection.SetInt32(message, field, static_cast<std::int32_t>(number));
      break;
    case pb::FieldDescriptor::CPPTYPE_UINT32:
      reflection.SetUInt32(message, field, static_cast<std::uint32_t>(number));
      break;
    case pb::FieldDescriptor::CPPTYPE_ENUM:
      reflection.SetEnumValue(message, field, static_cast<int>(number));
      break;
    case pb::FieldDescriptor::CPPTYPE_BOOL:
      reflection.SetBool(message, field, number != 0);
      break;
    default:
      throw std::logic_error(field->full_name() + " cannot be set to a number");
  }
  return *this;
}

MessageValue& MessageValue::Set(std::string_view path, std::string text) {
  const auto [message, field] = Resolve(*message_, path);
  message->GetReflection()->SetString(message, field, std::move(text));
  return *this;
}

MessageValue& MessageValue::Touch(std::string_view path) {
  const auto [message, field] = Resolve(*message_, path);
  message->GetReflection()->MutableMessage(message, field);
  return *this;
}

std::int64_t MessageValue::Number(std::string_view path) const {
  const auto [message, field] = Resolve(std::as_const(*message_), path);
  const pb::Reflection& reflection = *message->GetReflection();
  switch (field->cpp_type()) {
    case pb::FieldDescriptor::CPPTYPE_INT32:
      return reflection.GetInt32(*message, field);
    case pb::FieldDescriptor::CPPTYPE_UINT32:
      return reflection.GetUInt32(*message, field);
    case pb::FieldDescriptor::CPPTYPE_ENUM:
      return reflection.GetEnumValue(*message, field);
    default:
      throw std::logic_error(field->full_name() + " is no number");
  }
}

std::string MessageValue::Text(std::string_view path) const {
  const auto [message, field] = Resolve(std::as_const(*message_), path);
  return message->GetReflection()->GetString(*message, field);
}

bool MessageValue::Has(std::string_view path) const {
  const auto [message, field] = Resolve(std::as_const(*message_), path);
  return message->GetReflection()->HasField(*message, field);
}

std::string MessageValue::Json(bool pretty) const {
  pb::util::JsonPrintOptions options;
  options.add_whitespace = pretty;
  options.always_print_primitive_fields = true;
  options.preserve_proto_field_names = true;
  std::string json;
  const auto status = pb::util::MessageToJsonString(*message_, &json, options);
  if (!status.ok()) {
    throw CliError(Exit::Failed, Type() + " cannot be shown as JSON: " + status.ToString());
  }
  while (json.ends_with('\n')) {
    json.pop_back();
  }
  return json;
}

MessageTypes::MessageTypes() {
  const std::string_view bytes = EmbeddedDescriptors();
  pb::FileDescriptorSet set;
  if (!set.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
    throw std::logic_error("the embedded message definitions are damaged");
  }
  for (const pb::FileDescriptorProto& proto : set.file()) {
    const pb::FileDescriptor* const file = pool_.BuildFile(proto);
    for (int i = 0; file != nullptr && i < file->message_type_count(); ++i) {
      types_.push_back(file->message_type(i));
    }
  }
  std::ranges::sort(types_, {}, &pb::Descriptor::full_name);
}

const pb::Descriptor& MessageTypes::Find(std::string_view name) const {
  const std::string wanted = std::regex_replace(std::string(name), std::regex("::"), ".");
  std::vector<const pb::Descriptor*> found;
  std::ranges::copy_if(types_, std::back_inserter(found), [&wanted](const pb::Descriptor* type) {
    return type->full_name() == wanted || type->name() == wanted;
  });
  if (found.size() == 1) {
    return *found.front();
  }
  if (!found.empty()) {
    std::vector<std::string> names;
    std::ranges::transform(found, std::back_inserter(names), &pb::Descriptor::full_name);
    throw CliError(Exit::Usage, "type \"" + std::string(name) + "\" is ambiguous",
                   "give one of " + Join(names, ", "));
  }
  const std::string near = DidYouMean(wanted, Names());
  throw CliError(Exit::Usage, "there is no message type \"" + std::string(name) + "\"",
                 near.empty() ? "zeltcli types lists them" : near);
}

std::vector<std::string> MessageTypes::Names() const {
  std::vector<std::string> names;
  std::ranges::transform(types_, std::back_inserter(names), &pb::Descriptor::full_name);
  return names;
}

MessageValue MessageTypes::New(std::string_view full_name) const {
  const auto* const type = pool_.FindMessageTypeByName(std::string(full_name));
  if (type == nullptr) {
    throw std::logic_error("no message type " + std::string(full_name));
  }
  return MessageValue(std::unique_ptr<pb::Message>(factory_.GetPrototype(type)->New()));
}

MessageValue MessageTypes::FromJson(const pb::Descriptor& type, std::string_view json) const {
  MessageValue value = New(type.full_name());
  const auto status = pb::util::JsonStringToMessage({json.data(), json.size()}, &value.Get());
  if (!status.ok()) {
    throw Explain(type, std::string(status.message()));
  }
  return value;
}

std::optional<MessageValue> MessageTypes::Parse(std::string_view full_name,
                                                std::string_view payload) const {
  if (pool_.FindMessageTypeByName(std::string(full_name)) == nullptr) {
    return std::nullopt;
  }
  MessageValue value = New(full_name);
  if (!value.Get().ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
    return std::nullopt;
  }
  return value;
}

std::string KindOf(const pb::FieldDescriptor& field) {
  const std::string kind = field.is_repeated() ? "a list of " : "";
  if (const pb::EnumDescriptor* const values = field.enum_type()) {
    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(values->value_count()));
    for (int i = 0; i < values->value_count(); ++i) {
      const pb::EnumValueDescriptor& value = *values->value(i);
      names.push_back(value.name() + " (" + std::to_string(value.number()) + ")");
    }
    return kind + Join(names, ", ") + " or a number";
  }
  if (field.message_type() != nullptr) {
    return kind + field.message_type()->full_name();
  }
  return kind +
         (field.type() == pb::FieldDescriptor::TYPE_BYTES ? "bytes in base64" : field.type_name());
}

}  // namespace zelt::cli
