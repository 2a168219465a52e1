// The movie file being written: the file type and media data headers at its start, chunk
// data appended through a large buffer, the movie atom at the end, and the media data size
// patched in last (64-bit when the data passed 4 GB, using the room of the 'wide' atom).
// Not thread-safe: the writer serialises every call.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Foundation/Error.h"
#include "Foundation/Result.h"

namespace corvina::qt {

class MovieFile {
public:
    static constexpr size_t kBufferSize = 4u << 20;
    static constexpr size_t kDirectBytes = 256u << 10;     // appended pieces this large are not buffered
    static constexpr uint64_t kWritebackBytes = 8u << 20;  // written bytes handed to the disk at once
    static constexpr uint64_t kWideAtomOffset = 20;        // after the 20-byte 'ftyp'
    static constexpr uint64_t kMediaDataStart = 36;        // 'ftyp', 'wide', 'mdat' header

    // Creates the file (never replacing one) and writes the headers.
    static Result<MovieFile> create(const std::string& path);
    // Writes the headers into an empty file the caller created and opened for writing; the
    // movie file owns the descriptor from here on, also when it fails.
    static Result<MovieFile> createOnDescriptor(int fd);
    // True when the file open at fd starts with the headers create writes before any sample
    // (the 'ftyp' and the 'wide' atom, up to the media data header, whose size changes).
    static bool startsWithHeaders(int fd);
    MovieFile(MovieFile&& other) noexcept;
    MovieFile& operator=(MovieFile&&) = delete;
    ~MovieFile();

    // The offset the next appended bytes will have.
    uint64_t end() const { return end_; }
    Result<void> append(std::span<const uint8_t> bytes);
    // Flushes, patches the media data size and appends the movie atom.
    Result<void> finish(std::span<const uint8_t> movieAtom);
    void close();

private:
    explicit MovieFile(int fd) : fd_(fd) {}
    Result<void> writeAll(std::span<const uint8_t> bytes);
    Result<void> writeAt(uint64_t offset, std::span<const uint8_t> bytes);
    Result<void> flush();
    Result<void> writeBufferAnd(std::span<const uint8_t> bytes);
    void startWriteback();

    int fd_ = -1;
    uint64_t end_ = 0;            // logical end, buffered bytes included
    uint64_t written_ = 0;        // bytes on disk
    uint64_t writebackFrom_ = 0;  // bytes before this are on their way to the disk
    std::vector<uint8_t> buffer_;
};

}  // namespace corvina::qt
