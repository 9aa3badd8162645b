#include "ConfigBlock.h"

#include "zelt/FileDescriptor.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <new>
#include <system_error>

namespace zelt {
namespace {

// Readers take the lock, so they need to write: those of the file's group may.
constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP;
constexpr int kLockSeconds = 1;

void* Map(int fd) {
  return mmap(nullptr, sizeof(ConfigBlock::Layout), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

// Makes sure that all of a block has a place in memory: to write into a page that has none would
// end the process when the file system is full. False with errno.
bool Reserve(int fd) {
  int result = 0;
  do {
    result = fallocate(fd, 0, 0, sizeof(ConfigBlock::Layout));
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno == EOPNOTSUPP;
}

void CheckLock(int error, const std::string& path, const char* what) {
  if (error != 0) {
    throw std::system_error(
        error, std::generic_category(),
        path + ": cannot " + what + " the configuration block" +
            (error == ETIMEDOUT ? " within " + std::to_string(kLockSeconds) + " s" : ""));
  }
}

int LockInTime(pthread_mutex_t* mutex) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += kLockSeconds;
#ifdef __SANITIZE_THREAD__  // which knows every other way to lock, but not this one
  __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
#endif
  const int error = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
#ifdef __SANITIZE_THREAD__
  const unsigned failed = error == 0 || error == EOWNERDEAD ? 0 : __tsan_mutex_try_lock_failed;
  __tsan_mutex_post_lock(mutex, __tsan_mutex_try_lock | failed, 0);
#endif
  return error;
}

// Whoever owns the file decides what readers believe. The owner of the folder could put any file
// there, so nothing is gained by not trusting that one.
bool IsTrusted(uid_t owner, const std::string& path) {
  struct stat folder{};
  return owner == 0 || owner == geteuid() ||
         (stat(std::filesystem::path(path).parent_path().c_str(), &folder) == 0 &&
          owner == folder.st_uid);
}

// Gives an errno value, 0 on success.
int Initialise(void* memory) {
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
  return error;
}

}  // namespace

ConfigBlock::OpenResult ConfigBlock::Open(const std::string& path) {
  const auto failed = [&path](int error, const std::string& text) {
    return OpenResult{.block = nullptr, .error = error, .errorText = path + ": " + text};
  };
  const FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  struct stat status{};
  if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
    const int error = errno;
    return failed(error, error == ELOOP ? "is a symbolic link" : std::strerror(error));
  }
  if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) < sizeof(Layout)) {
    return failed(EINVAL, "is no configuration block (of " + std::to_string(sizeof(Layout)) +
                              " bytes or more)");
  }
  if (!IsTrusted(status.st_uid, path)) {
    return failed(EPERM, "belongs to user " + std::to_string(status.st_uid) +
                             ", expected root, user " + std::to_string(geteuid()) +
                             " or the owner of the folder");
  }
  void* const memory = Reserve(file.Get()) ? Map(file.Get()) : MAP_FAILED;
  if (memory == MAP_FAILED) {
    const int error = errno;
    return failed(error, std::string("cannot be mapped: ") + std::strerror(error));
  }
  const auto block = std::shared_ptr<ConfigBlock>(new ConfigBlock(path, memory));
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
  const FileDescriptor file(mkostemp(temporary.data(), O_CLOEXEC));
  if (file.Get() < 0) {
    ThrowErrno(path);
  }
  const auto give_up = [&] {
    const int error = errno;
    unlink(temporary.c_str());
    errno = error;
    ThrowErrno(path);
  };
  if (ftruncate(file.Get(), sizeof(Layout)) != 0 || fchmod(file.Get(), kFileMode) != 0 ||
      !Reserve(file.Get())) {
    give_up();
  }
  void* const memory = Map(file.Get());
  if (memory == MAP_FAILED) {
    give_up();
  }
  const int error = Initialise(memory);
  munmap(memory, sizeof(Layout));
  errno = error;
  if (error != 0 || std::rename(temporary.c_str(), path.c_str()) != 0) {
    give_up();
  }
}

ConfigBlock::~ConfigBlock() {
  munmap(layout_, sizeof(Layout));
}

void ConfigBlock::Lock() {
  const int error = LockInTime(&layout_->mutex);
  if (error != EOWNERDEAD) {
    CheckLock(error, path_, "lock");
    return;
  }
  if (layout_->committed != 0) {
    Finish();
  }
  CheckLock(pthread_mutex_consistent(&layout_->mutex), path_, "repair");
}

void ConfigBlock::Unlock() {
  CheckLock(pthread_mutex_unlock(&layout_->mutex), path_, "unlock");
}

void ConfigBlock::Finish() {
  layout_->record = layout_->staging;
  layout_->published = 1;
  layout_->committed = 0;
}

}  // namespace zelt
