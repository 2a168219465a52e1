// Frame counts <-> timecode strings, drop frame, and the arithmetic on timecode strings.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>

#include "TQTimecode.h"

namespace {

struct CountCase {
    int64_t count;
    int64_t timebase;
    bool ntsc;
    bool dropFrame;
    int64_t startFrame;
    const char* timecode;
};

TEST(TQTimecodeTest, FrameCountToTimecodeWorkedValues)
{
    const CountCase cases[] = {
        // 29.97 drop frame (every frame of a day is checked by the round trip below)
        {0, 30, true, true, 0, "00:00:00;00"},
        {1800, 30, true, true, 0, "00:01:00;02"},
        {17982, 30, true, true, 0, "00:10:00;00"},
        {0, 30, true, true, -1, "01:00:00;00"},
        {10, 30, true, true, 107892, "01:00:00;10"},
        // 59.94 drop frame
        {3600, 60, true, true, 0, "00:01:00;04"},
        // Non-drop: the NTSC flag changes nothing
        {17982, 30, false, false, 0, "00:09:59:12"},
        {17982, 30, true, false, 0, "00:09:59:12"},
        {89, 30, false, false, 1, "00:00:03:00"},
        {24 * 3600 + 23, 24, false, false, 0, "01:00:00:23"},
        {25, 25, false, false, 0, "00:00:01:00"},
        // Wrap at 24 hours; counts beyond are not otherwise normalised
        {2592000, 30, false, false, 0, "00:00:00:00"},
        {2592000 + 31, 30, false, false, 0, "00:00:01:01"},
        {2592000 * 3 + 1800, 30, false, false, 0, "00:01:00:00"},
        {2589408, 30, true, true, 0, "00:00:00;00"},  // 24 h of 29.97 drop frame
        // Timebase 0 or less behaves as 30
        {1800, 0, false, false, 0, "00:01:00:00"},
        {1800, -5, false, false, 0, "00:01:00:00"},
        {1800, 0, true, true, 0, "00:01:00;02"},
        // 25 fps drop frame: two numbers dropped each minute as well (the NTSC flag is
        // only a factor on the rate here)
        {1500, 25, false, true, 0, "00:01:00;02"},
        // 25 fps has no NTSC ten-minute block: its real ten minutes (15000 frames) already
        // span 15000 numbers, so the 18 inserted numbers push the count past 10:00.
        {15000, 25, false, true, 0, "00:10:00;18"},
        // Below 7.5 fps nothing is dropped
        {361, 6, false, true, 0, "00:01:00;01"},
    };
    for (const CountCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "count " << c.count << " tb " << c.timebase << (c.ntsc ? " ntsc" : "")
                                        << (c.dropFrame ? " df" : "") << " start " << c.startFrame);
        EXPECT_EQ(TQTimecode::timecodeFromFrameCount(c.count, c.timebase, c.ntsc, c.dropFrame, c.startFrame),
                  c.timecode);
    }
}

TEST(TQTimecodeTest, TimecodeToFrameCountWorkedValues)
{
    const CountCase cases[] = {
        {1800, 30, true, true, 0, "00:01:00;02"},
        {17982, 30, true, true, 0, "00:10:00;00"},
        {107892, 30, true, true, 0, "01:00:00;00"},
        {0, 30, true, true, -1, "01:00:00;00"},
        {0, 30, true, true, 107892, "01:00:00;00"},
        {-107892, 30, true, true, -1, "00:00:00;00"},
        {3600, 60, true, true, 0, "00:01:00;04"},
        // ":" and ";" are interchangeable anywhere
        {1800, 30, true, true, 0, "00;01;00:02"},
        {1802, 30, false, false, 0, "00:01:00;02"},
        // Timebase 0 or less behaves as 30
        {1802, 0, false, false, 0, "00:01:00:02"},
        {1800, -5, true, true, 0, "00:01:00;02"},
        // White space and newlines around the string are ignored; further fields too
        {1802, 30, false, false, 0, "  00:01:00:02\n"},
        {1802, 30, false, false, 0, "00:01:00:02:99"},
        // Leading-integer reading of each field: junk reads as 0, trailing junk is ignored
        {62, 30, false, false, 0, "00:00:2x:2 frames"},
        {2, 30, false, false, 0, "aa:bb:cc:02"},
        {-28, 30, false, false, 0, "00:00:-1:2"},
        {92, 30, false, false, 0, "::3:2"},
        // Fewer than four fields: frame 0, and the start frame is not applied
        {0, 30, false, false, 0, "01:00:00"},
        {0, 30, false, false, 500, "01:00:00"},
        {0, 30, true, true, -1, ""},
        // Frame fields are not limited to their range
        {30 + 45, 30, false, false, 0, "00:00:01:45"},
    };
    for (const CountCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "'" << c.timecode << "' tb " << c.timebase << (c.ntsc ? " ntsc" : "")
                                        << (c.dropFrame ? " df" : "") << " start " << c.startFrame);
        EXPECT_EQ(TQTimecode::frameCountFromTimecode(c.timecode, c.timebase, c.ntsc, c.dropFrame, c.startFrame),
                  c.count);
    }
}

// The count that a drop-frame timecode of `count` reads back as.
int64_t roundTrip(int64_t count, int64_t timebase)
{
    const std::string tc = TQTimecode::timecodeFromFrameCount(count, timebase, true, true, 0);
    return TQTimecode::frameCountFromTimecode(tc, timebase, true, true, 0);
}

// Every frame of a day at 29.97 and 59.94 reads back to its own count, numbers are skipped
// only at minute starts, and every label skipped reads as the next frame that exists.
TEST(TQTimecodeTest, DropFrameRoundTripsEveryFrameOfTwentyFourHours)
{
    for (int64_t timebase : {30, 60}) {
        const double fps = timebase * 0.999000999000999;
        const uint64_t dropped = timebase / 15;
        const uint64_t perDay = (timebase == 30 ? 17982 : 35964) * 6 * 24;
        uint64_t previous = 0;
        for (uint64_t count = 0; count < perDay; ++count) {
            const uint64_t nominal = TQTimecode::addDroppedFrames(count, fps);
            ASSERT_EQ(TQTimecode::subtractDroppedFrames(nominal, fps), count) << "count " << count;
            for (uint64_t skipped = previous + 1; skipped < nominal; ++skipped)
                ASSERT_EQ(TQTimecode::subtractDroppedFrames(skipped, fps), count) << "label " << skipped;
            // Consecutive frames have consecutive numbers, except that minutes not divisible by
            // ten start at number 2 (29.97) or 4 (59.94).
            const bool minuteStart = nominal % (60 * timebase) == dropped && nominal / (60 * timebase) % 10 != 0;
            ASSERT_EQ(nominal - previous, count == 0 ? 0 : minuteStart ? dropped + 1 : 1) << "count " << count;
            previous = nominal;
        }
        // Through the strings too, sampled (the arithmetic above is the exhaustive part).
        for (int64_t count = 0; count < int64_t(perDay); count += 7)
            ASSERT_EQ(roundTrip(count, timebase), count) << "count " << count;
    }
    EXPECT_EQ(TQTimecode::frameCountFromTimecode("00:01:00;00", 30, true, true, 0), 1800);
    EXPECT_EQ(TQTimecode::frameCountFromTimecode("00:01:00;01", 30, true, true, 0), 1800);
    EXPECT_EQ(TQTimecode::frameCountFromTimecode("00:01:00;03", 60, true, true, 0), 3600);
    EXPECT_EQ(TQTimecode::frameCountFromTimecode("00:10:00;00", 30, true, true, 0), 17982);
}

TEST(TQTimecodeTest, DropFrameRoutinesAtOddRates)
{
    struct Case {
        uint64_t frames;
        double fps;
        uint64_t nominal;
    };
    const Case cases[] = {
        {1500, 25.0, 1502},                         // d = 2 at 25 fps, T = 15000, P = 1498
        {1500, 24.975, 1502},                       // 25 with the NTSC factor: T rounds to 14985
        {360, 6.0, 360},                            // d = 0 below 7.5 fps
        {600, 7.49, 600},       {500, 7.5, 501},    // d = 1 from 7.5 fps on: T = 4500, P = 479
        {479, 7.5, 479},        {1000, 0.0, 1000},  // rates with no whole frame per ten minutes drop nothing
        {1000, -30.0, 1000},    {1000, std::nan(""), 1000},
        {1000, INFINITY, 1000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.frames << " at " << c.fps);
        EXPECT_EQ(TQTimecode::addDroppedFrames(c.frames, c.fps), c.nominal);
        EXPECT_EQ(TQTimecode::subtractDroppedFrames(c.nominal, c.fps), c.frames);
    }
    // Extreme counts saturate instead of wrapping.
    EXPECT_EQ(TQTimecode::addDroppedFrames(UINT64_MAX, 29.97002997), UINT64_MAX);
}

TEST(TQTimecodeTest, Arithmetic)
{
    struct Case {
        const char* a;
        const char* b;
        int64_t timebase;
        bool ntsc, dropFrame;
        const char* sum;
    };
    const Case additions[] = {
        {"00:00:59;29", "00:00:00;01", 30, true, true, "00:01:00;02"},
        {"00:09:59;29", "00:00:00;01", 30, true, true, "00:10:00;00"},
        {"01:00:00:00", "00:30:00:12", 25, false, false, "01:30:00:12"},
        {"23:59:59:29", "00:00:00:01", 30, false, false, "00:00:00:00"},
        // A string with fewer than four fields adds nothing
        {"01:00:00:00", "12:00", 25, false, false, "01:00:00:00"},
        {"junk", "00:00:10:00", 0, false, false, "00:00:10:00"},
    };
    for (const Case& c : additions) {
        SCOPED_TRACE(testing::Message() << c.a << " + " << c.b);
        EXPECT_EQ(TQTimecode::addTimecode(c.a, c.b, c.timebase, c.ntsc, c.dropFrame), c.sum);
    }

    // timecode(tc, incrementBy ...)
    EXPECT_EQ(TQTimecode::timecode("00:00:59;29", 1, 30, true, true), "00:01:00;02");
    EXPECT_EQ(TQTimecode::timecode("00:01:00;02", -1, 30, true, true), "00:00:59;29");
    EXPECT_EQ(TQTimecode::timecode("01:00:00:00", 48, 24, false, false), "01:00:02:00");
    // A skipped label moves on to the frame that exists (labels that exist read back as they
    // are: the string round trips above).
    EXPECT_EQ(TQTimecode::timecode("00:02:00;00", 0, 30, true, true), "00:02:00;02");

    // subtractTimecode(a, fromTimecode b): b - a, none when negative
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:01:00", "00:00:00:10", 30, false, false), std::nullopt);
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:05:00", "00:00:05:00", 30, false, false), "00:00:00:00");
    EXPECT_EQ(TQTimecode::subtractTimecode("00:01:00;02", "00:01:00;02", 30, true, true), "00:00:00;00");
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:00;01", "00:01:00;02", 30, true, true), "00:00:59;29");
    EXPECT_EQ(TQTimecode::subtractTimecode("01:00:00;00", "01:10:00;00", 30, true, true), "00:10:00;00");
    EXPECT_EQ(TQTimecode::subtractTimecode("short", "00:00:00:10", 30, false, false), "00:00:00:10");
    // Counts compare as unsigned values: a negative count is larger than any positive one.
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:-1:00", "00:00:01:00", 30, false, false), std::nullopt);
}

TEST(TQTimecodeTest, RangeTest)
{
    struct Case {
        const char* timecode;
        const char* start;
        const char* end;
        bool inRange;
    };
    const Case cases[] = {
        {"01:00:00:00", "00:00:00:00", "02:00:00:00", true},
        {"00:00:00:00", "00:00:00:00", "02:00:00:00", true},
        {"02:00:00:00", "00:00:00:00", "02:00:00:00", true},
        {"02:00:00:01", "00:00:00:00", "02:00:00:00", false},
        {"00:59:59:23", "01:00:00:00", "02:00:00:00", false},
        // Drop-frame separators weigh the same
        {"01:00:00;00", "00:00:00:00", "01:00:00:00", true},
        // Fixed timebase 24: 00:00:01:25 weighs 49, 00:00:02:00 weighs 48
        {"00:00:01:25", "00:00:00:00", "00:00:02:00", false},
        {"00:00:02:00", "00:00:00:00", "00:00:01:25", true},
        {"00:00:01:24", "00:00:02:00", "00:00:02:00", true},
        // Equal strings are in range at once, even when start > end
        {"05:00:00:00", "05:00:00:00", "01:00:00:00", true},
        {"x", "a", "x", true},
        // Strings with fewer than four fields weigh 0
        {"junk", "00:00:00:00", "00:00:00:01", true},
        {"00:00:00:05", "00:00:00:06", "junk", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.timecode << " in " << c.start << " .. " << c.end);
        EXPECT_EQ(TQTimecode::timecodeInRange(c.timecode, c.start, c.end), c.inRange);
    }
}

TEST(TQTimecodeTest, FrameRateFromTimebase)
{
    // Only 24, 30 and 60 have an NTSC rate; other timebases give 0 with the flag.
    for (int64_t tb : {24, 30, 60})
        EXPECT_DOUBLE_EQ(TQTimecode::frameRateFromTimebase(tb, true), tb * 1000.0 / 1001.0) << tb;
    for (int64_t tb : {25, 50, -30, 0}) EXPECT_EQ(TQTimecode::frameRateFromTimebase(tb, true), 0.0) << tb;
    for (int64_t tb : {25, 0, -5}) EXPECT_EQ(TQTimecode::frameRateFromTimebase(tb, false), double(tb)) << tb;
}

TEST(TQTimecodeTest, ModulusTruncatesToThirtyTwoBits)
{
    struct Case {
        double x, y, result;
    };
    const Case cases[] = {
        {17.5, 5.0, 2.5},
        {-17.5, 5.0, -2.5},  // truncation toward zero keeps the sign of x
        {17982.0, 30.0, 12.0},
        {3604.0, 29.97, 3604.0 - 120 * 29.97},
        // Quotient 2^32 + 3 truncates to 3
        {(4294967296.0 + 3.0) * 2.0 + 1.0, 2.0, (4294967296.0 + 3.0) * 2.0 + 1.0 - 6.0},
        // Quotient 2^31 wraps to -2^31
        {2147483648.0, 1.0, 2147483648.0 * 2.0},
        {5.0, 0.0, 5.0},  // a quotient that is no number counts as 0
    };
    for (const Case& c : cases) EXPECT_DOUBLE_EQ(modulus(c.x, c.y), c.result) << c.x << " mod " << c.y;
}

TEST(TQTimecodeTest, ExtremeInputDoesNotBreak)
{
    // Negative counts print the fields the arithmetic gives.
    EXPECT_EQ(TQTimecode::timecodeFromFrameCount(-1, 30, false, false, 0), "00:00:-01:-01");
    EXPECT_FALSE(TQTimecode::timecodeFromFrameCount(INT64_MIN, 30, true, true, 0).empty());
    EXPECT_FALSE(TQTimecode::timecodeFromFrameCount(INT64_MAX, 30, false, false, INT64_MAX).empty());
    EXPECT_FALSE(TQTimecode::timecodeFromFrameCount(INT64_MAX, INT64_MAX, true, true, 0).empty());
    (void)TQTimecode::frameCountFromTimecode("99999999999999999999999:-99999999999999999999:9:9", INT64_MAX, true, true,
                                             INT64_MIN);
    (void)TQTimecode::addTimecode("9223372036854775807:0:0:0", "9223372036854775807:0:0:0", 60, true, true);
}

}  // namespace
