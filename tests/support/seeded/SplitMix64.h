// The seeded generator of test data (SplitMix64): the same seed gives the same numbers and
// bytes on any machine, so digests of data made from it can be written into tests. Header
// only and free of the test framework, so that the tools that make sample data use it too.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Foundation/ByteOrder.h"

namespace corvina::test {

class SplitMix64 {
public:
    explicit SplitMix64(uint64_t seed) : state_(seed) {}

    uint64_t next()
    {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // In [lo, hi], both included; the modulo's slight bias does not matter for test data.
    uint64_t between(uint64_t lo, uint64_t hi) { return lo + next() % (hi - lo + 1); }
    // n bytes: each number gives eight, least significant first; a last partial number
    // gives its low bytes.
    void fill(uint8_t* out, size_t n)
    {
        for (; n >= 8; out += 8, n -= 8) storeLE64(out, next());
        if (n > 0) storeLE(out, next(), n);
    }

private:
    uint64_t state_;
};

}  // namespace corvina::test
