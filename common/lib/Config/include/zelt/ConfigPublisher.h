#pragma once

#include "zelt/ConfigReaderIF.h"

#include <memory>
#include <string>

namespace zelt {

class ConfigBlock;

// The writing end of the configuration record: for the Config service alone.
//
// The record lies in a file that readers map. It outlives this object and the process, so that
// readers keep the last record while the Config service is away. One thread.
class ConfigPublisher {
 public:
  // Takes over the block at `path`, record included, or makes a new one in place of nothing or of
  // something that is no such block, is beyond repair or belongs to a stranger; makes missing
  // folders. Throws std::runtime_error with path and reason when that fails, or when somebody holds
  // the lock for longer than 1 s.
  explicit ConfigPublisher(const std::string& path);
  ConfigPublisher(const ConfigPublisher&) = delete;
  ConfigPublisher& operator=(const ConfigPublisher&) = delete;
  ~ConfigPublisher();

  // Replaces the record for all readers at once. If this process dies inside, they find the old
  // record or the new one, whole. Throws std::runtime_error when the lock is beyond repair or
  // cannot be had within 1 s.
  void Publish(const ConfigRecord& record);

 private:
  std::shared_ptr<ConfigBlock> block_;
};

}  // namespace zelt
