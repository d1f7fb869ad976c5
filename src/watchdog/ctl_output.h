#pragma once
// Read window of GetStdXXXBuf, exposed for tests.
#include <cstdint>

constexpr uint64_t CTL_STD_CHUNK_MAX = 1024;   // bytes per reply

struct ctl_std_window {
    uint64_t start;   // first stream offset returned
    uint64_t end;     // just past the last; the client's next "off"
};

// Clamps the requested `off` into [head, tail] and takes at most
// CTL_STD_CHUNK_MAX bytes from there.
ctl_std_window ctl_std_window_for(uint64_t head, uint64_t tail, int64_t off);
