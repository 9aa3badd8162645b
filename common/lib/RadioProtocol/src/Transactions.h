#pragma once

#include "Injections.h"
#include "orka/RadioMessages.h"
#include "orka/codec/MessageTable.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>

namespace orka {

// Under which number each message goes, and so which request it answers.
//
// A file request of the radio (write, create, handle) is known by the number that it brings beside
// its transaction, so that several may be open and each has its own answer. It is known until the
// session ends, answered or not: an answer that comes after the failure still finds it. Other
// requests are known by their opcode alone, the newest of each, until as many were answered as
// came.
//
// Every call is made with the owner's mutex held.
class Transactions {
 public:
  // Requests get no number that `injections` knows; it must outlive this.
  explicit Transactions(const Injections& injections) : injections_(injections) {}

  // Gives a number for a request of the camera, never 0. The numbers go on from session to session,
  // so that a late response of the last one is not taken for one of this.
  std::uint16_t Next();

  // Remembers a request of the radio.
  void Asked(const codec::MessageRow& row, const RadioNotificationData& request,
             std::uint16_t transaction);

  // Gives the number for a message that is about to be sent; 0 for what answers nothing. Gives none
  // when it answers a file request that is not known.
  std::optional<std::uint16_t> For(const codec::MessageRow& row,
                                   const RadioOutgoingMessage& message);

  // Forgets what the radio asked, as the session has ended.
  void Clear();

 private:
  struct FileRequest {
    std::uint16_t opcode;
    std::uint32_t number;
    std::uint16_t transaction;
  };
  struct Open {
    std::uint16_t transaction = 0;
    std::size_t count = 0;
  };

  const Injections& injections_;
  std::uint16_t last_ = 0;
  std::deque<FileRequest> file_requests_;  // the newest kFileRequestsKnown, in order
  std::map<std::uint16_t, Open> open_;     // by opcode of the request
};

}  // namespace orka
