// Preloaded into a process, counts its allocations: every malloc, calloc, realloc and aligned
// allocation, so every operator new, too. The count is the first eight bytes of the file that
// BENCH_ALLOCATIONS names.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

using Count = std::atomic<std::uint64_t>;

constinit Count g_nowhere{0};
constinit std::atomic<Count*> g_count{&g_nowhere};

void CountOne() {
  g_count.load(std::memory_order_relaxed)->fetch_add(1, std::memory_order_relaxed);
}

__attribute__((constructor)) void OpenCount() {
  const char* path = std::getenv("BENCH_ALLOCATIONS");
  const int fd = path != nullptr ? open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600) : -1;
  if (fd < 0 || ftruncate(fd, sizeof(Count)) != 0) {
    return;
  }
  void* place = mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (place != MAP_FAILED) {
    g_count = static_cast<Count*>(place);
  }
}

}  // namespace

// The C library's own, under the names that it gives them for this purpose; its names of parameters
// are reserved ones, too.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name,readability-identifier-naming)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* place, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  CountOne();
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  CountOne();
  return __libc_calloc(count, size);
}
void* realloc(void* place, std::size_t size) {
  CountOne();
  return __libc_realloc(place, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  CountOne();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** place, std::size_t alignment, std::size_t size) {
  CountOne();
  *place = __libc_memalign(alignment, size);
  return *place == nullptr ? ENOMEM : 0;
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name,readability-identifier-naming)
