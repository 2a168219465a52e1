// A file handle owns one open descriptor: the essence readers read through it with pread
// (fileDescriptor()), the log appends with writeData. Errors raise PlatformException with the
// name "NSFileHandleOperationException", as the platform's file handle does.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Result.h"

namespace corvina {

class FileHandle {
public:
    ~FileHandle();
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    // Null when the file cannot be opened (missing, a folder, no permission). Opening never
    // blocks, not even on a FIFO.
    static std::unique_ptr<FileHandle> forReadingAtPath(const std::string& path);
    // The same for a regular file only: a FIFO, a device, a socket or a folder is refused and
    // the Error says which. Opening never blocks.
    static Result<std::unique_ptr<FileHandle>> forReadingRegularFileAtPath(const std::string& path);
    // Appending writes on a descriptor opened by the caller (say with openat and O_NOFOLLOW):
    // the handle starts at the file's end (O_APPEND is not used) and owns the descriptor from
    // then on. Null for a negative descriptor.
    static std::unique_ptr<FileHandle> forUpdatingDescriptor(int fd);

    // Writes all bytes at the current offset.
    void writeData(std::span<const uint8_t> bytes);
    void writeData(std::string_view text) { writeData({reinterpret_cast<const uint8_t*>(text.data()), text.size()}); }
    void closeFile();  // further writes raise, as on the platform
    bool isClosed() const { return fd_ < 0; }
    int fileDescriptor() const { return fd_; }

private:
    explicit FileHandle(int fd) : fd_(fd) {}
    void raise(const char* operation, int err) const;

    int fd_ = -1;
    uint64_t offset_ = 0;
};

}  // namespace corvina
