// The log's write queue: any thread hands it entries (TQLogEntry), one writer thread of its
// own takes everything queued with one lock and hands it to the sink as texts, in queuing
// order. Holds at most kCapacity bytes of entries: a caller that finds it full waits until
// the writer has taken them.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tq/TQLogEntry.h"
#include "tq/TQLogSink.h"

namespace corvina::tq {

using TQLogEntryBytes = std::vector<char, TQLogBufferAllocator<char>>;

class TQLogQueue {
public:
    static constexpr size_t kCapacity = size_t(8) << 20;

    explicit TQLogQueue(TQLogSink& sink);
    ~TQLogQueue();
    TQLogQueue(const TQLogQueue&) = delete;
    TQLogQueue& operator=(const TQLogQueue&) = delete;

    // Queues the entry (nothing when it is empty); waits while the queue is full.
    void push(const TQLogEntry& entry);

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
    // Queues an entry of `size` bytes that fill writes in place, under the lock.
    template <class Fill>
    void pushWith(size_t size, uint64_t length16, const Fill& fill, uint64_t entries);
    void startWriterLocked();
    static void* writerMain(void* self);
    void writerLoop();

    TQLogSink& sink_;
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

}  // namespace corvina::tq
