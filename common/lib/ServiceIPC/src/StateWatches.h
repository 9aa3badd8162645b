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

  // Asks the new owner of a name for its state, or tells that there is none.
  void OnOwnerChanged(std::string_view bus_name);
  // Tells whoever watches the owner of a connection which state that has told.
  void OnState(std::string_view connection, std::uint32_t state);
  // Asks a receiver that answers again for the state that it was not asked while it was given up.
  void OnRevived(std::string_view connection);

  // Forgets the watchers: nobody is told anything any more.
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
