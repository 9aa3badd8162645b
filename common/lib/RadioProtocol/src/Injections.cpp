#include "Injections.h"

#include "Limits.h"

#include <algorithm>
#include <chrono>

namespace orka {

std::shared_ptr<Injections::Waiting> Injections::Begin(std::uint16_t transaction,
                                                       std::uint16_t answer_opcode) {
  auto waiting = std::make_shared<Waiting>();
  waiting->answer_opcode = answer_opcode;
  if (!waiting_.emplace(transaction, waiting).second) {
    return nullptr;
  }
  std::erase_if(past_, [&](const Past& past) { return past.transaction == transaction; });
  return waiting;
}

bool Injections::Await(zelt::Lock& lock, std::uint16_t transaction, const Waiting& waiting) {
  const auto deadline = std::chrono::steady_clock::now() + kInjectionTimeout;
  while (!waiting.over) {
    if (!over_.WaitUntil(lock, deadline)) {
      break;
    }
  }
  if (waiting.over) {
    return true;
  }
  waiting_.erase(transaction);
  Remember({transaction, waiting.answer_opcode});
  return false;
}

bool Injections::Take(std::uint16_t transaction, codec::ByteView payload) {
  if (payload.size() < sizeof(std::uint16_t)) {
    return false;
  }
  const auto opcode = codec::ByteReader(payload).Take<std::uint16_t>();
  const auto found = waiting_.find(transaction);
  if (found == waiting_.end() || found->second->answer_opcode != opcode) {
    return std::ranges::any_of(past_, [&](const Past& past) {
      return past.transaction == transaction && past.answer_opcode == opcode;
    });
  }
  found->second->answer.emplace(payload.begin(), payload.end());
  found->second->over = true;
  waiting_.erase(found);
  Remember({transaction, opcode});
  over_.NotifyAll();
  return true;
}

bool Injections::Knows(std::uint16_t transaction) const {
  return waiting_.contains(transaction) || std::ranges::any_of(past_, [&](const Past& past) {
           return past.transaction == transaction;
         });
}

void Injections::Clear() {
  for (auto& [transaction, waiting] : waiting_) {
    waiting->over = true;
  }
  waiting_.clear();
  past_.clear();
  over_.NotifyAll();
}

void Injections::Remember(Past past) {
  past_.push_back(past);
  if (past_.size() > kInjectionsKnown) {
    past_.pop_front();
  }
}

}  // namespace orka
