#pragma once

#include "orka/codec/Bytes.h"
#include "zelt/Mutex.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>

namespace orka {

// The raw requests of one session that were injected, and who waits for their responses. All
// responses to them belong to them, late and further ones too: nobody else is told of one. The
// newest kInjectionsKnown that are over are known.
//
// Every call is made with the owner's mutex held.
class Injections {
 public:
  struct Waiting {
    std::uint16_t answer_opcode = 0;
    bool over = false;
    std::optional<codec::Bytes> answer;  // opcode and body; nothing: the session ended
  };

  // A request is about to be sent. Nothing when one of this number is being waited for.
  std::shared_ptr<Waiting> Begin(std::uint16_t transaction, std::uint16_t answer_opcode);

  // It was not sent.
  void Cancel(std::uint16_t transaction) { waiting_.erase(transaction); }

  // Waits, without the lock, until it is over, for kInjectionTimeout. False when it is not.
  bool Await(zelt::Lock& lock, std::uint16_t transaction, const Waiting& waiting);

  // A response came. True when it belongs to an injected request.
  bool Take(std::uint16_t transaction, codec::ByteView payload);

  // True when another request must not have this number.
  bool Knows(std::uint16_t transaction) const;

  // The session ended: nobody waits any more, and nothing is known.
  void Clear();

 private:
  struct Past {
    std::uint16_t transaction;
    std::uint16_t answer_opcode;
  };
  void Remember(Past past);

  zelt::Condition over_;
  std::map<std::uint16_t, std::shared_ptr<Waiting>> waiting_;  // by transaction
  std::deque<Past> past_;
};

}  // namespace orka
