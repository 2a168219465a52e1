// File handles for reading and writing, as the platform's file handle behaves: reads return
// fewer bytes at the end of the file, errors raise PlatformException with the name
// "NSFileHandleOperationException".
//
// A read handle keeps a read-ahead window (1 MiB by default): seeking inside the window and
// reading from it costs no system call, so the movie feeders' many small reads (one audio
// frame at a time) stay cheap while the caller still seeks and reads entry by entry. Reads
// larger than the window go straight to the file.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "ByteBuffer.h"
#include "Result.h"

namespace corvina {

class FileHandle {
public:
    ~FileHandle();
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    // Null when the file cannot be opened (missing, a folder, no permission). Opening never
    // blocks, not even on a FIFO.
    static std::unique_ptr<FileHandle> forReadingAtPath(const std::string& path, size_t readAheadBytes = 1 << 20);
    // The same for a regular file only: a FIFO, a device, a socket or a folder is refused and
    // the Error says which. Opening never blocks.
    static Result<std::unique_ptr<FileHandle>> forReadingRegularFileAtPath(const std::string& path,
                                                                           size_t readAheadBytes = 1 << 20);
    // Opens an existing file for writing, positioned at its start; null on failure.
    static std::unique_ptr<FileHandle> forWritingAtPath(const std::string& path);
    // Opens for appending writes (O_APPEND is not used; the handle seeks to the end once).
    static std::unique_ptr<FileHandle> forUpdatingAtPath(const std::string& path);
    // The same for a descriptor opened by the caller (say with openat and O_NOFOLLOW); the
    // handle owns it from then on. Null for a negative descriptor.
    static std::unique_ptr<FileHandle> forUpdatingDescriptor(int fd);

    void seekToFileOffset(uint64_t offset);
    uint64_t seekToEndOfFile();
    uint64_t offsetInFile() const;

    // Reads up to length bytes from the current offset; fewer at the end of the file.
    ByteBuffer readDataOfLength(uint64_t length);
    // Reads up to length bytes into dst; returns the count read.
    size_t readInto(uint8_t* dst, size_t length);

    // Writes all bytes at the current offset.
    void writeData(std::span<const uint8_t> bytes);
    void writeData(std::string_view text) { writeData({reinterpret_cast<const uint8_t*>(text.data()), text.size()}); }
    void synchronizeFile();
    void closeFile();  // further calls raise, as on the platform
    bool isClosed() const { return fd_ < 0; }
    int fileDescriptor() const { return fd_; }

private:
    FileHandle(int fd, size_t readAhead);
    void raise(const char* operation, int err) const;

    int fd_ = -1;
    uint64_t offset_ = 0;
    // Read-ahead window: bytes [windowStart_, windowStart_ + windowSize_) of the file.
    std::unique_ptr<uint8_t[]> window_;
    size_t windowCapacity_ = 0;
    uint64_t windowStart_ = 0;
    size_t windowSize_ = 0;
};

}  // namespace corvina
