#include "Simulator.h"

#include "Lines.h"
#include "ProtoJson.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <sstream>
#include <utility>

namespace radiosim {
namespace {

using orka::pel::FrameKind;

constexpr std::size_t kKeepReceived = 1000;
constexpr std::chrono::milliseconds kTick{50};
constexpr std::chrono::milliseconds kAcceptAgainAfter{100};
constexpr std::array<std::string_view, 3> kKinds = {"request", "response", "broadcast"};

}  // namespace

Simulator::Simulator(asio::io_context& io, Options options, FaultPlan plan, Print print)
    : options_(std::move(options)),
      plan_(std::move(plan)),
      print_(std::move(print)),
      later_(io),
      acceptor_(io),
      tick_(io),
      radio_(
          options_.radio,
          {.send =
               [this](const orka::codec::MessageRow& row, const orka::RadioNotificationData& data,
                      std::uint16_t transaction, std::uint16_t part) {
                 if (!link_.HasCamera()) {
                   return;
                 }
                 if (const auto sent = link_.Send(row, data, transaction, part); !sent) {
                   print_("not sent " + std::string(row.name) + ": " + sent.error());
                 }
               },
           .refuse =
               [this](std::string_view answer, std::optional<std::uint16_t> chunk) {
                 return plan_.Refuse(answer, chunk);
               },
           .log = print_,
           .restart =
               [this](std::chrono::milliseconds after) {
                 print_("shuts down in " + std::to_string(after.count()) + " ms");
                 link_.Restart(after);
               }}),
      link_(io, options_, plan_, later_,
            {.message = [this](const Received& received) { OnMessage(received); },
             .session_ended = [this] { radio_.SessionEnded(); },
             .print = print_}) {
  std::signal(SIGPIPE, SIG_IGN);
}

std::expected<void, std::string> Simulator::Start() {
  if (options_.listen.empty() == options_.pty_link.empty()) {
    return std::unexpected("either --listen ADDRESS:PORT or --pty LINK is needed");
  }
  if (!options_.pty_link.empty()) {
    auto line = OpenPseudoTerminal(options_.pty_link);
    if (!line) {
      return std::unexpected(line.error());
    }
    print_("pseudo-terminal " + line->name + ", link " + options_.pty_link);
    link_.TakeLine(std::move(line->master), std::move(line->slave));
  } else {
    const auto address = Listen(acceptor_, options_.listen);
    if (!address) {
      return std::unexpected(address.error());
    }
    port_ = acceptor_.local_endpoint().port();
    if (!options_.port_file.empty() &&
        !WriteFile(options_.port_file, std::to_string(port_) + "\n")) {
      return std::unexpected("cannot write " + options_.port_file);
    }
    print_("listens on " + *address + " port " + std::to_string(port_));
    Accept();
  }
  Tick();
  return {};
}

void Simulator::Accept() {
  acceptor_.async_accept(
      [this, alive = later_.Alive()](const asio::error_code& error, asio::ip::tcp::socket socket) {
        if (alive.expired()) {
          return;
        }
        if (!error && !link_.IsAway()) {
          asio::error_code ignored;
          ignored = socket.set_option(asio::ip::tcp::no_delay(true), ignored);
          link_.TakeLine(zelt::FileDescriptor(socket.release()));
        }
        // An error such as too many open files would come again at once.
        later_(error ? kAcceptAgainAfter : std::chrono::milliseconds(0), [this] { Accept(); });
      });
}

void Simulator::Tick() {
  const auto now = std::chrono::steady_clock::now();
  link_.Tick(now);
  if (!link_.IsAway()) {
    radio_.Tick(now);
  }
  tick_.expires_after(kTick);
  tick_.async_wait([this, alive = later_.Alive()](const asio::error_code& error) {
    if (!error && !alive.expired()) {
      Tick();
    }
  });
}

void Simulator::Stop() {
  if (later_.IsStopped()) {
    return;
  }
  later_.Stop();
  link_.SwitchOff();
  asio::error_code ignored;
  ignored = acceptor_.close(ignored);
  tick_.cancel();
  if (!options_.pty_link.empty()) {
    std::error_code absent;
    std::filesystem::remove(options_.pty_link, absent);
  }
}

void Simulator::OnMessage(const Received& received) {
  const orka::codec::MessageRow& row = *received.row;
  const std::string json = ToJson(received.message);
  std::ostringstream text;
  text << R"({"n":)" << ++received_count_ << R"(,"opcode":")" << Hex(row.opcode) << R"(","kind":")"
       << kKinds[static_cast<std::size_t>(row.kind)] << R"(","name":")" << row.name
       << R"(","selector":)" << received.header.destination << R"(,"transaction":)"
       << received.header.transaction << R"(,"message":)" << json << '}';
  received_.push_back(text.str());
  if (received_.size() > kKeepReceived) {
    received_.pop_front();
  }
  if (received.chunk.empty() || options_.verbose) {
    print_("<- " + std::string(row.name) + " " + Hex(row.opcode) + " " + json);
  }
  if (row.kind == FrameKind::Request) {
    last_transactions_[row.opcode] = received.header.transaction;
  }
  radio_.Handle(received);
}

std::string Simulator::FaultReport() const {
  std::string report = plan_.Report();
  if (plan_.BitsPerSecond() != 0) {
    report += "slow line of " + std::to_string(plan_.BitsPerSecond()) +
              " bits per second: slowed " + std::to_string(link_.ByteCount()) + " bytes\n";
  }
  return report;
}

}  // namespace radiosim
