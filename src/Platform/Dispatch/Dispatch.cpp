#include "Dispatch.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace corvina {

namespace {

// Objects that background threads may still reach while the process exits are never
// destroyed: their storage is static and no destructor runs.
template <class T>
T& immortal()
{
    alignas(T) static std::byte storage[sizeof(T)];
    static T* object = std::construct_at(reinterpret_cast<T*>(storage));
    return *object;
}

std::thread::id& mainThreadIdStorage()
{
    static std::thread::id id = std::this_thread::get_id();
    return id;
}
std::mutex& mainThreadIdMutex()
{
    static std::mutex m;
    return m;
}
// The thread that initialises static objects counts as main until markMainThread says else.
[[maybe_unused]] const bool mainThreadInitialised = (mainThreadIdStorage(), true);

thread_local const DispatchQueue* currentQueue = nullptr;

// Sets the thread's current queue while a block runs.
class CurrentQueueScope {
public:
    explicit CurrentQueueScope(const DispatchQueue* queue) : previous_(currentQueue) { currentQueue = queue; }
    ~CurrentQueueScope() { currentQueue = previous_; }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

private:
    const DispatchQueue* previous_;
};

void nameThread(const std::string& label)
{
    // Linux keeps at most 15 characters of a thread's name.
    const std::string name = label.substr(0, 15);
    pthread_setname_np(pthread_self(), name.c_str());
}

// ---------------------------------------------------------------------------------------
// Serial queues: one worker thread while there is work.

class SerialQueue final : public DispatchQueue, public std::enable_shared_from_this<SerialQueue> {
public:
    explicit SerialQueue(std::string label) : DispatchQueue(std::move(label)) {}

    void async(Block block) override
    {
        if (!block) return;
        std::unique_lock lock(mutex_);
        pending_.push_back(std::move(block));
        if (workerRunning_) {
            if (workerIdle_) wake_.notify_one();
            return;
        }
        workerRunning_ = true;
        lock.unlock();
        // The worker holds the queue: pending work keeps it alive after the last caller's
        // reference is gone.
        std::thread([self = shared_from_this()] { self->work(); }).detach();
    }

private:
    // A worker lingers this long for more work before it ends, so that a steady trickle of
    // blocks (log lines, pump callbacks) does not start a thread per block.
    static constexpr auto kLinger = std::chrono::milliseconds(100);

    void work()
    {
        nameThread(label_);
        std::unique_lock lock(mutex_);
        while (true) {
            if (pending_.empty()) {
                workerIdle_ = true;
                wake_.wait_for(lock, kLinger, [this] { return !pending_.empty(); });
                workerIdle_ = false;
                if (pending_.empty()) {
                    workerRunning_ = false;
                    return;
                }
            }
            Block block = std::move(pending_.front());
            pending_.pop_front();
            lock.unlock();
            {
                CurrentQueueScope scope(this);
                block();
            }
            block = nullptr;  // released outside the lock: its captures may submit work
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Block> pending_;
    bool workerRunning_ = false;
    bool workerIdle_ = false;
};

// ---------------------------------------------------------------------------------------
// The global concurrent queue: a pool that grows when every worker is busy, so that a block
// waiting for another global block never starves it.

class GlobalQueue final : public DispatchQueue {
public:
    GlobalQueue() : DispatchQueue("corvina.global-queue")
    {
        const unsigned hc = std::thread::hardware_concurrency();
        baseThreads_ = hc > 2 ? hc : 2;
    }

    void async(Block block) override
    {
        if (!block) return;
        std::unique_lock lock(mutex_);
        pending_.push_back(std::move(block));
        if (idle_ > pending_.size() - 1) {
            wake_.notify_one();
            return;
        }
        if (threads_ >= kMaxThreads) {
            if (idle_ > 0) wake_.notify_one();
            return;
        }
        ++threads_;
        lock.unlock();
        std::thread([this] { work(); }).detach();
    }

private:
    static constexpr size_t kMaxThreads = 256;
    static constexpr auto kIdleExit = std::chrono::seconds(5);

    void work()
    {
        nameThread("corvina.global");
        std::unique_lock lock(mutex_);
        while (true) {
            if (pending_.empty()) {
                ++idle_;
                const bool woke = wake_.wait_for(lock, kIdleExit, [this] { return !pending_.empty(); });
                --idle_;
                if (!woke && threads_ > baseThreads_) {
                    --threads_;
                    return;
                }
                if (!woke) continue;
            }
            Block block = std::move(pending_.front());
            pending_.pop_front();
            lock.unlock();
            {
                CurrentQueueScope scope(this);
                block();
            }
            block = nullptr;
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Block> pending_;
    size_t threads_ = 0;
    size_t idle_ = 0;
    size_t baseThreads_ = 2;
};

// ---------------------------------------------------------------------------------------
// The main queue: drained only by the main thread while it waits through this layer.

class MainQueue final : public DispatchQueue {
public:
    MainQueue() : DispatchQueue("corvina.main-thread") {}

    void async(Block block) override
    {
        if (!block) return;
        {
            std::lock_guard lock(mutex_);
            pending_.push_back(std::move(block));
        }
        wake_.notify_all();
    }

    void notifyWaiters()
    {
        {
            std::lock_guard lock(mutex_);
            ++generation_;
        }
        wake_.notify_all();
    }

    bool runUntil(const std::function<bool()>& done, std::optional<std::chrono::steady_clock::time_point> deadline)
    {
        const bool drain = isMainThread();
        while (true) {
            uint64_t seen;
            {
                std::lock_guard lock(mutex_);
                seen = generation_;
            }
            if (done()) return true;
            std::unique_lock lock(mutex_);
            auto ready = [&] { return generation_ != seen || (drain && !pending_.empty()); };
            if (deadline) {
                if (!wake_.wait_until(lock, *deadline, ready)) {
                    lock.unlock();
                    return done();
                }
            } else {
                wake_.wait(lock, ready);
            }
            if (drain && !pending_.empty()) {
                Block block = std::move(pending_.front());
                pending_.pop_front();
                lock.unlock();
                CurrentQueueScope scope(this);
                block();
            }
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Block> pending_;
    uint64_t generation_ = 0;
};

MainQueue& mainQueue() { return immortal<MainQueue>(); }

// Keeps a serial queue alive while something refers to it by reference only (a notify).
std::shared_ptr<DispatchQueue> retainQueue(DispatchQueue& queue)
{
    if (auto* serial = dynamic_cast<SerialQueue*>(&queue)) return serial->shared_from_this();
    return {};
}

}  // namespace

void markMainThread()
{
    std::lock_guard lock(mainThreadIdMutex());
    mainThreadIdStorage() = std::this_thread::get_id();
}

bool isMainThread()
{
    std::lock_guard lock(mainThreadIdMutex());
    return mainThreadIdStorage() == std::this_thread::get_id();
}

std::shared_ptr<DispatchQueue> DispatchQueue::createSerial(std::string label)
{
    return std::make_shared<SerialQueue>(std::move(label));
}

DispatchQueue& DispatchQueue::global() { return immortal<GlobalQueue>(); }

DispatchQueue& DispatchQueue::main() { return mainQueue(); }

bool DispatchQueue::isCurrent() const { return currentQueue == this; }

const DispatchQueue* DispatchQueue::current() { return currentQueue; }

void DispatchQueue::sync(Block block)
{
    if (!block) return;
    const bool onMain = isMainThread();
    // A block for the main queue from the main thread, or for the queue the caller already
    // runs on, runs at once: waiting for it would never end.
    if ((this == &mainQueue() && onMain) || isCurrent()) {
        CurrentQueueScope scope(this);
        block();
        return;
    }
    struct Completion {
        std::mutex mutex;
        std::condition_variable cv;
        bool done = false;
        std::exception_ptr error;
    };
    auto completion = std::make_shared<Completion>();
    async([completion, block = std::move(block)] {
        try {
            block();
        } catch (...) {
            completion->error = std::current_exception();
        }
        {
            std::lock_guard lock(completion->mutex);
            completion->done = true;
        }
        completion->cv.notify_all();
        notifyMainThreadWaiters();
    });
    if (onMain) {
        runMainQueueUntil([&] {
            std::lock_guard lock(completion->mutex);
            return completion->done;
        });
    } else {
        std::unique_lock lock(completion->mutex);
        completion->cv.wait(lock, [&] { return completion->done; });
    }
    if (completion->error) std::rethrow_exception(completion->error);
}

bool runMainQueueUntil(const std::function<bool()>& done, std::optional<std::chrono::steady_clock::time_point> deadline)
{
    return mainQueue().runUntil(done, deadline);
}

void notifyMainThreadWaiters() { mainQueue().notifyWaiters(); }

// ---------------------------------------------------------------------------------------
// Groups

struct DispatchGroup::State {
    struct Waiter {
        DispatchQueue* queue;
        std::shared_ptr<DispatchQueue> keepAlive;
        Block block;
    };
    std::mutex mutex;
    std::condition_variable cv;
    long count = 0;
    std::vector<Waiter> notifies;

    void leave()
    {
        std::vector<Waiter> due;
        bool zero = false;
        {
            std::lock_guard lock(mutex);
            if (count <= 0) {
                std::fputs("DispatchGroup: unbalanced leave()\n", stderr);
                std::abort();
            }
            if (--count == 0) {
                zero = true;
                due.swap(notifies);
            }
        }
        if (!zero) return;
        cv.notify_all();
        notifyMainThreadWaiters();
        for (auto& w : due) w.queue->async(std::move(w.block));
    }
};

DispatchGroup::DispatchGroup() : state_(std::make_shared<State>()) {}

DispatchGroup::~DispatchGroup() = default;

void DispatchGroup::enter()
{
    std::lock_guard lock(state_->mutex);
    ++state_->count;
}

void DispatchGroup::leave()
{
    // A waiter may destroy the group as soon as the count reaches zero; the state outlives it.
    const auto state = state_;
    state->leave();
}

void DispatchGroup::notify(DispatchQueue& queue, Block block)
{
    if (!block) return;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count > 0) {
            state_->notifies.push_back({&queue, retainQueue(queue), std::move(block)});
            return;
        }
    }
    queue.async(std::move(block));
}

bool DispatchGroup::wait(std::optional<Duration> timeout)
{
    std::optional<std::chrono::steady_clock::time_point> deadline;
    if (timeout) deadline = std::chrono::steady_clock::now() + *timeout;
    auto state = state_;
    if (isMainThread()) {
        return runMainQueueUntil(
            [state] {
                std::lock_guard lock(state->mutex);
                return state->count == 0;
            },
            deadline);
    }
    std::unique_lock lock(state->mutex);
    auto zero = [&] { return state->count == 0; };
    if (deadline) return state->cv.wait_until(lock, *deadline, zero);
    state->cv.wait(lock, zero);
    return true;
}

void DispatchGroup::async(DispatchQueue& queue, Block block)
{
    enter();
    queue.async([state = state_, block = std::move(block)] {
        // Leaves even when the block throws.
        struct Leave {
            State* s;
            ~Leave() { s->leave(); }
        } leave{state.get()};
        if (block) block();
    });
}

// ---------------------------------------------------------------------------------------
// Semaphores

struct DispatchSemaphore::State {
    std::mutex mutex;
    std::condition_variable cv;
    long value = 0;
};

DispatchSemaphore::DispatchSemaphore(long value) : state_(std::make_unique<State>()) { state_->value = value; }

DispatchSemaphore::~DispatchSemaphore() = default;

void DispatchSemaphore::signal()
{
    // Notified under the lock: a waiter may destroy the semaphore as soon as it returns.
    std::lock_guard lock(state_->mutex);
    ++state_->value;
    state_->cv.notify_one();
}

bool DispatchSemaphore::wait(std::optional<Duration> timeout)
{
    std::unique_lock lock(state_->mutex);
    auto available = [&] { return state_->value > 0; };
    if (timeout) {
        if (!state_->cv.wait_for(lock, *timeout, available)) return false;
    } else {
        state_->cv.wait(lock, available);
    }
    --state_->value;
    return true;
}

}  // namespace corvina
