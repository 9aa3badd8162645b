#pragma once

#include <string>
#include <string_view>

namespace zelt {

// Where the device keeps its files. All are resolved under ZELT_ROOT (default "/"), so that the
// whole system runs in a temporary folder, several times side by side. Any thread; never fails.

// Puts `absolute` under ZELT_ROOT: "/etc/x" becomes "<ZELT_ROOT>/etc/x".
std::string PathUnderRoot(std::string_view absolute);

std::string VersionInfoFile();                       // /etc/zelt/version
std::string TargetAttributesFile();                  // /etc/zelt/target-attributes
std::string EnableCollaborationTestKeyConfigFile();  // /var/lib/zelt/collaboration_test_key
std::string DoIgnoreDockForStandardCableFile();      // /etc/zelt/do_ignore_dock_for_standard_cable
std::string ConfigFile();                            // /etc/zelt/config.toml
std::string ConfigSharedMemoryFile();                // /run/zelt-config/block

}  // namespace zelt
