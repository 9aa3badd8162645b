#include "orka/codec/Conversions.h"

#include "orka/ConversionTables.h"

#include <algorithm>
#include <cstdint>
#include <iomanip>

namespace orka::codec {
namespace {

template <class Table>
auto FindValue(const Table& table, std::int64_t value) {
  return std::ranges::find_if(
      table, [value](const auto& row) { return static_cast<std::int64_t>(row.second) == value; });
}

// Between the numbers of a table's two sides. One that the table does not have stays as it is.
// False when it is the number of something else on the other side.
template <class Table>
bool KeyToValue(const Table& table, int& number) {
  const auto row = table.find(static_cast<typename Table::key_type>(number));
  if (row == table.end()) {
    return FindValue(table, number) == table.end();
  }
  number = static_cast<int>(row->second);
  return true;
}
template <class Table>
bool ValueToKey(const Table& table, int& number) {
  const auto row = FindValue(table, number);
  if (row == table.end()) {
    return !table.contains(static_cast<typename Table::key_type>(number));
  }
  number = static_cast<int>(row->first);
  return true;
}

// Keeps the elements that can be converted. False when there were some, and none is left.
template <class Repeated, class Convert>
bool ConvertEach(Repeated& elements, Convert convert) {
  const int before = elements.size();
  int kept = 0;
  for (int at = 0; at < before; ++at) {
    if (convert(*elements.Mutable(at))) {
      elements.SwapElements(at, kept++);
    }
  }
  elements.erase(elements.begin() + kept, elements.end());
  return kept > 0 || before == 0;
}

// An answer goes also when nothing is left of its list: whoever asked gets the result. A request
// does not: without its list it asks for something else.
template <class Convert>
bool ConvertSubscriptions(Kova::OpcodeSubscriptionMsg& message, LeftOut& left_out,
                          Convert to_other_side) {
  const auto convert = [&](int& code) {
    const bool expressed = to_other_side(kSubscriptionOpcodes, code);
    if (!expressed) {
      left_out.Add("subscription", code);
    }
    return expressed;
  };
  if (message.has_request()) {
    return ConvertEach(*message.mutable_request()->mutable_codes(), convert);
  }
  if (message.has_response()) {
    ConvertEach(*message.mutable_response()->mutable_codes(), convert);
  }
  return true;
}

template <class Convert>
bool ConvertGatt(Kova::GattConfigMsg& message, LeftOut& left_out, Convert to_other_side) {
  const auto number = [&](int& name) {
    const bool expressed = to_other_side(kGattDescriptorCodes, name);
    if (!expressed) {
      left_out.Add("GATT property", name);
    }
    return expressed;
  };
  const auto property = [&](Kova::GattConfigMsg::Property& element) {
    int name = element.name();
    const bool expressed = number(name);
    element.set_name(static_cast<Kova::GattConfigPropertyName>(name));
    return expressed;
  };
  switch (message.GattConfigOneof_case()) {
    case Kova::GattConfigMsg::kGetRequest:
      return ConvertEach(*message.mutable_get_request()->mutable_names(), number);
    case Kova::GattConfigMsg::kSetRequest:
      return ConvertEach(*message.mutable_set_request()->mutable_properties(), property);
    case Kova::GattConfigMsg::kGetResponse:
      ConvertEach(*message.mutable_get_response()->mutable_properties(), property);
      return true;
    case Kova::GattConfigMsg::kBroadcast:
      ConvertEach(*message.mutable_broadcast()->mutable_properties(), property);
      return true;
    default:
      return true;
  }
}

template <class Convert>
bool ConvertButtons(Kova::ButtonsSubscribtionMsg& message, Convert convert) {
  if (message.has_request()) {
    return ConvertEach(*message.mutable_request()->mutable_buttons(), convert);
  }
  if (message.has_response()) {
    ConvertEach(*message.mutable_response()->mutable_buttons(), convert);
  }
  return true;
}

constexpr auto kToCode = [](const auto& table, int& number) { return KeyToValue(table, number); };
constexpr auto kToName = [](const auto& table, int& number) { return ValueToKey(table, number); };

template <class Convert>
bool ConvertAction(Kova::VideoActionType& action, LeftOut& left_out, Convert to_other_side) {
  int number = action;
  const bool expressed = to_other_side(kVideoActions, number);
  if (!expressed) {
    left_out.Add("video action", number);
  }
  action = static_cast<Kova::VideoActionType>(number);
  return expressed;
}

}  // namespace

bool ToCodes(Kova::OpcodeSubscriptionMsg& message, LeftOut& left_out) {
  return ConvertSubscriptions(message, left_out, kToCode);
}
bool ToNames(Kova::OpcodeSubscriptionMsg& message, LeftOut& left_out) {
  return ConvertSubscriptions(message, left_out, kToName);
}

bool ToCodes(Kova::GattConfigMsg& message, LeftOut& left_out) {
  return ConvertGatt(message, left_out, kToCode);
}
bool ToNames(Kova::GattConfigMsg& message, LeftOut& left_out) {
  return ConvertGatt(message, left_out, kToName);
}

bool ToCodes(Kova::ButtonsSubscribtionMsg& message, LeftOut& left_out) {
  return ConvertButtons(message, [&](Kova::ButtonsSubscribtionMsg::Button& button) {
    if (const auto row = kButtonIdentifiers.find(button.name()); row != kButtonIdentifiers.end()) {
      button.set_identifier(static_cast<std::uint32_t>(row->second));
    } else if (button.identifier() == 0) {
      left_out.Add("button", std::quoted(button.name()));
      return false;
    }
    button.clear_name();
    return true;
  });
}
bool ToNames(Kova::ButtonsSubscribtionMsg& message, LeftOut& /*left_out*/) {
  return ConvertButtons(message, [](Kova::ButtonsSubscribtionMsg::Button& button) {
    const auto row = FindValue(kButtonIdentifiers, button.identifier());
    button.set_name(row != kButtonIdentifiers.end() ? row->first : std::string());
    return true;
  });
}

bool ToCodes(Kova::LedBrightnessSettingMsg& message, LeftOut& left_out) {
  const auto row = kBrightnessIntensities.find(message.brightness());
  if (row != kBrightnessIntensities.end()) {
    message.set_intensity(static_cast<std::uint32_t>(row->second));
  } else if (!message.brightness().empty() && message.intensity() == 0) {
    left_out.Add("brightness", std::quoted(message.brightness()));
    return false;
  }
  message.clear_brightness();
  return true;
}
bool ToNames(Kova::LedBrightnessSettingMsg& message, LeftOut& /*left_out*/) {
  const auto row = FindValue(kBrightnessIntensities, message.intensity());
  message.set_brightness(row != kBrightnessIntensities.end() ? row->first : std::string());
  return true;
}

bool ToCode(Kova::VideoActionType& action, LeftOut& left_out) {
  return ConvertAction(action, left_out, kToName);  // this table has the codes for keys
}
bool ToName(Kova::VideoActionType& action, LeftOut& left_out) {
  return ConvertAction(action, left_out, kToCode);
}

bool ToCodes(Collaboration::RadioConnectionMsg& message, LeftOut& left_out) {
  using Descriptor = Collaboration::RadioConnectionMsg::DeviceDescriptor;
  ConvertEach(*message.mutable_device_descriptors(), [&](Descriptor& descriptor) {
    const auto row = FindValue(kAttributeIds, descriptor.attribute());
    if (row == kAttributeIds.end() || descriptor.value() > UINT8_MAX) {
      left_out.Add("attribute", descriptor.attribute());
      return false;
    }
    descriptor.set_attribute(static_cast<Collaboration::AttributeID>(row->first));
    return true;
  });
  return true;
}
bool ToNames(Collaboration::RadioConnectionMsg& message, LeftOut& left_out) {
  using Descriptor = Collaboration::RadioConnectionMsg::DeviceDescriptor;
  ConvertEach(*message.mutable_device_descriptors(), [&](Descriptor& descriptor) {
    const int attribute = descriptor.attribute();
    const auto row = attribute >= 0 && attribute <= UINT8_MAX
                         ? kAttributeIds.find(static_cast<std::uint8_t>(attribute))
                         : kAttributeIds.end();
    if (row == kAttributeIds.end() || descriptor.value() > UINT8_MAX) {
      left_out.Add("attribute", attribute);
      return false;
    }
    descriptor.set_attribute(row->second);
    return true;
  });
  return true;
}

}  // namespace orka::codec
