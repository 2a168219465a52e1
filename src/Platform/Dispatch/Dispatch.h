// Dispatch: serial queues, the global concurrent queue, groups, and the main queue.
//
// - A serial queue runs its blocks one at a time, in submission order, on a worker thread
//   of its own that exists only while the queue has work. Pending work keeps the queue
//   alive: dropping the last reference to a queue never discards submitted blocks.
// - The global concurrent queue runs blocks on a pool of worker threads.
// - The main queue runs its blocks only on the main thread, and only while the main thread
//   waits through this layer: runMainQueueUntil, DispatchGroup::wait, DispatchQueue::sync
//   towards the main queue. So a main thread that waits for a group still answers blocks
//   that background work hands to it (an alert, a time-out check).
// - No busy waiting anywhere: waits block on condition variables.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace corvina {

using Block = std::function<void()>;
using Duration = std::chrono::steady_clock::duration;

// Records the calling thread as the main thread. Called first thing in main(); until it is
// called, the thread that initialised the program's static objects counts as main.
void markMainThread();
bool isMainThread();

class DispatchQueue {
public:
    virtual ~DispatchQueue() = default;

    // A new serial queue. The label is kept for descriptions and thread names.
    static std::shared_ptr<DispatchQueue> createSerial(std::string label);
    static DispatchQueue& global();
    static DispatchQueue& main();

    virtual void async(Block block) = 0;
    // Runs the block on the queue and waits for it. On the main thread, waiting drains the
    // main queue; sync onto the main queue from the main thread runs the block at once.
    void sync(Block block);

    const std::string& label() const { return label_; }
    // True while the calling thread runs a block of this queue.
    bool isCurrent() const;
    // The queue whose block the calling thread runs, or null.
    static const DispatchQueue* current();

protected:
    explicit DispatchQueue(std::string label) : label_(std::move(label)) {}
    std::string label_;
};

// Runs blocks of the main queue on the calling thread (which must be the main thread) until
// done() is true or the deadline passes; done() is checked after every block and whenever
// notifyMainThreadWaiters() is called. Returns done()'s last answer.
bool runMainQueueUntil(const std::function<bool()>& done,
                       std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt);
// Wakes a main thread waiting in runMainQueueUntil so that it checks its condition again.
void notifyMainThreadWaiters();

class DispatchGroup {
public:
    DispatchGroup();
    ~DispatchGroup();
    DispatchGroup(const DispatchGroup&) = delete;
    DispatchGroup& operator=(const DispatchGroup&) = delete;

    void enter();
    void leave();  // leaving more often than entering is a programming error (aborts)
    // Submits the block to the queue once the count is zero (at once when it is zero now).
    // Each notify fires once.
    void notify(DispatchQueue& queue, Block block);
    // Waits until the count is zero; false when the time-out passed first. On the main
    // thread the main queue is drained meanwhile.
    bool wait(std::optional<Duration> timeout = std::nullopt);
    // Enters, runs the block on the queue, leaves.
    void async(DispatchQueue& queue, Block block);

private:
    struct State;
    std::shared_ptr<State> state_;
};

// A counting semaphore with the dispatch semantics (signal, wait with time-out).
class DispatchSemaphore {
public:
    explicit DispatchSemaphore(long value = 0);
    ~DispatchSemaphore();
    void signal();
    bool wait(std::optional<Duration> timeout = std::nullopt);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace corvina
