#pragma once

#include "BusNames.h"
#include "BusObject.h"
#include "Courier.h"
#include "EventLoop.h"
#include "LineLimit.h"
#include "Receivers.h"
#include "Requests.h"
#include "SdBus.h"
#include "StateWatches.h"
#include "zelt/BusConnection.h"
#include "zelt/RevocableCallback.h"

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelt {

// Puts together what a connection is made of; each part has its own header, which is all that one
// has to know of it. What is on the bus and who calls whom stands in docs/ipc.md.
//
//   names_     who is who             object_     what others call, and the properties
//   courier_   what is on its way     receivers_  who listens
//   requests_  what awaits an answer  watches_    states of others
//
// sd-bus is touched on the loop's thread only, except by the constructor, which runs before there
// is one. Callbacks of the user's are called where no exception of theirs reaches sd-bus.
class BusConnectionImpl final : public BusConnection,
                                public std::enable_shared_from_this<BusConnectionImpl> {
 public:
  explicit BusConnectionImpl(std::string_view service);
  BusConnectionImpl(const BusConnectionImpl&) = delete;
  BusConnectionImpl& operator=(const BusConnectionImpl&) = delete;
  ~BusConnectionImpl() override;  // not on the loop's thread

  void Start() { loop_.Start(); }
  bool IsOnLoop() const { return loop_.IsOnLoop(); }

  AsyncCallbackHandle RegisterCallbackImpl(
      std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
      MessageCallback callback) override;
  AsyncCallbackHandle AddSubscribeHandlerImpl(SubscribeHandler handler,
                                              std::string_view topic) override;
  std::future<bool> SendImpl(std::string_view destination, std::string_view typeName,
                             std::string_view payload) override;
  std::future<bool> SendResponseImpl(const MessageEnvelope& envelope, std::string_view typeName,
                                     std::string_view payload) override;
  std::future<bool> PublishImpl(std::string_view topic, std::string_view payload) override;
  AsyncCallbackHandle SubscribeImpl(std::string_view topic, std::string_view publisher,
                                    MessageCallback callback) override;
  std::future<Reply> RequestImpl(std::string_view destination, std::string_view typeName,
                                 std::string_view payload,
                                 std::chrono::milliseconds timeout) override;

  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               Seconds interval, bool periodic) override;
  void SetState(std::uint32_t state) override;
  AsyncCallbackHandle WatchState(std::string_view service,
                                 UniqueFunction<void(std::uint32_t)> callback) override;
  std::future<StateReply> QueryState(std::string_view service, Seconds timeout) override;
  std::vector<std::string> ListNames() override { return names_.All(); }
  AsyncCallbackHandle WatchDisconnect(UniqueFunction<void()> callback) override;
  void Flush() override { courier_.Drain(); }
  Counters GetCounters() const override { return courier_.GetCounters(); }

 private:
  AsyncCallbackHandle Listen(Receivers::Kind kind, std::string_view name,
                             std::optional<std::vector<std::string>> senders,
                             MessageCallback callback);
  bool Send(Letter::Kind kind, const std::optional<std::string>& bus_name,
            std::string_view receiver, std::string_view type, std::string_view payload,
            std::uint64_t request);
  void ReleaseName();
  void Teardown();

  // They return what sd-bus expects: 0 when others may also have it.
  int OnNameOwnerChanged(sd_bus_message* message);
  int OnPropertiesChanged(sd_bus_message* message);
  int OnDisconnected(sd_bus_message* message);
  template <int (BusConnectionImpl::*handler)(sd_bus_message*)>
  static int Entry(sd_bus_message* message, void* self, sd_bus_error*) noexcept {
    return (static_cast<BusConnectionImpl*>(self)->*handler)(message);
  }

  // constant after construction
  std::string address_;
  std::string own_bus_name_;  // empty: none
  std::string unique_name_;

  std::atomic<std::uint32_t> state_{0};  // as it was set; the object has what was told

  EventLoop loop_;
  NameMap names_;
  LineLimit lines_;
  Courier courier_;
  Requests requests_;
  Receivers receivers_;

  // touched by the loop's thread only, once it runs
  BusPtr bus_;
  BusObject object_;
  StateWatches watches_;
  bool lost_ = false;
  std::vector<std::shared_ptr<RevocableCallback<>>> disconnect_watches_;
  std::shared_ptr<std::promise<void>> released_;  // its name; outlives the slot
  std::vector<SlotPtr> slots_;                    // for the life of the connection
};

}  // namespace zelt
