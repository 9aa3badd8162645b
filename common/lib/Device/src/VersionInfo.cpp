#include "zelt/VersionInfo.h"

#include "KeyValueFile.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"

#include <stdexcept>

namespace zelt {

std::string VersionInfo::GetVersionAndBuildNumberText(std::string_view path) {
  try {
    auto values = ReadKeyValueFile(path);
    const std::string& version = values["VERSION"];
    const std::string& build = values["BUILD_NUMBER"];
    if (version.empty()) {
      throw std::runtime_error("no VERSION in " + std::string(path));
    }
    return build.empty() ? version : version + " build " + build;
  } catch (const std::runtime_error& error) {
    ZELT_LOG(kLogWarning, kDeviceLogCategory) << "Software version is unknown: " << error.what();
    return "unknown";
  }
}

}  // namespace zelt
