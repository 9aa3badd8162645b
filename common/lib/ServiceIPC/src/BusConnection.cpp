// The life of a connection: opening it, its name, its end. What it sends stands in
// BusOutgoing.cpp, what it receives in BusIncoming.cpp.
#include "BusConnectionImpl.h"
#include "BusLimits.h"
#include "LogCategory.h"
#include "zelt/LogClient.h"
#include "zelt/RunGuarded.h"

#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace zelt {

namespace {

constexpr std::chrono::seconds kConnectTime{2};
constexpr std::chrono::seconds kDrainTime{1};

// The timeouts of sd-bus are counted in microseconds.
template <class Duration>
std::uint64_t Microseconds(Duration duration) {
  return static_cast<std::uint64_t>(std::chrono::microseconds(duration).count());
}

std::string BusAddress() {
  for (const char* variable : {"ZELT_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != '\0') {
      return value;
    }
  }
  return "unix:path=/run/dbus/system_bus_socket";
}

}  // namespace

std::shared_ptr<BusConnection> BusConnection::Open(std::string_view service) {
  const std::shared_ptr<BusConnectionImpl> connection(
      new BusConnectionImpl(service), [](BusConnectionImpl* last) {
        if (last->IsOnLoop()) {
          std::thread([last] { delete last; }).detach();  // the loop cannot join itself
        } else {
          delete last;
        }
      });
  connection->Start();
  return connection;
}

BusConnectionImpl::BusConnectionImpl(std::string_view service) : address_(BusAddress()) {
  Connect();
  if (!service.empty()) {
    OwnName(std::string(service));
  }
  Check(sd_bus_attach_event(bus_.get(), loop_.Event(), SD_EVENT_PRIORITY_NORMAL),
        "cannot attach the bus to the event loop");
}

BusConnectionImpl::~BusConnectionImpl() {
  loop_.Stop([this] { Teardown(); });
}

void BusConnectionImpl::Start() {
  loop_.Start();
}

void BusConnectionImpl::Connect() {
  const std::string what = "cannot connect to the bus at " + address_;
  sd_bus* bus = nullptr;
  Check(sd_bus_new(&bus), what);
  bus_.reset(bus);
  Check(sd_bus_set_address(bus, address_.c_str()), what);
  Check(sd_bus_set_bus_client(bus, 1), what);
  Check(sd_bus_set_method_call_timeout(bus, Microseconds(kConnectTime)), what);
  Check(sd_bus_set_close_on_exit(bus, 0), what);  // it would flush without a limit
  Check(sd_bus_start(bus), what);

  const auto deadline = TimerQueue::Now() + kConnectTime;
  while (Check(sd_bus_is_ready(bus), what) == 0) {
    if (Check(sd_bus_process(bus, nullptr), what) == 0) {
      const auto left = deadline - TimerQueue::Now();
      if (left <= std::chrono::microseconds(0)) {
        throw std::runtime_error(what + ": it accepts connections but does not answer");
      }
      Check(sd_bus_wait(bus, Microseconds(left)), what);
    }
  }
  const char* unique_name = nullptr;
  Check(sd_bus_get_unique_name(bus, &unique_name), what);
  unique_name_ = unique_name;

  sd_bus_slot* slot = nullptr;
  Check(sd_bus_add_object_vtable(bus, &slot, kObjectPath, kInterface, kVtable, this), what);
  slots_.emplace_back(slot);
  Check(sd_bus_add_filter(bus, &slot, &Entry<&BusConnectionImpl::OnAnything>, this), what);
  slots_.emplace_back(slot);
  AddMatch(
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0namespace='zelt'",
      &Entry<&BusConnectionImpl::OnNameOwnerChanged>);
  AddMatch(
      "type='signal',path='/zelt/ServiceIPC',interface='org.freedesktop.DBus.Properties',"
      "member='PropertiesChanged',arg0='zelt.ServiceIPC1'",
      &Entry<&BusConnectionImpl::OnPropertiesChanged>);
  AddMatch(
      "type='signal',path='/org/freedesktop/DBus/Local',"
      "interface='org.freedesktop.DBus.Local',member='Disconnected'",
      &Entry<&BusConnectionImpl::OnDisconnected>);
  FillNames();
}

void BusConnectionImpl::AddMatch(const char* rule, sd_bus_message_handler_t handler) {
  sd_bus_slot* slot = nullptr;
  Check(sd_bus_add_match(bus_.get(), &slot, rule, handler, this),
        "the bus refuses the match " + std::string(rule));
  slots_.emplace_back(slot);
}

// After the match: a change on the way is then told, and is told after what is read here.
void BusConnectionImpl::FillNames() {
  char** names = nullptr;
  Check(sd_bus_list_names(bus_.get(), &names, nullptr), "cannot list the names on the bus");
  std::vector<std::string> listed;
  for (char** name = names; *name != nullptr; ++name) {
    listed.emplace_back(*name);
    std::free(*name);
  }
  std::free(static_cast<void*>(names));
  for (const auto& name : listed) {
    if (!ServiceNameOf(name)) {
      continue;
    }
    sd_bus_message* raw = nullptr;
    const int result = sd_bus_call_method(bus_.get(), "org.freedesktop.DBus",
                                          "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                          "GetNameOwner", nullptr, &raw, "s", name.c_str());
    const MessagePtr reply(raw);
    const char* owner = nullptr;
    if (result >= 0 && sd_bus_message_read(raw, "s", &owner) > 0) {
      names_.Set(name, owner);
    }  // else it was given up meanwhile
  }
}

void BusConnectionImpl::OwnName(const std::string& service) {
  const auto bus_name = BusNameOf(service);
  if (!bus_name || service.starts_with(':')) {
    throw std::runtime_error("\"" + service +
                             "\" is no name of a service (letters, digits, '_' and '-', no digit "
                             "first) or of a tool (\"zeltcli-\" and digits)");
  }
  const int result = sd_bus_request_name(bus_.get(), bus_name->c_str(), 0);
  if (result == -EEXIST) {
    throw std::runtime_error("the name " + *bus_name + " is taken: " + service +
                             " is running already");
  }
  Check(result, "the bus does not let this process own the name " + *bus_name);
  own_bus_name_ = *bus_name;
  names_.Set(own_bus_name_, unique_name_);
}

bool BusConnectionImpl::IsOpen() const {
  return bus_ && sd_bus_is_open(bus_.get()) > 0;
}

// On the loop's thread, as its last work.
void BusConnectionImpl::Teardown() {
  for (auto& [id, call] : std::exchange(calls_, {})) {
    call.handler({Outcome::Disconnected, nullptr, "the connection to the bus was closed"});
  }
  requests_.clear();
  if (IsOpen() && !own_bus_name_.empty()) {
    // Waits for the bus, so that who comes after finds the name free.
    sd_bus_release_name(bus_.get(), own_bus_name_.c_str());
  }
  matches_.clear();
  watches_.clear();
  slots_.clear();

  // Nothing of ours is called any more; a bus that does not read must not hold the process up.
  const auto deadline = TimerQueue::Now() + kDrainTime;
  std::uint64_t queued = 0;
  while (IsOpen() && sd_bus_get_n_queued_write(bus_.get(), &queued) >= 0 && queued > 0) {
    pollfd descriptor{sd_bus_get_fd(bus_.get()), POLLOUT, 0};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - TimerQueue::Now());
    if (left.count() <= 0 || poll(&descriptor, 1, static_cast<int>(left.count())) <= 0 ||
        sd_bus_process(bus_.get(), nullptr) < 0) {
      break;
    }
  }
  sd_bus_detach_event(bus_.get());
  sd_bus_close(bus_.get());
  bus_.reset();
}

AsyncCallbackHandle BusConnectionImpl::AddTimer(std::string_view name,
                                                UniqueFunction<void()> callback, Seconds interval,
                                                bool periodic) {
  return loop_.AddTimer(name, std::move(callback), interval, periodic);
}

AsyncCallbackHandle BusConnectionImpl::WatchSignals(std::initializer_list<int> signals,
                                                    UniqueFunction<void(int)> callback) {
  return loop_.WatchSignals(signals, std::move(callback));
}

AsyncCallbackHandle BusConnectionImpl::WatchDisconnect(UniqueFunction<void()> callback) {
  auto watch = std::make_shared<RevocableCallback<>>(std::move(callback));
  loop_.Post([this, watch] {
    if (lost_) {
      (*watch)();
    } else {
      disconnect_watches_.push_back(watch);
    }
  });
  return AsyncCallbackHandle([weak = weak_from_this(), watch] {
    if (const auto self = weak.lock()) {
      self->loop_.Post(
          [self = self.get(), watch] { std::erase(self->disconnect_watches_, watch); });
    }
    watch->Revoke();
  });
}

int BusConnectionImpl::OnDisconnected(sd_bus_message*, sd_bus_error*) {
  lost_ = true;
  late_.clear();
  peers_.clear();
  ZELT_LOG(kLogError, kIpcLogCategory) << "Lost the connection to the bus at " << address_;
  while (!requests_.empty()) {
    FinishRequest(requests_.begin()->first,
                  {Outcome::Disconnected, "", "", "the connection to the bus was lost"});
  }
  for (const auto& watch : std::exchange(disconnect_watches_, {})) {
    RunGuarded(kIpcLogCategory, [&] { (*watch)(); }, "Watch of the connection threw an exception");
  }
  return 0;
}

void BusConnectionImpl::Flush() {
  loop_.PostAndWait([] {});
}

std::vector<std::string> BusConnectionImpl::ListNames() {
  std::vector<std::string> names;
  loop_.PostAndWait([&] { names = names_.All(); });
  return names;
}

}  // namespace zelt
