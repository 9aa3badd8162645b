#include "orka/codec/Conversions.h"

#include "orka/ConversionTables.h"

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace orka::codec {
namespace {

// The code of a name, and the name of a code. nullptr with `error` when the table has none.
template <class Table, class Name>
auto CodeOf(const Table& table, const Name& name, std::string_view what, std::string& error)
    -> const typename Table::mapped_type* {
  const auto row = table.find(name);
  if (row == table.end()) {
    std::ostringstream text;
    text << "no code for " << what << " \"" << name << '"';
    error = text.str();
    return nullptr;
  }
  return &row->second;
}

template <class Table>
auto NameOf(const Table& table, std::uint32_t code, std::string_view what, std::string& error)
    -> const typename Table::key_type* {
  const auto row = std::ranges::find_if(
      table, [&](const auto& entry) { return static_cast<std::uint32_t>(entry.second) == code; });
  if (row == table.end()) {
    std::ostringstream text;
    text << "unknown " << what << " code " << code;
    error = text.str();
    return nullptr;
  }
  return &row->first;
}

// Both directions of an enumeration's field: names are numbers, too.
template <class Table, class Enum>
bool EnumToCode(const Table& table, Enum& field, std::string_view what, std::string& error) {
  const auto* code = CodeOf(table, field, what, error);
  if (code != nullptr) {
    field = static_cast<Enum>(*code);
  }
  return code != nullptr;
}
template <class Table, class Enum>
bool CodeToEnum(const Table& table, Enum& field, std::string_view what, std::string& error) {
  const auto* name = NameOf(table, static_cast<std::uint32_t>(field), what, error);
  if (name != nullptr) {
    field = *name;
  }
  return name != nullptr;
}

// Applies `convert` to every element of a repeated enumeration field.
template <class Enum, class Repeated, class Convert>
bool ForEachEnum(Repeated& field, Convert convert) {
  return std::ranges::all_of(field, [&](int& value) {
    auto as_enum = static_cast<Enum>(value);
    const bool ok = convert(as_enum);
    value = static_cast<int>(as_enum);
    return ok;
  });
}

template <class Convert>
bool ForEachSubscription(Kova::OpcodeSubscriptionMsg& message, Convert convert) {
  switch (message.OpcodeSubscriptionOneof_case()) {
    case Kova::OpcodeSubscriptionMsg::kRequest:
      return ForEachEnum<Kova::SubscriptionMsgCode>(*message.mutable_request()->mutable_codes(),
                                                    convert);
    case Kova::OpcodeSubscriptionMsg::kResponse:
      return ForEachEnum<Kova::SubscriptionMsgCode>(*message.mutable_response()->mutable_codes(),
                                                    convert);
    default:
      return true;
  }
}

template <class Convert>
bool ForEachGattName(Kova::GattConfigMsg& message, Convert convert) {
  const auto properties = [&](auto& field) {
    return std::ranges::all_of(field, [&](Kova::GattConfigMsg::Property& property) {
      Kova::GattConfigPropertyName name = property.name();
      const bool ok = convert(name);
      property.set_name(name);
      return ok;
    });
  };
  switch (message.GattConfigOneof_case()) {
    case Kova::GattConfigMsg::kGetRequest:
      return ForEachEnum<Kova::GattConfigPropertyName>(
          *message.mutable_get_request()->mutable_names(), convert);
    case Kova::GattConfigMsg::kGetResponse:
      return properties(*message.mutable_get_response()->mutable_properties());
    case Kova::GattConfigMsg::kBroadcast:
      return properties(*message.mutable_broadcast()->mutable_properties());
    case Kova::GattConfigMsg::kSetRequest:
      return properties(*message.mutable_set_request()->mutable_properties());
    default:
      return true;
  }
}

template <class Convert>
bool ForEachButton(Kova::ButtonsSubscribtionMsg& message, Convert convert) {
  switch (message.ButtonsSubscribtionOneof_case()) {
    case Kova::ButtonsSubscribtionMsg::kRequest:
      return std::ranges::all_of(*message.mutable_request()->mutable_buttons(), convert);
    case Kova::ButtonsSubscribtionMsg::kResponse:
      return std::ranges::all_of(*message.mutable_response()->mutable_buttons(), convert);
    default:
      return true;
  }
}

}  // namespace

bool ToCodes(Kova::OpcodeSubscriptionMsg& message, std::string& error) {
  return ForEachSubscription(message, [&](Kova::SubscriptionMsgCode& code) {
    return EnumToCode(kSubscriptionOpcodes, code, "subscription", error);
  });
}
bool ToNames(Kova::OpcodeSubscriptionMsg& message, std::string& error) {
  return ForEachSubscription(message, [&](Kova::SubscriptionMsgCode& code) {
    return CodeToEnum(kSubscriptionOpcodes, code, "subscription", error);
  });
}

bool ToCodes(Kova::GattConfigMsg& message, std::string& error) {
  return ForEachGattName(message, [&](Kova::GattConfigPropertyName& name) {
    return EnumToCode(kGattDescriptorCodes, name, "GATT property", error);
  });
}
bool ToNames(Kova::GattConfigMsg& message, std::string& error) {
  return ForEachGattName(message, [&](Kova::GattConfigPropertyName& name) {
    return CodeToEnum(kGattDescriptorCodes, name, "GATT property", error);
  });
}

bool ToCodes(Kova::ButtonsSubscribtionMsg& message, std::string& error) {
  return ForEachButton(message, [&](Kova::ButtonsSubscribtionMsg::Button& button) {
    const auto* code = CodeOf(kButtonIdentifiers, button.name(), "button", error);
    if (code == nullptr) {
      return false;
    }
    button.set_identifier(static_cast<std::uint32_t>(*code));
    button.clear_name();
    return true;
  });
}
bool ToNames(Kova::ButtonsSubscribtionMsg& message, std::string& error) {
  return ForEachButton(message, [&](Kova::ButtonsSubscribtionMsg::Button& button) {
    const auto* name = NameOf(kButtonIdentifiers, button.identifier(), "button", error);
    if (name != nullptr) {
      button.set_name(*name);
    }
    return name != nullptr;
  });
}

bool ToCodes(Kova::LedBrightnessSettingMsg& message, std::string& error) {
  const auto* code = CodeOf(kBrightnessIntensities, message.brightness(), "brightness", error);
  if (code != nullptr) {
    message.set_intensity(static_cast<std::uint32_t>(*code));
    message.clear_brightness();
  }
  return code != nullptr;
}
bool ToNames(Kova::LedBrightnessSettingMsg& message, std::string& error) {
  const auto* name = NameOf(kBrightnessIntensities, message.intensity(), "brightness", error);
  if (name != nullptr) {
    message.set_brightness(*name);
  }
  return name != nullptr;
}

bool ToCode(Kova::VideoActionType& action, std::string& error) {
  const auto row = std::ranges::find_if(kVideoActions,
                                        [&](const auto& entry) { return entry.second == action; });
  if (row == kVideoActions.end()) {
    error = "no code for video action " + std::to_string(action);
    return false;
  }
  action = static_cast<Kova::VideoActionType>(row->first);
  return true;
}
bool ToName(Kova::VideoActionType& action, std::string& error) {
  const auto row = kVideoActions.find(static_cast<qrx::VideoActionType>(action));
  if (row == kVideoActions.end()) {
    error = "unknown video action code " + std::to_string(action);
    return false;
  }
  action = row->second;
  return true;
}

bool ToCodes(Collaboration::RadioConnectionMsg& message, std::string& error) {
  for (auto& descriptor : *message.mutable_device_descriptors()) {
    const auto row = std::ranges::find_if(
        kAttributeIds, [&](const auto& entry) { return entry.second == descriptor.attribute(); });
    if (row == kAttributeIds.end() || descriptor.value() > UINT8_MAX) {
      error = "no code for attribute " + std::to_string(descriptor.attribute()) + " with value " +
              std::to_string(descriptor.value());
      return false;
    }
    descriptor.set_attribute(static_cast<Collaboration::AttributeID>(row->first));
  }
  return true;
}
bool ToNames(Collaboration::RadioConnectionMsg& message, std::string& error) {
  qrx::DeviceDescriptors descriptors;
  for (const auto& descriptor : message.device_descriptors()) {
    const auto attribute = static_cast<std::uint32_t>(descriptor.attribute());
    if (attribute > UINT8_MAX || descriptor.value() > UINT8_MAX) {
      error = "attribute " + std::to_string(attribute) + " with value " +
              std::to_string(descriptor.value()) + " is not two bytes";
      return false;
    }
    descriptors.emplace_back(static_cast<std::uint8_t>(attribute),
                             static_cast<std::uint8_t>(descriptor.value()));
  }
  message.clear_device_descriptors();
  qrx::AddDeviceDescriptorsToProtoMsg(message, descriptors);
  return true;
}

}  // namespace orka::codec
