#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace zelt::cli {

// Where the answer to a message goes that a tool sends to Kova. The service's own list tells it.
enum class Answer : std::uint8_t {
  None,       // there is none
  Response,   // to the request itself
  Message,    // as a message to the tool's own name
  Elsewhere,  // the radio's answer goes to another service, or is published
};

struct AcceptedType {
  std::string_view type;
  Answer answer;
  std::string_view detail;  // the type of the answer, or who gets it
};

// In the order of the service's list.
inline constexpr auto kAcceptedByKova = std::to_array<AcceptedType>({
#define KOVA_MESSAGE(from, goes, package, message, handler, answer, detail) \
  {#package "." #message, Answer::answer, detail},
#define KOVA_TOPIC(package, message, handler)
#define KOVA_PUBLISHED(package, message)
#include "kova/Accepted.def"
});

// What can be subscribed to, sorted.
inline constexpr auto kTopicsOfKova = [] {
  auto topics = std::to_array<std::string_view>({
#define KOVA_MESSAGE(from, goes, package, message, handler, answer, detail)
#define KOVA_TOPIC(package, message, handler) #package "." #message,
#define KOVA_PUBLISHED(package, message) #package "." #message,
#include "kova/Accepted.def"
  });
  std::ranges::sort(topics);
  return topics;
}();

// Returns nullptr for a type that Kova does not take.
constexpr const AcceptedType* FindAccepted(std::string_view type) {
  for (const AcceptedType& accepted : kAcceptedByKova) {
    if (accepted.type == type) {
      return &accepted;
    }
  }
  return nullptr;
}

}  // namespace zelt::cli
