// Reads a fuzzer's input from the front; runs dry into zeros, so every input
// ends in a finite value.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

struct byte_reader {
    const uint8_t* p;
    size_t n;
    uint8_t u8() { return n == 0 ? 0 : (--n, *p++); }
    uint32_t u32() { return uint32_t{u8()} << 24 | uint32_t{u8()} << 16 | uint32_t{u8()} << 8 | u8(); }
    std::string bytes(size_t len)
    {
        std::string s(reinterpret_cast<const char*>(p), std::min(len, n));
        p += s.size(), n -= s.size();
        return s;
    }
};
