#include "orka/qrx.h"

#include "orka/ConversionTables.h"

#include <array>
#include <string_view>

namespace orka::qrx {

std::ostream& operator<<(std::ostream& stream, Result result) {
  static constexpr std::array<std::string_view, 9> kNames = {
      "Success", "Failure",      "NotSupported", "InvalidParameter", "Busy",
      "NoSpace", "AccessDenied", "NotFound",     "ChecksumError"};
  const auto value = static_cast<std::size_t>(result);
  return value < kNames.size() ? stream << kNames[value] : stream << value;
}

void AddDeviceDescriptorsToProtoMsg(Collaboration::RadioConnectionMsg& message,
                                    const DeviceDescriptors& descriptors) {
  for (const auto& [attribute, value] : descriptors) {
    if (const auto known = kAttributeIds.find(attribute); known != kAttributeIds.end()) {
      auto* descriptor = message.add_device_descriptors();
      descriptor->set_attribute(known->second);
      descriptor->set_value(value);
    }
  }
}

}  // namespace orka::qrx
