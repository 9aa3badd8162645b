#pragma once

#include "zelt/ConfigReaderIF.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace zelt::fake {

// What a FakeConfigReader serves, and what was done to it. The test keeps it; the service under
// test owns the reader.
class FakeConfig : public SharedMemoryBlockReaderIF {
 public:
  ConfigRecord record{};  // starts with nobody assigned
  int error = 0;          // what Get() answers, with errorText
  std::string errorText;
  bool empty_pointer = false;  // Get() gives no record, whatever `error` says

  std::atomic<int> locks = 0;
  std::atomic<int> unlocks = 0;
  std::atomic<int> most_locks_held = 0;  // 1 when each read took the lock for itself

  void SetWorkingMode(std::string_view mode) {
    record.workingMode.fill('\0');
    std::ranges::copy(mode.substr(0, record.workingMode.size() - 1), record.workingMode.begin());
  }

  // Assigns the camera to an officer.
  void SetCollaborationEnabled(bool enabled) {
    record.officers.count = 1;
    record.officers.current = 0;
    record.officers.officers[0].collaborationEnabled = enabled;
  }

  void Lock() override { most_locks_held = std::max(most_locks_held.load(), ++locks - unlocks); }
  void Unlock() override { ++unlocks; }
};

class FakeConfigReader : public ConfigReaderIF {
 public:
  explicit FakeConfigReader(std::shared_ptr<FakeConfig> config) : config_(std::move(config)) {}

  ConfigResult Get() override {
    ConfigResult result{.record = {}, .error = config_->error, .errorText = config_->errorText};
    if (!config_->empty_pointer) {
      result.record = {config_, &config_->record};
    }
    return result;
  }

 private:
  std::shared_ptr<FakeConfig> config_;
};

}  // namespace zelt::fake
