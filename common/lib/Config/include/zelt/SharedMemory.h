#pragma once

#include <memory>
#include <stdexcept>
#include <utility>

namespace zelt {

// The lock of one block of shared memory, held across processes.
class SharedMemoryBlockReaderIF {
 public:
  virtual ~SharedMemoryBlockReaderIF() = default;

  // Waits for the block, for 1 s at most. Survives the death of whoever held it: the next to lock
  // finds a whole record, the old one or the new one. Not recursive. Throws std::runtime_error when
  // the lock cannot be had in that time or is beyond repair.
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
};

// A record in shared memory that may be read only under its lock.
//
// Copies share the block reader, and so does each Access, which may outlive the pointer. Any
// thread; an Access holds the lock for as long as it lives, so copy out what is needed and let go.
template <class T>
class SharedMemoryReadPointer {
 public:
  class Access {
   public:
    Access(std::shared_ptr<SharedMemoryBlockReaderIF> reader, const T& record)
        : reader_(std::move(reader)), record_(record) {
      reader_->Lock();
    }
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;
    // Noexcept on purpose: a lock that cannot be released ends the process.
    ~Access() { reader_->Unlock(); }

    const T* operator->() const { return &record_; }
    const T& operator*() const { return record_; }

   private:
    const std::shared_ptr<SharedMemoryBlockReaderIF> reader_;
    const T& record_;
  };

  // An empty pointer.
  SharedMemoryReadPointer() = default;
  SharedMemoryReadPointer(std::shared_ptr<SharedMemoryBlockReaderIF> reader, const T* record)
      : reader_(std::move(reader)), record_(record) {}

  explicit operator bool() const { return reader_ != nullptr && record_ != nullptr; }

  // Takes the lock. Throws std::runtime_error when the pointer is empty, and what the lock throws.
  Access Lock() const {
    if (!*this) {
      throw std::runtime_error("Error access to null SharedMemoryReadPointer");
    }
    return Access(reader_, *record_);
  }

 private:
  std::shared_ptr<SharedMemoryBlockReaderIF> reader_;
  const T* record_ = nullptr;
};

}  // namespace zelt
