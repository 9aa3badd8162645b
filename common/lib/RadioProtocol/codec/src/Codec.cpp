#include "orka/codec/Codec.h"

#include "orka/codec/Frame.h"
#include "orka/codec/Texts.h"

#include <array>
#include <type_traits>
#include <utility>

namespace orka::codec {
namespace {

template <class T>
concept Proto = std::is_base_of_v<google::protobuf::MessageLite, T>;

// Which form of a message this is: the case of its oneof. Numbers and addresses have no oneof; an
// empty one asks (1), a filled one tells (2).
template <class T>
int CaseOf(const T& message) {
  if constexpr (requires { message.LocationInfoOneof_case(); }) {
    return message.LocationInfoOneof_case();
  } else if constexpr (requires { message.GattConfigOneof_case(); }) {
    return message.GattConfigOneof_case();
  } else if constexpr (requires { message.RadioStatusOneof_case(); }) {
    return message.RadioStatusOneof_case();
  } else if constexpr (requires { message.MicStatusOneof_case(); }) {
    return message.MicStatusOneof_case();
  } else if constexpr (std::is_same_v<T, Kova::SerialNumberMsg>) {
    return message.serial_number().empty() ? 1 : 2;
  } else if constexpr (std::is_same_v<T, Kova::BtMacAddressMsg>) {
    return message.address().empty() ? 1 : 2;
  } else {
    return 0;
  }
}

const MessageRow* RowToRadio(const RadioOutgoingMessage& message) {
  const int message_case = std::visit([](const auto& held) { return CaseOf(held); }, message);
  const MessageRow* first = nullptr;
  for (const MessageRow& row : kMessageTable) {
    if (row.direction != Direction::ToRadio || row.alternative != message.index()) {
      continue;
    }
    if (row.message_case == 0 || row.message_case == message_case) {
      return &row;
    }
    if (first == nullptr) {
      first = &row;
    }
  }
  return first;
}

// ------------------------------------------------------------------------------------------------
// Bodies. Put and Take fill `error` when they fail, and `note` where they had to depart from what
// was given.

struct Outcome {
  std::string error;
  std::string note;
};

constexpr std::string_view kTooLong = "a text or list is too long";

// Notes what was left out; false when nothing is left.
bool Judge(bool expressed, const LeftOut& left_out, Outcome& outcome) {
  if (!expressed) {
    outcome.error = "no counterpart for " + left_out.Text();
  } else if (!left_out.IsEmpty()) {
    outcome.note += (outcome.note.empty() ? "" : "; ") + ("no counterpart for " + left_out.Text());
  }
  return expressed;
}

template <Proto T>
bool Put(const T& message, ByteView /*chunk*/, Bytes& out, Outcome& outcome) {
  const auto append = [&](const T& final) {
    const std::size_t size = final.ByteSizeLong();
    if (size > 3 * kMaxPayload) {  // an escaped byte takes three
      outcome.error = std::to_string(size) + " bytes are too long for a frame";
      return false;
    }
    const std::size_t at = out.size();
    out.resize(at + size);
    final.SerializeWithCachedSizesToArray(out.data() + at);
    const ByteView body = ByteView(out).subspan(at);
    if (Bytes bytes; MayHoldEscapes(body) && UnescapeTexts(final.GetTypeName(), body, bytes)) {
      out.resize(at);
      out.insert(out.end(), bytes.begin(), bytes.end());
    }
    return true;
  };
  if constexpr (Converted<T>) {
    T copy = message;
    LeftOut left_out;
    return Judge(ToCodes(copy, left_out), left_out, outcome) && append(copy);
  } else {
    return append(message);
  }
}

bool Put(const std::string& raw, ByteView /*chunk*/, Bytes& out, Outcome& /*outcome*/) {
  out.insert(out.end(), raw.begin(), raw.end());
  return true;
}

bool Put(const qrx::FileAccessRequest& request, ByteView /*chunk*/, Bytes& out, Outcome& outcome) {
  ByteWriter writer(out);
  writer.Put(request.operation);
  writer.Put(request.access_code);
  writer.Put(request.file_size);
  const bool fits = writer.PutCounted(request.file_name);
  outcome.error = fits ? std::string_view() : kTooLong;
  return fits;
}

bool Put(const qrx::FileAccessResponse& response, ByteView /*chunk*/, Bytes& out,
         Outcome& outcome) {
  ByteWriter writer(out);
  writer.Put(static_cast<std::uint8_t>(response.result));
  writer.Put(response.file_size);
  const bool fits = writer.PutCounted(response.file_name);
  outcome.error = fits ? std::string_view() : kTooLong;
  return fits;
}

bool Put(const qrx::TransferDataRequest& request, ByteView chunk, Bytes& out, Outcome& outcome) {
  if (chunk.size() != request.data_size) {
    outcome.error = "the chunk has " + std::to_string(chunk.size()) + " bytes, its record says " +
                    std::to_string(request.data_size);
    return false;
  }
  out.reserve(out.size() + 6 + chunk.size());
  ByteWriter writer(out);
  writer.Put(request.kind);
  writer.Put(request.chunk_number);
  writer.Put(request.data_size);
  writer.PutBytes(chunk);
  return true;
}

bool Put(const qrx::TransferDataResponse& response, ByteView /*chunk*/, Bytes& out,
         Outcome& /*outcome*/) {
  ByteWriter writer(out);
  writer.Put(static_cast<std::uint8_t>(response.result));
  writer.Put(response.chunk_number);
  return true;
}

bool Put(const FileHandleRespWrapper& response, ByteView /*chunk*/, Bytes& out, Outcome& outcome) {
  ByteWriter writer(out);
  writer.Put(response.handle_id);
  writer.Put(response.status);
  writer.Put(response.attributes);
  writer.Put(static_cast<std::uint8_t>(response.data.index()));
  const bool fits = std::visit(
      [&](const auto& data) {
        using Data = std::decay_t<decltype(data)>;
        if constexpr (std::is_same_v<Data, std::monostate>) {
          return true;
        } else if constexpr (std::is_same_v<Data, qrx::DirectoryDataType>) {
          if (data.entries.size() > UINT16_MAX) {
            return false;
          }
          writer.Put(static_cast<std::uint16_t>(data.entries.size()));
          return std::ranges::all_of(
              data.entries, [&](const std::string& entry) { return writer.PutCounted(entry); });
        } else if constexpr (std::is_same_v<Data, std::uint32_t>) {
          writer.Put(data);
          return true;
        } else {
          return writer.PutCounted(data);
        }
      },
      response.data);
  outcome.error = fits ? std::string_view() : kTooLong;
  return fits;
}

// A text that is not UTF-8 costs a message; with its bytes escaped it does not.
template <Proto T>
bool Parse(ByteView body, T& message, Outcome& outcome) {
  const auto parse = [&message](ByteView bytes) {
    return message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  };
  if (!MayHoldEscapes(body) && parse(body)) {
    return true;
  }
  Bytes escaped;
  unsigned field = 0;
  if (!EscapeTexts(message.GetTypeName(), body, escaped, field) || !parse(escaped)) {
    outcome.error = "the body is no " + message.GetTypeName();
    return false;
  }
  if (field != 0) {
    outcome.note = "text that is not UTF-8, in field " + std::to_string(field);
  }
  return true;
}

template <Proto T>
bool Take(ByteView body, T& message, Bytes& /*chunk*/, Outcome& outcome) {
  if (!Parse(body, message, outcome)) {
    return false;
  }
  if constexpr (Converted<T>) {
    LeftOut left_out;
    return Judge(ToNames(message, left_out), left_out, outcome);
  } else {
    return true;
  }
}

bool Take(ByteView body, std::string& raw, Bytes& /*chunk*/, Outcome& /*outcome*/) {
  raw.assign(body.begin(), body.end());
  return true;
}

bool AtEnd(const ByteReader& reader, Outcome& outcome) {
  if (!reader.AtEnd()) {
    outcome.error = reader.Ok() ? "the record has bytes after its end" : "the record is cut short";
  }
  return reader.AtEnd();
}

bool Take(ByteView body, qrx::FileAccessRequest& request, Bytes& /*chunk*/, Outcome& outcome) {
  ByteReader reader(body);
  request.operation = reader.Take<std::uint8_t>();
  request.access_code = reader.Take<std::uint32_t>();
  request.file_size = reader.Take<std::uint32_t>();
  request.file_name = reader.TakeText();
  return AtEnd(reader, outcome);
}

bool Take(ByteView body, qrx::FileAccessResponse& response, Bytes& /*chunk*/, Outcome& outcome) {
  ByteReader reader(body);
  response.result = static_cast<qrx::Result>(reader.Take<std::uint8_t>());
  response.file_size = reader.Take<std::uint32_t>();
  response.file_name = reader.TakeText();
  return AtEnd(reader, outcome);
}

bool Take(ByteView body, qrx::TransferDataRequest& request, Bytes& chunk, Outcome& outcome) {
  ByteReader reader(body);
  request.kind = reader.Take<std::uint16_t>();
  request.chunk_number = reader.Take<std::uint16_t>();
  request.data_size = reader.Take<std::uint16_t>();
  const ByteView data = reader.TakeBytes(request.data_size);
  chunk.assign(data.begin(), data.end());
  return AtEnd(reader, outcome);
}

bool Take(ByteView body, qrx::TransferDataResponse& response, Bytes& /*chunk*/, Outcome& outcome) {
  ByteReader reader(body);
  response.result = static_cast<qrx::Result>(reader.Take<std::uint8_t>());
  response.chunk_number = reader.Take<std::uint16_t>();
  return AtEnd(reader, outcome);
}

bool Take(ByteView body, FileHandleRespWrapper& response, Bytes& /*chunk*/, Outcome& outcome) {
  ByteReader reader(body);
  response.handle_id = reader.Take<std::uint16_t>();
  response.status = reader.Take<std::uint64_t>();
  response.attributes = reader.Take<std::uint16_t>();
  switch (const auto tag = reader.Take<std::uint8_t>()) {
    case 0:
      break;
    case 1: {
      qrx::DirectoryDataType directory;
      for (std::size_t left = reader.Take<std::uint16_t>(); left > 0 && reader.Ok(); --left) {
        directory.entries.push_back(reader.TakeText());
      }
      response.data = std::move(directory);
      break;
    }
    case 2:
      response.data = reader.TakeText();
      break;
    case 3:
      response.data = reader.Take<std::uint32_t>();
      break;
    case 4: {
      const ByteView content = reader.TakeCounted();
      response.data = Bytes(content.begin(), content.end());
      break;
    }
    default:
      outcome.error = "unknown kind of data " + std::to_string(tag);
      return false;
  }
  return AtEnd(reader, outcome);
}

// ------------------------------------------------------------------------------------------------

template <class Union>
Encoded Encode(const MessageRow& row, const Union& message, ByteView chunk) {
  Encoded result;
  result.row = &row;
  ByteWriter(result.payload).Put(row.opcode);
  Outcome outcome;
  const bool fits = std::visit(
      [&](const auto& held) { return Put(held, chunk, result.payload, outcome); }, message);
  result.error = std::move(outcome.error);
  result.note = std::move(outcome.note);
  if (fits && result.payload.size() > kMaxPayload) {
    result.error = std::to_string(result.payload.size()) + " bytes are too long for a frame";
  }
  if (!result.error.empty()) {
    result.payload.clear();
  }
  return result;
}

template <class Union>
using TakeInto = bool (*)(ByteView body, Union& message, Bytes& chunk, Outcome& outcome);

template <class Union, std::size_t... indices>
constexpr auto MakeTakers(std::index_sequence<indices...> /*alternatives*/) {
  return std::array<TakeInto<Union>, sizeof...(indices)>{
      [](ByteView body, Union& message, Bytes& chunk, Outcome& outcome) {
        return Take(body, message.template emplace<indices>(), chunk, outcome);
      }...};
}

template <class Union>
Decoded<Union> Decode(Direction direction, pel::FrameKind kind, ByteView payload) {
  static constexpr auto kTakers =
      MakeTakers<Union>(std::make_index_sequence<std::variant_size_v<Union>>());
  Decoded<Union> result;
  ByteReader reader(payload);
  const auto opcode = reader.Take<std::uint16_t>();
  if (reader.Ok()) {
    result.row = FindRow(direction, opcode, kind);
  }
  if (result.row == nullptr) {
    result.error = "unknown opcode";
    return result;
  }
  Union message;
  Outcome outcome;
  if (kTakers[result.row->alternative](reader.TakeRest(), message, result.chunk, outcome)) {
    result.message = std::move(message);
  }
  result.error = std::move(outcome.error);
  result.note = std::move(outcome.note);
  return result;
}

}  // namespace

Encoded EncodeToRadio(const RadioOutgoingMessage& message, ByteView chunk) {
  return Encode(*RowToRadio(message), message, chunk);
}

Encoded EncodeFromRadio(const MessageRow& row, const RadioNotificationData& data) {
  return Encode(row, data, {});
}

Decoded<RadioOutgoingMessage> DecodeToRadio(pel::FrameKind kind, ByteView payload) {
  return Decode<RadioOutgoingMessage>(Direction::ToRadio, kind, payload);
}

Decoded<RadioNotificationData> DecodeFromRadio(pel::FrameKind kind, ByteView payload) {
  return Decode<RadioNotificationData>(Direction::FromRadio, kind, payload);
}

}  // namespace orka::codec
