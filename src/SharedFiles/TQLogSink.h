// Where the log's writer thread hands its texts: the file (TQLogFile) in the programs, a
// memory sink in tests and benchmarks. A sink is handed every batch in queuing order, on the
// writer thread alone.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Foundation/LargeBuffer.h"

namespace corvina::tq {

// The log's buffers: they grow without being zero-filled first (every byte an entry adds is
// written by it), and a large one (a burst's) asks the kernel for huge pages past its first
// 2 MiB, so that filling it costs a few page faults instead of thousands while a quiet log
// still touches ordinary pages only.

template <class T>
struct TQLogBufferAllocator : std::allocator<T> {
    using value_type = T;
    template <class U>
    struct rebind {
        using other = TQLogBufferAllocator<U>;
    };
    TQLogBufferAllocator() = default;
    template <class U>
    TQLogBufferAllocator(const TQLogBufferAllocator<U>&) noexcept
    {
    }
    T* allocate(size_t n) { return static_cast<T*>(allocateLargeBuffer(n * sizeof(T), kHugePageBytes)); }
    void deallocate(T* at, size_t n) noexcept { freeLargeBuffer(at, n * sizeof(T)); }
    template <class U>
    void construct(U* at) noexcept
    {
        ::new (static_cast<void*>(at)) U;
    }
    template <class U, class... A>
    void construct(U* at, A&&... args)
    {
        ::new (static_cast<void*>(at)) U(std::forward<A>(args)...);
    }
};

// Texts waiting to be written, already trimmed and never empty: views of texts held
// elsewhere (they must outlive the list), texts formatted into the list's own buffer, or
// deferred texts whose size is known and whose bytes are made only when they are needed
// (materialize), so that texts a batch rotates out of the kept files are never made.
class TQLogTexts {
public:
    // Makes a deferred text: appends it to out, trimmed, from what `source` points at (part
    // tells which of the texts a source stands for is meant).
    using Maker = void (*)(const char* source, uint64_t part, std::string& out);

    void pushView(std::string_view text) { slots_.push_back({text.data(), text.size(), 0}); }
    void push(std::string_view text)
    {
        const size_t start = bytes_.size();
        bytes_.append(text);
        commit(start);
    }
    // A text of `size` bytes (never 0) that maker(source, part, ...) makes later.
    void pushDeferred(const char* source, size_t size, Maker maker, uint64_t part = 0)
    {
        assert(part < kDeferred);
        maker_ = maker;
        slots_.push_back({source, size, kDeferred | part});
        ++deferred_;
    }
    // Room for one more text written straight into the buffer: append to buffer(), then
    // commit(start) with the size buffer() had before (an empty result is dropped).
    std::string& buffer() { return bytes_; }
    void commit(size_t start)
    {
        if (bytes_.size() > start) slots_.push_back({nullptr, bytes_.size() - start, start});
    }
    size_t size() const { return slots_.size(); }
    bool empty() const { return slots_.empty(); }
    size_t sizeAt(size_t i) const { return slots_[i].size; }
    // Makes the deferred texts from index `from` on; only those may be read afterwards.
    void materialize(size_t from);
    std::string_view operator[](size_t i) const
    {
        const Slot& slot = slots_[i];
        assert(!(slot.offset & kDeferred));
        return std::string_view(slot.data ? slot.data : bytes_.data() + slot.offset, slot.size);
    }
    void clear()
    {
        bytes_.clear();
        slots_.clear();
        deferred_ = 0;
    }
    // Gives back memory once a burst has passed.
    void trim(size_t keepBytes);

private:
    static constexpr uint64_t kDeferred = uint64_t(1) << 63;  // the rest of the offset: the part
    struct Slot {
        const char* data;  // a view's text, a deferred text's source; none: at offset in bytes_
        size_t size;
        uint64_t offset;  // with kDeferred set: not made yet
    };
    std::string bytes_;
    std::vector<Slot, TQLogBufferAllocator<Slot>> slots_;
    size_t deferred_ = 0;
    Maker maker_ = nullptr;
};

class TQLogSink {
public:
    virtual ~TQLogSink() = default;
    // One batch, in order. The texts may be materialized, read and cleared.
    virtual void write(TQLogTexts& texts) = 0;
};

// Keeps every text it is handed, in order; or, with keepTexts off, only counts them and
// their bytes (deferred texts stay unmade, as a file that rotates them out leaves them).
class TQLogMemorySink : public TQLogSink {
public:
    explicit TQLogMemorySink(bool keepTexts = true) : keepTexts_(keepTexts) {}
    void write(TQLogTexts& texts) override;
    // A copy of the texts so far; safe while the writer runs.
    std::vector<std::string> texts() const;
    uint64_t count() const;
    uint64_t bytes() const;

private:
    const bool keepTexts_;
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
    uint64_t count_ = 0;
    uint64_t bytes_ = 0;
};

}  // namespace corvina::tq
