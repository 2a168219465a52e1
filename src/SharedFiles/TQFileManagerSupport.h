// Small pieces shared by the file-service sources: owned descriptors and buffers, and the
// few file-system questions they ask (whole reads and writes are Foundation/PosixIO.h's).
// Not part of the interface.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <string>

#include "Foundation/PosixIO.h"

namespace corvina::tq {

namespace tqfiles {

// Reads and writes move this much at a time: sixteen of the 64 KiB blocks the file services
// were first written with, so progress and question counts that are multiples of 64 KiB
// still fall on block ends.
inline constexpr size_t kCopyBlockSize = size_t(1) << 20;
inline constexpr size_t kHashBlockSize = size_t(1) << 20;

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = other.fd_;
            other.fd_ = -1;
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset()
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// A page-aligned buffer; empty (false) when the memory could not be had.
class AlignedBuffer {
public:
    AlignedBuffer() = default;
    explicit AlignedBuffer(size_t size)
        : data_(static_cast<uint8_t*>(std::aligned_alloc(4096, (size + 4095) / 4096 * 4096))), size_(data_ ? size : 0)
    {
    }
    uint8_t* data() const { return data_.get(); }
    size_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

private:
    struct Free {
        void operator()(uint8_t* p) const { std::free(p); }
    };
    std::unique_ptr<uint8_t, Free> data_;
    size_t size_ = 0;
};

// A thread that runs one job at a time for its owner, who waits for each before the next:
// reading the next block while the owner works on the current one.
class BackgroundWorker {
public:
    BackgroundWorker() : thread_([this] { loop(); }) {}
    ~BackgroundWorker()
    {
        wait();
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    BackgroundWorker(const BackgroundWorker&) = delete;
    BackgroundWorker& operator=(const BackgroundWorker&) = delete;

    void start(std::function<void()> job)
    {
        {
            std::lock_guard lock(mutex_);
            job_ = std::move(job);
            pending_ = true;
        }
        wake_.notify_all();
    }
    void wait()
    {
        std::unique_lock lock(mutex_);
        done_.wait(lock, [&] { return !pending_; });
    }

private:
    void loop()
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [&] { return stopping_ || pending_; });
            if (!pending_) return;
            auto job = std::move(job_);
            lock.unlock();
            job();
            lock.lock();
            pending_ = false;
            done_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable done_;
    std::function<void()> job_;
    bool pending_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace tqfiles

}  // namespace corvina::tq
