#pragma once

#include "zelt/FileDescriptor.h"

#include <poll.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// What the load programs share: the clock, the messages that are carried, what is told of them, and
// how the driver talks to them. Each program has one thread.
namespace bench {

using Bytes = std::string;
using View = std::string_view;

// Nanoseconds of the monotonic clock, which is the same in every process.
std::int64_t Now();
inline constexpr std::int64_t kSecond = 1'000'000'000;
// Nothing that is under way takes longer; what has not come by then is lost.
inline constexpr std::int64_t kLostAfter = 10 * kSecond;

// The messages that are carried. Each is a protobuf message of exactly the wanted size, and says
// which one of a window of kRing it is.
inline constexpr unsigned kRing = 64;
constexpr std::size_t RingPlace(std::int64_t count) {
  return static_cast<std::size_t>(count) % kRing;
}
enum class Sample : std::uint8_t {
  Relayed,    // IoTD2CDataMessage or IoTC2DDataMessage: field 1 number, 2 mark, 3 data
  Published,  // FileAccessWriteSessionEnd: field 1 name, 2 number
};
// What the receiver of a relayed message does with it.
inline constexpr char kEcho = 'e';
inline constexpr char kCount = 'c';

Bytes MakeSample(Sample sample, std::size_t size, char mark);
void SetNumber(Sample sample, Bytes& message, unsigned number);
// `message` may be cut short behind the mark when it is a relayed one.
unsigned NumberOf(Sample sample, View message);
char MarkOf(View relayed);

inline constexpr const char* kUpType = "Collaboration.IoTD2CDataMessage";
inline constexpr const char* kDownType = "Collaboration.IoTC2DDataMessage";
inline constexpr const char* kPublishedType = "Kova.FileAccessWriteSessionEnd";

// One field of a protobuf message, for the few that are made by hand.
void AppendVarint(Bytes& out, std::uint64_t value);
void AppendText(Bytes& out, unsigned field, View text);

// Beside the system that is measured: who receives tells who sends, without a part in the path.
struct SideNote {
  enum class Kind : std::uint32_t {
    Received,  // to the radio: message `number` came at `value`
    Tell,      // to the radio: tell the count now
    Count,     // from the radio: it has counted `value` messages
  };
  Kind kind = Kind::Received;
  std::uint32_t number = 0;
  std::int64_t value = 0;
};
void SendNote(int side, const SideNote& note);
bool ReceiveNote(int side, SideNote& note);  // false when there is none now

class Latencies {
 public:
  void Reserve(std::size_t count) { all_.reserve(count); }
  void Add(std::int64_t nanoseconds) { all_.push_back(nanoseconds); }
  std::size_t Count() const { return all_.size(); }
  // In microseconds; 0 when there are none.
  double Percentile(double share);

 private:
  std::vector<std::int64_t> all_;
};

// A stream socket or terminal that does not block, with what waits on both sides of it.
class Stream {
 public:
  explicit Stream(int fd);

  int Fd() const { return fd_.Get(); }
  short Events() const { return out_.empty() ? POLLIN : POLLIN | POLLOUT; }
  bool Fill();  // false when the other side has gone
  View In() const { return View(in_).substr(taken_, filled_ - taken_); }
  void Take(std::size_t count) { taken_ += count; }
  Bytes& Out() { return out_; }
  void Flush();

 private:
  zelt::FileDescriptor fd_;
  Bytes in_;
  std::size_t taken_ = 0;
  std::size_t filled_ = 0;
  Bytes out_;
};

// All of them throw std::system_error when they cannot. Sockets have no delay and do not block.
int ConnectTcp(std::uint16_t port);
int ConnectUnix(const std::string& path, int type);
int ListenTcp(std::uint16_t& port);
int ListenUnix(const std::string& path, int type);
int Accept(int listener, bool tcp);
int OpenTerminal(const std::string& path);
void WriteWhole(const std::string& path, View text);

// One command of the driver: its words, and the first as what it is looked up by. What a command
// returns is printed as a line: the inner part of a JSON object.
using Words = std::vector<std::string>;
using Commands = std::map<std::string, std::function<std::string(const Words&)>>;

// What comes on standard input.
class CommandLine {
 public:
  explicit CommandLine(Commands commands) : commands_(std::move(commands)) {}
  bool Serve();  // runs what is there; false at the end of input

 private:
  Commands commands_;
  std::string pending_;
};

std::string Field(View name, double value, bool last = false);
std::size_t Number(const std::string& word);
double Real(const std::string& word);

// Runs `body`, and makes what it throws a line and an exit status.
int RunMain(const char* program, const std::function<int()>& body);

}  // namespace bench
