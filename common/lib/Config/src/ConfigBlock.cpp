#include "ConfigBlock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace zelt {
namespace {

// Readers take the lock, so they need to write: those of the file's group may.
constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP;

void* Map(int fd) {
  return mmap(nullptr, sizeof(ConfigBlock::Layout), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void CheckLock(int error, const char* what) {
  if (error != 0) {
    throw std::runtime_error(std::string("cannot ") + what +
                             " the configuration block: " + std::strerror(error));
  }
}

void Initialise(void* memory) {
  auto* const layout = new (memory) ConfigBlock::Layout{};
  layout->magic = ConfigBlock::kMagic;
  layout->version = ConfigBlock::kVersion;
  layout->size = sizeof(ConfigBlock::Layout);
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  const int error = pthread_mutex_init(&layout->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  CheckLock(error, "make the lock of");
}

class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  int Get() const { return fd_; }

 private:
  const int fd_;
};

}  // namespace

ConfigBlock::OpenResult ConfigBlock::Open(const std::string& path) {
  const auto failed = [&path](int error, const std::string& text) {
    return OpenResult{.block = nullptr, .error = error, .errorText = path + ": " + text};
  };
  const File file(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
  struct stat status{};
  if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
    const int error = errno;
    return failed(error, std::strerror(error));
  }
  if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) < sizeof(Layout)) {
    return failed(EINVAL, "is no configuration block (of " + std::to_string(sizeof(Layout)) +
                              " bytes or more)");
  }
  void* const memory = Map(file.Get());
  if (memory == MAP_FAILED) {
    const int error = errno;
    return failed(error, std::string("cannot be mapped: ") + std::strerror(error));
  }
  const auto block = std::shared_ptr<ConfigBlock>(new ConfigBlock(memory));
  const Layout& layout = *block->layout_;
  if (layout.magic != kMagic) {
    return failed(EINVAL, "is no configuration block (wrong magic number)");
  }
  if (layout.version != kVersion || layout.size != sizeof(Layout)) {
    return failed(EPROTO, "has layout " + std::to_string(layout.version) + " of " +
                              std::to_string(layout.size) + " bytes, expected " +
                              std::to_string(kVersion) + " of " + std::to_string(sizeof(Layout)));
  }
  return {.block = block, .error = 0, .errorText = {}};
}

void ConfigBlock::Create(const std::string& path) {
  // Built beside its place and moved there: a reader never sees half a block.
  std::string temporary = path + ".XXXXXX";
  const File file(mkostemp(temporary.data(), O_CLOEXEC));
  if (file.Get() < 0) {
    ThrowErrno(path);
  }
  const auto give_up = [&] {
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    ThrowErrno(path);
  };
  if (ftruncate(file.Get(), sizeof(Layout)) != 0 || fchmod(file.Get(), kFileMode) != 0) {
    give_up();
  }
  void* const memory = Map(file.Get());
  if (memory == MAP_FAILED) {
    give_up();
  }
  Initialise(memory);
  munmap(memory, sizeof(Layout));
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    give_up();
  }
}

ConfigBlock::~ConfigBlock() {
  munmap(layout_, sizeof(Layout));
}

void ConfigBlock::Lock() {
  const int error = pthread_mutex_lock(&layout_->mutex);
  if (error != EOWNERDEAD) {
    CheckLock(error, "lock");
    return;
  }
  if (layout_->committed != 0) {
    Finish();
  }
  CheckLock(pthread_mutex_consistent(&layout_->mutex), "repair");
}

void ConfigBlock::Unlock() {
  CheckLock(pthread_mutex_unlock(&layout_->mutex), "unlock");
}

void ConfigBlock::Finish() {
  layout_->record = layout_->staging;
  layout_->published = 1;
  layout_->committed = 0;
}

}  // namespace zelt
