#pragma once

#include <cstdint>
#include <string>

namespace zelt {

// How far the one firmware transfer has come.
//
//   any state  --request whose file opens and has a size--> AwaitingFileAccess
//   AwaitingFileAccess --granted--> AccessGranted --at once, chunk 0--> Transferring
//   Transferring --chunk acknowledged, bytes remain--> Transferring, next chunk
//   Transferring --last chunk acknowledged--> Completed
//   AwaitingFileAccess, Transferring --refused, timer expired, read failed--> Idle
//
// A request takes over from a transfer that runs, but its timers stay: the next one to expire ends
// the new transfer.
enum class TransferState : std::uint32_t {
  Idle = 0,
  AwaitingFileAccess = 1,
  AccessGranted = 2,
  Transferring = 3,
  Completed = 4,
};

// The record of the one transfer that can exist at a time. Service thread only.
struct FirmwareTransfer {
  std::string source_path;            // the image, in the camera's file system
  std::string target_name;            // as the radio stores it
  std::uint32_t file_size = 0;        // bytes, low 32 bits
  std::uint32_t remaining_bytes = 0;  // not yet read from the stream
  std::uint16_t chunk_number = 0;     // the chunk in flight; wraps
  TransferState state = TransferState::Idle;
};

}  // namespace zelt
