// Prints each state of the link to the radio, until it is stopped.
#include "zelt/LogClient.h"
#include "zelt/ServiceRunner.h"

#include "Kova.pb.h"

#include <future>
#include <iostream>

namespace {

class Peer : public zelt::MicroserviceIF {
 public:
  using MicroserviceIF::MicroserviceIF;

  void DoRun() override {
    const auto print = [](const zelt::ServiceIPC::MessageEnvelope& from, std::string_view payload) {
      Kova::RTConnectionStatus status;
      status.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
      std::cout << from.sender << ": " << status.status() << std::endl;
    };
    const auto subscription =
        Model()->GetServiceIPC()->SubscribeImpl(Kova::RTConnectionStatus().GetTypeName(), print);
    SetMyServiceState(zelt::service_state::State::Ready);
    ZELT_LOG(zelt::kLogInfo, 0) << "listening";
    stop_.get_future().wait();
  }
  void DoDie() override { stop_.set_value(); }

 private:
  std::promise<void> stop_;
};

}  // namespace

int main() {
  return zelt::ServiceRunner::RunService(
      [](auto model) { return std::make_shared<Peer>(std::move(model)); }, "Peer", {}, {});
}
