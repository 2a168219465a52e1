#include "helper/JobChecks.h"

#include <cmath>
#include <limits>

#include "Foundation/Format.h"

namespace corvina::helper {

namespace jobcheck {

namespace {

// The header's sizes are unsigned 16-bit; the format description's are signed 16-bit.
std::optional<FrameSize> describable(FrameSize size)
{
    if (!size.usable() || size.width > 32767 || size.height > 32767) return std::nullopt;
    return size;
}

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
    const auto header = corvina::codec::readProResFrameHeader(frameStart);
    if (!header || header->headerSize < 20 - 8) return std::nullopt;  // too short to hold the two sizes
    return describable({header->width, header->height});
}

std::optional<FrameSize> frameSizeFromJpegFrame(std::span<const uint8_t> frameStart)
{
    const auto header = corvina::codec::findJpegFrameHeader(frameStart);
    if (!header) return std::nullopt;
    return describable({header->width, header->height});
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

}  // namespace corvina::helper
