#include "Simulator.h"

#include "ProtoJson.h"
#include "orka/codec/Codec.h"
#include "orka/codec/LinkControl.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <utility>

namespace radiosim {
namespace {

using orka::codec::Bytes;
using orka::codec::ByteView;
using orka::codec::Direction;
using orka::codec::FindRow;
using orka::codec::LinkControl;
using orka::pel::FrameKind;

constexpr std::size_t kKeepReceived = 1000;
constexpr std::chrono::milliseconds kTick{50};
constexpr std::chrono::milliseconds kHoldAtMost{500};
constexpr std::chrono::milliseconds kAcceptAgainAfter{100};
constexpr std::array<std::string_view, 3> kKinds = {"request", "response", "broadcast"};

std::string Hex(std::uint16_t opcode) {
  std::ostringstream text;
  text << "0x" << std::hex << std::uppercase << std::setw(4) << std::setfill('0') << opcode;
  return text.str();
}

std::string_view LinkControlName(LinkControl code) {
  static constexpr std::array<std::string_view, 5> kNames = {"", "Hello", "HelloAnswer",
                                                             "KeepAlive", "Goodbye"};
  const auto number = static_cast<std::size_t>(code);
  return number < kNames.size() ? kNames[number] : "";
}

// A file that is there as a whole or not at all.
bool WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::path part = path;
  part += ".part";
  {
    std::ofstream file(part, std::ios::trunc);
    if (!(file << text)) {
      return false;
    }
  }
  std::error_code failure;
  std::filesystem::rename(part, path, failure);
  return !failure;
}

std::pair<std::string_view, std::string_view> SplitWord(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  const std::string_view word = line.substr(0, line.find(' '));
  std::string_view rest = line.substr(word.size());
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  return {word, rest};
}

}  // namespace

Simulator::Simulator(asio::io_context& io, Options options, FaultPlan plan, Print print)
    : io_(io),
      options_(std::move(options)),
      plan_(std::move(plan)),
      print_(std::move(print)),
      radio_(options_.radio,
             {[this](const orka::codec::MessageRow& row, const orka::RadioNotificationData& data,
                     std::uint16_t transaction, std::uint16_t part) {
                if (greeted_) {
                  if (const std::string error = SendMessage(row, data, transaction, part);
                      !error.empty()) {
                    print_("not sent " + std::string(row.name) + ": " + error);
                  }
                }
              },
              [this](std::string_view answer, std::optional<std::uint16_t> chunk) {
                return plan_.Refuse(answer, chunk);
              },
              [this](const std::string& line) { print_(line); },
              [this](std::chrono::milliseconds after) {
                print_("shuts down in " + std::to_string(after.count()) + " ms");
                Restart(after);
              }}),
      acceptor_(io),
      tick_(io) {
  std::signal(SIGPIPE, SIG_IGN);
}

Simulator::~Simulator() {
  Stop();
  if (pty_slave_ >= 0) {
    ::close(pty_slave_);
  }
}

bool Simulator::Start(std::string& error) {
  if (options_.listen.empty() == options_.pty_link.empty()) {
    error = "either --listen ADDRESS:PORT or --pty LINK is needed";
    return false;
  }
  if (!(options_.listen.empty() ? OpenPty(error) : Listen(error))) {
    return false;
  }
  Tick();
  return true;
}

bool Simulator::Listen(std::string& error) {
  const std::size_t colon = options_.listen.rfind(':');
  const std::string_view text = std::string_view(options_.listen);
  std::string address(text.substr(0, colon));
  if (address.starts_with('[') && address.ends_with(']')) {
    address = address.substr(1, address.size() - 2);
  }
  std::uint16_t port = 0;
  asio::error_code failure;
  const auto ip = asio::ip::make_address(address, failure);
  const std::string_view digits = colon == std::string::npos ? "" : text.substr(colon + 1);
  const auto [end, wrong] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  if (failure || wrong != std::errc() || end != digits.data() + digits.size()) {
    error = "\"" + options_.listen + "\" is not ADDRESS:PORT";
    return false;
  }
  const asio::ip::tcp::endpoint endpoint(ip, port);
  try {
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(asio::socket_base::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen();
    port_ = acceptor_.local_endpoint().port();
  } catch (const std::system_error& refused) {
    error = "cannot listen on " + options_.listen + ": " + refused.what();
    return false;
  }
  if (!options_.port_file.empty() && !WriteFile(options_.port_file, std::to_string(port_) + "\n")) {
    error = "cannot write " + options_.port_file;
    return false;
  }
  print_("listens on " + address + " port " + std::to_string(port_));
  Accept();
  return true;
}

bool Simulator::OpenPty(std::string& error) {
  const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  std::array<char, 128> name{};
  if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
      ::ptsname_r(master, name.data(), name.size()) != 0) {
    error = std::string("no pseudo-terminal: ") + std::strerror(errno);
    return false;
  }
  pty_slave_ = ::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  termios modes{};
  ::tcgetattr(pty_slave_, &modes);
  ::cfmakeraw(&modes);
  ::tcsetattr(pty_slave_, TCSANOW, &modes);
  std::error_code failure;
  std::filesystem::path part = options_.pty_link;
  part += ".part";
  std::filesystem::remove(part, failure);
  std::filesystem::create_symlink(name.data(), part, failure);
  if (!failure) {
    std::filesystem::rename(part, options_.pty_link, failure);
  }
  if (failure) {
    error = "cannot make the link " + options_.pty_link + ": " + failure.message();
    ::close(master);
    return false;
  }
  print_("pseudo-terminal " + std::string(name.data()) + ", link " + options_.pty_link);
  BeginSession(master);
  return true;
}

void Simulator::Accept() {
  acceptor_.async_accept([this, alive = std::weak_ptr<void>(alive_)](const asio::error_code& error,
                                                                     asio::ip::tcp::socket socket) {
    if (alive.expired() || stopped_) {
      return;
    }
    if (!error && !away_) {
      asio::error_code ignored;
      ignored = socket.set_option(asio::ip::tcp::no_delay(true), ignored);
      if (session_) {
        EndLink("another camera connects");
      }
      print_("a camera connects");
      BeginSession(socket.release());
    }
    // An error such as too many open files would come again at once.
    After(error ? kAcceptAgainAfter : std::chrono::milliseconds(0), [this] { Accept(); });
  });
}

void Simulator::BeginSession(int fd) {
  session_ = std::make_shared<Session>(
      io_, fd, plan_.BitsPerSecond(),
      Session::Events{[this](const orka::pel::BaseMessage& header, ByteView payload) {
                        OnFrame(header, payload);
                      },
                      [this](orka::codec::Drop drop, std::size_t bytes) {
                        print_("dropped a frame of " + std::to_string(bytes) +
                               " bytes: " + std::string(ToString(drop)));
                      },
                      [this](const std::string& why) { EndLink(why); }});
  session_->Start();
}

void Simulator::EndSession() {
  ++session_number_;
  greeted_ = false;
  in_use_ = false;
  held_.clear();
  radio_.SessionEnded();
}

// On a pseudo-terminal the line stays, and only the camera's session ends.
void Simulator::EndLink(const std::string& why) {
  if (greeted_ || options_.pty_link.empty()) {
    print_("link ends: " + why);
  }
  EndSession();
  if (options_.pty_link.empty()) {
    DropSession();
  } else {
    ::ioctl(pty_slave_, TIOCNXCL);  // a camera that was killed cannot do it
  }
}

void Simulator::DropSession() {
  if (session_) {
    ended_sessions_bytes_ += session_->Bytes();
    std::exchange(session_, nullptr)->Close();
  }
}

std::string Simulator::FaultReport() const {
  std::string report = plan_.Report();
  if (plan_.BitsPerSecond() != 0) {
    const std::uint64_t bytes = ended_sessions_bytes_ + (session_ ? session_->Bytes() : 0);
    report += "slow line of " + std::to_string(plan_.BitsPerSecond()) +
              " bits per second: slowed " + std::to_string(bytes) + " bytes\n";
  }
  return report;
}

void Simulator::Restart(std::chrono::milliseconds after) {
  After(after, [this] {
    print_("restarts, away for " + std::to_string(options_.restart_time.count()) + " ms");
    away_ = true;
    EndLink("the radio restarts");
    After(options_.restart_time, [this] {
      away_ = false;
      print_("is back");
    });
  });
}

void Simulator::Stop() {
  if (std::exchange(stopped_, true)) {
    return;
  }
  if (greeted_) {
    SendLinkControl("Goodbye", Encode(LinkControl::Goodbye));
    EndLink("the radio is switched off");
  }
  DropSession();
  asio::error_code ignored;
  ignored = acceptor_.close(ignored);
  tick_.cancel();
  if (!options_.pty_link.empty()) {
    std::error_code absent;
    std::filesystem::remove(options_.pty_link, absent);
  }
}

void Simulator::After(std::chrono::milliseconds delay, std::function<void()> action) {
  if (delay.count() == 0) {
    action();
    return;
  }
  auto timer = std::make_shared<asio::steady_timer>(io_, delay);
  timer->async_wait([this, timer, alive = std::weak_ptr<void>(alive_),
                     action = std::move(action)](const asio::error_code& error) {
    if (!error && !alive.expired() && !stopped_) {
      action();
    }
  });
}

void Simulator::Tick() {
  const auto now = Session::Clock::now();
  if (greeted_ && session_->IsSilent(now)) {
    EndLink("the camera is silent");
  }
  if (greeted_ &&
      now >= std::max(session_->LastSent(), last_keep_alive_) + orka::codec::kKeepAliveAfter) {
    last_keep_alive_ = now;  // also of one that a fault keeps from the line
    SendLinkControl("KeepAlive", Encode(LinkControl::KeepAlive));
  }
  if (!away_) {
    radio_.Tick(now);
  }
  tick_.expires_after(kTick);
  tick_.async_wait([this, alive = std::weak_ptr<void>(alive_)](const asio::error_code& error) {
    if (!error && !alive.expired() && !stopped_) {
      Tick();
    }
  });
}

// ------------------------------------------------------------------------------------------------
// From the camera.

void Simulator::OnFrame(const orka::pel::BaseMessage& header, ByteView payload) {
  if (away_) {
    return;
  }
  if (header.kind == static_cast<std::uint8_t>(FrameKind::LinkControl)) {
    OnLinkControl(header, payload);
    return;
  }
  if (!greeted_) {
    SendLinkControl("Goodbye", Encode(LinkControl::Goodbye));
    return;
  }
  in_use_ = true;
  auto decoded = orka::codec::DecodeToRadio(static_cast<FrameKind>(header.kind), payload);
  if (!decoded.message) {
    print_("not understood: " +
           (decoded.row != nullptr ? std::string(decoded.row->name)
                                   : Hex(orka::codec::ByteReader(payload).Take<std::uint16_t>())) +
           ": " + decoded.error);
    return;
  }
  if (!decoded.note.empty()) {
    print_("not exactly: " + std::string(decoded.row->name) + ": " + decoded.note);
  }
  const Received received{decoded.row, header, std::move(*decoded.message),
                          std::move(decoded.chunk)};
  std::optional<std::uint16_t> chunk;
  if (const auto* request = std::get_if<orka::qrx::TransferDataRequest>(&received.message)) {
    chunk = request->chunk_number;
  }
  int times = 1;
  std::chrono::milliseconds delay{0};
  for (const FaultRule* fault : plan_.Fire(true, received.row->name, false, false, chunk)) {
    switch (fault->kind) {
      case FaultKind::Drop:
        print_("fault: drops " + std::string(received.row->name));
        return;
      case FaultKind::Duplicate:
        times = 2;
        break;
      case FaultKind::Delay:
        delay += fault->delay;
        break;
      case FaultKind::Silent:
        print_("fault: falls silent");
        session_silent_ = true;
        break;
      case FaultKind::Reboot:
        Restart(std::chrono::milliseconds(0));
        return;
      default:
        break;  // not for frames of the camera
    }
  }
  for (; times > 0; --times) {
    After(delay, [this, received, session = session_number_] {
      if (session == session_number_) {
        OnMessage(received);
      }
    });
  }
}

void Simulator::OnLinkControl(const orka::pel::BaseMessage& header, ByteView payload) {
  const auto code = orka::codec::LinkControlCode(payload);
  if (!code) {
    return;
  }
  for (const FaultRule* fault : plan_.Fire(true, LinkControlName(*code), false, true, {})) {
    if (fault->kind == FaultKind::Drop || fault->kind == FaultKind::NoHandshake) {
      print_("fault: ignores " + std::string(LinkControlName(*code)));
      return;
    }
    if (fault->kind == FaultKind::Reboot) {
      Restart(std::chrono::milliseconds(0));
      return;
    }
  }
  if (*code == LinkControl::Hello) {
    const auto hello = orka::codec::DecodeHello(payload);
    if (!hello) {
      print_("a hello that is cut short");
      return;
    }
    if (in_use_) {
      print_("the camera begins anew");
      EndSession();
    }  // else it repeats its hello, and may still get the answer to the one before
    session_silent_ = false;
    address_ = header.address;
    greeted_ = true;
    print_("hello of \"" + hello->product_id + "\" version \"" + hello->version + "\", protocol " +
           std::to_string(hello->protocol_version) + ", camera " +
           (hello->identify_as_camera ? "1" : "0") + ", tethered " +
           (hello->use_tethered_connection ? "1" : "0"));
    orka::codec::HelloAnswer answer;
    answer.in_service = options_.in_service;
    answer.max_transfer_size = options_.pty_link.empty() ? 32768 : 4096;
    if (options_.max_transfer_size != 0) {
      answer.max_transfer_size = options_.max_transfer_size;
    }
    answer.name = options_.name;
    answer.descriptors = options_.descriptors;
    SendLinkControl("HelloAnswer", Encode(answer));
  } else if (*code == LinkControl::Goodbye && greeted_) {
    EndLink("the camera says goodbye");
  } else if (*code == LinkControl::KeepAlive && !greeted_) {
    SendLinkControl("Goodbye", Encode(LinkControl::Goodbye));
  } else if (*code == LinkControl::KeepAlive) {
    in_use_ = true;
  }
}

void Simulator::OnMessage(const Received& received) {
  Record(received);
  if (received.row->kind == FrameKind::Request) {
    last_transactions_[received.row->opcode] = received.header.transaction;
  }
  radio_.Handle(received);
}

void Simulator::Record(const Received& received) {
  const std::string json = ToJson(received.message);
  std::ostringstream text;
  text << R"({"n":)" << ++received_count_ << R"(,"opcode":")" << Hex(received.row->opcode)
       << R"(","kind":")" << kKinds[static_cast<std::size_t>(received.row->kind)] << R"(","name":")"
       << received.row->name << R"(","selector":)" << received.header.destination
       << R"(,"transaction":)" << received.header.transaction << R"(,"message":)" << json << '}';
  received_.push_back(text.str());
  if (received_.size() > kKeepReceived) {
    received_.pop_front();
  }
  if (received.chunk.empty() || options_.verbose) {
    print_("<- " + std::string(received.row->name) + " " + Hex(received.row->opcode) + " " + json);
  }
}

// ------------------------------------------------------------------------------------------------
// To the camera.

std::string Simulator::SendMessage(const orka::codec::MessageRow& row,
                                   orka::RadioNotificationData data, std::uint16_t transaction,
                                   std::uint16_t part) {
  auto* access = std::get_if<orka::qrx::FileAccessResponse>(&data);
  auto* transfer = std::get_if<orka::qrx::TransferDataResponse>(&data);
  const auto faults =
      plan_.Fire(false, row.name, row.kind == FrameKind::Response, false,
                 transfer != nullptr ? std::optional(transfer->chunk_number) : std::nullopt);
  for (const FaultRule* fault : faults) {
    switch (fault->kind) {
      case FaultKind::WrongChunk:
        ++transfer->chunk_number;
        break;
      case FaultKind::WrongName:
        access->file_name += "x";
        break;
      case FaultKind::WrongSize:
        ++access->file_size;
        break;
      case FaultKind::WrongTransaction:
        transaction ^= 0x5555U;
        break;
      default:
        break;  // a fault of the frame
    }
  }
  const orka::codec::Encoded encoded = EncodeFromRadio(row, data);
  if (!encoded.error.empty()) {
    return encoded.error;
  }
  if (!encoded.note.empty()) {
    print_("not exactly: " + std::string(row.name) + ": " + encoded.note);
  }
  if (transfer == nullptr || options_.verbose) {
    print_("-> " + std::string(row.name) + " " + Hex(row.opcode) + " " + ToJson(data));
  }
  orka::pel::BaseMessage header;
  header.address = address_;
  header.kind = static_cast<std::uint8_t>(row.kind);
  header.source = part;
  header.transaction = transaction;
  Bytes frame;
  orka::codec::AppendFrame(header, encoded.payload, frame);
  SendFrame(std::move(frame), faults);
  return {};
}

void Simulator::SendLinkControl(std::string_view name, ByteView payload) {
  if (options_.verbose) {
    print_("-> " + std::string(name));
  }
  orka::pel::BaseMessage header;
  header.address = address_;
  header.kind = static_cast<std::uint8_t>(FrameKind::LinkControl);
  Bytes frame;
  orka::codec::AppendFrame(header, payload, frame);
  SendFrame(std::move(frame), plan_.Fire(false, name, false, true, {}));
}

void Simulator::SendFrame(Bytes bytes, const std::vector<const FaultRule*>& faults) {
  int times = 1;
  bool silence = false;
  std::chrono::milliseconds delay{0};
  for (const FaultRule* fault : faults) {
    switch (fault->kind) {
      case FaultKind::Drop:
        print_("fault: a frame is not sent");
        return;
      case FaultKind::Duplicate:
        times = 2;
        break;
      case FaultKind::Delay:
        delay += fault->delay;
        break;
      case FaultKind::Reorder:
        if (!held_.empty()) {
          break;  // this one is the next one for the frame that is held
        }
        held_ = std::move(bytes);
        After(kHoldAtMost, [this, number = ++held_number_] {
          if (number == held_number_) {
            Deliver(std::exchange(held_, {}));
          }
        });
        return;
      case FaultKind::Corrupt:
        bytes[plan_.Random(bytes.size() - 1)] ^= static_cast<std::uint8_t>(1U << plan_.Random(8));
        break;
      case FaultKind::Truncate:
        bytes.resize(1 + plan_.Random(bytes.size() - 2));
        bytes.push_back(0);
        break;
      case FaultKind::HalfFrame:
        bytes.resize(bytes.size() / 2);
        silence = true;
        break;
      case FaultKind::Silent:
        print_("fault: falls silent");
        session_silent_ = true;
        return;
      case FaultKind::Reboot:
        Restart(std::chrono::milliseconds(0));
        return;
      default:
        break;  // a fault of the message
    }
  }
  After(delay, [this, bytes = std::move(bytes), times, silence, session = session_number_] {
    if (session != session_number_) {
      return;
    }
    for (int i = 0; i < times; ++i) {
      Deliver(bytes);
    }
    Deliver(std::exchange(held_, {}));
    if (silence) {
      print_("fault: falls silent in the middle of a frame");
      session_silent_ = true;
    }
  });
}

void Simulator::Deliver(ByteView bytes) {
  if (session_ && !silent_ && !session_silent_ && !bytes.empty()) {
    session_->Send(bytes);
  }
}

// ------------------------------------------------------------------------------------------------
// Commands.

struct Simulator::CommandRow {
  std::string_view name;
  std::string_view help;
  Reply (Simulator::*run)(std::string_view rest);
};

const std::vector<Simulator::CommandRow> Simulator::kCommands = {
    {"help", "what can be said here; \"help notify\": the messages with their types",
     &Simulator::Help},
    {"notify", "NAME [JSON]: send a message to the camera", &Simulator::Notify},
    {"received", "[N|clear]: what the camera has sent, one JSON object a line",
     &Simulator::TellReceived},
    {"state", "the radio's state as JSON", &Simulator::TellState},
    {"fault", "KIND [KEY=VALUE]...|clear: add to the fault plan, or empty it",
     &Simulator::AddFault},
    {"faults", "how often each fault matched and fired", &Simulator::TellFaults},
    {"silent", "on|off: send nothing", &Simulator::SetSilent},
    {"close", "close the link", &Simulator::CloseLink},
    {"reboot", "restart: close the link and be away for a moment", &Simulator::Reboot},
    {"quit", "end the simulator", &Simulator::Quit},
};

Simulator::Reply Simulator::Command(std::string_view line) {
  const auto [name, rest] = SplitWord(line);
  const auto row = std::ranges::find(kCommands, name, &CommandRow::name);
  if (row == kCommands.end()) {
    return {false, "unknown command \"" + std::string(name) + R"("; "help" lists them)"};
  }
  return (this->*row->run)(rest);
}

Simulator::Reply Simulator::Help(std::string_view rest) {
  std::ostringstream text;
  if (rest == "notify") {
    for (const auto& row : orka::codec::kMessageTable) {
      if (row.direction == Direction::FromRadio) {
        text << row.name << ' ' << ProtoName(row.type) << '\n';
      }
    }
  } else {
    for (const CommandRow& row : kCommands) {
      text << std::left << std::setw(10) << row.name << row.help << '\n';
    }
  }
  return {true, text.str()};
}

Simulator::Reply Simulator::Notify(std::string_view rest) {
  const auto [name, json] = SplitWord(rest);
  const auto* row = FindRow(Direction::FromRadio, name);
  if (row == nullptr) {
    return {false, "the radio sends no \"" + std::string(name) + R"("; see "help notify")"};
  }
  std::string error;
  const auto data = NotificationFromJson(row->alternative, json, error);
  if (!data) {
    return {false, std::string(name) + ": " + error};
  }
  if (!greeted_) {
    return {false, "no camera is connected"};
  }
  std::uint16_t transaction = 0;
  if (row->kind == FrameKind::Response) {
    transaction =
        last_transactions_[static_cast<std::uint16_t>(row->opcode & ~orka::codec::kResponseBit)];
  } else if (row->kind == FrameKind::Request) {
    last_request_ = last_request_ == UINT16_MAX ? std::uint16_t{1}
                                                : static_cast<std::uint16_t>(last_request_ + 1);
    transaction = last_request_;
  }
  error = SendMessage(*row, *data, transaction, 0);
  return {error.empty(), error};
}

Simulator::Reply Simulator::TellReceived(std::string_view rest) {
  if (rest == "clear") {
    received_.clear();
    return {};
  }
  std::size_t count = received_.size();
  if (!rest.empty()) {
    const auto [end, failure] = std::from_chars(rest.data(), rest.data() + rest.size(), count);
    if (failure != std::errc() || end != rest.data() + rest.size()) {
      return {false, "\"" + std::string(rest) + "\" is no number"};
    }
  }
  std::string text;
  const std::size_t skip = received_.size() - std::min(count, received_.size());
  for (std::size_t i = skip; i < received_.size(); ++i) {
    text += received_[i] + '\n';
  }
  return {true, text};
}

Simulator::Reply Simulator::TellState(std::string_view /*rest*/) {
  json::State state = radio_.State();
  state.set_link_up(greeted_);
  state.set_silent(silent_ || session_silent_);
  state.set_away(away_);
  state.set_received(static_cast<std::uint32_t>(received_count_));
  return {true, ToJson(state) + '\n'};
}

Simulator::Reply Simulator::AddFault(std::string_view rest) {
  if (rest == "clear") {
    plan_.Clear();
    return {};
  }
  std::string error;
  const bool ok = plan_.Add(rest, error);
  return {ok, error};
}

// NOLINTNEXTLINE(readability-make-member-function-const): a row of kCommands
Simulator::Reply Simulator::TellFaults(std::string_view /*rest*/) {
  return {true, FaultReport()};
}

Simulator::Reply Simulator::SetSilent(std::string_view rest) {
  if (rest != "on" && rest != "off") {
    return {false, R"("on" or "off" is expected)"};
  }
  silent_ = rest == "on";
  return {};
}

Simulator::Reply Simulator::CloseLink(std::string_view /*rest*/) {
  if (!session_ || (!greeted_ && !options_.pty_link.empty())) {
    return {false, "no camera is connected"};
  }
  if (greeted_) {
    SendLinkControl("Goodbye", Encode(LinkControl::Goodbye));
  }
  EndLink("closed by hand");
  return {};
}

Simulator::Reply Simulator::Reboot(std::string_view /*rest*/) {
  Restart(std::chrono::milliseconds(0));
  return {};
}

// NOLINTNEXTLINE(readability-make-member-function-const): a row of kCommands
Simulator::Reply Simulator::Quit(std::string_view /*rest*/) {
  if (on_quit) {
    on_quit();
  }
  return {};
}

}  // namespace radiosim
