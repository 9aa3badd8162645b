#include "StateWatches.h"

#include "LogCategory.h"
#include "zelt/LogClient.h"
#include "zelt/RunGuarded.h"

#include <utility>

namespace zelt {

void StateWatches::Add(const std::string& bus_name, const Callback& callback) {
  const auto id = ++last_id_;
  auto& watch = watches_[id];
  watch.bus_name = bus_name;
  watch.callback = callback;
  Ask(id, watch);
}

void StateWatches::Remove(const Callback& callback) {
  std::erase_if(watches_, [&](const auto& item) { return item.second.callback == callback; });
}

void StateWatches::OnOwnerChanged(std::string_view bus_name) {
  for (auto& [id, watch] : watches_) {
    if (watch.bus_name == bus_name) {
      Ask(id, watch);
    }
  }
}

void StateWatches::OnState(std::string_view connection, std::uint32_t state) {
  for (auto& [id, watch] : watches_) {
    if (names_.OwnerOf(watch.bus_name) == connection) {
      Tell(watch, state);
    }
  }
}

void StateWatches::OnRevived(std::string_view connection) {
  for (auto& [id, watch] : watches_) {
    if (watch.is_unknown && names_.OwnerOf(watch.bus_name) == connection) {
      Ask(id, watch);
    }
  }
}

void StateWatches::Ask(std::uint64_t id, Watch& watch) {
  const auto generation = ++watch.generation;
  watch.is_unknown = false;
  const auto owner = names_.OwnerOf(watch.bus_name);
  if (owner.empty()) {
    Tell(watch, 0);
    return;
  }
  Letter letter;
  letter.kind = Letter::Kind::AskState;
  letter.receiver = watch.bus_name;
  letter.done = [this, id, generation](const CallResult& result) {
    OnAnswer(id, generation, result);
  };
  courier_.Send(owner, std::move(letter));
}

void StateWatches::OnAnswer(std::uint64_t id, std::uint64_t generation, const CallResult& result) {
  const auto asked = watches_.find(id);
  if (asked == watches_.end() || asked->second.generation != generation) {
    return;
  }
  Watch& watch = asked->second;
  if (IsGood(result.outcome)) {
    Tell(watch, result.state);
    return;
  }
  watch.is_unknown = true;
  if (result.outcome != ServiceIPC::Outcome::NoSuchService) {  // else that is told next
    ZELT_LOG_AS("WatchState", kLogWarning, kIpcLogCategory)
        << "[" << watch.bus_name << "] does not tell its state: " << result.error;
  }
}

void StateWatches::Tell(Watch& watch, std::uint32_t state) {
  if (std::exchange(watch.told, state) != state) {
    RunGuarded(
        kIpcLogCategory, [&] { return (*watch.callback)(state); }, "Watch of [", watch.bus_name,
        "] threw an exception");
  }
}

}  // namespace zelt
