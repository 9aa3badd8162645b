#include "Outbox.h"

#include "BusLimits.h"

#include <algorithm>
#include <utility>

namespace zelt {

namespace {

using Outcome = ServiceIPC::Outcome;

// A record that is kept saves allocations with the next letter.
constexpr std::size_t kKeptReceivers = 64;

CallResult Limit(std::size_t limit, const std::string& of_what) {
  return {Outcome::Invalid, "limit of " + std::to_string(limit) + " " + of_what + " reached"};
}

CallResult Closed() {
  return {Outcome::Disconnected, "the connection to the bus is lost"};
}

}  // namespace

std::expected<bool, CallResult> Outbox::Put(const std::string& connection, bool has_name,
                                            Letter& letter) {
  const auto known = receivers_.find(connection);
  const std::size_t size = letter.payload.size();
  if (connection.empty() && !closed_) {
    return std::unexpected(CallResult{Outcome::NoSuchService, "nobody owns the name"});
  }
  if (auto refusal =
          Refusal(known == receivers_.end() ? nullptr : &known->second, has_name, size)) {
    return std::unexpected(std::move(*refusal));
  }
  Receiver& receiver = known == receivers_.end() ? receivers_[connection] : known->second;
  receiver.has_name = has_name;
  receiver.bytes += size;
  bytes_ += size;
  receiver.waiting.push_back({++last_number_, std::move(letter)});
  return MayGo(receiver);
}

std::optional<CallResult> Outbox::Refusal(const Receiver* receiver, bool has_name,
                                          std::size_t size) const {
  if (closed_) {
    return Closed();
  }
  if (receiver == nullptr) {
    const auto is_nameless = [](const auto& item) { return !item.second.has_name; };
    const auto nameless = static_cast<std::size_t>(std::ranges::count_if(receivers_, is_nameless));
    return has_name || nameless < kMaxNameless
               ? std::nullopt
               : std::optional(Limit(kMaxNameless, "receivers without a name that have mail"));
  }
  if (receiver->given_up) {
    return CallResult{Outcome::TimedOut, "the receiver has acknowledged nothing for " +
                                             std::to_string(kGiveUpTime.count()) + " s"};
  }
  const std::size_t messages = receiver->waiting.size() + receiver->unanswered;
  if (messages >= kMaxMailboxMessages) {
    return Limit(kMaxMailboxMessages, "messages that the receiver has not acknowledged");
  }
  if (messages > 0 && receiver->bytes + size > kMaxMailboxBytes) {
    return Limit(kMaxMailboxBytes, "bytes that the receiver has not acknowledged");
  }
  if (messages > 0 && bytes_ + size > kMaxBytesInAll) {
    return Limit(kMaxBytesInAll, "bytes that receivers have not acknowledged");
  }
  return std::nullopt;
}

std::expected<bool, CallResult> Outbox::Put(Broadcast& broadcast) {
  if (closed_) {
    return std::unexpected(Closed());
  }
  const std::size_t size = broadcast.payload.size();
  if (!broadcast.state && broadcasts_.size() >= kMaxMailboxMessages) {
    return std::unexpected(Limit(kMaxMailboxMessages, "messages that the bus has not read"));
  }
  if (!broadcast.state && broadcast_bytes_ > 0 && broadcast_bytes_ + size > kMaxMailboxBytes) {
    return std::unexpected(Limit(kMaxMailboxBytes, "bytes that the bus has not read"));
  }
  broadcast_bytes_ += size;
  broadcasts_.push_back({++last_number_, std::move(broadcast)});
  return true;
}

bool Outbox::MayGo(const Receiver& receiver) const {
  const std::size_t most = receiver.has_name ? kMaxCallsOfOne : kMaxCallsOfNameless;
  const bool is_scarce = kMaxCalls - calls_ <= kScarceCalls;
  return !receiver.waiting.empty() && calls_ < kMaxCalls && receiver.unanswered < most &&
         (!is_scarce || receiver.unanswered == 0);
}

std::optional<Outbox::Item> Outbox::Next(Time now) {
  auto oldest = receivers_.end();
  std::uint64_t number = broadcasts_.empty() ? last_number_ + 1 : broadcasts_.front().number;
  for (auto receiver = receivers_.begin(); receiver != receivers_.end(); ++receiver) {
    if (MayGo(receiver->second) && receiver->second.waiting.front().number < number) {
      oldest = receiver;
      number = receiver->second.waiting.front().number;
    }
  }
  if (oldest != receivers_.end()) {
    Receiver& receiver = oldest->second;
    HandedOver item{oldest->first, std::move(receiver.waiting.front().item)};
    receiver.waiting.pop_front();
    if (receiver.unanswered++ == 0) {
      receiver.progress = now;
    }
    ++calls_;
    return item;
  }
  if (!broadcasts_.empty()) {
    Broadcast item = std::move(broadcasts_.front().item);
    broadcasts_.pop_front();
    broadcast_bytes_ -= item.payload.size();
    return item;
  }
  return std::nullopt;
}

bool Outbox::Answered(std::string_view connection, std::size_t size, bool by_receiver, Time now) {
  const auto known = receivers_.find(connection);
  if (known == receivers_.end()) {
    return false;  // closed meanwhile
  }
  Receiver& receiver = known->second;
  --receiver.unanswered;
  --calls_;
  receiver.bytes -= size;
  bytes_ -= size;
  const bool was_given_up = receiver.given_up;
  if (by_receiver) {
    receiver.progress = now;
  }
  if (by_receiver || receiver.unanswered == 0) {
    receiver.given_up = false;
  }
  ForgetIdle(known);
  return was_given_up && by_receiver;
}

std::vector<Outbox::GivenUp> Outbox::GiveUp(Time now) {
  std::vector<GivenUp> given_up;
  for (auto& [connection, receiver] : receivers_) {
    if (!receiver.given_up && receiver.unanswered > 0 && now - receiver.progress >= kGiveUpTime) {
      receiver.given_up = true;
      given_up.push_back({connection, TakeWaiting(receiver), receiver.unanswered});
    }
  }
  return given_up;
}

std::optional<Outbox::Time> Outbox::NextGiveUp() const {
  std::optional<Time> next;
  for (const auto& [connection, receiver] : receivers_) {
    if (!receiver.given_up && receiver.unanswered > 0) {
      const Time due = receiver.progress + kGiveUpTime;
      next = std::min(next.value_or(due), due);
    }
  }
  return next;
}

std::vector<Letter> Outbox::Drop(std::string_view connection) {
  const auto known = receivers_.find(connection);
  if (known == receivers_.end()) {
    return {};
  }
  known->second.has_name = false;
  auto dropped = TakeWaiting(known->second);
  ForgetIdle(known);
  return dropped;
}

std::vector<Letter> Outbox::TakeWaiting(Receiver& receiver) {
  std::vector<Letter> letters;
  letters.reserve(receiver.waiting.size());
  for (auto& [number, letter] : receiver.waiting) {
    receiver.bytes -= letter.payload.size();
    bytes_ -= letter.payload.size();
    letters.push_back(std::move(letter));
  }
  receiver.waiting.clear();
  return letters;
}

std::optional<Letter> Outbox::Withdraw(std::string_view connection, std::uint64_t id) {
  const auto known = receivers_.find(connection);
  if (known == receivers_.end()) {
    return std::nullopt;
  }
  Receiver& receiver = known->second;
  const auto found = std::ranges::find_if(
      receiver.waiting, [id](const auto& waiting) { return waiting.item.id == id; });
  if (found == receiver.waiting.end()) {
    return std::nullopt;
  }
  Letter letter = std::move(found->item);
  receiver.bytes -= letter.payload.size();
  bytes_ -= letter.payload.size();
  receiver.waiting.erase(found);
  ForgetIdle(known);
  return letter;
}

std::vector<Letter> Outbox::Close() {
  std::vector<Letter> letters;
  for (auto& [connection, receiver] : receivers_) {
    std::ranges::move(TakeWaiting(receiver), std::back_inserter(letters));
  }
  receivers_.clear();
  broadcasts_.clear();
  broadcast_bytes_ = bytes_ = calls_ = 0;
  closed_ = true;
  return letters;
}

bool Outbox::IsEmpty() const {
  return broadcasts_.empty() && std::ranges::all_of(receivers_, [](const auto& item) {
           return item.second.waiting.empty();
         });
}

// Forgets the receiver when it has nothing, unless its record is worth keeping.
void Outbox::ForgetIdle(Receivers::iterator receiver) {
  const Receiver& record = receiver->second;
  if (record.waiting.empty() && record.unanswered == 0 &&
      (!record.has_name || receivers_.size() > kKeptReceivers)) {
    receivers_.erase(receiver);
  }
}

}  // namespace zelt
