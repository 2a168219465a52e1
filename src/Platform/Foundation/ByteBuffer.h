// A byte buffer that keeps small contents inline (audio frames of 2 to 8 bytes never touch
// the heap) and larger ones in one heap block. Move-only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

namespace corvina {

class ByteBuffer {
public:
    static constexpr size_t kInlineCapacity = 32;

    ByteBuffer() = default;
    explicit ByteBuffer(size_t size) { resize(size); }
    ByteBuffer(const void* bytes, size_t size)
    {
        resize(size);
        if (size) std::memcpy(data(), bytes, size);
    }
    ByteBuffer(ByteBuffer&& other) noexcept { *this = std::move(other); }
    ByteBuffer& operator=(ByteBuffer&& other) noexcept
    {
        if (this != &other) {
            heap_ = std::move(other.heap_);
            size_ = other.size_;
            if (!heap_ && size_) std::memcpy(inline_, other.inline_, size_);
            other.size_ = 0;
        }
        return *this;
    }
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;

    // Contents are kept up to the smaller of the old and new size; new bytes are unspecified.
    void resize(size_t size)
    {
        if (size <= kInlineCapacity) {
            if (heap_) {
                std::memcpy(inline_, heap_.get(), size < size_ ? size : size_);
                heap_.reset();
            }
        } else if (!heap_ || size > capacity_) {
            auto block = std::make_unique_for_overwrite<uint8_t[]>(size);
            if (size_) std::memcpy(block.get(), data(), size_ < size ? size_ : size);
            heap_ = std::move(block);
            capacity_ = size;
        }
        size_ = size;
    }

    uint8_t* data() { return heap_ ? heap_.get() : inline_; }
    const uint8_t* data() const { return heap_ ? heap_.get() : inline_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::span<const uint8_t> bytes() const { return {data(), size_}; }

private:
    std::unique_ptr<uint8_t[]> heap_;
    size_t capacity_ = 0;
    size_t size_ = 0;
    uint8_t inline_[kInlineCapacity];
};

}  // namespace corvina
