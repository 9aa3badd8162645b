#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Collaboration {
class RadioConnectionMsg;
}

// The radio's own structures and codes. The wire layout of each stands in docs/radio-link.md.
namespace orka::qrx {

// A radio message's number. Open: the radio may send any value.
enum class Opcode : std::uint32_t {};

// What the radio answers. Open: other values may come.
enum class Result : std::uint8_t {
  Success = 0,
  Failure = 1,
  NotSupported = 2,
  InvalidParameter = 3,
  Busy = 4,
  NoSpace = 5,
  AccessDenied = 6,
  NotFound = 7,
  ChecksumError = 8,
};

// Prints "Success", "Busy", ...; a value outside the enumeration is printed as its number.
std::ostream& operator<<(std::ostream& stream, Result result);

// Camera to radio: asks for access to a file of the radio.
struct FileAccessRequest {
  std::uint8_t operation = 0;     // 1: write
  std::uint32_t access_code = 0;  // 2: replace the whole file
  std::uint32_t file_size = 0;    // bytes
  std::string file_name;

  friend bool operator==(const FileAccessRequest&, const FileAccessRequest&) = default;
};

// Radio to camera. Size and name repeat the request.
struct FileAccessResponse {
  Result result = Result::Success;
  std::uint32_t file_size = 0;
  std::string file_name;

  friend bool operator==(const FileAccessResponse&, const FileAccessResponse&) = default;
};

// Camera to radio: one chunk of the file to which access was granted. Its bytes travel beside it.
struct TransferDataRequest {
  std::uint16_t kind = 0;          // 3: data of a file write
  std::uint16_t chunk_number = 0;  // from 0, modulo 65536
  std::uint16_t data_size = 0;     // bytes in this chunk

  friend bool operator==(const TransferDataRequest&, const TransferDataRequest&) = default;
};

// Radio to camera: acknowledges one chunk.
struct TransferDataResponse {
  Result result = Result::Success;
  std::uint16_t chunk_number = 0;

  friend bool operator==(const TransferDataResponse&, const TransferDataResponse&) = default;
};

struct DirectoryDataType {
  std::vector<std::string> entries;

  friend bool operator==(const DirectoryDataType&, const DirectoryDataType&) = default;
};

// One property of an attached device: attribute byte and value.
using DeviceDescriptors = std::vector<std::pair<std::uint8_t, std::uint8_t>>;

// Appends the descriptors to `message`. An attribute byte that the conversion table does not hold
// is skipped.
void AddDeviceDescriptorsToProtoMsg(Collaboration::RadioConnectionMsg& message,
                                    const DeviceDescriptors& descriptors);

enum class GattConfigDescriptorCode : std::uint32_t {};
enum class ButtonConfigIdentifier : std::uint32_t {};
enum class BrightnessIntensity : std::uint32_t {};
enum class VideoActionType : std::uint32_t {};

}  // namespace orka::qrx

namespace orka {

// The status of a file handle that the camera could not open or cannot tell about.
inline constexpr std::uint64_t kFileHandleFailed = 0x0111849C;

// Camera to radio: what became of a file handle that the radio wanted opened.
struct FileHandleRespWrapper {
  std::uint16_t handle_id = 0;
  std::uint64_t status = 0;  // 0 opened
  std::uint16_t attributes = 0;
  std::variant<std::monostate, qrx::DirectoryDataType, std::string, std::uint32_t,
               std::vector<std::uint8_t>>
      data;

  friend bool operator==(const FileHandleRespWrapper&, const FileHandleRespWrapper&) = default;
};

}  // namespace orka
