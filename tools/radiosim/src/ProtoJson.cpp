#include "ProtoJson.h"

#include "radiosim.pb.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

// The definitions as protoc wrote them, put into the program by the assembler.
asm(".pushsection .rodata\n"
    ".globl radiosim_definitions_begin, radiosim_definitions_end\n"
    ".hidden radiosim_definitions_begin, radiosim_definitions_end\n"
    "radiosim_definitions_begin: .incbin \"" RADIOSIM_DEFINITIONS
    "\"\n"
    "radiosim_definitions_end:\n"
    ".popsection\n");
extern "C" const char radiosim_definitions_begin;
extern "C" const char radiosim_definitions_end;

namespace radiosim {
namespace {

using google::protobuf::MessageLite;
using Parsed = std::expected<void, std::string>;
namespace util = google::protobuf::util;

class Definitions {
 public:
  static Definitions& Get() {
    static Definitions instance;
    return instance;
  }
  std::unique_ptr<google::protobuf::Message> Make(const std::string& type) {
    const auto* descriptor = pool_.FindMessageTypeByName(type);
    if (descriptor == nullptr) {
      throw std::logic_error("no definition of " + type);
    }
    return std::unique_ptr<google::protobuf::Message>(factory_.GetPrototype(descriptor)->New());
  }

 private:
  Definitions() {
    google::protobuf::FileDescriptorSet set;
    const char* begin = &radiosim_definitions_begin;
    bool ok = set.ParseFromArray(begin, static_cast<int>(&radiosim_definitions_end - begin));
    for (const auto& file : set.file()) {
      ok = ok && pool_.BuildFile(file) != nullptr;
    }
    if (!ok) {
      throw std::logic_error("the embedded message definitions are damaged");
    }
  }

  google::protobuf::DescriptorPool pool_;
  google::protobuf::DynamicMessageFactory factory_;
};

template <class T>
concept Proto = std::is_base_of_v<MessageLite, T>;

std::string Print(const google::protobuf::Message& message) {
  std::string json;
  util::JsonPrintOptions options;
  options.always_print_primitive_fields = true;
  options.preserve_proto_field_names = true;
  const auto status = util::MessageToJsonString(message, &json, options);
  return status.ok() ? json : R"({"error":")" + status.ToString() + R"("})";
}

Parsed Parse(std::string_view json, google::protobuf::Message& message) {
  const auto status = util::JsonStringToMessage({json.data(), json.size()}, &message);
  if (!status.ok()) {
    return std::unexpected(std::string(status.message()));
  }
  return {};
}

// ------------------------------------------------------------------------------------------------
// The radio's own records.

json::FileAccessRequest ToMessage(const orka::qrx::FileAccessRequest& request) {
  json::FileAccessRequest message;
  message.set_operation(request.operation);
  message.set_access_code(request.access_code);
  message.set_file_size(request.file_size);
  message.set_file_name(request.file_name);
  return message;
}
json::FileAccessResponse ToMessage(const orka::qrx::FileAccessResponse& response) {
  json::FileAccessResponse message;
  message.set_result(static_cast<std::uint32_t>(response.result));
  message.set_file_size(response.file_size);
  message.set_file_name(response.file_name);
  return message;
}
json::TransferDataRequest ToMessage(const orka::qrx::TransferDataRequest& request) {
  json::TransferDataRequest message;
  message.set_kind(request.kind);
  message.set_chunk_number(request.chunk_number);
  message.set_data_size(request.data_size);
  return message;
}
json::TransferDataResponse ToMessage(const orka::qrx::TransferDataResponse& response) {
  json::TransferDataResponse message;
  message.set_result(static_cast<std::uint32_t>(response.result));
  message.set_chunk_number(response.chunk_number);
  return message;
}
json::FileHandleOpenResponse ToMessage(const orka::FileHandleRespWrapper& response) {
  json::FileHandleOpenResponse message;
  message.set_handle_id(response.handle_id);
  message.set_status(response.status);
  message.set_attributes(response.attributes);
  if (const auto* directory = std::get_if<orka::qrx::DirectoryDataType>(&response.data)) {
    auto& entries = *message.mutable_directory()->mutable_entries();
    entries.Assign(directory->entries.begin(), directory->entries.end());
  } else if (const auto* text = std::get_if<std::string>(&response.data)) {
    message.set_text(*text);
  } else if (const auto* size = std::get_if<std::uint32_t>(&response.data)) {
    message.set_size(*size);
  } else if (const auto* content = std::get_if<std::vector<std::uint8_t>>(&response.data)) {
    message.set_content(std::string(content->begin(), content->end()));
  }
  return message;
}

// Narrows a number to a record's field.
template <class T>
Parsed Narrow(std::uint32_t number, const char* name, T& field) {
  constexpr std::uint32_t kMost = (1U << (8 * sizeof(T))) - 1;
  if (number > kMost) {
    return std::unexpected(std::string(name) + ": at most " + std::to_string(kMost));
  }
  field = static_cast<T>(number);
  return {};
}

Parsed FromMessage(const json::FileAccessResponse& message, orka::qrx::FileAccessResponse& record) {
  record.file_size = message.file_size();
  record.file_name = message.file_name();
  return Narrow(message.result(), "result", record.result);
}
Parsed FromMessage(const json::TransferDataResponse& message,
                   orka::qrx::TransferDataResponse& record) {
  const Parsed result = Narrow(message.result(), "result", record.result);
  return result ? Narrow(message.chunk_number(), "chunk_number", record.chunk_number) : result;
}

template <class T>
std::string AnyToJson(const T& held) {
  if constexpr (Proto<T>) {
    return ToJson(held);
  } else if constexpr (std::is_same_v<T, std::string>) {
    google::protobuf::StringValue text;
    text.set_value(held);
    return Print(text);
  } else {
    return Print(ToMessage(held));
  }
}

template <class T>
Parsed AnyFromJson(std::string_view text, T& held) {
  if constexpr (Proto<T>) {
    return FromJson(text, held);
  } else if constexpr (std::is_same_v<T, std::string>) {
    google::protobuf::StringValue value;
    const Parsed parsed = Parse(text.empty() ? "\"\"" : text, value);
    held = value.value();
    return parsed;
  } else {
    decltype(ToMessage(held)) message;
    const Parsed parsed = Parse(text.empty() ? "{}" : text, message);
    return parsed ? FromMessage(message, held) : parsed;
  }
}

template <std::size_t... indices>
Parsed AlternativeFromJson(std::index_sequence<indices...> /*alternatives*/, std::size_t index,
                           std::string_view json, orka::RadioNotificationData& data) {
  using Parser = Parsed (*)(std::string_view, orka::RadioNotificationData&);
  static constexpr std::array<Parser, sizeof...(indices)> kParsers = {
      [](std::string_view text, orka::RadioNotificationData& into) {
        return AnyFromJson(text, into.emplace<indices>());
      }...};
  return kParsers[index](json, data);
}

}  // namespace

std::string ToJson(const MessageLite& message) {
  const auto dynamic = Definitions::Get().Make(message.GetTypeName());
  dynamic->ParseFromString(message.SerializeAsString());
  return Print(*dynamic);
}

std::string ToJson(const google::protobuf::Message& message) {
  return Print(message);
}

std::expected<void, std::string> FromJson(std::string_view json, MessageLite& message) {
  const auto dynamic = Definitions::Get().Make(message.GetTypeName());
  const Parsed parsed = Parse(json.empty() ? "{}" : json, *dynamic);
  if (parsed) {
    message.ParseFromString(dynamic->SerializeAsString());
  }
  return parsed;
}

std::string ToJson(const orka::RadioOutgoingMessage& message) {
  return std::visit([](const auto& held) { return AnyToJson(held); }, message);
}
std::string ToJson(const orka::RadioNotificationData& data) {
  return std::visit([](const auto& held) { return AnyToJson(held); }, data);
}

std::expected<orka::RadioNotificationData, std::string> NotificationFromJson(
    std::size_t index, std::string_view json) {
  orka::RadioNotificationData data;
  constexpr auto kAlternatives =
      std::make_index_sequence<std::variant_size_v<orka::RadioNotificationData>>();
  if (const Parsed parsed = AlternativeFromJson(kAlternatives, index, json, data); !parsed) {
    return std::unexpected(parsed.error());
  }
  return data;
}

std::string ProtoName(std::string_view type) {
  std::string name(type);
  if (const std::size_t colons = name.find("::"); colons != std::string::npos) {
    name.replace(colons, 2, ".");
  }
  return name;
}

}  // namespace radiosim
