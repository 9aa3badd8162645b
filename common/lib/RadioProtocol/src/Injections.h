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

  // Registers a request that is about to be sent; gives nothing when its number is waited for
  // already.
  std::shared_ptr<Waiting> Begin(std::uint16_t transaction, std::uint16_t answer_opcode);

  // Forgets a request that was not sent after all.
  void Cancel(std::uint16_t transaction) { waiting_.erase(transaction); }

  // Waits, without the lock, for kInjectionTimeout at most. False when it is not over then.
  bool Await(zelt::Lock& lock, std::uint16_t transaction, const Waiting& waiting);

  // Takes a response that came, if it belongs to an injected request. False if it does not.
  bool Take(std::uint16_t transaction, codec::ByteView payload);

  // Tells whether another request must not have this number.
  bool Knows(std::uint16_t transaction) const;

  // Ends every wait and forgets everything, as the session has ended.
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
