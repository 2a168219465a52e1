#include "JobChecks.h"

#include <cmath>
#include <limits>

#include "Foundation/Format.h"

namespace jobcheck {

namespace {

uint32_t bigEndian32(std::span<const uint8_t> b, size_t at)
{
    return uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | uint32_t(b[at + 3]);
}

uint16_t bigEndian16(std::span<const uint8_t> b, size_t at) { return uint16_t(b[at] << 8 | b[at + 1]); }

std::string countText(uint64_t count)
{
    if (count == std::numeric_limits<uint64_t>::max()) return "more than 18446744073709551614";
    return corvina::format("%llu", count);
}

}  // namespace

uint64_t addSaturating(uint64_t a, uint64_t b)
{
    return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

std::optional<std::string> frameRateProblem(float framesPerSecond)
{
    const double rate = framesPerSecond;
    if (std::isfinite(rate) && rate >= kMinFrameRate && rate <= kMaxFrameRate) return std::nullopt;
    return corvina::format("Error: frame rate %0.3f is not usable. A movie needs 1 to 1000 frames per second.", rate);
}

std::optional<FrameSize> frameSizeFromProResFrame(std::span<const uint8_t> frameStart)
{
    if (frameStart.size() < kProResHeaderBytes) return std::nullopt;
    if (bigEndian32(frameStart, 4) != 0x69637066) return std::nullopt;  // 'icpf'
    const uint16_t headerSize = bigEndian16(frameStart, 8);
    if (headerSize < 20 - 8) return std::nullopt;  // too short to hold the two sizes
    FrameSize size{bigEndian16(frameStart, 16), bigEndian16(frameStart, 18)};
    // The header's sizes are unsigned 16-bit; the format description's are signed 16-bit.
    if (!size.usable() || size.width > 32767 || size.height > 32767) return std::nullopt;
    return size;
}

std::optional<FrameSize> frameSizeFromJpegFrame(std::span<const uint8_t> b)
{
    if (b.size() < 4 || b[0] != 0xFF || b[1] != 0xD8) return std::nullopt;
    size_t at = 2;
    for (;;) {
        if (at >= b.size() || b[at] != 0xFF) return std::nullopt;
        while (at < b.size() && b[at] == 0xFF) ++at;  // fill bytes before a marker code
        if (at >= b.size()) return std::nullopt;
        const uint8_t marker = b[at++];
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;              // no segment
        if (marker == 0xD9 || marker == 0xDA || at + 2 > b.size()) return std::nullopt;  // image data, no size
        const uint16_t length = bigEndian16(b, at);
        if (length < 2) return std::nullopt;
        const bool startOfFrame =
            marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (startOfFrame) {
            if (length < 7 || at + 7 > b.size()) return std::nullopt;
            FrameSize size{bigEndian16(b, at + 5), bigEndian16(b, at + 3)};  // precision, height, width
            if (!size.usable() || size.width > 32767 || size.height > 32767) return std::nullopt;
            return size;
        }
        at += length;
    }
}

std::optional<std::string> videoCountsProblem(std::span<const int64_t> frameCounts)
{
    uint64_t frames = 0;
    for (const int64_t count : frameCounts)
        frames = addSaturating(frames, count < 1 ? 1 : static_cast<uint64_t>(count));
    return videoFramesProblem(frames);
}

std::optional<std::string> videoFramesProblem(uint64_t frames)
{
    if (frames <= kMaxFramesPerTrack) return std::nullopt;
    return "Error: the video entries describe " + countText(frames) +
           " frames; a track holds at most 4294967295 frames.";
}

std::optional<std::string> audioCountsProblem(std::span<const uint64_t> lengths, uint64_t bytesPerFrame)
{
    if (bytesPerFrame == 0) return std::nullopt;
    uint64_t frames = 0;
    for (const uint64_t length : lengths) frames = addSaturating(frames, length / bytesPerFrame);
    return audioFramesProblem(frames);
}

std::optional<std::string> audioFramesProblem(uint64_t frames)
{
    if (frames <= kMaxFramesPerTrack) return std::nullopt;
    return "Error: the audio entries describe " + countText(frames) +
           " frames; a track holds at most 4294967295 frames.";
}

uint64_t bytesHeld(std::span<const ByteRange> ranges, uint64_t fileSize, uint64_t unit)
{
    uint64_t total = 0;
    for (const auto& range : ranges) total = addSaturating(total, bytesHeld(range, fileSize, unit));
    return total;
}

uint64_t bytesHeld(ByteRange range, uint64_t fileSize, uint64_t unit)
{
    if (unit == 0) unit = 1;
    if (range.offset >= fileSize) return 0;
    const uint64_t available = fileSize - range.offset;
    const uint64_t wanted = range.length < available ? range.length : available;
    return wanted / unit * unit;
}

uint64_t movieHeaderAllowance(uint64_t videoEntries, uint64_t audioEntries)
{
    // Per video entry: its size, time-to-sample and chunk-offset share; per audio entry a
    // chunk or two. Plus headers, sample descriptions and a margin for the file system.
    constexpr uint64_t kFixed = 256 * 1024;
    return addSaturating(kFixed, addSaturating(videoEntries > UINT64_MAX / 32 ? UINT64_MAX : videoEntries * 32,
                                               audioEntries > UINT64_MAX / 64 ? UINT64_MAX : audioEntries * 64));
}

}  // namespace jobcheck
