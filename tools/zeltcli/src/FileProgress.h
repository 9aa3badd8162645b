#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace zelt::cli {

// How far another process of this machine has read a file: the position of its descriptor, as the
// kernel shows it to the same user and to root.
class FileProgress {
 public:
  // `reader` is the name of the process that reads.
  FileProgress(const std::string& path, std::string reader);

  // Returns nothing while no such process is seen to have the file open.
  std::optional<std::uint64_t> Position();

 private:
  bool IsFile(const std::string& path) const;
  bool Find();

  const std::string reader_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::string descriptor_;  // the reader's, in /proc; empty until found
  std::string info_;        // where the kernel shows its position
  std::chrono::steady_clock::time_point next_search_;
};

}  // namespace zelt::cli
