#include "zelt/ConfigPublisher.h"

#include "ConfigBlock.h"

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace zelt {

namespace {

// The block that is there, so that those who have it mapped see what will be published; or why it
// has to be replaced. Throws when somebody does not let go of it.
ConfigBlock::OpenResult UsableBlock(const std::string& path) {
  auto opened = ConfigBlock::Open(path);
  try {
    if (opened.block != nullptr) {
      opened.block->Lock();
      opened.block->Unlock();
    }
    return opened;
  } catch (const std::system_error& error) {
    if (error.code().value() != ENOTRECOVERABLE) {
      throw;
    }
    return {.block = nullptr, .error = ENOTRECOVERABLE, .errorText = error.what()};
  }
}

}  // namespace

ConfigPublisher::ConfigPublisher(const std::string& path) {
  auto opened = UsableBlock(path);
  if (opened.block == nullptr) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    try {
      ConfigBlock::Create(path);
    } catch (const std::system_error& error) {
      throw std::runtime_error(opened.errorText + "; it cannot be replaced: " + error.what());
    }
    opened = ConfigBlock::Open(path);
  }
  if (opened.block == nullptr) {
    throw std::runtime_error(opened.errorText);
  }
  block_ = opened.block;
}

ConfigPublisher::~ConfigPublisher() = default;

void ConfigPublisher::Publish(const ConfigRecord& record) {
  block_->Lock();
  block_->Stage(record);
  block_->Commit();
  block_->Finish();
  block_->Unlock();
}

}  // namespace zelt
