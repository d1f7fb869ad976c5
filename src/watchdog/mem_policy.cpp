#include "mem_policy.h"

#include <malloc.h>

#include <atomic>

namespace {
// Two arenas keep server threads from waiting on one allocator lock while
// bounding what freed memory can hide in.
constexpr int ARENAS_MAX = 2;
// Buffers from this size on (serialised answers) are mapped and unmapped
// directly; a fixed value also stops glibc from raising it after each free.
constexpr int MMAP_FROM_BYTES = 128 * 1024;
// Free memory above this at the top of a heap is given back on free().
constexpr int TRIM_ABOVE_BYTES = 256 * 1024;

std::atomic<bool> release_wanted{false};
std::atomic<mem_release_hook> release_hook{nullptr};
int64_t last_release_ms = INT64_MIN / 2;   // only the supervision thread touches it
}

void mem_policy_apply()
{
    mallopt(M_ARENA_MAX, ARENAS_MAX);
    mallopt(M_MMAP_THRESHOLD, MMAP_FROM_BYTES);
    mallopt(M_TRIM_THRESHOLD, TRIM_ABOVE_BYTES);
}

void mem_policy_note_large_answer() { release_wanted.store(true, std::memory_order_relaxed); }

void mem_policy_release_now() { malloc_trim(0); }

void mem_policy_set_release_hook(mem_release_hook hook) { release_hook.store(hook); }

void mem_policy_release_if_due(int64_t now_ms, int64_t now_s)
{
    mem_release_hook hook = release_hook.load();
    if (hook && hook(now_s)) release_wanted.store(true);
    if (now_ms - last_release_ms < MEM_RELEASE_PERIOD_MS || !release_wanted.exchange(false)) return;
    last_release_ms = now_ms;
    // Returns the free pages inside every arena, not only at a heap's top.
    malloc_trim(0);
}
