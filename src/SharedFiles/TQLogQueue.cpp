#include "tq/TQLogQueue.h"

#include <unistd.h>

#include <chrono>
#include <limits>
#include <memory>

namespace corvina::tq {

namespace {

constexpr size_t kCoalesceEntries = 64;  // batches this large suggest a steady stream
constexpr auto kCoalescePause = std::chrono::milliseconds(2);
constexpr size_t kReserved = TQLogQueue::kCapacity + (64 << 10);
constexpr size_t kKeptCapacity = 2 * TQLogQueue::kCapacity;  // buffer kept between batches

}  // namespace

TQLogQueue::TQLogQueue(TQLogSink& sink) : sink_(sink) {}

TQLogQueue::~TQLogQueue() { shutdown(std::numeric_limits<size_t>::max()); }

// ---- callers

void TQLogQueue::push(const TQLogEntry& entry)
{
    if (entry.empty()) return;
    pushWith(
        entry.size(), entry.length16(), [&](char* at) { entry.encode(at); }, entry.lines());
}

template <class Fill>
void TQLogQueue::pushWith(size_t size, uint64_t length16, const Fill& fill, uint64_t entries)
{
    bool wake = false;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (shutDown_) return;
        startWriterLocked();
        // Full: wait for the writer to take what is there (never on the writer itself).
        const auto full = [this] { return pending_.size() + seriesWeight_ >= kCapacity; };
        if (full() && writerRunning_ && !isWriterThread()) {
            ++roomWaiters_;
            queueCv_.notify_one();
            roomCv_.wait(lock, [&] { return !full() || shutDown_; });
            --roomWaiters_;
            if (shutDown_) return;
        }
        bytesInQueue_.fetch_add(length16, std::memory_order_relaxed);
        wake = pending_.empty() && writerIdle_;
        const size_t at = pending_.size();
        pending_.resize(at + size);
        fill(pending_.data() + at);
        pushedSeq_ += entries;
        seriesWeight_ += (entries - 1) * TQLogEntry::kSeriesLineWeight;
    }
    if (wake) queueCv_.notify_one();
}

// ---- the writer

void TQLogQueue::startWriterLocked()
{
    // A fork()ed child clears writerRunning_ (resetInChild), so no pid check is needed here.
    if (writerRunning_) return;
    if (pthread_create(&writerThread_, nullptr, &TQLogQueue::writerMain, this) != 0) return;
    writerRunning_ = true;
    writerPid_ = getpid();
}

void* TQLogQueue::writerMain(void* self)
{
    static_cast<TQLogQueue*>(self)->writerLoop();
    return nullptr;
}

void TQLogQueue::writerLoop()
{
    writerId_.store(std::this_thread::get_id());
    // Both buffers are made large enough for a full queue at once: growing them entry by
    // entry would copy what they hold over and over.
    TQLogEntryBytes batch;
    batch.reserve(kReserved);
    TQLogTexts texts;
    std::unique_lock<std::mutex> lock(mutex_);
    pending_.reserve(kReserved);
    for (;;) {
        writerIdle_ = true;
        queueCv_.wait(lock,
                      [&] { return (stop_ && pending_.empty()) || (!pending_.empty() && (!suspended_ || stop_)); });
        writerIdle_ = false;
        if (pending_.empty()) break;
        batch.swap(pending_);
        seriesWeight_ = 0;
        const uint64_t last = pushedSeq_;
        const size_t entries = static_cast<size_t>(last - takenSeq_);
        takenSeq_ = last;
        const bool room = roomWaiters_ > 0;
        lock.unlock();
        if (room) roomCv_.notify_all();

        const uint64_t handled16 = TQLogEntry::unpack(std::string_view(batch.data(), batch.size()), entries, texts);
        if (!texts.empty()) sink_.write(texts);
        bytesInQueue_.fetch_sub(handled16, std::memory_order_relaxed);
        texts.clear();
        batch.clear();
        if (batch.capacity() > kKeptCapacity) batch.shrink_to_fit();
        texts.trim(kKeptCapacity);

        lock.lock();
        writtenSeq_ = last;
        if (flushWaiters_ > 0) doneCv_.notify_all();
        // Under a steady stream, pause briefly so that the next batch is a large one: one
        // write call and no wake-ups for thousands of lines. Anyone waiting for the writer
        // (a flush, a full queue, shutdown) cuts the pause short.
        if (entries >= kCoalesceEntries)
            queueCv_.wait_for(lock, kCoalescePause, [&] { return stop_ || flushWaiters_ > 0 || roomWaiters_ > 0; });
    }
    writerId_.store(std::thread::id());
}

// ---- flushing, state, shutdown

void TQLogQueue::waitUntilWritten()
{
    if (isWriterThread()) return;
    std::unique_lock<std::mutex> lock(mutex_);
    if (shutDown_) return;
    const uint64_t target = pushedSeq_;
    if (writtenSeq_ >= target) return;
    startWriterLocked();
    ++flushWaiters_;
    queueCv_.notify_all();
    doneCv_.wait(lock, [&] { return writtenSeq_ >= target || shutDown_; });
    --flushWaiters_;
}

bool TQLogQueue::isShutDown() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return shutDown_;
}

size_t TQLogQueue::entryCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(pushedSeq_ - writtenSeq_);
}

size_t TQLogQueue::queuedBytes() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return pending_.size();
}

void TQLogQueue::setSuspended(bool suspended)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        suspended_ = suspended;
    }
    queueCv_.notify_all();
}

void TQLogQueue::shutdown(size_t keepAtMost)
{
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (shutDown_) return;
        suspended_ = false;
        if (pushedSeq_ - writtenSeq_ > keepAtMost) {
            // Too much left: what the writer has not taken is never written.
            bytesInQueue_.fetch_sub(TQLogEntry::totalLength16(std::string_view(pending_.data(), pending_.size())));
            pending_.clear();
            seriesWeight_ = 0;
            pushedSeq_ = takenSeq_;
        }
    }
    queueCv_.notify_all();
    roomCv_.notify_all();
    waitUntilWritten();
    bool join = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        shutDown_ = true;
        stop_ = true;
        join = writerRunning_ && writerPid_ == getpid() && !isWriterThread();
        writerRunning_ = false;
    }
    queueCv_.notify_all();
    doneCv_.notify_all();
    roomCv_.notify_all();
    if (join) pthread_join(writerThread_, nullptr);
}

// ---- fork

void TQLogQueue::lockForFork()
{
    TQLogEntry::lockTable();
    mutex_.lock();
}

void TQLogQueue::unlockInParent()
{
    mutex_.unlock();
    TQLogEntry::unlockTable();
}

void TQLogQueue::resetInChild()
{
    writerRunning_ = false;
    writerIdle_ = false;
    writerId_.store(std::thread::id());
    pending_.clear();
    seriesWeight_ = 0;
    pushedSeq_ = takenSeq_ = writtenSeq_ = 0;
    flushWaiters_ = roomWaiters_ = 0;
    bytesInQueue_.store(0);
    // Threads of the parent may have been waiting on these: their state names threads the
    // child does not have, and signalling them could block for ever. Start them afresh.
    std::construct_at(&queueCv_);
    std::construct_at(&doneCv_);
    std::construct_at(&roomCv_);
    mutex_.unlock();
    TQLogEntry::unlockTable();
}

}  // namespace corvina::tq
