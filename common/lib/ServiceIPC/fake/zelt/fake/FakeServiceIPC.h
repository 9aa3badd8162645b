#pragma once

#include "zelt/RevocableCallback.h"
#include "zelt/ServiceIPC.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelt::fake {

// The bus of a test: remembers what the code under test sends, and delivers what the test says.
//
// Any thread may call any operation. Deliver and Subscribe run the callbacks on the calling thread,
// which plays the IPC thread.
class FakeServiceIPC : public ServiceIPC {
 public:
  enum class Kind { Send, Response, Publish, Request };
  struct Record {
    Kind kind = Kind::Send;
    std::string peer;  // destination of a send or request, asker of a response, empty for a publish
    std::string type;  // the topic of a publish
    std::string payload;
    std::uint64_t request = 0;  // of a response: the number that it answers

    bool operator==(const Record&) const = default;
  };
  enum class Result {
    True,
    False,
    Throw,  // the future holds a std::runtime_error
    Never,  // the future does not become ready while the fake lives
  };
  struct Registration {
    bool is_topic = false;  // a subscribe handler, else a message callback
    std::string name;
    bool has_allowed_senders = false;
    bool is_open = true;

    bool operator==(const Registration&) const = default;
  };

  // What every call comes to; without it, True. Runs on the caller's thread.
  void SetResult(std::function<Result(const Record&)> result) {
    const std::lock_guard lock(mutex_);
    result_ = std::move(result);
  }
  // Everything sent, answered, published and requested so far, in order.
  std::vector<Record> Records() const {
    const std::lock_guard lock(mutex_);
    return records_;
  }
  // Every callback and subscribe handler that was ever registered, in order.
  std::vector<Registration> Registrations() const {
    const std::lock_guard lock(mutex_);
    std::vector<Registration> result;
    for (const auto& entry : entries_) {
      if (entry->kind != EntryKind::Subscription) {
        result.push_back({entry->kind == EntryKind::Handler, entry->name,
                          entry->allowed_senders.has_value(), entry->is_open});
      }
    }
    return result;
  }

  // Delivers one message as the platform would. True when a callback took it; false when there is
  // none for the type, or it does not allow the sender, or it threw.
  bool Deliver(std::string_view type, std::string_view sender, std::string_view payload,
               std::uint64_t request = 0) {
    auto entry = Find(EntryKind::Callback, type);
    if (!entry) {
      entry = Find(EntryKind::Subscription, type);
    }
    if (!entry) {
      entry = Find(EntryKind::Callback, "");
    }
    if (!entry) {
      return false;
    }
    const auto& allowed = entry->allowed_senders;
    if (allowed && std::ranges::count(*allowed, sender) == 0) {
      return false;
    }
    return Call(*entry, Envelope(type, sender, request), payload);
  }

  // Announces `subscriber` to every subscribe handler of `topic`; returns how many there are.
  int Subscribe(std::string_view topic, std::string_view subscriber) {
    int called = 0;
    for (const auto& entry : Open(EntryKind::Handler)) {
      if (entry->name == topic) {
        called += Call(*entry, Envelope(topic, subscriber, 0), subscriber) ? 1 : 0;
      }
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
    return Add(EntryKind::Callback, typeName, std::move(allowed), std::move(callback));
  }

  AsyncCallbackHandle AddSubscribeHandlerImpl(SubscribeHandler handler,
                                              std::string_view topic) override {
    return Add(EntryKind::Handler, topic, std::nullopt,
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

  AsyncCallbackHandle SubscribeImpl(std::string_view topic, MessageCallback callback) override {
    return Add(EntryKind::Subscription, topic, std::nullopt, std::move(callback));
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
  enum class EntryKind { Callback, Handler, Subscription };
  using Callback = RevocableCallback<const MessageEnvelope&, std::string_view>;
  struct Entry {
    EntryKind kind;
    std::string name;
    std::optional<std::vector<std::string>> allowed_senders;
    std::shared_ptr<Callback> callback;
    bool is_open = true;  // guarded by mutex_
  };

  static MessageEnvelope Envelope(std::string_view type, std::string_view sender,
                                  std::uint64_t request) {
    return {std::string(sender), std::string(type), ":fake." + std::string(sender), request};
  }

  static bool Call(Entry& entry, const MessageEnvelope& envelope, std::string_view payload) {
    try {
      return (*entry.callback)(envelope, payload);
    } catch (const std::exception&) {
      return false;  // never crosses the platform
    }
  }

  AsyncCallbackHandle Add(EntryKind kind, std::string_view name,
                          std::optional<std::vector<std::string>> allowed,
                          MessageCallback callback) {
    auto entry = std::make_shared<Entry>(Entry{kind, std::string(name), std::move(allowed),
                                               std::make_shared<Callback>(std::move(callback))});
    {
      const std::lock_guard lock(mutex_);
      entries_.push_back(entry);
    }
    return AsyncCallbackHandle([entry, mutex = mutex_owner_] {
      {
        const std::lock_guard lock(*mutex);
        entry->is_open = false;
      }
      entry->callback->Revoke();
    });
  }

  std::vector<std::shared_ptr<Entry>> Open(EntryKind kind) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<Entry>> open;
    std::ranges::copy_if(entries_, std::back_inserter(open), [kind](const auto& entry) {
      return entry->is_open && entry->kind == kind;
    });
    return open;
  }

  std::shared_ptr<Entry> Find(EntryKind kind, std::string_view name) const {
    const auto open = Open(kind);
    std::shared_ptr<Entry> latest;
    for (const auto& entry : open) {
      latest = entry->name == name ? entry : latest;
    }
    return latest;
  }

  std::future<bool> Finish(const Record& record) {
    std::promise<bool> promise;
    auto future = promise.get_future();
    std::function<Result(const Record&)> decide;
    {
      const std::lock_guard lock(mutex_);
      records_.push_back(record);
      decide = result_;
    }
    const auto result = decide ? decide(record) : Result::True;
    switch (result) {
      case Result::True:
      case Result::False:
        promise.set_value(result == Result::True);
        break;
      case Result::Throw:
        promise.set_exception(std::make_exception_ptr(std::runtime_error("the fake bus failed")));
        break;
      case Result::Never: {
        const std::lock_guard lock(mutex_);
        never_.push_back(std::move(promise));
        break;
      }
    }
    return future;
  }

  std::shared_ptr<std::mutex> mutex_owner_ = std::make_shared<std::mutex>();  // handles may outlive
  std::mutex& mutex_ = *mutex_owner_;

  // guarded by mutex_
  std::vector<Record> records_;
  std::vector<std::shared_ptr<Entry>> entries_;
  std::function<Result(const Record&)> result_;
  std::vector<std::promise<bool>> never_;
};

}  // namespace zelt::fake
