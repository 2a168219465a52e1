// Whole reads and writes on a file descriptor. The system calls may move fewer bytes than
// asked (pipes, signals, large requests) or fail with EINTR when a signal arrives; these
// loops go on until everything is moved, the file ends, or a real error stops them.
//
// Two forms of each:
//  - the *All functions return a Transfer (the count moved and the errno that stopped them).
//    They allocate nothing and are async-signal-safe, for crash handlers and for callers that
//    need the count moved before a failure;
//  - the *Fully functions return a Result, whose Error is in the POSIX domain.
// A write that moves nothing without an error counts as ENOSPC (the disk took no more).
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "Foundation/Result.h"

namespace corvina::posix {

struct Transfer {
    size_t count = 0;  // bytes moved
    int error = 0;     // errno of the failure that stopped the loop; 0 when none did
    bool failed() const { return error != 0; }
};

// Reads until the buffer is full, the file ends (count short, error 0) or a read fails.
Transfer readAll(int fd, std::span<uint8_t> buffer) noexcept;
Transfer preadAll(int fd, std::span<uint8_t> buffer, uint64_t offset) noexcept;
// Writes everything, or stops at the first failure.
Transfer writeAll(int fd, std::span<const uint8_t> bytes) noexcept;
Transfer pwriteAll(int fd, std::span<const uint8_t> bytes, uint64_t offset) noexcept;
// Writes the parts in order; the vector is advanced in place past what was written.
Transfer writevAll(int fd, std::span<iovec> parts) noexcept;

inline Transfer writeAll(int fd, std::string_view text) noexcept
{
    return writeAll(fd, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

// Every byte written, or the error that stopped it.
Result<void> writeFully(int fd, std::span<const uint8_t> bytes);
inline Result<void> writeFully(int fd, std::string_view text)
{
    return writeFully(fd, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

// Calls `call` again for as long as it fails with EINTR (waitpid, flock, open, poll...), and
// returns its last result. A call that fails returns -1 or another negative value.
template <class Call>
auto retryInterrupted(Call call) noexcept(noexcept(call()))
{
    for (;;) {
        auto r = call();
        if (!(r < 0 && errno == EINTR)) return r;
    }
}

}  // namespace corvina::posix
