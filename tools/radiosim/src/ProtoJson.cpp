#include "ProtoJson.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/wrappers.pb.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

// The definitions as protoc wrote them, put into the program by the assembler.
asm(".pushsection .rodata\n"
    "radiosim_definitions_begin: .incbin \"" RADIOSIM_DEFINITIONS
    "\"\n"
    "radiosim_definitions_end:\n"
    ".popsection\n");
extern "C" const char radiosim_definitions_begin;
extern "C" const char radiosim_definitions_end;

namespace radiosim {
namespace {

using google::protobuf::MessageLite;
using google::protobuf::Struct;
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
    set.ParseFromArray(begin, static_cast<int>(&radiosim_definitions_end - begin));
    for (const auto& file : set.file()) {
      pool_.BuildFile(file);
    }
  }

  google::protobuf::DescriptorPool pool_;
  google::protobuf::DynamicMessageFactory factory_;
};

template <class T>
concept Proto = std::is_base_of_v<MessageLite, T>;

std::string Print(const google::protobuf::Message& message) {
  std::string json;
  const auto status = util::MessageToJsonString(message, &json);
  return status.ok() ? json : "{\"error\":\"" + status.ToString() + "\"}";
}

// ------------------------------------------------------------------------------------------------
// The radio's own records.

void Add(Struct& object, const char* name, double number) {
  (*object.mutable_fields())[name].set_number_value(number);
}
void Add(Struct& object, const char* name, const std::string& text) {
  (*object.mutable_fields())[name].set_string_value(text);
}

Struct ToObject(const orka::qrx::FileAccessRequest& request) {
  Struct object;
  Add(object, "operation", request.operation);
  Add(object, "accessCode", request.access_code);
  Add(object, "fileSize", request.file_size);
  Add(object, "fileName", request.file_name);
  return object;
}
Struct ToObject(const orka::qrx::FileAccessResponse& response) {
  Struct object;
  Add(object, "result", static_cast<double>(response.result));
  Add(object, "fileSize", response.file_size);
  Add(object, "fileName", response.file_name);
  return object;
}
Struct ToObject(const orka::qrx::TransferDataRequest& request) {
  Struct object;
  Add(object, "kind", request.kind);
  Add(object, "chunkNumber", request.chunk_number);
  Add(object, "dataSize", request.data_size);
  return object;
}
Struct ToObject(const orka::qrx::TransferDataResponse& response) {
  Struct object;
  Add(object, "result", static_cast<double>(response.result));
  Add(object, "chunkNumber", response.chunk_number);
  return object;
}
Struct ToObject(const orka::FileHandleRespWrapper& response) {
  Struct object;
  Add(object, "handleId", response.handle_id);
  Add(object, "status", static_cast<double>(response.status));
  Add(object, "attributes", response.attributes);
  if (const auto* directory = std::get_if<orka::qrx::DirectoryDataType>(&response.data)) {
    auto* list = (*object.mutable_fields())["directory"].mutable_list_value();
    for (const std::string& entry : directory->entries) {
      list->add_values()->set_string_value(entry);
    }
  } else if (const auto* text = std::get_if<std::string>(&response.data)) {
    Add(object, "text", *text);
  } else if (const auto* size = std::get_if<std::uint32_t>(&response.data)) {
    Add(object, "size", *size);
  } else if (const auto* content = std::get_if<std::vector<std::uint8_t>>(&response.data)) {
    Add(object, "contentBytes", static_cast<double>(content->size()));
  }
  return object;
}

// Takes the members out of an object, so that what is left was not expected.
class ObjectReader {
 public:
  ObjectReader(Struct& object, std::string& error)
      : fields_(*object.mutable_fields()), error_(error) {}

  template <class T>
  void Take(const char* name, T& value) {
    const auto field = fields_.find(name);
    if (field == fields_.end()) {
      return;
    }
    if constexpr (std::is_same_v<T, std::string>) {
      if (field->second.has_string_value()) {
        value = field->second.string_value();
      } else {
        error_ = std::string(name) + ": a string is expected";
      }
    } else {
      const double number = field->second.number_value();
      if (field->second.has_number_value() && std::floor(number) == number && number >= 0 &&
          number <= kMax<T>) {
        value = static_cast<T>(static_cast<std::uint64_t>(number));
      } else {
        error_ = std::string(name) + ": a whole number up to " +
                 std::to_string(static_cast<std::uint64_t>(kMax<T>)) + " is expected";
      }
    }
    fields_.erase(field);
  }
  bool Done() {
    if (error_.empty() && !fields_.empty()) {
      error_ = "unknown member \"" + fields_.begin()->first + "\"";
    }
    return error_.empty();
  }

 private:
  template <class T, bool = std::is_enum_v<T>>
  struct Number {
    using Type = T;
  };
  template <class T>
  struct Number<T, true> {
    using Type = std::underlying_type_t<T>;
  };
  template <class T>
  static constexpr auto kMax =
      static_cast<double>(std::numeric_limits<typename Number<T>::Type>::max());

  google::protobuf::Map<std::string, google::protobuf::Value>& fields_;
  std::string& error_;
};

bool FromObject(Struct object, orka::qrx::FileAccessResponse& response, std::string& error) {
  ObjectReader reader(object, error);
  reader.Take("result", response.result);
  reader.Take("fileSize", response.file_size);
  reader.Take("fileName", response.file_name);
  return reader.Done();
}
bool FromObject(Struct object, orka::qrx::TransferDataResponse& response, std::string& error) {
  ObjectReader reader(object, error);
  reader.Take("result", response.result);
  reader.Take("chunkNumber", response.chunk_number);
  return reader.Done();
}

bool Parse(std::string_view json, google::protobuf::Message& message, std::string& error) {
  const auto status = util::JsonStringToMessage({json.data(), json.size()}, &message);
  if (!status.ok()) {
    error = std::string(status.message());
  }
  return status.ok();
}

template <class T>
std::string AnyToJson(const T& held) {
  if constexpr (Proto<T>) {
    return ToJson(held);
  } else if constexpr (std::is_same_v<T, std::string>) {
    google::protobuf::Value text;
    text.set_string_value(held);
    return Print(text);
  } else {
    return Print(ToObject(held));
  }
}

template <class T>
bool AnyFromJson(std::string_view json, T& held, std::string& error) {
  if constexpr (Proto<T>) {
    return FromJson(json, held, error);
  } else if constexpr (std::is_same_v<T, std::string>) {
    google::protobuf::StringValue text;
    if (!Parse(json.empty() ? "\"\"" : json, text, error)) {
      return false;
    }
    held = text.value();
    return true;
  } else {
    Struct object;
    return Parse(json.empty() ? "{}" : json, object, error) &&
           FromObject(std::move(object), held, error);
  }
}

template <std::size_t... Index>
bool AlternativeFromJson(std::index_sequence<Index...> /*alternatives*/, std::size_t index,
                         std::string_view json, orka::RadioNotificationData& data,
                         std::string& error) {
  using Parser = bool (*)(std::string_view, orka::RadioNotificationData&, std::string&);
  static constexpr std::array<Parser, sizeof...(Index)> kParsers = {
      [](std::string_view text, orka::RadioNotificationData& into, std::string& why) {
        return AnyFromJson(text, into.emplace<Index>(), why);
      }...};
  return kParsers[index](json, data, error);
}

}  // namespace

std::string ToJson(const MessageLite& message) {
  const auto dynamic = Definitions::Get().Make(message.GetTypeName());
  dynamic->ParseFromString(message.SerializeAsString());
  return Print(*dynamic);
}

bool FromJson(std::string_view json, MessageLite& message, std::string& error) {
  const auto dynamic = Definitions::Get().Make(message.GetTypeName());
  return Parse(json.empty() ? "{}" : json, *dynamic, error) &&
         message.ParseFromString(dynamic->SerializeAsString());
}

std::string ToJson(const orka::RadioOutgoingMessage& message) {
  return std::visit([](const auto& held) { return AnyToJson(held); }, message);
}
std::string ToJson(const orka::RadioNotificationData& data) {
  return std::visit([](const auto& held) { return AnyToJson(held); }, data);
}

std::optional<orka::RadioNotificationData> NotificationFromJson(std::size_t index,
                                                                std::string_view json,
                                                                std::string& error) {
  orka::RadioNotificationData data;
  constexpr auto kAlternatives =
      std::make_index_sequence<std::variant_size_v<orka::RadioNotificationData>>();
  if (!AlternativeFromJson(kAlternatives, index, json, data, error)) {
    return std::nullopt;
  }
  return data;
}

std::string ToJson(const Struct& object) {
  return Print(object);
}

}  // namespace radiosim
