#include "Scanner.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>

namespace recover {

namespace {

constexpr size_t kMaxRejectionsKept = 10000;
constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();

Examination examine(Family family, std::span<const uint8_t> bytes, bool atEnd)
{
    switch (family) {
    case Family::DV:
        return examineDV(bytes, atEnd);
    case Family::ProRes:
        return examineProRes(bytes, atEnd);
    case Family::JPEG:
        return examineJPEG(bytes, atEnd);
    }
    return {};
}

// The window: bytes [start, end) of the input, held in one buffer allocated once.
class Window {
public:
    Window(int fd, uint64_t size, size_t capacity)
        : fd_(fd), size_(size), capacity_(capacity), buffer_(new uint8_t[capacity])
    {
    }

    uint64_t start() const { return start_; }
    uint64_t end() const { return end_; }
    const uint8_t* at(uint64_t offset) const { return buffer_.get() + (offset - start_); }

    // Makes the window begin at `from` and hold as much as fits; the bytes already held from
    // there on are kept. False with errno's text in error on a read failure.
    bool fillFrom(uint64_t from, std::string& error)
    {
        if (from >= start_ && from < end_) {
            std::memmove(buffer_.get(), at(from), size_t(end_ - from));
        } else {
            end_ = from;
        }
        start_ = from;
        const uint64_t want = std::min<uint64_t>(size_, start_ + capacity_);
        while (end_ < want) {
            const size_t chunk = size_t(std::min<uint64_t>(want - end_, 8u << 20));
            const ssize_t got = ::pread(fd_, buffer_.get() + (end_ - start_), chunk, off_t(end_));
            if (got < 0) {
                if (errno == EINTR) continue;
                error = std::string("read failed at byte ") + std::to_string(end_) + ": " + std::strerror(errno);
                return false;
            }
            if (got == 0) {
                size_ = end_;  // the input ended early (it shrank while we read)
                break;
            }
            end_ += uint64_t(got);
        }
        return true;
    }
    bool atInputEnd() const { return end_ >= size_; }

private:
    int fd_;
    uint64_t size_;
    size_t capacity_;
    std::unique_ptr<uint8_t[]> buffer_;
    uint64_t start_ = 0, end_ = 0;
};

}  // namespace

std::optional<uint64_t> inputSize(int fd)
{
    struct stat info {};
    if (::fstat(fd, &info) != 0) return std::nullopt;
    if (S_ISREG(info.st_mode)) return uint64_t(info.st_size);
    if (S_ISBLK(info.st_mode)) {
        uint64_t bytes = 0;
        if (::ioctl(fd, BLKGETSIZE64, &bytes) == 0) return bytes;
    }
    return std::nullopt;
}

ScanResult scan(int fd, uint64_t size, const ScanOptions& options)
{
    ScanResult result;
    std::vector<Family> families = options.families;
    if (families.empty()) families = {Family::DV, Family::ProRes, Family::JPEG};
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);

    Window window(fd, size, options.windowBytes + kMaxFrameBytes);
    uint64_t pos = 0;
    std::array<uint64_t, 3> next{};  // each family's next candidate start, kNone when none in the window

    while (pos < size) {
        if (options.stop && options.stop->load()) {
            result.stopped = true;
            break;
        }
        // Zeros the file system does not store hold no frame start.
        if (pos >= window.end()) {
            const off_t data = ::lseek(fd, off_t(pos), SEEK_DATA);
            if (data < 0 && errno == ENXIO) break;  // only a hole remains
            if (data > off_t(pos)) pos = uint64_t(data);
        }
        if (!window.fillFrom(pos, result.error)) break;
        if (window.end() <= pos) break;
        // Candidates before the limit have the largest frame's bytes behind them, or the end.
        const uint64_t limit = window.atInputEnd() ? window.end() : window.end() - kMaxFrameBytes;
        const bool atEnd = window.atInputEnd();

        const auto findFrom = [&](Family family, uint64_t from) -> uint64_t {
            const StartPattern pattern = startPattern(family);
            const uint64_t searchFrom = from + pattern.startBefore;
            const uint64_t searchEnd = std::min(window.end(), limit + pattern.startBefore + pattern.bytes.size());
            if (searchFrom + pattern.bytes.size() > searchEnd) return kNone;
            const void* hit = ::memmem(window.at(searchFrom), size_t(searchEnd - searchFrom), pattern.bytes.data(),
                                       pattern.bytes.size());
            if (!hit) return kNone;
            const uint64_t found =
                window.start() + uint64_t(static_cast<const uint8_t*>(hit) - window.at(window.start()));
            const uint64_t start = found - pattern.startBefore;
            return start < limit ? start : kNone;
        };
        for (size_t i = 0; i < families.size(); ++i) next[i] = findFrom(families[i], pos);

        while (true) {
            size_t pick = 0;
            for (size_t i = 1; i < families.size(); ++i)
                if (next[i] < next[pick]) pick = i;
            const uint64_t candidate = next[pick];
            if (candidate == kNone) break;
            const Examination e =
                examine(families[pick], {window.at(candidate), size_t(window.end() - candidate)}, atEnd);
            if (e.verdict == Examination::Verdict::Frame) {
                FrameInfo frame = e.frame;
                frame.offset = candidate;
                result.frames.push_back(frame);
                pos = candidate + frame.length;
                for (size_t i = 0; i < families.size(); ++i)
                    if (next[i] < pos) next[i] = pos < limit ? findFrom(families[i], pos) : kNone;
                continue;
            }
            if (e.verdict == Examination::Verdict::Rejected) {
                if (result.rejections.size() < kMaxRejectionsKept)
                    result.rejections.push_back({candidate, families[pick], e.frame.formatType, e.reason});
                else
                    ++result.rejectionsDropped;
            }
            next[pick] = findFrom(families[pick], candidate + 1);
        }
        pos = std::max(pos, limit);
        result.bytesScanned = std::min(pos, size);
        if (options.progress) options.progress({result.bytesScanned, size, result.frames.size()});
    }
    result.bytesScanned = std::min(std::max(pos, result.bytesScanned), size);
    return result;
}

}  // namespace recover
