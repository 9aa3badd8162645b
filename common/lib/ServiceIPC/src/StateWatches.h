#pragma once

#include "BusNames.h"
#include "Courier.h"
#include "zelt/RevocableCallback.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zelt {

// The states of others that are watched: each watch is told the state of its service soon, and then
// every change; 0 while nobody owns the name.
//
// On the loop's thread only, and nothing is called from inside a callback. Names and courier must
// outlive this object.
class StateWatches {
 public:
  using Callback = std::shared_ptr<RevocableCallback<std::uint32_t>>;

  StateWatches(const NameMap& names, Courier& courier) : names_(names), courier_(courier) {}
  StateWatches(const StateWatches&) = delete;
  StateWatches& operator=(const StateWatches&) = delete;

  void Add(const std::string& bus_name, const Callback& callback);
  void Remove(const Callback& callback);

  // The name has another owner, or none.
  void OnOwnerChanged(std::string_view bus_name);
  // The owner of a connection has told its state.
  void OnState(std::string_view connection, std::uint32_t state);
  // A receiver that was given up answers again: what it was to be asked is asked now.
  void OnRevived(std::string_view connection);

  // Nobody is told anything any more.
  void Close() { watches_.clear(); }

 private:
  struct Watch {
    std::string bus_name;
    Callback callback;
    std::optional<std::uint32_t> told;
    bool is_unknown = false;       // the owner could not be asked
    std::uint64_t generation = 0;  // counts the owners that the name has had
  };

  void Ask(std::uint64_t id, Watch& watch);
  void OnAnswer(std::uint64_t id, std::uint64_t generation, const CallResult& result);
  static void Tell(Watch& watch, std::uint32_t state);

  const NameMap& names_;
  Courier& courier_;
  std::map<std::uint64_t, Watch> watches_;
  std::uint64_t last_id_ = 0;
};

}  // namespace zelt
