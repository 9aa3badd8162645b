#pragma once

#include "zelt/ConfigReaderIF.h"

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace zelt {

// The file that holds the configuration record, mapped; reader and writer are built on it.
//
// Anyone may die at any instruction while holding the lock. The kernel then hands it to the next
// to lock, who repairs the block. A writer therefore never changes the record before a whole copy
// of the new one lies in `staging` and `committed` says so:
//
//   Stage    staging := new          died: the old record stays
//   Commit   committed := 1          died: the next to lock does Finish
//   Finish   record := staging, published := 1, committed := 0      may be done twice
//
// Readers write too: they take the lock and repair. Whoever has write access to the file is
// therefore trusted, and may spoil the record and hold the lock; nothing here defends against that.
class ConfigBlock : public SharedMemoryBlockReaderIF {
 public:
  struct Layout {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t size;
    pthread_mutex_t mutex;  // robust, shared by processes, no recursion
    std::atomic<std::uint32_t> published;
    std::atomic<std::uint32_t> committed;
    ConfigRecord record;   // guarded by mutex
    ConfigRecord staging;  // guarded by mutex
  };
  static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

  static constexpr std::uint64_t kMagic = 0x31464E4F43544C5A;  // "ZLTCONF1" in memory

  // Raise it with every change of Layout. Each assertion that has to be changed is one.
  static constexpr std::uint32_t kVersion = 1;
  static_assert(offsetof(OfficerRecord, name) == 33);
  static_assert(offsetof(OfficerRecord, collaborationEnabled) == 98);
  static_assert(sizeof(OfficerRecord) == 99);
  static_assert(offsetof(OfficerList, current) == 4 && offsetof(OfficerList, officers) == 8);
  static_assert(sizeof(OfficerList) == 8 + 32 * sizeof(OfficerRecord));
  static_assert(offsetof(ConfigRecord, reserved) == 33 && offsetof(ConfigRecord, officers) == 36);
  static_assert(offsetof(ConfigRecord, tetheredStreaming) == 3212);
  static_assert(offsetof(ConfigRecord, tetheredUploading) == 3213);
  static_assert(offsetof(ConfigRecord, reservedAtEnd) == 3214 && sizeof(ConfigRecord) == 3216);
  static_assert(std::has_unique_object_representations_v<ConfigRecord>, "no padding");
  static_assert(offsetof(Layout, version) == 8 && offsetof(Layout, size) == 12);
  static_assert(offsetof(Layout, mutex) == 16);
  static constexpr std::size_t kAfterMutex = 16 + sizeof(pthread_mutex_t);
  static_assert(offsetof(Layout, published) == kAfterMutex);
  static_assert(offsetof(Layout, committed) == kAfterMutex + 4);
  static_assert(offsetof(Layout, record) == kAfterMutex + 8);
  static_assert(offsetof(Layout, staging) == kAfterMutex + 8 + sizeof(ConfigRecord));
  static_assert(sizeof(Layout) == kAfterMutex + 8 + 2 * sizeof(ConfigRecord));

  struct OpenResult {
    std::shared_ptr<ConfigBlock> block;
    int error = 0;  // an errno value
    std::string errorText;
  };
  // Refuses what is no regular file, and a file of somebody who is neither root nor the user of
  // this process nor the owner of the folder: in a folder that everybody may write to, such a block
  // may be anybody's.
  static OpenResult Open(const std::string& path);

  // Puts a new, unpublished block at `path`, whole from the first moment on. Throws
  // std::system_error with the path.
  static void Create(const std::string& path);

  ConfigBlock(const ConfigBlock&) = delete;
  ConfigBlock& operator=(const ConfigBlock&) = delete;
  ~ConfigBlock() override;

  void Lock() override;
  void Unlock() override;

  // Under the lock:
  bool IsPublished() const { return layout_->published != 0; }
  void Stage(const ConfigRecord& record) { layout_->staging = record; }
  void Commit() {
    layout_->committed = 1;
    // Nothing of Finish may be moved up here by the compiler.
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  void Finish();

  const ConfigRecord& Record() const { return layout_->record; }

 private:
  ConfigBlock(std::string path, void* memory)
      : path_(std::move(path)), layout_(static_cast<Layout*>(memory)) {}

  const std::string path_;  // for errors
  Layout* const layout_;
};

}  // namespace zelt
