#pragma once

#include "MessageTypes.h"

#include <string>
#include <string_view>

namespace zelt::cli {

// Puts a time into a Kova.DateTime at `path`: "now", or "2026-11-21 10:00:00" with an optional
// offset ("Z", "+01:00"; without one, this machine's). Throws CliError.
void SetDateTime(MessageValue& message, const std::string& path, std::string_view text);

// "2026-11-21 10:00:00 +01:00"
std::string DateTimeText(const MessageValue& message, const std::string& path);

}  // namespace zelt::cli
