#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Foundation/ByteOrder.h"
#include "Foundation/PosixIO.h"
#include "support/TestSupport.h"

namespace posix = corvina::posix;
namespace test = corvina::test;

namespace {

std::vector<uint8_t> bytesOf(const std::string& s) { return {s.begin(), s.end()}; }

// Both ends are closed at the end; close(1) ends the input early.
struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0); }
    ~Pipe() { close(0), close(1); }
    void close(int end) { ::close(std::exchange(fds[end], -1)); }
};

}  // namespace

TEST(ByteOrder, LoadsAndStoresEveryWidthInBothOrders)
{
    const uint8_t src[8] = {0xFE, 0x01, 0x80, 0x7F, 0x00, 0xFF, 0x10, 0x81};
    struct Row {
        size_t width;
        uint64_t big, little;
    };
    const Row rows[] = {
        {1, 0xFE, 0xFE},
        {2, 0xFE01, 0x01FE},
        {3, 0xFE0180, 0x8001FE},
        {4, 0xFE01807F, 0x7F8001FE},
        {8, 0xFE01807F00FF1081, 0x8110FF007F8001FE},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.width);
        EXPECT_EQ(corvina::loadBE(src, r.width), r.big);
        EXPECT_EQ(corvina::loadLE(src, r.width), r.little);
        uint8_t out[9] = {};
        out[r.width] = 0xAA;  // the byte after the field stays
        corvina::storeBE(out, r.big, r.width);
        EXPECT_EQ(std::vector<uint8_t>(out, out + r.width), std::vector<uint8_t>(src, src + r.width));
        corvina::storeLE(out, r.little, r.width);
        EXPECT_EQ(std::vector<uint8_t>(out, out + r.width), std::vector<uint8_t>(src, src + r.width));
        EXPECT_EQ(out[r.width], 0xAA);
    }
    // PCM samples keep their sign.
    EXPECT_EQ(corvina::loadPCM16(src, true), int16_t(-511));
    EXPECT_EQ(corvina::loadPCM16(src + 2, false), int16_t(0x7F80));
    uint8_t sample[2];
    corvina::storePCM16(sample, -2, false);
    EXPECT_EQ(corvina::loadLE16(sample), 0xFFFEu);
    EXPECT_EQ(corvina::byteSwapped32(0x11223344u), 0x44332211u);
}

// Reads and writes bigger than a pipe holds come in pieces; the loops join them up, and a
// read that meets the end of the pipe returns what there was, without an error.
TEST(PosixIO, JoinsShortReadsAndWritesThroughAPipe)
{
    const std::vector<uint8_t> payload = bytesOf(test::patternBytes(1 << 20, 7));
    Pipe pipe;
    std::vector<uint8_t> got(payload.size() + 100);
    posix::Transfer read;
    std::thread reader([&] { read = posix::readAll(pipe.fds[0], got); });
    ASSERT_TRUE(posix::writeFully(pipe.fds[1], payload));
    pipe.close(1);
    reader.join();
    EXPECT_FALSE(read.failed());
    ASSERT_EQ(read.count, payload.size());
    got.resize(read.count);
    EXPECT_EQ(got, payload);

    // Writing to a pipe nobody reads: EPIPE, once SIGPIPE no longer ends the process.
    Pipe closed;
    closed.close(0);
    const auto previous = ::signal(SIGPIPE, SIG_IGN);
    const auto failed = posix::writeFully(closed.fds[1], payload);
    ::signal(SIGPIPE, previous);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().code, EPIPE);
    EXPECT_EQ(failed.error().domain, "NSPOSIXErrorDomain");
}

// A signal whose handler does not restart system calls makes a blocked read fail with EINTR;
// the loop reads on, and the bytes that arrive afterwards are all there.
TEST(PosixIO, ReadsOnAfterASignalInterruptsIt)
{
    static std::atomic<int> signals{0};
    struct sigaction action {
    }, previous{};
    action.sa_handler = [](int) { ++signals; };
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);

    Pipe pipe;
    uint8_t got[4] = {};
    std::atomic<bool> started{false};
    posix::Transfer read;
    std::thread reader([&] {
        started = true;
        read = posix::readAll(pipe.fds[0], got);
    });
    while (!started) std::this_thread::yield();
    for (int i = 0; i < 20; ++i) {
        ::pthread_kill(reader.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(posix::writeFully(pipe.fds[1], bytesOf("abcd")));
    reader.join();
    ::sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_GT(signals.load(), 0);
    EXPECT_FALSE(read.failed());
    EXPECT_EQ(std::string(got, got + 4), "abcd");
}

// A gathered write skips empty parts; a failure comes back with its errno and the count moved
// before it.
TEST(PosixIO, GatheredWritesAndFailuresWithTheirErrno)
{
    test::TempDir folder;
    const int fd = ::open((folder / "f").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    std::string a = "he", b = "llo!";
    iovec parts[4] = {{nullptr, 0}, {a.data(), a.size()}, {nullptr, 0}, {b.data(), b.size()}};
    const posix::Transfer t = posix::writevAll(fd, parts);
    ::close(fd);
    EXPECT_FALSE(t.failed());
    EXPECT_EQ(t.count, 6u);
    EXPECT_EQ(test::readFile(folder / "f"), "hello!");

    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    const posix::Transfer failed = posix::writeAll(full, std::vector<uint8_t>(100, 1));
    ::close(full);
    EXPECT_EQ(failed.count, 0u);
    EXPECT_EQ(failed.error, ENOSPC);
}
