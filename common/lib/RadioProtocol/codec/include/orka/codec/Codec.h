#pragma once

#include "orka/RadioMessages.h"
#include "orka/codec/Bytes.h"
#include "orka/codec/MessageTable.h"

#include <optional>
#include <string>

// Messages to payloads and back: opcode, then the body. The camera uses EncodeToRadio and
// DecodeFromRadio, the radio's side the other two. Any thread.
namespace orka::codec {

struct Encoded {
  const MessageRow* row = nullptr;
  Bytes payload;
  std::string error;  // why there is no payload; empty when there is one
  std::string note;   // what could not be said exactly; for a warning
};

// Encodes; `chunk` travels beside a TransferDataRequest, as many bytes as it says.
Encoded EncodeToRadio(const RadioOutgoingMessage& message, ByteView chunk = {});

// Encodes `data`, which must hold the alternative of `row`.
Encoded EncodeFromRadio(const MessageRow& row, const RadioNotificationData& data);

template <class Message>
struct Decoded {
  const MessageRow* row = nullptr;  // nullptr: unknown opcode
  std::optional<Message> message;   // nothing: malformed
  Bytes chunk;                      // what travelled beside a TransferDataRequest
  std::string error;                // why there is no message
  std::string note;                 // what could not be said exactly; for a warning
};

Decoded<RadioOutgoingMessage> DecodeToRadio(pel::FrameKind kind, ByteView payload);
Decoded<RadioNotificationData> DecodeFromRadio(pel::FrameKind kind, ByteView payload);

}  // namespace orka::codec
