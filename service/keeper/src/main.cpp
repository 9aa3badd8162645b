#include "KeeperService.h"

#include "zelt/ServiceRunner.h"

#include <memory>
#include <utility>

int main() {
  // It waits for nobody: that Kova is not ready is one of the states that it follows.
  return zelt::ServiceRunner::RunService(
      [](std::shared_ptr<zelt::ServiceModel> model) {
        return std::make_shared<zelt::KeeperService>(std::move(model));
      },
      "Keeper", {}, {});
}
