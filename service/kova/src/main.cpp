#include "KovaService.h"

#include "zelt/ServiceRunner.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view kServiceName = "Kova";
constexpr std::array<std::string_view, 1> kDependencies = {"Config"};
constexpr std::array<std::string_view, 0> kShutdownDependencies = {};

template <class Names>
int PrintNames(const Names& names) {
  for (const std::string_view name : names) {
    std::cout << name << '\n';
  }
  std::cout << std::flush;
  return 0;
}

int PrintState() {
  try {
    const auto model = zelt::ServiceModel::Create();
    const auto state = model->GetServiceState(kServiceName, zelt::ServiceModel::Seconds(0.5));
    std::cout << zelt::service_state::GetServiceStateString(state) << '\n' << std::flush;
    return 0;
  } catch (const std::runtime_error& error) {
    std::cout << "Error: " << error.what() << std::endl;
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string_view> arguments(argv, argv + argc);
  const auto given = [&arguments](std::string_view option) {
    return std::ranges::find(arguments, option) != arguments.end();
  };
  if (given("--list-deps")) {
    return PrintNames(kDependencies);
  }
  if (given("--list-shutdown-deps")) {
    return PrintNames(kShutdownDependencies);
  }
  if (given("--get-state")) {
    return PrintState();
  }
  return zelt::ServiceRunner::RunService(
      [](std::shared_ptr<zelt::ServiceModel> model) -> std::shared_ptr<zelt::MicroserviceIF> {
        return std::make_shared<zelt::KovaService>(std::move(model), 1000);
      },
      kServiceName, kDependencies, kShutdownDependencies);
}
