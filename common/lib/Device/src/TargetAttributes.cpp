#include "zelt/TargetAttributes.h"

#include "KeyValueFile.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"
#include "zelt/Paths.h"

#include <stdexcept>

namespace zelt {

TargetAttributes::TargetAttributes(bool required) {
  try {
    model_ = ReadKeyValueFile(TargetAttributesFile())["MODEL"];
  } catch (const std::runtime_error& error) {
    if (required) {
      throw;
    }
    ZELT_LOG(kLogWarning, kDeviceLogCategory) << "Target attributes are unknown: " << error.what();
  }
}

std::string TargetAttributes::ModelAsString() const {
  return model_;
}

}  // namespace zelt
