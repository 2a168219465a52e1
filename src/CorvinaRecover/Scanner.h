// The scan: reads the input front to back through one sliding window of large preads (never
// a mapping, never the whole input), read and searched in parts on several threads, asks each family's reader about
// every place where its start pattern occurs, and keeps the frames in input order. A frame found lets the scan go on
// after its end. Runs of zeros that the file system reports as holes are stepped over, since
// no frame starts with a zero byte.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "recover/Essence.h"

namespace corvina::recover {

struct Rejection {
    uint64_t offset = 0;
    Family family = Family::DV;
    int64_t formatType = -1;
    std::string reason;
};

struct ScanProgress {
    uint64_t bytesScanned = 0;
    uint64_t bytesTotal = 0;
    uint64_t frames = 0;
};

struct ScanOptions {
    // The families to look for (all three when empty).
    std::vector<Family> families;
    size_t windowBytes = 64u << 20;                     // read ahead of the scan besides the largest frame
    unsigned jobs = 0;                                  // threads reading and searching a window (0: one per core)
    std::function<void(const ScanProgress&)> progress;  // after each window
    const std::atomic<bool>* stop = nullptr;            // checked between windows
};

struct ScanResult {
    std::vector<FrameInfo> frames;  // in input order, none overlapping
    std::vector<Rejection> rejections;
    uint64_t rejectionsDropped = 0;  // beyond the kept number
    uint64_t bytesScanned = 0;
    bool stopped = false;
    std::string error;  // a read failure ends the scan with what was found so far
};

// Scans size bytes of the open file descriptor (read with pread only).
ScanResult scan(int fd, uint64_t size, const ScanOptions& options);

// The size of what fd reads: a regular file's length or a block device's.
std::optional<uint64_t> inputSize(int fd);

}  // namespace corvina::recover
