#pragma once

#include "zelt/AsyncCallbackHandle.h"
#include "zelt/Busy.h"
#include "zelt/UniqueFunction.h"

#include <gsl/span>

#include <chrono>
#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <string_view>

namespace zelt {

// Typed messages between the services of one device: send, respond, publish, subscribe.
//
// A message is a type name and a payload; this layer never looks into the payload. Every
// operation may be called on any thread. Callbacks run on the IPC thread, one at a time, in the
// order in which the bus delivered; they must return soon and never wait for another message.
// Views given to a callback live until it returns; views given to an operation are copied before
// it returns.
//
// A send, a response and a publication are done when they are accepted: their future is ready when
// the operation returns, on every thread. False says that nobody owns the name, that a limit
// refuses the message, or that the bus is gone. What the receiver then does with the message, and
// how soon, is not the sender's business: a refusal, a receiver that has no room (Busy) or that
// does not react leaves a line in the log, a few a second for each receiver, and a count. Nothing
// is retried, and nothing here throws for what happens on the bus.
//
// What one receiver has not acknowledged waits in its mailbox, in order; others are not affected.
// A receiver that has acknowledged nothing for 5 s is given up: its mailbox is dropped, with a line
// that says how many, and sends to it are false until it acknowledges something or its name changes
// hands. What waits for the former owner of a name is dropped, too, with such a line.
//
// Limits: payload 16 MiB; type and topic 1 to 255 letters, digits, '_', '-' and '.'; 1024 messages
// and 8 MiB in one mailbox, an empty one taking any message; the same for publications that the bus
// has not read; 64 MiB in all mailboxes, beyond which only empty ones take a message; 16 receivers
// without a name; 1024 open requests. A callback for a malformed name gets a closed handle.
class ServiceIPC {
 public:
  struct MessageEnvelope {
    // Who sent it, as the bus vouches: the service name ("Upgrade"), the tool's name
    // ("zeltcli-1"), or the connection's unique name (":1.42") when it owns neither.
    std::string sender;
    std::string type;           // the type name, or the topic of a published message
    std::string connection;     // the sender's connection: where a response goes
    std::uint64_t request = 0;  // the sender's number for it; 0: no answer is awaited
  };

  using MessageCallback = UniqueFunction<void(const MessageEnvelope&, std::string_view payload)>;
  using SubscribeHandler = UniqueFunction<void(std::string_view payload)>;

  enum class Outcome {
    Delivered,      // a callback of the peer took it; no answer was asked for
    Answered,       // and the peer answered
    NotTaken,       // the peer is there, but has no callback for the type or refuses the sender
    Busy,           // the peer has no room for it now: try again later
    NoSuchService,  // nobody owns the name
    NotPermitted,   // the bus policy forbids it
    TimedOut,       // not acknowledged within 1 s, or not answered within the given time; or not
                    // even tried, because the receiver was given up
    Disconnected,   // the connection to the bus is gone
    Invalid,        // a limit, of ours or of the bus, or the form of a name was violated
  };
  struct Reply {
    Outcome outcome = Outcome::Disconnected;
    std::string type;     // of the answer
    std::string payload;  // of the answer
    std::string error;    // what was wrong, for a human; empty on success
  };

  virtual ~ServiceIPC() = default;

  // Calls `callback` for every message of `typeName` until the handle is closed. With
  // `allowedSenders`, messages of any other sender are refused. An empty `typeName` takes what no
  // other registration and no subscription takes. A second registration of a type replaces the
  // first for as long as it lives. A callback that has no room for a message throws Busy: the
  // message then counts as not taken, and its sender is told to try again.
  virtual AsyncCallbackHandle RegisterCallbackImpl(
      std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
      MessageCallback callback) = 0;

  // Calls `handler` with the subscriber's name whenever somebody subscribes to `topic`. Those who
  // subscribed earlier announce themselves again each time a service reports itself ready.
  virtual AsyncCallbackHandle AddSubscribeHandlerImpl(SubscribeHandler handler,
                                                      std::string_view topic) = 0;

  // Sends one message to a service ("Upgrade"), a tool ("zeltcli-1") or a connection (":1.42").
  // True when it was accepted.
  virtual std::future<bool> SendImpl(std::string_view destination, std::string_view typeName,
                                     std::string_view payload) = 0;

  // Answers a received message; the envelope may be a copy, and may outlive the callback. True
  // when the answer was accepted, and when the asker awaits none.
  virtual std::future<bool> SendResponseImpl(const MessageEnvelope& envelope,
                                             std::string_view typeName,
                                             std::string_view payload) = 0;

  // Sends a message to every subscriber of `topic`. True when it was accepted; nobody tells whether
  // it arrives. It may pass messages that wait in mailboxes; no message passes it.
  virtual std::future<bool> PublishImpl(std::string_view topic, std::string_view payload) = 0;

  // Calls `callback` for every message that `publisher` (a service or tool) publishes under `topic`
  // (empty: under any), and announces this subscriber to the publishers' subscribe handlers (not
  // for the empty topic). What `publisher` then sends to this subscriber alone under the topic's
  // name also reaches `callback`, unless a registration takes it. What comes from any connection
  // that does not own the publisher's name is dropped, with a line; an empty `publisher` believes
  // everybody, which suits tools that only show what passes. Every subscription of a process is
  // called.
  virtual AsyncCallbackHandle SubscribeImpl(std::string_view topic, std::string_view publisher,
                                            MessageCallback callback) = 0;

  // Sends a message and awaits the answer for `timeout`, 24 h at most (zero: awaits none, but that
  // the message was taken). Only the connection that got the message may answer. The future tells
  // the outcome: within 1 s when the receiver does not acknowledge the message. On the IPC thread
  // it is Invalid at once: that thread would have to receive the answer.
  virtual std::future<Reply> RequestImpl(std::string_view destination, std::string_view typeName,
                                         std::string_view payload,
                                         std::chrono::milliseconds timeout) = 0;
};

}  // namespace zelt
