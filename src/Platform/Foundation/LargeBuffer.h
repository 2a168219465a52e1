// Memory for large buffers that reads or appends fill: aligned to a huge page and asked for in
// huge pages, so that filling it faults a few hundred times instead of once per 4 KiB page (on
// a virtual machine that cost as much as the work done with the bytes). The request is advice
// only: without huge pages the memory works the same. A buffer smaller than two huge pages is
// plain `operator new` memory, since no huge page would fit in it whole.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvina {

constexpr size_t kHugePageBytes = size_t(2) << 20;

// `bytes` of memory, not zero-filled, asked for in huge pages from `ordinaryBytes` on (rounded
// up to a huge page): a buffer that mostly stays small keeps its first pages ordinary. Throws
// std::bad_alloc.
void* allocateLargeBuffer(size_t bytes, size_t ordinaryBytes = 0);
// Frees what allocateLargeBuffer(bytes, ...) gave.
void freeLargeBuffer(void* buffer, size_t bytes) noexcept;

// For memory that another container allocated and has not touched yet (a string or vector
// just reserved): asks for huge pages in the 2 MiB-aligned middle of the block, so that filling
// it takes one page fault per huge page. Advice only; a block under two huge pages is left
// alone.
void adviseHugePages(void* block, size_t bytes) noexcept;

// One such buffer of a fixed size, owned.
class LargeBuffer {
public:
    explicit LargeBuffer(size_t bytes, size_t ordinaryBytes = 0)
        : bytes_(bytes), data_(static_cast<uint8_t*>(allocateLargeBuffer(bytes, ordinaryBytes)))
    {
    }
    ~LargeBuffer() { freeLargeBuffer(data_, bytes_); }
    LargeBuffer(const LargeBuffer&) = delete;
    LargeBuffer& operator=(const LargeBuffer&) = delete;

    uint8_t* data() const { return data_; }
    size_t size() const { return bytes_; }

private:
    size_t bytes_;
    uint8_t* data_;
};

}  // namespace corvina
