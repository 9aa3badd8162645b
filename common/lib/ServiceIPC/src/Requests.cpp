#include "Requests.h"

#include "BusLimits.h"

#include <optional>
#include <utility>
#include <vector>

namespace zelt {

namespace {

using Outcome = ServiceIPC::Outcome;

Requests::Answer Failure(Outcome outcome, std::string error) {
  return {{outcome, "", "", std::move(error)}};
}

}  // namespace

void Requests::Ask(const std::string& bus_name, Letter letter, std::chrono::microseconds delivery,
                   Milliseconds answer, Done done) {
  Request request;
  request.bus_name = bus_name;
  request.peer = names_.OwnerOf(bus_name);
  request.type = letter.type;
  request.receiver = letter.receiver;
  request.answer = answer;
  request.answer_deadline = TimerQueue::Now() + answer;
  request.done = std::move(done);
  const std::string peer = request.peer;
  std::uint64_t id = 0;
  std::optional<Answer> refusal;
  {
    const Lock lock(mutex_);
    if (closed_) {
      refusal = Failure(Outcome::Disconnected, *closed_);
    } else if (requests_.size() >= kMaxRequests) {
      refusal = Failure(Outcome::Invalid,
                        "limit of " + std::to_string(kMaxRequests) + " open requests reached");
    }
    id = ++last_id_;
    requests_.emplace(id, std::move(request));
  }
  // The name may have changed hands before the request was there for OnOwnerChanged to be seen.
  if (!refusal && (peer.empty() || names_.OwnerOf(bus_name) != peer)) {
    refusal = Failure(Outcome::NoSuchService, "nobody owns the name");
  }
  if (refusal) {
    Finish(id, std::move(*refusal));
    return;
  }
  auto timer = loop_.AddTimer("request", [this, id] { OnTime(id); }, delivery, false);
  {
    const Lock lock(mutex_);
    const auto open = requests_.find(id);
    if (open == requests_.end()) {
      return;
    }
    open->second.timer = std::move(timer);
  }
  const bool awaits_answer = answer.count() > 0;
  if (awaits_answer && bus_name.starts_with(':')) {
    loop_.Post([this, id] { WatchEnd(id); });  // runs before the letter is handed over
  }
  letter.id = id;
  letter.request = awaits_answer ? id : 0;
  letter.done = [this, id](const CallResult& result) { OnAcknowledged(id, result); };
  courier_.Send(peer, std::move(letter));
}

// The end of a connection that owns a name is told anyway.
void Requests::WatchEnd(std::uint64_t id) {
  std::string rule =
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='";
  {
    const Lock lock(mutex_);
    const auto open = requests_.find(id);
    if (open == requests_.end() || bus_ == nullptr) {
      return;
    }
    rule += open->second.peer + "'";
  }
  sd_bus_slot* raw = nullptr;
  sd_bus_add_match_async(
      bus_, &raw, rule.c_str(), &Requests::OnPeerGone,
      [](sd_bus_message*, void*, sd_bus_error*) { return 0; },  // refused: the deadline ends it
      this);
  SlotPtr slot(raw);
  const Lock lock(mutex_);
  if (const auto open = requests_.find(id); open != requests_.end()) {
    open->second.end_of_peer.swap(slot);
  }
}

int Requests::OnPeerGone(sd_bus_message* message, void* self, sd_bus_error*) noexcept {
  if (const auto change = ReadOwnerChange(message)) {
    static_cast<Requests*>(self)->OnOwnerChanged(change->name, change->before);
  }
  return 0;
}

void Requests::OnAcknowledged(std::uint64_t id, const CallResult& result) {
  AsyncCallbackHandle timer;
  {
    const Lock lock(mutex_);
    const auto open = requests_.find(id);
    if (open == requests_.end()) {
      return;
    }
    if (IsGood(result.outcome) && open->second.answer.count() > 0) {
      open->second.delivered = true;
      const auto left = open->second.answer_deadline - TimerQueue::Now();
      timer = std::exchange(open->second.timer,
                            loop_.AddTimer("answer", [this, id] { OnTime(id); }, left, false));
      return;
    }
  }
  Finish(id, {{result.outcome, "", "", result.error}, result.state});
}

void Requests::OnTime(std::uint64_t id) {
  std::string error = "the receiver does not react";
  std::string peer;
  {
    const Lock lock(mutex_);
    const auto open = requests_.find(id);
    if (open == requests_.end()) {
      return;
    }
    peer = open->second.peer;
    if (open->second.delivered) {
      error = "no answer within " + std::to_string(open->second.answer.count()) + " ms";
    }
  }
  courier_.Withdraw(peer, id);
  Finish(id, Failure(Outcome::TimedOut, std::move(error)));
}

std::expected<void, std::string> Requests::Accept(std::string_view connection,
                                                  std::uint64_t request, std::string_view type,
                                                  std::string_view payload) {
  {
    const Lock lock(mutex_);
    const auto open = requests_.find(request);
    if (open == requests_.end()) {
      return std::unexpected("request " + std::to_string(request) + " is not open");
    }
    if (open->second.peer != connection) {
      return std::unexpected("request " + std::to_string(request) + " went to somebody else");
    }
  }
  Finish(request, {{Outcome::Answered, std::string(type), std::string(payload), ""}});
  return {};
}

void Requests::OnOwnerChanged(std::string_view bus_name, std::string_view before) {
  std::vector<std::uint64_t> orphans;
  {
    const Lock lock(mutex_);
    for (const auto& [id, request] : requests_) {
      if (request.bus_name == bus_name && request.peer == before) {
        orphans.push_back(id);
      }
    }
  }
  for (const auto id : orphans) {
    Finish(id, Failure(Outcome::NoSuchService, "the receiver left before it answered"));
  }
}

void Requests::Close(const std::string& error) {
  bus_ = nullptr;
  for (;;) {
    std::uint64_t id = 0;
    {
      const Lock lock(mutex_);
      closed_ = error;
      if (requests_.empty()) {
        return;
      }
      id = requests_.begin()->first;
    }
    Finish(id, Failure(Outcome::Disconnected, error));
  }
}

void Requests::Finish(std::uint64_t id, Answer answer) {
  std::map<std::uint64_t, Request>::node_type ended;
  {
    const Lock lock(mutex_);
    ended = requests_.extract(id);
  }
  if (!ended) {
    return;
  }
  Request& request = ended.mapped();
  if (!IsGood(answer.reply.outcome) && !request.type.empty()) {
    courier_.LogFailure("Send", request.type, request.receiver,
                        {answer.reply.outcome, answer.reply.error});
  }
  request.done(std::move(answer));
  if (request.end_of_peer && !loop_.IsOnLoop()) {
    loop_.Post([slot = std::move(request.end_of_peer)] {});
  }
}

}  // namespace zelt
