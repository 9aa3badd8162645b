#include "zelt/ConfigPublisher.h"

#include "ConfigBlock.h"

#include <filesystem>
#include <stdexcept>

namespace zelt {

namespace {

// The block that is there, so that those who have it mapped see what will be published.
std::shared_ptr<ConfigBlock> UsableBlock(const std::string& path) {
  auto block = ConfigBlock::Open(path).block;
  try {
    if (block != nullptr) {
      block->Lock();
      block->Unlock();
    }
    return block;
  } catch (const std::runtime_error&) {
    return nullptr;  // beyond repair: to be replaced
  }
}

}  // namespace

ConfigPublisher::ConfigPublisher(const std::string& path) : block_(UsableBlock(path)) {
  if (block_ != nullptr) {
    return;
  }
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ConfigBlock::Create(path);
  auto opened = ConfigBlock::Open(path);
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
