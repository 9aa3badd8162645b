#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace zelt {

// Owns one file descriptor, or none (negative), and closes it. One thread.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~FileDescriptor() { Close(); }

  int Get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

  // Gives the descriptor to the caller, who closes it.
  int Release() { return std::exchange(descriptor_, -1); }

  void Close() {
    if (const int descriptor = std::exchange(descriptor_, -1); descriptor >= 0) {
      close(descriptor);
    }
  }

 private:
  int descriptor_ = -1;
};

// Throws std::system_error: what was tried, and what errno says.
[[noreturn]] inline void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace zelt
