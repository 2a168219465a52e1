// Big-endian serialisation of atoms into memory. An atom is opened with its type, its
// children and fields are written, and closing it fills its 32-bit size in.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "Foundation/ByteOrder.h"
#include "SampleBuffer/FormatDescription.h"

namespace corvina::qt {

class AtomWriter {
public:
    void u8(uint8_t v) { bytes_.push_back(v); }
    void u16(uint16_t v) { put(v, 2); }
    void u32(uint32_t v) { put(v, 4); }
    void u64(uint64_t v) { put(v, 8); }
    void i16(int16_t v) { u16(uint16_t(v)); }
    void i32(int32_t v) { u32(uint32_t(v)); }
    void f32(float v) { u32(std::bit_cast<uint32_t>(v)); }
    void f64(double v) { u64(std::bit_cast<uint64_t>(v)); }
    void fourcc(FourCharCode v) { u32(v); }
    void zeros(size_t n) { bytes_.insert(bytes_.end(), n, uint8_t(0)); }
    void versionAndFlags(uint8_t version, uint32_t flags) { u32((uint32_t(version) << 24) | (flags & 0xFFFFFF)); }

    // A Pascal string in a field of fieldSize bytes (0: exactly as long as the string needs).
    void pascalString(std::string_view text, size_t fieldSize = 0)
    {
        size_t limit = fieldSize ? fieldSize - 1 : 255;
        size_t n = text.size() < limit ? text.size() : limit;
        u8(uint8_t(n));
        bytes_.insert(bytes_.end(), text.begin(), text.begin() + n);
        if (fieldSize) zeros(fieldSize - 1 - n);
    }

    // Opens an atom: reserves its size and writes its type; returns where it starts.
    size_t begin(FourCharCode type)
    {
        size_t start = bytes_.size();
        u32(0);
        fourcc(type);
        return start;
    }
    void end(size_t start) { patch32(start, uint32_t(bytes_.size() - start)); }

    void patch32(size_t at, uint32_t v) { storeBE32(bytes_.data() + at, v); }

    size_t size() const { return bytes_.size(); }
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    std::vector<uint8_t> take() { return std::move(bytes_); }

private:
    void put(uint64_t v, size_t n)
    {
        uint8_t field[8];
        storeBE(field, v, n);
        bytes_.insert(bytes_.end(), field, field + n);
    }
    std::vector<uint8_t> bytes_;
};

// Opens an atom for the lifetime of a scope.
class ScopedAtom {
public:
    ScopedAtom(AtomWriter& w, FourCharCode type) : w_(w), start_(w.begin(type)) {}
    ~ScopedAtom() { w_.end(start_); }
    ScopedAtom(const ScopedAtom&) = delete;
    ScopedAtom& operator=(const ScopedAtom&) = delete;

private:
    AtomWriter& w_;
    size_t start_;
};

}  // namespace corvina::qt
