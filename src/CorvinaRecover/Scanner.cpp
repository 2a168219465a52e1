#include "recover/Scanner.h"

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
#include <system_error>
#include <thread>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "Foundation/LargeBuffer.h"
#include "Foundation/PosixIO.h"

namespace corvina::recover {

namespace {

constexpr size_t kMaxRejectionsKept = 10000;
constexpr uint64_t kLongestStartBefore = 4;    // ProRes's identifier follows its size
constexpr uint64_t kSmallestPart = 64u << 10;  // a window is cut into parts no smaller

// Runs work(0) .. work(count - 1), each on a thread of its own (work(0) on this one), and
// returns when all are done. Work a thread could not be started for runs here.
template <typename Work>
void onThreads(unsigned count, const Work& work)
{
    std::vector<std::jthread> threads;
    unsigned started = 1;
    try {
        threads.reserve(count);
        for (; started < count; ++started) threads.emplace_back([&work, started] { work(started); });
    } catch (const std::system_error&) {
    } catch (const std::bad_alloc&) {
    }
    work(0);
    for (unsigned i = started; i < count; ++i) work(i);
}

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

// The first two bytes of each family's start pattern, searched for together: one pass over the
// bytes finds every candidate of every family.
struct Pairs {
    std::array<uint8_t, 3> first{}, second{};
    std::array<Family, 3> family{};
    size_t count = 0;
};

Pairs pairsFor(const std::vector<Family>& families)
{
    Pairs pairs;
    for (const Family family : families) {
        const StartPattern pattern = startPattern(family);
        pairs.first[pairs.count] = pattern.bytes[0];
        pairs.second[pairs.count] = pattern.bytes[1];
        pairs.family[pairs.count++] = family;
    }
    // Unused slots repeat the first pair.
    for (size_t i = pairs.count; i < 3; ++i) {
        pairs.first[i] = pairs.first[0];
        pairs.second[i] = pairs.second[0];
        pairs.family[i] = pairs.family[0];
    }
    return pairs;
}

Family familyOfPair(uint8_t first, const Pairs& pairs)
{
    for (size_t i = 0; i < pairs.count; ++i)
        if (pairs.first[i] == first) return pairs.family[i];
    return pairs.family[0];
}

#if defined(__x86_64__)
// The same search 32 bytes at a time, on processors that have AVX2 (asked once at run time).
// True with i at the hit; false with i where the narrower search is to go on.
__attribute__((target("avx2"))) bool findPairWide(const uint8_t* bytes, size_t& i, size_t end, const Pairs& pairs)
{
    const __m256i f0 = _mm256_set1_epi8(char(pairs.first[0])), s0 = _mm256_set1_epi8(char(pairs.second[0]));
    const __m256i f1 = _mm256_set1_epi8(char(pairs.first[1])), s1 = _mm256_set1_epi8(char(pairs.second[1]));
    const __m256i f2 = _mm256_set1_epi8(char(pairs.first[2])), s2 = _mm256_set1_epi8(char(pairs.second[2]));
    while (i + 33 <= end) {
        const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + i));
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + i + 1));
        const __m256i hit =
            _mm256_or_si256(_mm256_or_si256(_mm256_and_si256(_mm256_cmpeq_epi8(a, f0), _mm256_cmpeq_epi8(b, s0)),
                                            _mm256_and_si256(_mm256_cmpeq_epi8(a, f1), _mm256_cmpeq_epi8(b, s1))),
                            _mm256_and_si256(_mm256_cmpeq_epi8(a, f2), _mm256_cmpeq_epi8(b, s2)));
        if (const unsigned mask = unsigned(_mm256_movemask_epi8(hit))) {
            i += size_t(__builtin_ctz(mask));
            return true;
        }
        i += 32;
    }
    return false;
}

const bool kHasAVX2 = __builtin_cpu_supports("avx2");
#endif

// The first i in [from, end - 1) where bytes i and i + 1 are one of the pairs; end - 1 when
// there is none.
size_t findPair(const uint8_t* bytes, size_t from, size_t end, const Pairs& pairs)
{
    size_t i = from;
#if defined(__x86_64__)
    if (kHasAVX2 && findPairWide(bytes, i, end, pairs)) return i;
#endif
#if defined(__SSE2__)
    const __m128i f0 = _mm_set1_epi8(char(pairs.first[0])), s0 = _mm_set1_epi8(char(pairs.second[0]));
    const __m128i f1 = _mm_set1_epi8(char(pairs.first[1])), s1 = _mm_set1_epi8(char(pairs.second[1]));
    const __m128i f2 = _mm_set1_epi8(char(pairs.first[2])), s2 = _mm_set1_epi8(char(pairs.second[2]));
    while (i + 17 <= end) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i + 1));
        const __m128i hit = _mm_or_si128(_mm_or_si128(_mm_and_si128(_mm_cmpeq_epi8(a, f0), _mm_cmpeq_epi8(b, s0)),
                                                      _mm_and_si128(_mm_cmpeq_epi8(a, f1), _mm_cmpeq_epi8(b, s1))),
                                         _mm_and_si128(_mm_cmpeq_epi8(a, f2), _mm_cmpeq_epi8(b, s2)));
        if (const int mask = _mm_movemask_epi8(hit)) return i + size_t(__builtin_ctz(unsigned(mask)));
        i += 16;
    }
#endif
    for (; i + 1 < end; ++i)
        for (size_t p = 0; p < 3; ++p)
            if (bytes[i] == pairs.first[p] && bytes[i + 1] == pairs.second[p]) return i;
    return end > 0 ? end - 1 : 0;
}

// The window: bytes [start, end) of the input, held in one buffer allocated once.
class Window {
public:
    Window(int fd, uint64_t size, size_t capacity) : fd_(fd), size_(size), capacity_(capacity), buffer_(capacity) {}

    uint64_t start() const { return start_; }
    uint64_t end() const { return end_; }
    const uint8_t* at(uint64_t offset) const { return buffer_.data() + (offset - start_); }

    // Makes the window begin at `from` and hold as much as fits; the bytes already held from
    // there on are kept. The new bytes are read in `jobs` pieces side by side. False with
    // errno's text in error on a read failure.
    bool fillFrom(uint64_t from, unsigned jobs, std::string& error)
    {
        if (from >= start_ && from < end_) {
            std::memmove(buffer_.data(), at(from), size_t(end_ - from));
        } else {
            end_ = from;
        }
        start_ = from;
        const uint64_t want = std::min<uint64_t>(size_, start_ + capacity_);
        if (end_ >= want) return true;
        // Pieces of whole 1 MiB units, so that each pread stays large.
        const uint64_t units = (want - end_ + (1u << 20) - 1) >> 20;
        const unsigned pieces = unsigned(std::clamp<uint64_t>(units, 1, jobs));
        std::vector<Piece> read(pieces);
        for (unsigned i = 0; i < pieces; ++i) {
            read[i].from = end_ + std::min(want - end_, ((units * i / pieces) << 20));
            read[i].to = end_ + std::min(want - end_, ((units * (i + 1) / pieces) << 20));
        }
        onThreads(pieces, [&](unsigned i) { readPiece(read[i]); });
        // The bytes held are those up to the first piece that failed or came back short.
        for (const Piece& piece : read) {
            end_ = piece.reached;
            if (piece.error != 0) {
                error = std::string("read failed at byte ") + std::to_string(piece.reached) + ": " +
                        std::strerror(piece.error);
                return false;
            }
            if (piece.reached < piece.to) {
                size_ = piece.reached;  // the input ended early (it shrank while we read)
                break;
            }
        }
        return true;
    }
    bool atInputEnd() const { return end_ >= size_; }

private:
    struct Piece {
        uint64_t from = 0, to = 0, reached = 0;
        int error = 0;
    };

    void readPiece(Piece& piece) const
    {
        const corvina::posix::Transfer t = corvina::posix::preadAll(
            fd_, std::span(buffer_.data() + (piece.from - start_), size_t(piece.to - piece.from)), piece.from);
        piece.reached = piece.from + t.count;
        piece.error = t.error;
    }

    int fd_;
    uint64_t size_;
    size_t capacity_;
    // In huge pages: the preads into it fault a few hundred times instead of once per 4 KiB page.
    corvina::LargeBuffer buffer_;
    uint64_t start_ = 0, end_ = 0;
};

// What one part of a window gave: its frames and the first rejections, in input order.
struct PartResult {
    std::vector<FrameInfo> frames;
    std::vector<Rejection> rejections;
    uint64_t rejectionsDropped = 0;  // after the kept ones
};

// Finds the frames that start in [from, to) of the window, as the scan does from a position
// `from`: a frame found lets the search go on after its end, which may be past `to`. A frame
// is examined with every byte the window holds after its start.
PartResult scanPart(const Window& window, uint64_t from, uint64_t to, const Pairs& pairs, bool atEnd)
{
    PartResult result;
    // Pattern positions up to the part's end plus the longest distance from a start to its
    // pattern, so that every start before the end is seen.
    const uint64_t searchEnd = std::min(window.end(), to + kLongestStartBefore + 1);
    const uint8_t* base = window.at(window.start());
    uint64_t pos = from, at = from;
    while (at + 1 < searchEnd) {
        const size_t hit = findPair(base, size_t(at - window.start()), size_t(searchEnd - window.start()), pairs);
        const uint64_t found = window.start() + hit;
        if (found + 1 >= searchEnd) break;
        at = found + 1;
        const Family family = familyOfPair(base[hit], pairs);
        const StartPattern pattern = startPattern(family);
        if (found < pos + pattern.startBefore) continue;  // inside the frame before
        const uint64_t candidate = found - pattern.startBefore;
        if (candidate >= to) continue;
        if (window.end() - found < pattern.bytes.size() ||
            std::memcmp(base + hit, pattern.bytes.data(), pattern.bytes.size()) != 0)
            continue;
        const Examination e = examine(family, {window.at(candidate), size_t(window.end() - candidate)}, atEnd);
        if (e.verdict == Examination::Verdict::Frame) {
            FrameInfo frame = e.frame;
            frame.offset = candidate;
            result.frames.push_back(frame);
            pos = at = candidate + frame.length;
        } else if (e.verdict == Examination::Verdict::Rejected) {
            if (result.rejections.size() < kMaxRejectionsKept)
                result.rejections.push_back({candidate, family, e.frame.formatType, e.reason});
            else
                ++result.rejectionsDropped;
        }
    }
    return result;
}

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
    const unsigned jobs = options.jobs > 0 ? options.jobs : std::max(1u, std::thread::hardware_concurrency());
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);

    Window window(fd, size, options.windowBytes + kMaxFrameBytes);
    uint64_t pos = 0;
    const Pairs pairs = pairsFor(families);

    while (pos < size) {
        if (options.stop && options.stop->load()) {
            result.stopped = true;
            break;
        }
        // Zeros the file system does not store hold no frame start.
        const off_t data = ::lseek(fd, off_t(pos), SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;  // only a hole remains
        if (data > off_t(pos)) pos = uint64_t(data);
        if (!window.fillFrom(pos, jobs, result.error)) break;
        if (window.end() <= pos) break;
        // Candidates before the limit have the largest frame's bytes behind them, or the end.
        const uint64_t limit = window.atInputEnd() ? window.end() : window.end() - kMaxFrameBytes;
        const bool atEnd = window.atInputEnd();

        // The starts in [pos, limit) are looked for in parts side by side, each as if the scan
        // came to the part's beginning with no frame running into it.
        const unsigned parts = unsigned(std::clamp<uint64_t>((limit - pos) / kSmallestPart, 1, jobs));
        std::vector<uint64_t> bounds(parts + 1);
        for (unsigned i = 0; i <= parts; ++i) bounds[i] = pos + (limit - pos) * i / parts;
        std::vector<PartResult> partResults(parts);
        onThreads(parts,
                  [&](unsigned i) { partResults[i] = scanPart(window, bounds[i], bounds[i + 1], pairs, atEnd); });

        // Merged in order, they are what one pass finds. A frame running from one part into the
        // next hides the starts inside it: the next part's answers from the frame's end on stand
        // as long as the part took no frame before that end (its search then went on just as one
        // pass's would) and kept every rejection it met there; otherwise the part is searched
        // again from the frame's end.
        for (unsigned i = 0; i < parts; ++i) {
            PartResult part = std::move(partResults[i]);
            if (pos > bounds[i]) {
                const bool frameBefore = !part.frames.empty() && part.frames.front().offset < pos;
                const bool uncounted = part.rejectionsDropped > 0 && part.rejections.back().offset < pos;
                if (frameBefore || uncounted)
                    part = pos < bounds[i + 1] ? scanPart(window, pos, bounds[i + 1], pairs, atEnd) : PartResult{};
            }
            for (Rejection& rejection : part.rejections) {
                if (rejection.offset < pos) continue;
                if (result.rejections.size() < kMaxRejectionsKept)
                    result.rejections.push_back(std::move(rejection));
                else
                    ++result.rejectionsDropped;
            }
            result.rejectionsDropped += part.rejectionsDropped;
            if (!part.frames.empty()) {
                pos = part.frames.back().offset + part.frames.back().length;
                result.frames.insert(result.frames.end(), part.frames.begin(), part.frames.end());
            }
        }
        pos = std::max(pos, limit);
        result.bytesScanned = std::min(pos, size);
        if (options.progress) options.progress({result.bytesScanned, size, result.frames.size()});
    }
    result.bytesScanned = std::min(std::max(pos, result.bytesScanned), size);
    return result;
}

}  // namespace corvina::recover
