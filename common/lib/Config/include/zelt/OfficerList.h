#pragma once

#include <array>
#include <cstdint>

namespace zelt {

// One officer who may wear the camera. Texts are NUL-terminated.
struct OfficerRecord {
  std::array<char, 33> id;
  std::array<char, 65> name;
  bool collaborationEnabled;
};

// The officers known to this camera, as they lie in shared memory: trivially copyable.
class OfficerList {
 public:
  static constexpr std::uint32_t kCapacity = 32;

  // The officer to whom the camera is assigned; a blank record, with collaboration off, when it is
  // assigned to nobody. Call it under the block's lock.
  const OfficerRecord& GetCurrentOfficer() const {
    return current < count && count <= kCapacity ? officers[current] : kNobody;
  }

  std::uint32_t count;
  std::uint32_t current;  // index; `count` or more: nobody
  std::array<OfficerRecord, kCapacity> officers;

 private:
  static constexpr OfficerRecord kNobody{};
};

}  // namespace zelt
