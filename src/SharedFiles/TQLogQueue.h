// The log's write queue: any thread hands it entries, one writer thread of its own takes
// everything queued with one lock and hands it on as texts, in queuing order. An entry is
// either a finished text or a format with its arguments captured by value, formatted later
// on the writer so that the caller's cost is one copy. Holds at most kCapacity bytes of
// entries: a caller that finds it full waits until the writer has taken them.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Foundation/Format.h"
#include "TQLogFile.h"

// Bytes that grow without being zero-filled first: every byte an entry adds is written by it.
template <class T>
struct UninitializedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = UninitializedAllocator<U>;
    };
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
using TQLogEntryBytes = std::vector<char, UninitializedAllocator<char>>;

class TQLogQueue {
public:
    static constexpr size_t kCapacity = size_t(8) << 20;

    // Runs on the writer thread with each batch, in order.
    using Sink = std::function<void(TQLogTexts&)>;

    explicit TQLogQueue(Sink sink);
    ~TQLogQueue();
    TQLogQueue(const TQLogQueue&) = delete;
    TQLogQueue& operator=(const TQLogQueue&) = delete;

    // A text, trimmed here; nothing is queued when nothing is left.
    void pushText(std::string_view text);
    // A format (already escaped) and its arguments. Objects are described now, on the
    // caller's thread; everything else is copied. Counts as the format's length in
    // bytesInQueue.
    void pushFormat(std::string_view format, std::span<const corvina::FormatArg> args);

    // A format queued again and again (a feeder's line for every sample) is kept once for the
    // process and queued by its number: the caller copies only the arguments, and the writer
    // measures it without reading its text. intern takes the text as pushFormat would (a
    // format without conversions stands for itself, trimmed as pushText trims); none once
    // the table is full or for a text too long to keep.
    static std::optional<uint32_t> intern(std::string_view format);
    void pushInterned(uint32_t id, std::span<const corvina::FormatArg> args);

    // One line of a series: an interned format, its arguments (numbers, characters, strings
    // and pointers: objects are described when they are logged one by one), and the integer
    // argument that counts up by one from each step to the next, if any.
    struct SeriesLine {
        uint32_t id = 0;
        std::span<const corvina::FormatArg> args;
        std::optional<uint8_t> counting;
    };
    // As pushing each of the lines in turn, `steps` times over, with the counting arguments
    // one higher at each step: steps x lines entries queued in one. At most 255 lines.
    void pushSeries(std::span<const SeriesLine> lines, uint64_t steps);

    // Blocks until everything queued before the call is handed on; at once on the writer.
    void waitUntilWritten();
    // Hands on what is queued when at most keepAtMost entries wait, else drops those the
    // writer has not taken; then stops the writer. Later entries are dropped.
    void shutdown(size_t keepAtMost);

    bool isShutDown() const;
    bool isWriterThread() const { return writerId_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }
    // Total length of what waits: texts in UTF-16 code units, formats by their length.
    uint64_t bytesInQueue() const { return bytesInQueue_.load(std::memory_order_relaxed); }
    // Entries queued and not yet handed on.
    size_t entryCount() const;
    // Bytes of entries waiting to be taken by the writer (at most kCapacity plus one entry).
    size_t queuedBytes() const;
    // While suspended the writer takes nothing (callers still wait when it is full).
    void setSuspended(bool suspended);

    // Around fork(): the child starts with an empty queue and no writer; what was queued
    // before is the parent's to write.
    void lockForFork();
    void unlockInParent();
    void resetInChild();

private:
    void push(std::string_view entry, uint64_t length16);
    // Queues an entry of `size` bytes that fill writes in place, under the lock.
    template <class Fill>
    void pushWith(size_t size, uint64_t length16, const Fill& fill, uint64_t entries = 1);
    void pushEntry(uint8_t kind, std::string_view format, uint32_t id, uint64_t length16,
                   std::span<const corvina::FormatArg> args);
    void startWriterLocked();
    static void* writerMain(void* self);
    void writerLoop();
    static uint64_t totalLength16(std::string_view entries);
    static uint64_t unpack(std::string_view entries, uint64_t count, TQLogTexts& texts);

    Sink sink_;
    mutable std::mutex mutex_;
    std::condition_variable queueCv_;  // the writer waits for work
    std::condition_variable doneCv_;   // waitUntilWritten waits for progress
    std::condition_variable roomCv_;   // callers wait for room
    TQLogEntryBytes pending_;          // entries back to back
    uint64_t seriesWeight_ = 0;        // what the series queued weigh beyond their bytes
    uint64_t pushedSeq_ = 0;           // entries queued so far
    uint64_t takenSeq_ = 0;            // entries taken by the writer
    uint64_t writtenSeq_ = 0;          // entries handed on by the writer
    bool suspended_ = false;
    bool writerIdle_ = false;  // the writer waits for work and must be woken
    int flushWaiters_ = 0;
    int roomWaiters_ = 0;
    bool stop_ = false;
    bool shutDown_ = false;
    pthread_t writerThread_{};
    bool writerRunning_ = false;
    pid_t writerPid_ = 0;
    std::atomic<std::thread::id> writerId_{};
    std::atomic<uint64_t> bytesInQueue_{0};
};
