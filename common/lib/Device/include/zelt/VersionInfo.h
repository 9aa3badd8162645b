#pragma once

#include <string>
#include <string_view>

namespace zelt {

// The version information file: one "KEY=VALUE" a line, "#" starts a comment. VERSION and
// BUILD_NUMBER are read. A regular file of at most 64 KiB.
class VersionInfo {
 public:
  // Returns "<VERSION> build <BUILD_NUMBER>", or just the version when there is no build number. A
  // file that cannot be read or has no VERSION is logged and gives "unknown". Any thread.
  static std::string GetVersionAndBuildNumberText(std::string_view path);
};

}  // namespace zelt
