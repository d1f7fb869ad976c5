#pragma once
#include <cstdint>

// How the allocator hands memory back. Status answers of a full table are
// megabytes of small values, built on whichever server thread takes the call:
// without limits every such thread keeps its own arena of freed memory.

// Call once, before any thread starts.
void mem_policy_apply();

// A reply that left megabytes of freed memory behind was built.
void mem_policy_note_large_answer();
// Hands freed memory back now: for the thread that just freed megabytes, once
// a second at most, rather than leaving them for the supervision thread.
void mem_policy_release_now();
// A cache that lets go of what can no longer be used at `now_s` (wall
// seconds); true when it freed something.
using mem_release_hook = bool (*)(int64_t now_s);
void mem_policy_set_release_hook(mem_release_hook hook);
// Runs the hook, then hands freed memory back to the system when a large
// answer was built or the hook freed something, at most once per
// MEM_RELEASE_PERIOD_MS. The supervision thread calls it, holding no lock.
void mem_policy_release_if_due(int64_t now_ms, int64_t now_s);

constexpr int64_t MEM_RELEASE_PERIOD_MS = 1000;
