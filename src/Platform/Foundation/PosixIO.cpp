#include "PosixIO.h"

#include <unistd.h>

#include <algorithm>
#include <climits>

namespace corvina::posix {

namespace {

// One request never asks for more than the kernel moves in one call anyway.
constexpr size_t kMaxRequest = size_t(1) << 30;

// The loop shared by the four forms: `step(at, want)` moves up to `want` bytes at `at`.
template <class Step>
Transfer loop(size_t size, bool isWrite, Step step) noexcept
{
    Transfer t;
    while (t.count < size) {
        const ssize_t n = step(t.count, std::min(size - t.count, kMaxRequest));
        if (n < 0) {
            if (errno == EINTR) continue;
            t.error = errno;
            break;
        }
        if (n == 0) {
            if (isWrite) t.error = ENOSPC;
            break;
        }
        t.count += size_t(n);
    }
    return t;
}

Error errorOf(const Transfer& t) { return Error::fromErrno(t.error); }

}  // namespace

Transfer readAll(int fd, std::span<uint8_t> buffer) noexcept
{
    return loop(buffer.size(), false, [&](size_t at, size_t want) { return ::read(fd, buffer.data() + at, want); });
}

Transfer preadAll(int fd, std::span<uint8_t> buffer, uint64_t offset) noexcept
{
    return loop(buffer.size(), false,
                [&](size_t at, size_t want) { return ::pread(fd, buffer.data() + at, want, off_t(offset + at)); });
}

Transfer writeAll(int fd, std::span<const uint8_t> bytes) noexcept
{
    return loop(bytes.size(), true, [&](size_t at, size_t want) { return ::write(fd, bytes.data() + at, want); });
}

Transfer pwriteAll(int fd, std::span<const uint8_t> bytes, uint64_t offset) noexcept
{
    return loop(bytes.size(), true,
                [&](size_t at, size_t want) { return ::pwrite(fd, bytes.data() + at, want, off_t(offset + at)); });
}

Transfer writevAll(int fd, std::span<iovec> parts) noexcept
{
    Transfer t;
    // Parts already empty are stepped over, so that an empty vector ends the loop at once.
    auto skipEmpty = [&] {
        while (!parts.empty() && parts.front().iov_len == 0) parts = parts.subspan(1);
    };
    skipEmpty();
    while (!parts.empty()) {
        const ssize_t n = ::writev(fd, parts.data(), int(std::min<size_t>(parts.size(), IOV_MAX)));
        if (n < 0) {
            if (errno == EINTR) continue;
            t.error = errno;
            break;
        }
        if (n == 0) {
            t.error = ENOSPC;
            break;
        }
        t.count += size_t(n);
        auto left = size_t(n);
        while (!parts.empty() && left >= parts.front().iov_len) {
            left -= parts.front().iov_len;
            parts.front().iov_len = 0;
            parts = parts.subspan(1);
        }
        if (!parts.empty()) {
            parts.front().iov_base = static_cast<uint8_t*>(parts.front().iov_base) + left;
            parts.front().iov_len -= left;
        }
        skipEmpty();
    }
    return t;
}

Result<void> writeFully(int fd, std::span<const uint8_t> bytes)
{
    const Transfer t = writeAll(fd, bytes);
    if (t.failed()) return errorOf(t);
    return success();
}

}  // namespace corvina::posix
