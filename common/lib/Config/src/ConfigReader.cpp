#include "ConfigBlock.h"
#include "zelt/InterfaceFactory.h"
#include "zelt/Paths.h"

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace zelt {
namespace {

// One configuration, copied under one lock. Nobody changes it, so there is nothing to lock.
struct Snapshot : SharedMemoryBlockReaderIF {
  explicit Snapshot(const ConfigRecord& from) : record(from) {}
  void Lock() override {}
  void Unlock() override {}

  const ConfigRecord record;
};

class ConfigReader : public ConfigReaderIF {
 public:
  ConfigResult Get() override {
    const std::string path = ConfigSharedMemoryFile();
    auto [block, error, text] = ConfigBlock::Open(path);
    if (block == nullptr) {
      return {.record = {}, .error = error, .errorText = text};
    }
    try {
      // The lock first: it brings what a dead writer committed into force.
      const auto access = SharedMemoryReadPointer<ConfigRecord>(block, &block->Record()).Lock();
      if (!block->IsPublished()) {
        return {.record = {}, .error = ENODATA, .errorText = path + ": nothing published yet"};
      }
      const auto snapshot = std::make_shared<Snapshot>(*access);
      return {.record = {snapshot, &snapshot->record}, .error = 0, .errorText = {}};
    } catch (const std::system_error& failure) {
      return {.record = {}, .error = failure.code().value(), .errorText = failure.what()};
    }
  }
};

}  // namespace

template <>
std::unique_ptr<ConfigReaderIF> InterfaceFactory::Create<ConfigReaderIF>(std::string_view name) {
  if (name != "ConfigReaderIF") {
    throw std::runtime_error("no interface '" + std::string(name) + "', expected 'ConfigReaderIF'");
  }
  return std::make_unique<ConfigReader>();
}

}  // namespace zelt
