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
    uint32_t u32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; i++) v = (v << 8) | u8();
        return v;
    }
    std::string bytes(size_t len)
    {
        len = std::min(len, n);
        std::string s(reinterpret_cast<const char*>(p), len);
        p += len;
        n -= len;
        return s;
    }
};
