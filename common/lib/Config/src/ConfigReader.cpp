#include "ConfigBlock.h"
#include "zelt/InterfaceFactory.h"
#include "zelt/Paths.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace zelt {
namespace {

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
      block->Lock();
      const bool published = block->IsPublished();
      block->Unlock();
      if (!published) {
        return {.record = {}, .error = ENODATA, .errorText = path + ": nothing published yet"};
      }
    } catch (const std::system_error& failure) {
      return {.record = {}, .error = failure.code().value(), .errorText = failure.what()};
    }
    return {.record = {block, &block->Record()}, .error = 0, .errorText = {}};
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
