// Fixed-width integers in a byte order of their own, whatever the machine's: the movie's
// atoms, codec headers and binary property lists are big-endian, PCM may be either. Loads
// and stores work on unaligned bytes; the span forms take an offset and are the caller's
// promise that the bytes are there (checked in debug builds only, as indexing is).
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>

namespace corvina {

// Any width from 1 to 8 bytes, as the binary property list's offsets and references use.
constexpr uint64_t loadBE(const uint8_t* p, size_t width)
{
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v = v << 8 | p[i];
    return v;
}
constexpr uint64_t loadLE(const uint8_t* p, size_t width)
{
    uint64_t v = 0;
    for (size_t i = width; i > 0; --i) v = v << 8 | p[i - 1];
    return v;
}
constexpr void storeBE(uint8_t* p, uint64_t v, size_t width)
{
    for (size_t i = width; i > 0; --i, v >>= 8) p[i - 1] = uint8_t(v);
}
constexpr void storeLE(uint8_t* p, uint64_t v, size_t width)
{
    for (size_t i = 0; i < width; ++i, v >>= 8) p[i] = uint8_t(v);
}

constexpr uint16_t loadBE16(const uint8_t* p) { return uint16_t(loadBE(p, 2)); }
constexpr uint32_t loadBE32(const uint8_t* p) { return uint32_t(loadBE(p, 4)); }
constexpr uint64_t loadBE64(const uint8_t* p) { return loadBE(p, 8); }
constexpr uint16_t loadLE16(const uint8_t* p) { return uint16_t(loadLE(p, 2)); }
constexpr uint32_t loadLE32(const uint8_t* p) { return uint32_t(loadLE(p, 4)); }
constexpr uint64_t loadLE64(const uint8_t* p) { return loadLE(p, 8); }

constexpr void storeBE16(uint8_t* p, uint16_t v) { storeBE(p, v, 2); }
constexpr void storeBE32(uint8_t* p, uint32_t v) { storeBE(p, v, 4); }
constexpr void storeBE64(uint8_t* p, uint64_t v) { storeBE(p, v, 8); }
constexpr void storeLE16(uint8_t* p, uint16_t v) { storeLE(p, v, 2); }
constexpr void storeLE32(uint8_t* p, uint32_t v) { storeLE(p, v, 4); }
constexpr void storeLE64(uint8_t* p, uint64_t v) { storeLE(p, v, 8); }

constexpr uint16_t loadBE16(std::span<const uint8_t> b, size_t at)
{
    assert(at + 2 <= b.size());
    return loadBE16(b.data() + at);
}
constexpr uint32_t loadBE32(std::span<const uint8_t> b, size_t at)
{
    assert(at + 4 <= b.size());
    return loadBE32(b.data() + at);
}
constexpr uint64_t loadBE64(std::span<const uint8_t> b, size_t at)
{
    assert(at + 8 <= b.size());
    return loadBE64(b.data() + at);
}

// A 16-bit sample in either order, as signed PCM.
constexpr int16_t loadPCM16(const uint8_t* p, bool bigEndian) { return int16_t(bigEndian ? loadBE16(p) : loadLE16(p)); }
constexpr void storePCM16(uint8_t* p, int16_t v, bool bigEndian)
{
    bigEndian ? storeBE16(p, uint16_t(v)) : storeLE16(p, uint16_t(v));
}

// The four bytes of a value in reversed order (a little-endian field read as big-endian).
constexpr uint32_t byteSwapped32(uint32_t v)
{
    return (v & 0xFF) << 24 | (v >> 8 & 0xFF) << 16 | (v >> 16 & 0xFF) << 8 | v >> 24;
}

}  // namespace corvina
