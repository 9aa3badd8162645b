#pragma once

#include <malloc.h>

namespace zelt {

// Lets the allocator keep no more than a megabyte of freed memory at the end of each of its areas,
// and none of a block of that size. By itself it would keep as much as two of the largest blocks
// that were ever freed. Once, when the process starts.
inline void KeepLittleFreeMemory() {
  constexpr int kKept = 1 << 20;
  mallopt(M_MMAP_THRESHOLD, kKept);
  mallopt(M_TRIM_THRESHOLD, kKept);
}

// Gives back to the system what was freed between blocks that live on, as most of a backlog is.
// Takes about a millisecond for each 10 MB, so it is for the end of a backlog, not for each
// message. Any thread.
inline void GiveBackFreeMemory() {
  malloc_trim(0);
}

}  // namespace zelt
