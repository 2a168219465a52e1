// SMPTE-style timecode strings and frame counts, with drop-frame numbering for NTSC rates.
//
// A timecode string is hours, minutes, seconds and frames of at least two digits each,
// "01:00:00:00", or "01:00:00;00" in drop-frame mode. When parsing, ":" and ";" are
// interchangeable. A frame count counts real frames; in drop-frame mode the dropped frame
// numbers are not counted. Rates are exact (corvina::FrameRate): a timecode second counts
// the rate's timebase of frame numbers (30 at 29.97, 13 at 12.5), and drop-frame numbering
// follows the true rate. An invalid rate stands for 29.97 (30000/1001) throughout.
//
// Every member is a pure function of its arguments (timeOfDayTimecode reads the clock) and
// may be called from any thread. Nothing here reports errors: odd input gives the value
// the arithmetic gives, never a crash.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "MediaTime/MediaTime.h"

namespace corvina::tq {

// x - trunc32(x / y) * y, where trunc32 truncates toward zero to a signed 32-bit integer.
// Quotients outside the 32-bit range wrap modulo 2^32; a NaN or infinite quotient counts
// as 0.
double modulus(double x, double y);

class TQTimecode {
public:
    // A negative start frame stands for 107892, which is 01:00:00;00 at 29.97 drop frame.
    static constexpr int64_t kDefaultStartFrame = 107892;

    // --- Frame counts and timecodes -------------------------------------------------------

    // Timecode of frame `count` of material whose first frame is `startFrame`. Wraps at
    // 24 hours.
    static std::string timecodeFromFrameCount(int64_t count, corvina::FrameRate rate, bool dropFrame,
                                              int64_t startFrame);

    // Frame count of `timecode` relative to `startFrame`. A string of fewer than four
    // fields counts as frame 0 (the start frame is then not applied).
    static int64_t frameCountFromTimecode(std::string_view timecode, corvina::FrameRate rate, bool dropFrame,
                                          int64_t startFrame);

    // `timecode` moved on by `incrementBy` frames.
    static std::string timecode(std::string_view timecode, int64_t incrementBy, corvina::FrameRate rate,
                                bool dropFrame);

    // Timecode of the sum of the frame counts of `a` and `b`.
    static std::string addTimecode(std::string_view a, std::string_view toTimecode, corvina::FrameRate rate,
                                   bool dropFrame);

    // Timecode of `fromTimecode` minus `a`; none when that would be negative.
    static std::optional<std::string> subtractTimecode(std::string_view a, std::string_view fromTimecode,
                                                       corvina::FrameRate rate, bool dropFrame);

    // True when start <= timecode <= end. Strings equal to start or end are in range at
    // once; otherwise all three are weighed at a fixed timebase of 24 (no NTSC, no drop
    // frame), so frame fields of 24 and more count as whole seconds.
    static bool timecodeInRange(std::string_view timecode, std::string_view start, std::string_view end);

    // The true rate of a timebase: the timebase itself without ntsc; with ntsc,
    // timebase x 1000/1001 for 24, 30 and 60 and an invalid rate for any other timebase.
    static corvina::FrameRate frameRateFromTimebase(int64_t timebase, bool isNTSC);

    // Real frame count -> frame number with the drop-frame numbers inserted, at the true
    // rate. Below 7.5 fps, and at an invalid rate, nothing is dropped.
    static uint64_t addDroppedFrames(uint64_t frames, corvina::FrameRate rate);
    // Frame number with drops -> real frame count: the exact inverse of addDroppedFrames. A
    // number that the numbering skips gives the count of the next number that exists.
    static uint64_t subtractDroppedFrames(uint64_t frames, corvina::FrameRate rate);

    // --- Timecode strings from other sources ----------------------------------------------

    // A typed entry: digits with optional "." or "," separators, a trailing run of
    // separators standing for pairs of zeros, short entries completed from the leading
    // fields of `startTimecode` (none or empty: 00:00:00:00, or 00:00:00;00 in drop-frame
    // mode). An entry of exactly 11 characters is returned as it is. Lengths count
    // characters (Unicode code points of the UTF-8 text).
    static std::string timecodeFromUserString(const std::optional<std::string>& text, bool dropFrame,
                                              const std::optional<std::string>& startTimecode);

    // Timecode of a time in seconds: the frames the rate gives, rounded.
    static std::string timecodeFromSeconds(double seconds, corvina::FrameRate rate, bool dropFrame);

    // The current local time of day as a timecode, the fraction of the second turned into
    // frames at the rate (none at an invalid rate). No drop-frame renumbering: only the
    // separator changes.
    static std::string timeOfDayTimecode(corvina::FrameRate rate, bool dropFrame);
    // The same for a given moment (local time).
    static std::string timeOfDayTimecode(std::chrono::system_clock::time_point when, corvina::FrameRate rate,
                                         bool dropFrame);

    // `timecode` with every ":" and ";" replaced by ".", for use in file names.
    static std::optional<std::string> sanitizeTimecodeForFilename(const std::optional<std::string>& timecode);
};

}  // namespace corvina::tq
