#include "CameraLink.h"

#include <utility>

namespace radiosim {
namespace {

constexpr std::chrono::milliseconds kHoldAtMost{500};

}  // namespace

// The plan lets a fault befall only the type that it is for.
void CameraLink::Falsify(const Faults& faults, orka::RadioNotificationData& data,
                         std::uint16_t& transaction) {
  for (const FaultRule* fault : faults) {
    switch (fault->kind) {
      case FaultKind::WrongChunk:
        ++std::get<orka::qrx::TransferDataResponse>(data).chunk_number;
        break;
      case FaultKind::WrongName:
        std::get<orka::qrx::FileAccessResponse>(data).file_name += "x";
        break;
      case FaultKind::WrongSize:
        ++std::get<orka::qrx::FileAccessResponse>(data).file_size;
        break;
      case FaultKind::WrongTransaction:
        transaction ^= 0x5555U;
        break;
      default:
        break;  // a fault of the frame
    }
  }
}

std::optional<CameraLink::Passage> CameraLink::Pass(const Faults& faults,
                                                    const std::string& if_dropped,
                                                    orka::codec::Bytes& frame) {
  Passage passage;
  for (const FaultRule* fault : faults) {
    switch (fault->kind) {
      case FaultKind::Drop:
      case FaultKind::NoHandshake:
        events_.print(if_dropped);
        return std::nullopt;
      case FaultKind::Duplicate:
        passage.times = 2;
        break;
      case FaultKind::Delay:
        passage.delay += fault->delay;
        break;
      case FaultKind::Reorder:
        if (!held_.empty()) {
          break;  // this one is the next one for the frame that is held
        }
        held_ = std::move(frame);
        later_(kHoldAtMost, [this, number = ++held_number_] {
          if (number == held_number_) {
            Deliver(std::exchange(held_, {}));
          }
        });
        return std::nullopt;
      case FaultKind::Corrupt:
        frame[plan_.Random(frame.size() - 1)] ^= static_cast<std::uint8_t>(1U << plan_.Random(8));
        break;
      case FaultKind::Truncate:
        frame.resize(1 + plan_.Random(frame.size() - 2));
        frame.push_back(0);
        break;
      case FaultKind::HalfFrame:
        frame.resize(frame.size() / 2);
        passage.then_silent = true;
        break;
      case FaultKind::Silent:
        FallSilent();
        if (!fault->incoming) {
          return std::nullopt;
        }
        break;
      case FaultKind::Reboot:
        Restart(std::chrono::milliseconds(0));
        return std::nullopt;
      default:
        break;  // a fault of the message
    }
  }
  return passage;
}

void CameraLink::FallSilent(const std::string& where) {
  events_.print("fault: falls silent" + where);
  session_silent_ = true;
}

}  // namespace radiosim
