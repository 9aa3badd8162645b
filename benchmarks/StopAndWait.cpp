// The bare stop-and-wait: what a file's way to the radio takes at least when each chunk is
// acknowledged before the next one goes. One thread that reads, frames, writes and waits.
//
// usage: bench_stopwait tcp|serial PORT|TERMINAL CHUNK FILE
//   CHUNK  bytes; 0: the largest that the radio takes
#include "Frame.h"
#include "Load.h"
#include "Wire.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::size_t kBeforeData = 8;  // in the payload: opcode, kind, chunk number, count

class Sender {
 public:
  explicit Sender(int line) : line_(line) { ::fcntl(line, F_SETFL, 0); }  // it may block

  void Send(Header header, View payload) {
    out_.clear();
    AppendFrame(header, payload, out_);
    for (View rest = out_; !rest.empty();) {
      const ssize_t count = ::write(line_, rest.data(), rest.size());
      if (count < 0) {
        zelt::ThrowErrno("cannot write");
      }
      rest.remove_prefix(static_cast<std::size_t>(count));
    }
    sent_ += out_.size();
  }

  // Waits for the frame whose payload begins with `opcode`; others do not matter.
  const Bytes& Await(unsigned opcode) {
    while (true) {
      for (std::size_t end = 0; (end = in_.find('\0')) != Bytes::npos;) {
        const bool good = DecodeFrame(View(in_).substr(0, end), frame_);
        in_.erase(0, end + 1);
        if (good && Get16(frame_, kHeaderSize) == opcode) {
          return frame_;
        }
      }
      const std::size_t had = in_.size();
      in_.resize(had + 4096);
      const ssize_t count = ::read(line_, in_.data() + had, 4096);
      if (count <= 0) {
        throw std::runtime_error("the radio has gone");
      }
      in_.resize(had + static_cast<std::size_t>(count));
      received_ += static_cast<std::size_t>(count);
    }
  }

  std::size_t Sent() const { return sent_; }
  std::size_t Received() const { return received_; }

 private:
  int line_;
  Bytes out_;
  Bytes in_;
  Bytes frame_;
  std::size_t sent_ = 0;
  std::size_t received_ = 0;
};

int Run(const Words& words) {
  const bool tcp = words.at(1) == "tcp";
  const zelt::FileDescriptor line(tcp ? ConnectTcp(static_cast<std::uint16_t>(Number(words.at(2))))
                                      : OpenTerminal(words.at(2)));
  const zelt::FileDescriptor file(::open(words.at(4).c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status{};
  if (!file || ::fstat(file.Get(), &status) != 0) {
    zelt::ThrowErrno("no file " + words.at(4));
  }
  Sender sender(line.Get());
  Bytes hello;
  Put16(hello, 1);  // its number
  Put16(hello, 1);  // protocol version
  hello += View("\x00\x00\x01v\x00\x01p", 7);
  sender.Send({FrameKind::LinkControl}, hello);
  const unsigned largest = Get16(sender.Await(2), kHeaderSize + 5);
  const std::size_t wanted = Number(words.at(3));
  const std::size_t chunk = wanted == 0 ? largest : wanted;

  const std::size_t sent_before = sender.Sent();
  const std::size_t received_before = sender.Received();
  const std::int64_t start = Now();
  Bytes access;
  Put16(access, opcode::kFileAccess);
  access += '\x01';  // write
  Put32(access, 2);  // replace
  Put32(access, static_cast<std::uint32_t>(status.st_size));
  Put16(access, 2);
  access += "fw";
  sender.Send({FrameKind::Request, 1}, access);
  const unsigned granted = static_cast<unsigned char>(
      sender.Await(opcode::kFileAccess | opcode::kResponse)[kHeaderSize + 2]);
  Bytes payload;
  unsigned number = 0;
  bool good = granted == 0;
  for (ssize_t count = 1; good; ++number) {
    payload.clear();
    Put16(payload, opcode::kTransferData);
    Put16(payload, 3);  // data of a file
    Put16(payload, number);
    payload.resize_and_overwrite(kBeforeData + chunk, [&](char* bytes, std::size_t) {
      count = ::read(file.Get(), bytes + kBeforeData, chunk);
      bytes[6] = static_cast<char>(count >> 8U);
      bytes[7] = static_cast<char>(count);
      return kBeforeData + static_cast<std::size_t>(count);
    });
    if (count <= 0) {
      break;
    }
    sender.Send({FrameKind::Request, static_cast<std::uint16_t>(number % 65535 + 1)}, payload);
    const Bytes& answer = sender.Await(opcode::kTransferData | opcode::kResponse);
    good = answer[kHeaderSize + 2] == 0 && Get16(answer, kHeaderSize + 3) == number % 65536;
  }
  const std::int64_t end = Now();
  Bytes goodbye;
  Put16(goodbye, 4);
  sender.Send({FrameKind::LinkControl}, goodbye);
  std::cout << '{' << Field("ok", good ? 1 : 0) << Field("chunk", static_cast<double>(chunk))
            << Field("chunks", number)
            << Field("sent", static_cast<double>(sender.Sent() - sent_before))
            << Field("received", static_cast<double>(sender.Received() - received_before))
            << Field("seconds", static_cast<double>(end - start) / kSecond, true) << '}'
            << std::endl;
  return good ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  return bench::RunMain("bench_stopwait", [&] {
    if (argc != 5) {
      throw std::runtime_error("usage: bench_stopwait tcp|serial PORT|TERMINAL CHUNK FILE");
    }
    return bench::Run({argv, argv + argc});
  });
}
