#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Dispatch/Dispatch.h"

using namespace corvina;
using namespace std::chrono_literals;

TEST(DispatchQueueConcurrency, SerialQueueKeepsOrderOfEachProducer)
{
    auto queue = DispatchQueue::createSerial("com.test.order");
    std::vector<std::pair<int, int>> seen;  // touched only by the queue's blocks
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    DispatchGroup group;
    constexpr int kProducers = 4, kPerProducer = 500;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i)
                group.async(*queue, [&, p, i] {
                    if (running.fetch_add(1) != 0) overlapped = true;
                    seen.emplace_back(p, i);
                    running.fetch_sub(1);
                });
        });
    }
    for (auto& t : producers) t.join();
    ASSERT_TRUE(group.wait());
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(seen.size(), size_t{kProducers * kPerProducer});
    std::vector<int> last(kProducers, -1);
    for (auto [p, i] : seen) {
        EXPECT_EQ(i, last[p] + 1) << "producer " << p;
        last[p] = i;
    }
}

TEST(DispatchQueueConcurrency, PendingWorkKeepsQueueAlive)
{
    std::weak_ptr<DispatchQueue> weak;
    DispatchSemaphore release(0), done(0);
    std::atomic<int> ran{0};
    {
        auto queue = DispatchQueue::createSerial("com.test.alive");
        weak = queue;
        queue->async([&] {
            release.wait();
            ++ran;
        });
        for (int i = 0; i < 10; ++i) queue->async([&] { ++ran; });
        queue->async([&] { done.signal(); });
    }
    release.signal();
    ASSERT_TRUE(done.wait(30s));
    EXPECT_EQ(ran.load(), 11);
    // Once idle, the worker lets go; poll without asserting on how long it takes.
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!weak.expired() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(weak.expired());
}

TEST(DispatchQueueConcurrency, SyncRunsOnTheLabelledWorkerAndPassesExceptionsBack)
{
    auto queue = DispatchQueue::createSerial("com.brantwell.movie serialization queue");
    EXPECT_EQ(DispatchQueue::current(), nullptr);
    const DispatchQueue* inside = nullptr;
    const DispatchQueue* nested = nullptr;
    char name[32] = {};
    queue->sync([&] {
        inside = DispatchQueue::current();
        pthread_getname_np(pthread_self(), name, sizeof name);
        // sync onto the queue one already runs on runs at once instead of deadlocking
        queue->sync([&] { nested = DispatchQueue::current(); });
    });
    EXPECT_EQ(inside, queue.get());
    EXPECT_EQ(nested, queue.get());
    EXPECT_STREQ(name, "com.brantwell.m");  // Linux keeps 15 characters
    EXPECT_THROW(queue->sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
    int after = 0;
    queue->sync([&] { after = 1; });
    EXPECT_EQ(after, 1);
}

TEST(DispatchQueueConcurrency, GlobalBlocksMayWaitForOtherGlobalBlocks)
{
    // More blocked blocks than cores: each waits for a block submitted after it.
    constexpr int kChain = 24;
    std::vector<std::unique_ptr<DispatchSemaphore>> gates;
    for (int i = 0; i < kChain; ++i) gates.push_back(std::make_unique<DispatchSemaphore>(0));
    DispatchGroup group;
    std::atomic<int> finished{0};
    for (int i = 0; i < kChain; ++i)
        group.async(DispatchQueue::global(), [&, i] {
            if (i + 1 < kChain) gates[i]->wait();
            ++finished;
            if (i > 0) gates[i - 1]->signal();
        });
    EXPECT_TRUE(group.wait(60s));
    EXPECT_EQ(finished.load(), kChain);
}

TEST(DispatchGroupConcurrency, ManyEntersAndLeavesFromManyThreads)
{
    DispatchGroup group;
    std::atomic<int> notified{0};
    std::atomic<int> counter{0};
    DispatchSemaphore fired(0);
    constexpr int kThreads = 8, kEach = 1000;
    const auto fire = [&] {
        ++notified;
        fired.signal();
    };
    group.enter();  // held until every thread is started so notify cannot fire early
    group.notify(DispatchQueue::global(), fire);
    group.notify(DispatchQueue::global(), fire);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                group.enter();
                ++counter;
                group.leave();
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(notified.load(), 0);
    EXPECT_FALSE(group.wait(0ms));
    group.leave();
    EXPECT_TRUE(group.wait());
    ASSERT_TRUE(fired.wait(30s));
    ASSERT_TRUE(fired.wait(30s));
    EXPECT_EQ(counter.load(), kThreads * kEach);
    EXPECT_EQ(notified.load(), 2);
    // A notify on an empty group fires at once.
    group.notify(DispatchQueue::global(), fire);
    ASSERT_TRUE(fired.wait(30s));
    EXPECT_EQ(notified.load(), 3);
}

TEST(DispatchGroupConcurrency, WaitTimesOutAndNotifyOutlivesTheGroup)
{
    DispatchSemaphore gate(0), done(0);
    {
        DispatchGroup group;
        group.async(DispatchQueue::global(), [&] { gate.wait(); });
        group.notify(DispatchQueue::global(), [&] { done.signal(); });
        EXPECT_FALSE(group.wait(1ms));
    }  // destroyed while its block still runs
    gate.signal();
    EXPECT_TRUE(done.wait(30s));
}

TEST(MainQueueConcurrency, GroupWaitOnMainThreadDrainsMainQueue)
{
    ASSERT_TRUE(isMainThread());
    auto queue = DispatchQueue::createSerial("com.test.tomain");
    DispatchGroup group;
    std::atomic<bool> ranOnMain{false};
    std::atomic<bool> syncReturned{false};
    group.async(*queue, [&] {
        // A background block that needs the main thread while main waits on the group.
        DispatchQueue::main().sync([&] { ranOnMain = isMainThread() && DispatchQueue::main().isCurrent(); });
        syncReturned = true;
    });
    group.async(DispatchQueue::global(), [&] { DispatchQueue::main().async([] {}); });
    EXPECT_TRUE(group.wait(60s));
    EXPECT_TRUE(ranOnMain);
    EXPECT_TRUE(syncReturned);
}

TEST(MainQueueConcurrency, MainQueueRunsOnlyWhenMainWaits)
{
    EXPECT_TRUE(isMainThread());
    std::atomic<int> ran{0};
    DispatchSemaphore submitted(0);
    bool otherIsMain = true;
    std::thread([&] {
        otherIsMain = isMainThread();
        DispatchQueue::main().async([&] { ++ran; });
        submitted.signal();
    }).join();
    EXPECT_FALSE(otherIsMain);
    ASSERT_TRUE(submitted.wait(30s));
    EXPECT_EQ(ran.load(), 0);
    EXPECT_TRUE(runMainQueueUntil([&] { return ran.load() == 1; }));
    // sync onto the main queue from the main thread runs at once
    bool inline_ = false;
    DispatchQueue::main().sync([&] { inline_ = true; });
    EXPECT_TRUE(inline_);
    // A wait ends at its deadline, or when another thread wakes the main thread's waiters.
    EXPECT_FALSE(runMainQueueUntil([] { return false; }, std::chrono::steady_clock::now() + 5ms));
    std::atomic<bool> flag{false};
    std::thread t([&] {
        flag = true;
        notifyMainThreadWaiters();
    });
    EXPECT_TRUE(runMainQueueUntil([&] { return flag.load(); }));
    t.join();
}

TEST(DispatchSemaphoreConcurrency, CountsAndTimesOut)
{
    DispatchSemaphore sem(2);
    EXPECT_TRUE(sem.wait(0ms));
    EXPECT_TRUE(sem.wait(0ms));
    EXPECT_FALSE(sem.wait(1ms));
    std::thread t([&] { sem.signal(); });
    EXPECT_TRUE(sem.wait());
    t.join();
    EXPECT_FALSE(sem.wait(0ms));
}

TEST(DispatchGroupConcurrency, NotifyKeepsItsSerialQueueAlive)
{
    DispatchGroup group;
    DispatchSemaphore done(0);
    std::string label;
    group.enter();
    {
        auto queue = DispatchQueue::createSerial("com.test.notify-target");
        group.notify(*queue, [&] {
            label = DispatchQueue::current() ? DispatchQueue::current()->label() : "";
            done.signal();
        });
    }  // the caller's last reference is gone before the group empties
    group.leave();
    ASSERT_TRUE(done.wait(30s));
    EXPECT_EQ(label, "com.test.notify-target");
}
