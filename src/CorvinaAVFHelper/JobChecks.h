// Checks of a movie job over plain values (frame rate, frame size, counts, byte ranges), so
// that whoever reads the settings document can ask them before anything is written. Each
// check returns the line that says what is wrong, or nothing when the value is usable.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "SampleBuffer/CodecHeaders.h"

namespace corvina::helper {

namespace jobcheck {

// Frame rates the session accepts, in frames per second (both ends included).
inline constexpr double kMinFrameRate = 1.0;
inline constexpr double kMaxFrameRate = 1000.0;
// A track's sample count is stored in 32 bits; no track may hold more frames than that.
inline constexpr uint64_t kMaxFramesPerTrack = 0xFFFFFFFFull;

std::optional<std::string> frameRateProblem(float framesPerSecond);

struct FrameSize {
    int32_t width = 0;
    int32_t height = 0;
    bool usable() const { return width > 0 && height > 0; }
};

// The frame size written in a ProRes frame's own header (frame size, 'icpf', then the frame
// header with the horizontal and vertical size at bytes 16 and 18), when the bytes hold one.
std::optional<FrameSize> frameSizeFromProResFrame(std::span<const uint8_t> frameStart);
inline constexpr size_t kProResHeaderBytes = corvina::codec::kProResSizeFieldsBytes;
// The frame size in a JPEG frame's start-of-frame segment (any SOFn), found by walking the
// segments from the start-of-image marker, when the bytes reach it.
std::optional<FrameSize> frameSizeFromJpegFrame(std::span<const uint8_t> frameStart);
// Enough for the segments before the start of frame: tables and a few application segments.
inline constexpr size_t kJpegHeaderBytes = 256 * 1024;

// The video entries' frame counts (a count below 1 counts as 1): refused when the track would
// hold more frames than a track can.
std::optional<std::string> videoCountsProblem(std::span<const int64_t> frameCounts);
// The audio entries' lengths in bytes, whole frames only.
std::optional<std::string> audioCountsProblem(std::span<const uint64_t> lengths, uint64_t bytesPerFrame);
// The same checks over frame totals already added up (saturating) by the caller.
std::optional<std::string> videoFramesProblem(uint64_t frames);
std::optional<std::string> audioFramesProblem(uint64_t frames);

// Saturating sum: UINT64_MAX stands for "more than fits".
uint64_t addSaturating(uint64_t a, uint64_t b);

struct ByteRange {
    uint64_t offset = 0;
    uint64_t length = 0;
};
// Bytes of the ranges that a file of fileSize bytes really holds, counted in whole units
// (1 for video samples, the bytes per frame for audio), saturating.
uint64_t bytesHeld(std::span<const ByteRange> ranges, uint64_t fileSize, uint64_t unit = 1);
// One range's share of that sum.
uint64_t bytesHeld(ByteRange range, uint64_t fileSize, uint64_t unit = 1);

// Room the movie needs besides its essence: file headers, the movie atom and its sample
// tables, generously counted per entry.
uint64_t movieHeaderAllowance(uint64_t videoEntries, uint64_t audioEntries);

}  // namespace jobcheck

}  // namespace corvina::helper
