#include "FileProgress.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

namespace zelt::cli {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kSearchPause{200};

std::string FirstLine(const fs::path& path) {
  std::string line;
  std::ifstream file(path);
  std::getline(file, line);
  return line;
}

}  // namespace

FileProgress::FileProgress(const std::string& path, std::string reader)
    : reader_(std::move(reader)) {
  struct stat status{};
  if (stat(path.c_str(), &status) == 0) {
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
}

std::optional<std::uint64_t> FileProgress::Position() {
  // The number of a closed descriptor may be that of another file by now.
  if (!IsFile(descriptor_) && !Find()) {
    return std::nullopt;
  }
  std::ifstream file(info_);
  std::string word;
  std::uint64_t position = 0;
  if (file >> word >> position && word == "pos:") {
    return position;
  }
  return std::nullopt;
}

bool FileProgress::IsFile(const std::string& path) const {
  struct stat status{};
  return stat(path.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

// Processes and descriptors come and go while they are looked at: whatever cannot be read is
// passed over.
bool FileProgress::Find() {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_search_) {
    return false;
  }
  next_search_ = now + kSearchPause;
  std::error_code ignored;
  for (const auto& process : fs::directory_iterator("/proc", ignored)) {
    if (FirstLine(process.path() / "comm") != reader_) {
      continue;
    }
    for (const auto& open_file : fs::directory_iterator(process.path() / "fd", ignored)) {
      if (IsFile(open_file.path())) {
        descriptor_ = open_file.path();
        info_ = (process.path() / "fdinfo" / open_file.path().filename()).string();
        return true;
      }
    }
  }
  return false;
}

}  // namespace zelt::cli
