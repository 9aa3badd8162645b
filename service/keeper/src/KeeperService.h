#pragma once

#include "LinkKeeper.h"

#include "zelt/AsyncCallbackHandle.h"
#include "zelt/ConcurrentQueue.h"
#include "zelt/MicroserviceIF.h"
#include "zelt/ServiceIPC.h"
#include "zelt/UniqueFunction.h"

#include <memory>
#include <random>
#include <string_view>

namespace zelt {

// The service Keeper: hears Kova and whoever switches it, and carries out what LinkKeeper decides.
//
// Callbacks of the platform only queue what they heard; the thread in DoRun does everything else,
// so that nothing here needs a lock.
class KeeperService : public MicroserviceIF {
 public:
  explicit KeeperService(std::shared_ptr<ServiceModel> model);

  void DoRun() override;
  void DoDie() override;

 private:
  using Envelope = ServiceIPC::MessageEnvelope;

  void HearLink(std::string_view payload,
                LinkKeeper::Orders (LinkKeeper::*event)(LinkKeeper::Link));
  void HearRequest(const Envelope& envelope, std::string_view payload);
  void Answer(const Envelope& envelope, KeepLinkRequest::Action action);

  void CarryOut(const LinkKeeper::Orders& orders);
  void Order(Kova::RtConnectionAction::Action action);
  void SetTimer(LinkKeeper::Seconds delay);
  KeepLinkStatus Status() const;
  void PublishChange();

  const std::shared_ptr<ServiceIPC> ipc_;
  ConcurrentQueue<UniqueFunction<void()>> tasks_;

  // Touched by the thread in DoRun alone.
  bool is_running_ = true;
  LinkKeeper keeper_;
  KeepLinkStatus published_;
  std::minstd_rand chance_{std::random_device{}()};
  AsyncCallbackHandle timer_;
  unsigned timer_number_ = 0;
};

}  // namespace zelt
