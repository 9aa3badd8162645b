#pragma once

#include "zelt/ServiceModel.h"

#include <memory>
#include <utility>

namespace zelt {

// A service as the runner sees it.
//
// The runner calls DoRun() once, on the thread that then serves until DoRun() returns, and DoDie()
// once, on another thread, when the service must stop; DoRun() has to return because of it.
class MicroserviceIF {
 public:
  explicit MicroserviceIF(std::shared_ptr<ServiceModel> model) : model_(std::move(model)) {}
  MicroserviceIF(const MicroserviceIF&) = delete;
  MicroserviceIF& operator=(const MicroserviceIF&) = delete;
  virtual ~MicroserviceIF() = default;

  virtual void DoRun() = 0;
  virtual void DoDie() = 0;

 protected:
  void SetMyServiceState(service_state::State state) { model_->SetMyServiceState(state); }
  const std::shared_ptr<ServiceModel>& Model() const { return model_; }

 private:
  std::shared_ptr<ServiceModel> model_;
};

}  // namespace zelt
