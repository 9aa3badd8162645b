#pragma once

#include <string_view>

namespace zelt::cli {

// The serialised FileDescriptorSet of all message definitions, comments included.
std::string_view EmbeddedDescriptors();

}  // namespace zelt::cli
