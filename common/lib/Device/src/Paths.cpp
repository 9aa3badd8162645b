#include "zelt/Paths.h"

#include <cstdlib>

namespace zelt {

std::string PathUnderRoot(std::string_view absolute) {
  const char* variable = std::getenv("ZELT_ROOT");
  std::string path = variable == nullptr ? "" : variable;
  while (path.ends_with('/')) {
    path.pop_back();
  }
  if (!absolute.starts_with('/')) {
    path += '/';
  }
  return path.append(absolute);
}

std::string VersionInfoFile() {
  return PathUnderRoot("/etc/zelt/version");
}
std::string TargetAttributesFile() {
  return PathUnderRoot("/etc/zelt/target-attributes");
}
std::string EnableCollaborationTestKeyConfigFile() {
  return PathUnderRoot("/var/lib/zelt/collaboration_test_key");
}
std::string DoIgnoreDockForStandardCableFile() {
  return PathUnderRoot("/etc/zelt/do_ignore_dock_for_standard_cable");
}
std::string ConfigFile() {
  return PathUnderRoot("/etc/zelt/config.toml");
}
std::string ConfigSharedMemoryFile() {
  return PathUnderRoot("/run/zelt-config/block");
}

}  // namespace zelt
