// The radio's side of every measurement, as cheap as it can be: it answers the handshake, echoes
// or counts what is relayed, sends what is to be relayed or published, and takes files.
//
// usage: bench_radio link|raw|mqtt|serial WHERE SIDE STORE
//   WHERE   link, raw: the file that gets the port; mqtt: the broker's port; serial: the socket of
//           the line
//   SIDE    the socket where the receivers' notes come
//   STORE   the file that takes what is transferred
#include "Load.h"
#include "Wire.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace bench {
namespace {

constexpr std::int64_t kKeepAliveAfter = 800'000'000;
constexpr int kLookAgainMs = 200;
constexpr std::int64_t kCountEvery = 8;
enum LinkControl : std::uint8_t { Hello = 1, HelloAnswer = 2, KeepAlive = 3, Goodbye = 4 };

class Radio {
 public:
  Radio(const std::string& kind, const std::string& where, const std::string& side,
        const std::string& store)
      : side_listener_(ListenUnix(side, SOCK_SEQPACKET)),
        store_(::open(store.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
    if (kind == "mqtt") {
      wire_ = std::make_unique<MqttWire>("down");
      line_ = std::make_unique<Stream>(ConnectTcp(static_cast<std::uint16_t>(Number(where))));
      line_->Out() = MqttWire::Connect("radio", "up");
      line_->Flush();
      return;
    }
    wire_ = kind == "raw" ? MakeRawWire() : MakeLinkWire();
    if (kind == "serial") {
      line_ = std::make_unique<Stream>(ConnectUnix(where, SOCK_STREAM));
      ::fcntl(line_->Fd(), F_SETFL, O_NONBLOCK);
      return;
    }
    std::uint16_t port = 0;
    listener_ = zelt::FileDescriptor(ListenTcp(port));
    WriteWhole(where, std::to_string(port));
  }

  int Run() {
    CommandLine commands({
        {"down", [this](const Words& words) { return Down(words); }},
        {"batches", [this](const Words& words) { return Down(words); }},
        {"transfer", [this](const Words& words) { return SetTransferSize(words); }},
        {"stored", [this](const Words&) { return Stored(); }},
        {"open", [this](const Words& words) { return Open(words); }},
    });
    std::cout << "{}" << std::endl;  // it listens
    while (!Pump(&commands)) {
    }
    return 0;
  }

 private:
  struct Receiver {
    zelt::FileDescriptor fd;
    std::int64_t received = 0;  // messages of the current run
    std::int64_t counted = 0;   // that it was told
  };

  // Waits until something comes, and handles it; true when the driver wants no more.
  bool Pump(CommandLine* commands = nullptr) {
    auto& watched = watched_;
    watched.resize(4 + receivers_.size());
    watched[0] = {.fd = commands != nullptr ? 0 : -1, .events = POLLIN, .revents = 0};
    watched[1] = {
        .fd = line_ ? line_->Fd() : -1, .events = line_ ? line_->Events() : short{0}, .revents = 0};
    watched[2] = {.fd = listener_ ? listener_.Get() : -1, .events = POLLIN, .revents = 0};
    watched[3] = {.fd = side_listener_.Get(), .events = POLLIN, .revents = 0};
    for (std::size_t i = 0; i < receivers_.size(); ++i) {
      watched[4 + i] = {.fd = receivers_[i].fd.Get(), .events = POLLIN, .revents = 0};
    }
    ::poll(watched.data(), watched.size(), greeted_ ? kLookAgainMs : -1);
    for (std::size_t i = watched.size() - 1; i > 3; --i) {
      if (watched[i].revents != 0) {
        ReadNotes(i - 4, (watched[i].revents & POLLHUP) != 0);
      }
    }
    if ((watched[3].revents & POLLIN) != 0) {
      receivers_.push_back({zelt::FileDescriptor(Accept(side_listener_.Get(), false))});
    }
    if (watched[1].revents != 0) {
      ServeLine();
    }
    if ((watched[2].revents & POLLIN) != 0) {
      line_ = std::make_unique<Stream>(Accept(listener_.Get(), true));
    }
    if (greeted_ && line_ && Now() - last_sent_ > kKeepAliveAfter) {
      Put({FrameKind::LinkControl}, KeepAlive, "");
      Flush();
    }
    return commands != nullptr && watched.front().revents != 0 && !commands->Serve();
  }

  void ServeLine() {
    bool open = line_->Fill();
    Incoming message;
    for (std::size_t size = 0; (size = wire_->Read(line_->In(), message, line_->Out())) > 0;) {
      open = Handle(message) && open;
      line_->Take(size);
    }
    Flush();
    if (!open && listener_) {
      line_.reset();
      greeted_ = false;
    }
  }

  // False when the camera leaves.
  bool Handle(const Incoming& message) {
    if (message.header.kind == FrameKind::LinkControl) {
      if (message.opcode == Hello) {
        greeted_ = true;
        Bytes body;
        Put16(body, 1);  // protocol version
        body += '\x01';  // in service
        Put16(body, transfer_size_);
        Put16(body, 5);
        body += "bench";
        body += '\0';  // no descriptors
        Put({FrameKind::LinkControl}, HelloAnswer, body);
      }
      return message.opcode != Goodbye;
    }
    switch (message.opcode) {
      case opcode::kRelayedUp:
        HandleRelayed(message);
        break;
      case opcode::kFileAccess:
        BeginFile(message);
        break;
      case opcode::kTransferData:
        TakeChunk(message);
        break;
      case opcode::kFileHandleOpen | opcode::kResponse:
        ++handles_answered_;
        break;
      default:
        break;
    }
    return true;
  }

  void HandleRelayed(const Incoming& message) {
    if (MarkOf(message.body) == kEcho) {
      line_->Out() +=
          Prepared(opcode::kRelayedDown, message.size, NumberOf(Sample::Relayed, message.body));
      last_sent_ = Now();
    } else if (++counted_ % kCountEvery == 0) {
      TellCount(receivers_.at(0));
    }
  }

  void TellCount(Receiver& receiver) const {
    SendNote(receiver.fd.Get(), {SideNote::Kind::Count, 0, counted_});
  }

  void ReadNotes(std::size_t index, bool gone) {
    Receiver& receiver = receivers_[index];
    for (SideNote note; ReceiveNote(receiver.fd.Get(), note);) {
      if (note.kind == SideNote::Kind::Tell) {
        TellCount(receiver);
        continue;
      }
      in_order_ = in_order_ && note.number == receiver.received % kRing;
      auto& latest = received_at_[RingPlace(receiver.received++)];
      latest = std::max(latest, note.value);
    }
    if (gone) {
      receivers_.erase(receivers_.begin() + static_cast<std::ptrdiff_t>(index));
    }
  }

  // down relayed|published SIZE WINDOW SECONDS RECEIVERS: sends, and reports how long each took to
  // the last of its receivers. Those who connected last are the receivers. "batches" in place of
  // "down" sends no new message until all of a window have arrived.
  std::string Down(const Words& words) {
    const auto opcode = words.at(1) == "relayed" ? opcode::kRelayedDown : opcode::kPublished;
    const std::size_t size = Number(words.at(2));
    const auto window = static_cast<std::int64_t>(Number(words.at(3)));
    const auto length = static_cast<std::int64_t>(Real(words.at(4)) * kSecond);
    const std::size_t wanted = Number(words.at(5));
    for (const std::int64_t deadline = Now() + kLostAfter;
         receivers_.size() < wanted && Now() < deadline;) {
      Pump();
    }
    std::vector<Receiver*> receivers;
    for (std::size_t i = receivers_.size() - wanted; i < receivers_.size(); ++i) {
      receivers_.at(i).received = 0;
      receivers.push_back(&receivers_[i]);
    }
    in_order_ = true;
    std::array<std::int64_t, kRing> sent_at{};
    Latencies latencies;
    latencies.Reserve(1U << 20U);
    std::int64_t sent = 0;
    std::int64_t done = 0;
    const std::int64_t start = Now();
    std::int64_t last = start;
    while (Now() - last < kLostAfter) {
      const bool over = last - start >= length;
      const bool refills = words.front() == "down" || sent == done;
      for (; !over && refills && sent - done < window; ++sent) {
        received_at_[RingPlace(sent)] = 0;
        sent_at[RingPlace(sent)] = Now();
        line_->Out() += Prepared(opcode, size, static_cast<unsigned>(sent));
      }
      if (over && sent == done) {
        break;
      }
      Flush();
      Pump();
      const auto* slowest = *std::ranges::min_element(receivers, {}, &Receiver::received);
      for (; done < slowest->received; ++done) {
        last = received_at_[RingPlace(done)];
        latencies.Add(last - sent_at[RingPlace(done)]);
      }
    }
    return Field("count", static_cast<double>(done)) +
           Field("lost", static_cast<double>(sent - done)) + Field("in_order", in_order_ ? 1 : 0) +
           Field("seconds", static_cast<double>(last - start) / kSecond) +
           Field("p50", latencies.Percentile(0.5)) + Field("p99", latencies.Percentile(0.99), true);
  }

  // A message that was made once: what goes on the line then is a copy.
  const Bytes& Prepared(std::uint16_t opcode, std::size_t size, unsigned number) {
    auto& set = prepared_[{opcode, size}];
    if (set.empty()) {
      const Sample sample = opcode == opcode::kPublished ? Sample::Published : Sample::Relayed;
      Bytes message = MakeSample(sample, size, kEcho);
      for (unsigned i = 0; i < kRing; ++i) {
        SetNumber(sample, message, i);
        wire_->Append({FrameKind::Broadcast}, opcode, message, i, set.emplace_back());
      }
    }
    return set[number % kRing];
  }

  void Put(Header header, std::uint16_t opcode, View body) {
    wire_->Append(header, opcode, body, 0, line_->Out());
  }

  void Flush() {
    if (line_ && !line_->Out().empty()) {
      line_->Flush();
      last_sent_ = Now();
    }
  }

  // ----------------------------------------------------------------------------------------------
  // Files

  // transfer SIZE: the largest chunk, from the next handshake on.
  std::string SetTransferSize(const Words& words) {
    transfer_size_ = static_cast<std::uint16_t>(Number(words.at(1)));
    return Field("size", transfer_size_, true);
  }

  void BeginFile(const Incoming& message) {
    file_begun_ = Now();
    file_bytes_ = 0;
    chunks_ = 0;
    file_size_ = Get32(message.body, 5);
    if (::ftruncate(store_.Get(), 0) != 0) {
      zelt::ThrowErrno("cannot empty the store");
    }
    Bytes body(1, '\0');
    Put32(body, static_cast<std::uint32_t>(file_size_));
    body += message.body.substr(9);
    Put({FrameKind::Response, message.header.transaction}, opcode::kFileAccess | opcode::kResponse,
        body);
  }

  void TakeChunk(const Incoming& message) {
    const unsigned number = Get16(message.body, 2);
    const View data = message.body.substr(6);
    if (number != chunks_ % 65536 || data.size() != Get16(message.body, 4) ||
        ::pwrite(store_.Get(), data.data(), data.size(), static_cast<off_t>(file_bytes_)) !=
            static_cast<ssize_t>(data.size())) {
      throw std::runtime_error("chunk " + std::to_string(number) + " is not the next one");
    }
    ++chunks_;
    file_bytes_ += data.size();
    file_ended_ = Now();
    Bytes body(1, '\0');
    Put16(body, number);
    Put({FrameKind::Response, message.header.transaction},
        opcode::kTransferData | opcode::kResponse, body);
  }

  // stored: how long the latest file took, from the request for access to the last chunk.
  std::string Stored() const {
    return Field("bytes", static_cast<double>(file_bytes_)) +
           Field("complete", file_bytes_ == file_size_ ? 1 : 0) +
           Field("chunks", static_cast<double>(chunks_)) +
           Field("seconds", static_cast<double>(file_ended_ - file_begun_) / kSecond, true);
  }

  // open COUNT: asks for that many file handles and waits until all are answered.
  std::string Open(const Words& words) {
    const std::size_t count = Number(words.at(1));
    handles_answered_ = 0;
    const std::int64_t start = Now();
    for (std::size_t i = 0; i < count; ++i) {
      Bytes body;
      AppendText(body, 1, "file" + std::to_string(i));
      AppendVarint(body, 2U << 3U);
      AppendVarint(body, i % 65536);
      Put({FrameKind::Request, static_cast<std::uint16_t>(i % 65535 + 1)}, opcode::kFileHandleOpen,
          body);
      Flush();
    }
    // No answer comes before all have been asked for.
    const std::int64_t lost_after = 2 * kLostAfter;
    for (std::int64_t latest = start; handles_answered_ < count && Now() - latest < lost_after;) {
      const std::size_t seen = handles_answered_;
      Pump();
      latest = handles_answered_ != seen ? Now() : latest;
    }
    return Field("answered", static_cast<double>(handles_answered_)) +
           Field("seconds", static_cast<double>(Now() - start) / kSecond, true);
  }

  std::unique_ptr<Wire> wire_;
  std::unique_ptr<Stream> line_;
  zelt::FileDescriptor listener_;
  zelt::FileDescriptor side_listener_;
  std::vector<Receiver> receivers_;
  std::vector<pollfd> watched_;
  std::map<std::pair<std::uint16_t, std::size_t>, std::vector<Bytes>> prepared_;
  std::array<std::int64_t, kRing> received_at_{};
  bool in_order_ = true;
  bool greeted_ = false;
  std::int64_t last_sent_ = 0;
  std::int64_t counted_ = 0;
  std::uint16_t transfer_size_ = 32768;
  zelt::FileDescriptor store_;
  std::size_t file_size_ = 0;
  std::size_t file_bytes_ = 0;
  std::size_t chunks_ = 0;
  std::int64_t file_begun_ = 0;
  std::int64_t file_ended_ = 0;
  std::size_t handles_answered_ = 0;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::RunMain("bench_radio", [&] {
    if (argc != 5) {
      throw std::runtime_error("usage: bench_radio link|raw|mqtt|serial WHERE SIDE STORE");
    }
    std::signal(SIGPIPE, SIG_IGN);
    return bench::Radio(argv[1], argv[2], argv[3], argv[4]).Run();
  });
}
