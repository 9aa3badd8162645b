#include "Transactions.h"

#include "Limits.h"

#include <algorithm>
#include <ranges>
#include <variant>

namespace orka {
namespace {

template <class... Functions>
struct Overloaded : Functions... {
  using Functions::operator()...;
};

// The number by which a file request is known; nothing for all else.
std::optional<std::uint32_t> NumberOf(const RadioNotificationData& request) {
  using Number = std::optional<std::uint32_t>;
  return std::visit(
      Overloaded{
          [](const Kova::FileAccessWriteRequest& write) -> Number { return write.request_id(); },
          [](const Kova::FileAccessCreateRequest& create) -> Number { return create.request_id(); },
          [](const Kova::FileHandleOpenRequest& open) -> Number {
            return static_cast<std::uint16_t>(open.handle_id());
          },
          [](const auto& /*other*/) -> Number { return std::nullopt; }},
      request);
}

// The same of a response.
std::optional<std::uint32_t> NumberOf(const RadioOutgoingMessage& response) {
  using Number = std::optional<std::uint32_t>;
  return std::visit(
      Overloaded{
          [](const Kova::FileAccessWriteResponse& write) -> Number { return write.request_id(); },
          [](const Kova::FileAccessCreateResponse& create) -> Number {
            return create.request_id();
          },
          [](const FileHandleRespWrapper& handle) -> Number { return handle.handle_id; },
          [](const auto& /*other*/) -> Number { return std::nullopt; }},
      response);
}

}  // namespace

std::uint16_t Transactions::Next() {
  do {
    ++last_;
  } while (last_ == 0 || injections_.Knows(last_));
  return last_;
}

void Transactions::Asked(const codec::MessageRow& row, const RadioNotificationData& request,
                         std::uint16_t transaction) {
  if (const auto number = NumberOf(request)) {
    file_requests_.push_back({row.opcode, *number, transaction});
    if (file_requests_.size() > kFileRequestsKnown) {
      file_requests_.pop_front();
    }
    return;
  }
  Open& open = open_[row.opcode];
  open.transaction = transaction;
  ++open.count;
}

std::optional<std::uint16_t> Transactions::For(const codec::MessageRow& row,
                                               const RadioOutgoingMessage& message) {
  if (row.kind == pel::FrameKind::Request) {
    return Next();
  }
  if (row.kind != pel::FrameKind::Response) {
    return 0;
  }
  const auto opcode = static_cast<std::uint16_t>(row.opcode & ~codec::kResponseBit);
  if (const auto number = NumberOf(message)) {
    const auto newest_first = std::views::reverse(file_requests_);
    const auto found = std::ranges::find_if(newest_first, [&](const FileRequest& request) {
      return request.opcode == opcode && request.number == *number;
    });
    return found != newest_first.end() ? std::optional(found->transaction) : std::nullopt;
  }
  const auto found = open_.find(opcode);
  if (found == open_.end()) {
    return 0;
  }
  const std::uint16_t transaction = found->second.transaction;
  if (--found->second.count == 0) {
    open_.erase(found);
  }
  return transaction;
}

void Transactions::Clear() {
  file_requests_.clear();
  open_.clear();
}

}  // namespace orka
