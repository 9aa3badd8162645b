#include "Descriptors.h"

#include <cstddef>

// The assembler copies the file in: nothing to generate, and nothing to install beside the tool.
// The names are global, though hidden: of two local ones in a section, the linker for ARM64 makes
// one entry of its table of addresses.
asm(R"(
  .pushsection .rodata
  .balign 16
  .globl kova_descriptors_begin, kova_descriptors_end
  .hidden kova_descriptors_begin, kova_descriptors_end
  .type kova_descriptors_begin, %object
kova_descriptors_begin:
  .incbin ")" KOVA_DESCRIPTOR_SET R"("
kova_descriptors_end:
  .byte 0
  .popsection
)");

extern "C" {
extern const char kova_descriptors_begin[];  // NOLINT(readability-identifier-naming)
extern const char kova_descriptors_end[];    // NOLINT(readability-identifier-naming)
}

namespace zelt::cli {

std::string_view EmbeddedDescriptors() {
  return {kova_descriptors_begin,
          static_cast<std::size_t>(kova_descriptors_end - kova_descriptors_begin)};
}

}  // namespace zelt::cli
