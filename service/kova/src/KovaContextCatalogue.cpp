// Registers for everything that kova/Accepted.def lists.

#include "HandlerSignature.h"
#include "KovaContext.h"
#include "Log.h"

#include <google/protobuf/arena.h>

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <type_traits>

namespace zelt {

struct Catalogue {
  using Envelope = ServiceIPC::MessageEnvelope;
  using Context = KovaContext;

  enum class From { Anyone, Tools };
  // Where a message goes: only what is for the radio needs room at the link.
  enum class Goes { ToRadio, NoFurther };

  struct Entry {
    std::string_view message;  // tells the types apart when this is compiled
    AsyncCallbackHandle (*registration)(KovaContext&);
  };

  template <class T>
  static constexpr std::string_view Distinct() {
    return __PRETTY_FUNCTION__;
  }

  // A message in an arena, which knows what memory it takes: many empty parts take thirty times
  // what they took on the bus.
  template <class T>
  struct Parsed {
    google::protobuf::Arena arena;
    T& message = *google::protobuf::Arena::CreateMessage<T>(&arena);
  };

  // Makes the registration of a message: what arrives is parsed, logged and queued. Busy leaves
  // through the callback when there is no room for it.
  template <From from, Goes goes, class T, auto handler>
  static AsyncCallbackHandle RegisterMessage(KovaContext& context) {
    using Signature = HandlerSignature<decltype(handler)>;
    static_assert(std::is_same_v<typename Signature::Message, T>, "the handler takes another type");
    return context.service_ipc->RegisterCallbackImpl(
        TypeName<T>(), std::nullopt,
        [&context](const Envelope& envelope, std::string_view payload) {
          auto parsed = std::make_unique<Parsed<T>>();
          if (!parsed->message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) {
            ZELT_LOG_AS("RegisterCallback", kLogError, kIpcLog)
                << "Failed to unpack IPC message of type " << TypeName<T>();
            return;
          }
          ZELT_LOG_AS("RegisterCallback", kLogVerbose, kIpcLog)
              << "Calling ipc callback for " << TypeName<T>();
          ZELT_LOG_AS("RegisterCallback", kLogDebug, kIpcLog)
              << "Received [" << TypeName<T>() << "] from [" << envelope.sender << "]";
          if (from == From::Tools && !envelope.sender.starts_with("zeltcli-")) {
            return;
          }
          auto room = goes == Goes::ToRadio ? context.PromiseRoom(payload.size())
                                            : PromisedRoom(context.promised_to_radio, 0);
          const std::size_t bytes =
              KovaContext::kTaskBytes + payload.size() + parsed->arena.SpaceAllocated();
          const auto push = [&](auto task) {
            context.task_queue.Push(std::move(task), envelope.sender, bytes);
          };
          if constexpr (Signature::kTakesEnvelope) {
            // `envelope = envelope`: a plain copy would be const, and copied again by every move.
            push([&context, envelope = envelope, parsed = std::move(parsed),
                  room = std::move(room)] { (context.*handler)(envelope, parsed->message); });
          } else {
            push([&context, parsed = std::move(parsed), room = std::move(room)] {
              (context.*handler)(parsed->message);
            });
          }
        });
  }

  // Subscribers whose announcement waits: telling them twice would tell them the same.
  struct Announced {
    std::mutex mutex;
    std::set<std::string, std::less<>> names;  // guarded by mutex
  };

  // Makes the registration of a topic: each new subscriber is queued. Never refused: one task for
  // each subscriber is bounded by the bus, and nobody could tell him.
  template <class T, auto handler>
  static AsyncCallbackHandle RegisterSubscription(KovaContext& context) {
    return context.service_ipc->AddSubscribeHandlerImpl(
        [&context, announced = std::make_shared<Announced>()](std::string_view payload) {
          {
            const std::lock_guard lock(announced->mutex);
            if (!announced->names.emplace(payload).second) {
              return;
            }
          }
          context.task_queue.PushAlways([&context, announced, subscriber = std::string(payload)] {
            {
              const std::lock_guard lock(announced->mutex);
              announced->names.erase(subscriber);
            }
            (context.*handler)(subscriber);
          });
        },
        TypeName<T>());
  }

  static constexpr auto Entries() {
    return std::to_array<Entry>({
#define KOVA_MESSAGE(from, goes, package, message, handler, answer, detail) \
  {Distinct<package::message>(),                                            \
   &RegisterMessage<From::from, Goes::goes, package::message, &Context::handler>},
#define KOVA_TOPIC(package, message, handler) \
  {Distinct<package::message>(), &RegisterSubscription<package::message, &Context::handler>},
#define KOVA_PUBLISHED(package, message)
#include "kova/Accepted.def"
    });
  }
};

namespace {

constexpr auto kCatalogue = Catalogue::Entries();

static_assert(std::ranges::all_of(kCatalogue,
                                  [](const Catalogue::Entry& entry) {
                                    return std::ranges::count(kCatalogue, entry.message,
                                                              &Catalogue::Entry::message) == 1;
                                  }),
              "a type is listed twice");

}  // namespace

void KovaContext::RegisterIpcCallbacks() {
  registration_handles.reserve(registration_handles.size() + kCatalogue.size());
  for (const Catalogue::Entry& entry : kCatalogue) {
    registration_handles.push_back(entry.registration(*this));
  }
}

}  // namespace zelt
