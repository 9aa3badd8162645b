#pragma once

#include "zelt/AsyncCallbackHandle.h"
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
// Nothing here throws for what happens on the bus: a peer that is absent, hung or refuses, and a
// bus that is gone, become `false` in the future within 1 s, with the cause in the log. That second
// counts from the call, but only the IPC thread can end it: whatever holds that thread up, a
// callback that takes its time or its own sends (1 s each at most), can add as much to every other
// send. A future may be waited for on any thread, the IPC thread included; there, nothing else is
// served meanwhile.
//
// A receiver that let 4 messages time out gets no more, and sends to it fail at once, until it
// answers one of them or its name changes hands; sends to others are not affected.
//
// Limits: payload 16 MiB; type and topic 1 to 255 letters, digits, '_', '-' and '.'; 1024 sends
// with 64 MiB of payload under way, 64 of them unanswered by one receiver; 1024 messages with 64
// MiB waiting for a bus that does not read. What exceeds a limit is logged at error level with the
// limit and its value, and is `false` in the future; a callback for a malformed type or topic gets
// a closed handle. Of the lines about bad messages of peers, 10 a second are logged, and then how
// many more there were.
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
    NoSuchService,  // nobody owns the name
    NotPermitted,   // the bus policy forbids it
    TimedOut,       // not delivered within 1 s, or not answered within the given time; or not even
                    // tried, because the receiver has not reacted to earlier ones
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
  // first for as long as it lives.
  virtual AsyncCallbackHandle RegisterCallbackImpl(
      std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
      MessageCallback callback) = 0;

  // Calls `handler` with the subscriber's name whenever somebody subscribes to `topic`. Those who
  // subscribed earlier announce themselves again each time a service reports itself ready.
  virtual AsyncCallbackHandle AddSubscribeHandlerImpl(SubscribeHandler handler,
                                                      std::string_view topic) = 0;

  // Delivers one message to a service ("Upgrade"), a tool ("zeltcli-1") or a connection (":1.42").
  // True when a callback of the receiver took it.
  virtual std::future<bool> SendImpl(std::string_view destination, std::string_view typeName,
                                     std::string_view payload) = 0;

  // Answers a received message; the envelope may be a copy, and may outlive the callback. True
  // when the answer reached the asker, and when the asker awaits none.
  virtual std::future<bool> SendResponseImpl(const MessageEnvelope& envelope,
                                             std::string_view typeName,
                                             std::string_view payload) = 0;

  // Sends a message to every subscriber of `topic`. True when it was handed to the connection to
  // the bus, behind everything sent before; nobody tells whether it arrives.
  virtual std::future<bool> PublishImpl(std::string_view topic, std::string_view payload) = 0;

  // Calls `callback` for every message published under `topic` (an empty topic: under any), and
  // announces this subscriber to the publishers' subscribe handlers (not for the empty topic). What
  // they then send to this subscriber alone under the topic's name also reaches `callback`, unless
  // a registration takes it. Every subscription of a process is called.
  virtual AsyncCallbackHandle SubscribeImpl(std::string_view topic, MessageCallback callback) = 0;

  // Sends a message and awaits the answer for `timeout`, 24 h at most (zero: awaits none, as
  // SendImpl, but with the cause when it fails). Only the connection that got the message may
  // answer. Called on the IPC thread with a time-out, it is Invalid: that thread would have to
  // receive the answer.
  virtual std::future<Reply> RequestImpl(std::string_view destination, std::string_view typeName,
                                         std::string_view payload,
                                         std::chrono::milliseconds timeout) = 0;
};

}  // namespace zelt
