#pragma once

#include "zelt/RevocableCallback.h"
#include "zelt/ServiceIPC.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zelt::fake {

// The bus of a test: shows it what the code under test sends, and delivers what the test says.
//
// Owned by a shared_ptr; handles may outlive it. Any thread may call any operation. Deliver and
// Subscribe run the callbacks on the calling thread, which plays the IPC thread.
class FakeServiceIPC : public ServiceIPC, public std::enable_shared_from_this<FakeServiceIPC> {
 public:
  enum class Kind { Send, Response, Publish, Request };
  struct Record {
    Kind kind = Kind::Send;
    std::string peer;  // destination of a send or request, asker of a response, empty for a publish
    std::string type;  // the topic of a publish
    std::string payload;
    std::uint64_t request = 0;  // of a response: the number that it answers
  };
  enum class Result { True, False };
  struct Registration {
    bool is_topic = false;  // a subscribe handler, else a message callback
    std::string name;
    bool has_allowed_senders = false;
    bool is_open = true;

    bool operator==(const Registration&) const = default;
  };

  // Sees everything that is sent, answered, published and requested, on the caller's thread, and
  // says whether it is accepted; without it, True.
  void SetResult(std::function<Result(const Record&)> result) {
    const std::lock_guard lock(mutex_);
    result_ = std::move(result);
  }
  // Every callback and subscribe handler that was ever registered, in order.
  std::vector<Registration> Registrations() const {
    const std::lock_guard lock(mutex_);
    std::vector<Registration> result;
    std::ranges::transform(entries_, std::back_inserter(result),
                           [](const auto& entry) { return entry->registration; });
    return result;
  }

  // Delivers one message as the platform would. True when a callback took it; false when there is
  // none for the type, or it does not allow the sender, or it threw, be it Busy or another.
  bool Deliver(std::string_view type, std::string_view sender, std::string_view payload,
               std::uint64_t request = 0) {
    auto entries = Open(false, type);
    if (entries.empty()) {
      entries = Open(false, "");
    }
    if (entries.empty()) {
      return false;
    }
    const Entry& latest = *entries.back();
    const auto& allowed = latest.allowed_senders;
    return (!allowed || std::ranges::count(*allowed, sender) != 0) &&
           Call(latest, Envelope(type, sender, request), payload);
  }

  // Announces `subscriber` to every subscribe handler of `topic`; returns how many there are.
  int Subscribe(std::string_view topic, std::string_view subscriber) {
    int called = 0;
    for (const auto& entry : Open(true, topic)) {
      called += Call(*entry, Envelope(topic, subscriber, 0), subscriber) ? 1 : 0;
    }
    return called;
  }

  AsyncCallbackHandle RegisterCallbackImpl(
      std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
      MessageCallback callback) override {
    std::optional<std::vector<std::string>> allowed;
    if (allowedSenders) {
      allowed.emplace(allowedSenders->begin(), allowedSenders->end());
    }
    return Add(false, typeName, std::move(allowed), std::move(callback));
  }

  AsyncCallbackHandle AddSubscribeHandlerImpl(SubscribeHandler handler,
                                              std::string_view topic) override {
    return Add(true, topic, std::nullopt,
               [handler = std::move(handler)](
                   const MessageEnvelope&, std::string_view payload) mutable { handler(payload); });
  }

  std::future<bool> SendImpl(std::string_view destination, std::string_view typeName,
                             std::string_view payload) override {
    return Finish(
        {Kind::Send, std::string(destination), std::string(typeName), std::string(payload)});
  }

  std::future<bool> SendResponseImpl(const MessageEnvelope& envelope, std::string_view typeName,
                                     std::string_view payload) override {
    return Finish({Kind::Response, envelope.sender, std::string(typeName), std::string(payload),
                   envelope.request});
  }

  std::future<bool> PublishImpl(std::string_view topic, std::string_view payload) override {
    return Finish({Kind::Publish, "", std::string(topic), std::string(payload)});
  }

  // Nothing is published on a fake bus.
  AsyncCallbackHandle SubscribeImpl(std::string_view, std::string_view, MessageCallback) override {
    return {};
  }

  // Recorded, and answered by nobody.
  std::future<Reply> RequestImpl(std::string_view destination, std::string_view typeName,
                                 std::string_view payload, std::chrono::milliseconds) override {
    Finish({Kind::Request, std::string(destination), std::string(typeName), std::string(payload)});
    std::promise<Reply> promise;
    promise.set_value({Outcome::NoSuchService, "", "", "nobody is on a fake bus"});
    return promise.get_future();
  }

 private:
  using Callback = RevocableCallback<const MessageEnvelope&, std::string_view>;
  struct Entry {
    Registration registration;
    std::optional<std::vector<std::string>> allowed_senders;
    std::shared_ptr<Callback> callback;
  };

  static MessageEnvelope Envelope(std::string_view type, std::string_view sender,
                                  std::uint64_t request) {
    return {std::string(sender), std::string(type), ":fake." + std::string(sender), request};
  }

  static bool Call(const Entry& entry, const MessageEnvelope& envelope, std::string_view payload) {
    try {
      return (*entry.callback)(envelope, payload);
    } catch (const std::exception&) {
      return false;  // never crosses the platform
    }
  }

  AsyncCallbackHandle Add(bool is_topic, std::string_view name,
                          std::optional<std::vector<std::string>> allowed,
                          MessageCallback callback) {
    const Registration registration{is_topic, std::string(name), allowed.has_value()};
    auto entry = std::make_shared<Entry>(
        Entry{registration, std::move(allowed), std::make_shared<Callback>(std::move(callback))});
    {
      const std::lock_guard lock(mutex_);
      entries_.push_back(entry);
    }
    return AsyncCallbackHandle([weak = weak_from_this(), entry] {
      if (const auto self = weak.lock()) {
        const std::lock_guard lock(self->mutex_);
        entry->registration.is_open = false;
      }
      entry->callback->Revoke();
    });
  }

  std::vector<std::shared_ptr<Entry>> Open(bool is_topic, std::string_view name) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<Entry>> open;
    std::ranges::copy_if(entries_, std::back_inserter(open), [&](const auto& entry) {
      const auto& registration = entry->registration;
      return registration.is_open && registration.is_topic == is_topic && registration.name == name;
    });
    return open;
  }

  std::future<bool> Finish(const Record& record) {
    std::function<Result(const Record&)> decide;
    {
      const std::lock_guard lock(mutex_);
      decide = result_;
    }
    std::promise<bool> promise;
    promise.set_value(!decide || decide(record) == Result::True);
    return promise.get_future();
  }

  mutable std::mutex mutex_;
  // guarded by mutex_
  std::vector<std::shared_ptr<Entry>> entries_;
  std::function<Result(const Record&)> result_;
};

}  // namespace zelt::fake
