// Every message of kova/Accepted.def and every notification of the radio, each on a fresh bridge:
// what the bridge does with it, under which name and level it says so, and that content which it
// does not know passes unchanged. What is expected stands as text in the folder "expected";
// KOVA_WRITE_EXPECTED=1 writes it anew, to be reviewed as a difference.

#include "Bench.h"
#include "Expected.h"

#include "orka/codec/MessageTable.h"

#include <map>
#include <set>

namespace zelt::test {
namespace {

constexpr const char* kPeer = "Peer";
constexpr const char* kATool = "zeltcli-1";

// --- What is given to the bridge -----------------------------------------------------------------

// The bytes of a message with something in every field: numbers 1000 + n (outside every
// enumeration), texts, sub-messages, and fields that its type does not know. With `only`, that
// field alone.
std::string SampleWire(int only = 0) {
  std::string wire;
  for (int field = 1; field <= 12; ++field) {
    if (only == 0) {
      const int number = 1000 + field;
      wire += {static_cast<char>(field << 3), static_cast<char>((number & 0x7F) | 0x80),
               static_cast<char>(number >> 7)};
    }
    if (only == 0 || only == field) {
      wire += {static_cast<char>(field << 3 | 2), '\x02', '\x08', '\x05'};
    }
  }
  return wire;
}
// The bytes of several messages, by a word for each: "whole" has something in every field, "f3" in
// the third only, "=2" has the number 2 in its first.
std::vector<std::pair<std::string, std::string>> Wires() {
  std::vector<std::pair<std::string, std::string>> wires = {{"whole", SampleWire()}};
  for (int field = 1; field <= 8; ++field) {
    wires.emplace_back("f" + std::to_string(field), SampleWire(field));
  }
  for (char number = 0; number <= 3; ++number) {
    wires.emplace_back("=" + std::to_string(number), std::string{'\x08', number});
  }
  return wires;
}

using Messages = std::vector<std::pair<std::string, std::string>>;  // payloads by their word
using Payloads = std::vector<std::pair<std::string, Data>>;

template <std::size_t index>
Payloads PayloadsOf() {
  using T = std::variant_alternative_t<index, Data>;
  Payloads payloads;
  if constexpr (std::is_same_v<T, orka::qrx::FileAccessResponse>) {
    payloads = {{"whole", T{orka::qrx::Result::Busy, 3, "fw"}}};
  } else if constexpr (std::is_same_v<T, orka::qrx::TransferDataResponse>) {
    payloads = {{"whole", T{orka::qrx::Result::Success, 7}}};
  } else if constexpr (std::is_same_v<T, std::string>) {
    payloads = {{"whole", T()}};
  } else {
    for (const auto& [word, wire] : Wires()) {
      T message;
      EXPECT_TRUE(message.ParseFromString(wire));
      payloads.emplace_back(word, message);
    }
  }
  return payloads;
}

// By their alternatives.
template <std::size_t... index>
std::vector<Payloads> AllPayloads(std::index_sequence<index...>) {
  return {PayloadsOf<index>()...};
}
const std::vector<Payloads>& AllPayloads() {
  static const auto all = AllPayloads(std::make_index_sequence<std::variant_size_v<Data>>());
  return all;
}

// What Kova registers for, in order.
std::vector<fake::FakeServiceIPC::Registration> Entries() {
  return {
#define KOVA_MESSAGE(from, goes, package, message, handler, answer, detail) \
  {false, #package "." #message},
#define KOVA_TOPIC(package, message, handler) {true, #package "." #message},
#define KOVA_PUBLISHED(package, message)
#include "kova/Accepted.def"
  };
}
// Each of the messages, as their senders would write them.
const std::map<std::string, Messages>& AllMessages() {
  static const auto all = [] {
    std::map<std::string, Messages> made;
    for (const auto& entry : Entries()) {
      for (const auto& [word, wire] : Wires()) {
        if (!entry.is_topic) {
          made[entry.name].emplace_back(word, fake::Rewritten(entry.name, wire));
        }
      }
    }
    return made;
  }();
  return all;
}

// --- What the bridge does ------------------------------------------------------------------------

struct Bridge : Bench {
  Trace Deliver(const std::string& type, std::string_view sender, std::string_view payload,
                std::uint64_t request = 1) {
    model->Ipc().Deliver(type, sender, payload, request);
    return Drain();
  }
};

// What each of several messages leads to: under a heading for each difference the lines.
class Outcomes {
 public:
  void Add(const std::string& word, const std::string& text) {
    if (!words_.contains(text)) {
      order_.push_back(text);
    }
    words_[text] += ' ' + word;
  }
  std::string Under(const std::string& heading) const {
    std::string all;
    for (const std::string& text : order_) {
      all += heading + (order_.size() > 1 ? ":" + words_.at(text) : "") + '\n' + text;
    }
    return all;
  }

 private:
  std::map<std::string, std::string> words_;
  std::vector<std::string> order_;
};

Outcomes OutcomesOf(const std::string& type, const std::string& sender) {
  Outcomes outcomes;
  for (const auto& [word, payload] : AllMessages().at(type)) {
    outcomes.Add(word,
                 Text(Bridge().Deliver(type, sender, payload), Describe(type, payload), sender));
  }
  return outcomes;
}

// --- Messages ------------------------------------------------------------------------------------

TEST(Relay, EachMessageDoesWhatTheTextSays) {
  std::ostringstream text;
  for (const auto& entry : Entries()) {
    const std::string& type = entry.name;
    if (entry.is_topic) {
      text << "new subscriber of " << type << '\n' << Text(Bridge().Subscribe(type));
      continue;
    }
    Bridge busy;
    busy.SetAnswers([](auto& answers) { answers.send_room = 0; });
    const std::string payload = AllMessages().at(type).front().second;
    const bool needs_room = !busy.model->Ipc().Deliver(type, kATool, payload);
    const Outcomes peer = OutcomesOf(type, kPeer);
    const Outcomes tool = OutcomesOf(type, kATool);
    text << peer.Under(type + (needs_room ? "" : ", even when the link has no room"));
    if (tool.Under("") != peer.Under("")) {
      text << tool.Under(type + " of a tool");
    }
  }
  ExpectText("messages.txt", text.str());
}

using CatalogueTest = BenchTest;

TEST_F(CatalogueTest, EveryRegistrationIsMadeInOrderAndIsOpenToAnySender) {
  EXPECT_EQ(model->Ipc().Registrations(), Entries());
}

TEST_F(CatalogueTest, ArrivalIsToldAndMalformedPayloadIsOneErrorLineAndNoCall) {
  for (const auto& [type, messages] : AllMessages()) {
    model->Ipc().Deliver(type, "zeltcli-1", "\xff");
    EXPECT_EQ(context.TaskQueue().Size(), 0U) << type;
    EXPECT_EQ(journal.Take(), (Trace{Log(3, "RegisterCallback",
                                         "Failed to unpack IPC message of type " + type, 0x8016)}));
    for (const std::string sender : {"Upgrade", "zeltcli-1"}) {
      model->Ipc().Deliver(type, sender, messages.front().second);
      EXPECT_EQ(journal.Take(),
                (Trace{Log(8, "RegisterCallback", "Calling ipc callback for " + type, 0x8016),
                       Log(7, "RegisterCallback", "Received [" + type + "] from [" + sender + "]",
                           0x8016)}));
      Drain();
    }
  }
}

TEST(Relay, OnlyNamesThatBeginLikeAToolsAreTools) {
  for (const auto& [type, messages] : AllMessages()) {
    const std::string payload = messages.front().second;
    const auto text = [&](const std::string& sender) {
      return Text(Bridge().Deliver(type, sender, payload), "", sender);
    };
    for (const char* sender : {"zeltcli", "Zeltcli-1", " zeltcli-1", ":1.42"}) {
      EXPECT_EQ(text(sender), text(kPeer)) << type << " from " << sender;
    }
    EXPECT_EQ(text("zeltcli-"), text(kATool)) << type;
  }
}

// --- Notifications -------------------------------------------------------------------------------

// The alternatives that a kind takes; the others are refused with a line, and not queued.
std::vector<std::size_t> FittingAlternatives(std::uint32_t kind) {
  Bridge bridge;
  std::vector<std::size_t> fitting;
  for (std::size_t index = 0; index < AllPayloads().size(); ++index) {
    bridge.Post(kind, AllPayloads()[index].front().second);
    const Trace told = bridge.journal.Take();
    const std::string mismatch =
        Log(3, "HandleRadioProtocolNotification",
            "Message type [" + std::to_string(kind) +
                "] and data type (index in variant =" + std::to_string(index) + ") mismatch");
    if (std::ranges::count(told, mismatch) == 0) {
      fitting.push_back(index);
    } else {
      EXPECT_EQ(bridge.context.TaskQueue().Size(), 0U) << mismatch;
    }
    bridge.Drain();
  }
  return fitting;
}

// The kinds that the radio library reports: all of the wire, and those of the link.
const std::set<std::uint32_t>& Kinds() {
  static const auto kinds = [] {
    std::set<std::uint32_t> set = {0, 1, 3, 5};
    for (const auto& row : orka::codec::kMessageTable) {
      if (row.direction == orka::codec::Direction::FromRadio) {
        set.insert(static_cast<std::uint32_t>(row.notify));
      }
    }
    return set;
  }();
  return kinds;
}

std::string It(const Data& data) {
  return std::visit(
      [](const auto& held) {
        if constexpr (std::is_base_of_v<MessageLite, std::decay_t<decltype(held)>>) {
          return Describe(held);
        }
        return std::string();
      },
      data);
}

TEST(Relay, EachNotificationDoesWhatTheTextSays) {
  std::ostringstream text;
  for (const std::uint32_t kind : Kinds()) {
    const auto fitting = FittingAlternatives(kind);
    ASSERT_FALSE(fitting.empty());
    const bool any = fitting.size() == AllPayloads().size();
    EXPECT_TRUE(any || fitting.size() == 1) << kind;
    Outcomes outcomes;
    for (const auto& [word, data] : AllPayloads()[fitting.front()]) {
      outcomes.Add(word, Text(Bridge().Notify(kind, data), It(data)));
    }
    text << outcomes.Under(
        "kind " + std::to_string(kind) + ", " +
        (any ? "any payload" : "alternative " + std::to_string(fitting.front())));
  }
  ExpectText("notifications.txt", text.str());
}

TEST(Relay, KindsThatAreNotReportedAreSilent) {
  const auto next = static_cast<std::uint32_t>(Kinds().size());
  EXPECT_EQ(*Kinds().rbegin(), next - 1) << "there is no gap";
  for (const std::uint32_t kind : {next, next + 1, 1000U, 0x80000000U, 0xFFFFFFFFU}) {
    Bridge bridge;
    for (const Payloads& payloads : AllPayloads()) {
      EXPECT_EQ(bridge.Notify(kind, payloads.front().second), Trace());
    }
  }
}

// --- The tool's slot -----------------------------------------------------------------------------

struct Notification {
  std::uint32_t kind;
  Data data;
  Trace usual;  // what it leads to when no tool waits
};

bool GoesToATool(const Trace& trace) {
  return !trace.empty() && trace.back().starts_with("answer zeltcli-");
}

// True when a tool that has sent this gets the answer.
bool Waits(const std::string& type, const std::string& payload, const Notification& answer) {
  Bridge bridge;
  bridge.Deliver(type, kATool, payload);
  return GoesToATool(bridge.Notify(answer.kind, answer.data));
}

TEST(ToolSlot, FirstAnswerGoesToTheLatestToolAndTheNextOneItsUsualWay) {
  std::vector<Notification> answers;
  std::vector<Notification> others;
  for (const std::uint32_t kind : Kinds()) {
    const Data& data = AllPayloads()[FittingAlternatives(kind).front()].front().second;
    Bridge bridge;
    bridge.Deliver("Kova.BluetoothStatusMsg", kATool, "");
    (GoesToATool(bridge.Notify(kind, data)) ? answers : others).push_back({kind, data, {}});
  }
  std::ostringstream text;
  for (Notification& answer : answers) {
    answer.usual = Bridge().Notify(answer.kind, answer.data);
    text << "kind " << answer.kind << " answers a tool\n";
  }
  for (const auto& [type, messages] : AllMessages()) {
    std::string fills;
    for (const auto& [word, payload] : messages) {
      const bool waits = Waits(type, payload, answers.front());
      fills += waits ? ' ' + word : "";
      if (!waits || (word != "whole" && fills.size() > word.size() + 1)) {
        continue;  // one of each type
      }
      for (const auto& [kind, data, usual] : answers) {
        Bridge bridge;
        bridge.Deliver(type, "zeltcli-1", payload, 11);
        bridge.Deliver(type, "zeltcli-2", payload, 22);
        for (const Notification& other : others) {
          bridge.Notify(other.kind, other.data);  // leaves the slot alone
        }
        EXPECT_EQ(bridge.Notify(kind, data).back(), Line("answer", "zeltcli-2", 22, It(data)))
            << type << " and kind " << kind;
        EXPECT_EQ(bridge.Notify(kind, data), usual) << type << " and kind " << kind;
      }
    }
    text << (fills.empty() ? "" : type + " of a tool waits:" + fills + '\n');
  }
  ExpectText("slot.txt", text.str());
}

}  // namespace
}  // namespace zelt::test
