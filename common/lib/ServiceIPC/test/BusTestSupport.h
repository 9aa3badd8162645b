#pragma once

#include "SdBus.h"
#include "zelt/BusConnection.h"
#include "zelt/fake/LogCapture.h"
#include "zelt/fake/TestBus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace zelt::test {

using fake::LogCapture;
using fake::TestBus;
using namespace std::chrono_literals;
using Envelope = ServiceIPC::MessageEnvelope;
using Outcome = ServiceIPC::Outcome;

constexpr auto kDeadline = 60s;  // of whatever is waited for

// The value of a future; throws when it does not come.
template <class T>
T Get(std::future<T> future) {
  if (future.wait_for(kDeadline) != std::future_status::ready) {
    throw std::runtime_error("nothing came");
  }
  return future.get();
}

// What callbacks heard, in order, for a test to wait for.
class Inbox {
 public:
  void Put(std::string text) {
    const std::lock_guard lock(mutex_);
    texts_.push_back(std::move(text));
    changed_.notify_all();
  }
  // Waits once in vain, not each time.
  std::string Next() {
    std::unique_lock lock(mutex_);
    const auto patience = std::exchange(patience_, 0s);
    if (!changed_.wait_for(lock, patience, [this] { return !texts_.empty(); })) {
      return "nothing came";
    }
    patience_ = patience;
    auto text = std::move(texts_.front());
    texts_.pop_front();
    return text;
  }
  auto Note(std::string prefix = "") {
    return [this, prefix = std::move(prefix)](const Envelope& envelope, std::string_view payload) {
      Put(prefix + envelope.sender + ":" + std::string(payload));
    };
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> texts_;
  std::chrono::seconds patience_ = kDeadline;
};

// A peer that is none of ours and speaks D-Bus by hand. It answers nothing by itself: as long as
// nobody calls it, it is a peer that hangs.
class Stranger {
 public:
  explicit Stranger(const std::vector<std::string>& names = {}) {
    sd_bus* bus = nullptr;
    Check(sd_bus_new(&bus), "new");
    bus_.reset(bus);
    Check(sd_bus_set_address(bus, std::getenv("ZELT_BUS_ADDRESS")), "address");
    Check(sd_bus_set_bus_client(bus, 1), "client");
    Check(sd_bus_start(bus), "start");
    for (const auto& name : names) {
      Check(sd_bus_request_name(bus, name.c_str(), 0), name);
    }
  }
  std::string Name() const {
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(bus_.get(), &name), "unique name");
    return name;
  }
  // "true", "false" or the name of the error.
  template <class... Arguments>
  std::string Call(const std::string& destination, const char* member, Arguments... arguments) {
    const MessagePtr call = NewCall(destination, member);
    Check(sd_bus_message_append(call.get(), arguments...), "append");
    return Call(call);
  }
  std::string Send(const std::string& destination, const std::string& type,
                   const std::string& payload = "") {
    const MessagePtr call = NewCall(destination, "Send");
    Check(sd_bus_message_append(call.get(), "s", type.c_str()), "append");
    Check(sd_bus_message_append_array(call.get(), 'y', payload.data(), payload.size()), "append");
    Check(sd_bus_message_append(call.get(), "t", std::uint64_t{0}), "append");
    return Call(call);
  }
  template <class... Arguments>
  void Signal(const std::string& destination, const char* path, const char* interface,
              const char* member, Arguments... arguments) {
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_signal(bus_.get(), &raw, path, interface, member), "signal");
    const MessagePtr signal(raw);
    Check(sd_bus_message_append(raw, arguments...), "append");
    sd_bus_message_set_destination(raw, destination.empty() ? nullptr : destination.c_str());
    Check(sd_bus_send(bus_.get(), raw, nullptr), "send");
  }
  template <class... Arguments>
  void Publish(Arguments... arguments) {
    Signal("", "/zelt/ServiceIPC", "zelt.ServiceIPC1", "Published", arguments...);
  }
  sd_bus* Bus() { return bus_.get(); }

 private:
  MessagePtr NewCall(const std::string& destination, const char* member) {
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_method_call(bus_.get(), &raw, destination.c_str(), "/zelt/ServiceIPC",
                                         "zelt.ServiceIPC1", member),
          "call");
    return MessagePtr(raw);
  }
  std::string Call(const MessagePtr& call) {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int result = sd_bus_call(bus_.get(), call.get(), 0, &error.error, &raw);
    const MessagePtr reply(raw);
    int taken = 0;
    if (result < 0 || sd_bus_message_read(raw, "b", &taken) < 0) {
      return error.error.name != nullptr ? error.error.name : ErrorText(result);
    }
    return taken != 0 ? "true" : "false";
  }

  BusPtr bus_;
};

class BusTest : public testing::Test {
 protected:
  // Returns when `connection`, which owns `name`, knows all that happened on the bus before.
  static void Settle(BusConnection& connection, std::string_view name) {
    Get(connection.QueryState(name, kDeadline));
  }

  // True once some line of the log has `part`.
  bool Logs(std::string_view part) const { return log_.WaitFor(part, kDeadline); }

  TestBus bus_;
  LogCapture log_;
  Inbox inbox_;
};

}  // namespace zelt::test
