#include "mem_policy.h"

#include <malloc.h>

namespace {
// Two arenas keep server threads from waiting on one allocator lock while
// bounding what freed memory can hide in.
constexpr int ARENAS_MAX = 2;
// Buffers from this size on (serialised answers) are mapped and unmapped
// directly; a fixed value also stops glibc from raising it after each free.
constexpr int MMAP_FROM_BYTES = 128 * 1024;
// Free memory above this at the top of a heap is given back on free().
constexpr int TRIM_ABOVE_BYTES = 256 * 1024;
}

void mem_policy_apply()
{
    mallopt(M_ARENA_MAX, ARENAS_MAX);
    mallopt(M_MMAP_THRESHOLD, MMAP_FROM_BYTES);
    mallopt(M_TRIM_THRESHOLD, TRIM_ABOVE_BYTES);
}
