#pragma once
// How the allocator hands memory back. Status answers of a full table are
// megabytes of small values, built on whichever server thread takes the call:
// without limits every such thread keeps its own arena of freed memory.

// Call once, before any thread starts.
void mem_policy_apply();
