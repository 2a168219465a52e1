// Frame counts and timecode strings, drop frame, arithmetic, typed entries, seconds, time of day.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "tq/TQTimecode.h"

namespace corvina::tq {

namespace {

using corvina::FrameRate;

const FrameRate k2997 = FrameRate::ntsc(30), k5994 = FrameRate::ntsc(60), k24 = FrameRate::whole(24),
                k25 = FrameRate::whole(25), k30 = FrameRate::whole(30), kNone;

struct CountCase {
    int64_t count;
    FrameRate rate;
    bool dropFrame;
    int64_t startFrame;
    const char* timecode;
};

TEST(TQTimecodeTest, FrameCountToTimecodeWorkedValues)
{
    const CountCase cases[] = {
        // Start frames (-1: one hour); every drop-frame label of a day is the round trips' below
        {0, k2997, true, -1, "01:00:00;00"},
        {10, k2997, true, 107892, "01:00:00;10"},
        // Non-drop: 29.97 counts as 30, 12.5 as 13
        {17982, k2997, false, 0, "00:09:59:12"},
        {89, k30, false, 1, "00:00:03:00"},
        {25, FrameRate::make(25, 2), false, 0, "00:00:01:12"},
        // An invalid rate counts as 29.97
        {1800, kNone, false, 0, "00:01:00:00"},
        {1800, kNone, true, 0, "00:01:00;02"},
        // 25 fps drop frame: two numbers dropped each minute as well (drops follow the true rate)
        {1500, k25, true, 0, "00:01:00;02"},
        // No ten-minute block at 25 fps: the 18 numbers inserted push the count past 10:00
        {15000, k25, true, 0, "00:10:00;18"},
        // Below 7.5 fps nothing is dropped
        {361, FrameRate::whole(6), true, 0, "00:01:00;01"},
    };
    for (const CountCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "count " << c.count << " at " << c.rate.description()
                                        << (c.dropFrame ? " df" : "") << " start " << c.startFrame);
        EXPECT_EQ(TQTimecode::timecodeFromFrameCount(c.count, c.rate, c.dropFrame, c.startFrame), c.timecode);
    }
}

TEST(TQTimecodeTest, TimecodeToFrameCountWorkedValues)
{
    const CountCase cases[] = {
        {0, k2997, true, -1, "01:00:00;00"},
        {-107892, k2997, true, -1, "00:00:00;00"},
        // ":" and ";" are interchangeable anywhere
        {1800, k2997, true, 0, "00;01;00:02"},
        {1802, k30, false, 0, "00:01:00;02"},
        // An invalid rate counts as 29.97
        {1802, kNone, false, 0, "00:01:00:02"},
        {1800, kNone, true, 0, "00:01:00;02"},
        // White space and newlines around the string are ignored; further fields too
        {1802, k30, false, 0, "  00:01:00:02\n"},
        {1802, k30, false, 0, "00:01:00:02:99"},
        // Leading-integer reading of each field: junk reads as 0, trailing junk is ignored
        {2, k30, false, 0, "aa:bb:cc:02"},
        {-28, k30, false, 0, "00:00:-1:2"},
        {92, k30, false, 0, "::3:2"},
        // Fewer than four fields: frame 0, and the start frame is not applied
        {0, k30, false, 0, "01:00:00"},
        {0, k30, false, 500, "01:00:00"},
        {0, k2997, true, -1, ""},
        // Frame fields are not limited to their range
        {30 + 45, k30, false, 0, "00:00:01:45"},
    };
    for (const CountCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "'" << c.timecode << "' at " << c.rate.description()
                                        << (c.dropFrame ? " df" : "") << " start " << c.startFrame);
        EXPECT_EQ(TQTimecode::frameCountFromTimecode(c.timecode, c.rate, c.dropFrame, c.startFrame), c.count);
    }
}

// Every frame of a day reads back; numbers are skipped only at minute starts, and read as the next.
TEST(TQTimecodeTest, DropFrameNumbersEveryFrameOfTwentyFourHours)
{
    for (const FrameRate rate : {k2997, k5994}) {
        const uint64_t timebase = uint64_t(rate.timebase());
        const uint64_t dropped = timebase / 15;
        const uint64_t perDay = (timebase == 30 ? 17982 : 35964) * 6 * 24;
        uint64_t previous = 0;
        for (uint64_t count = 0; count < perDay; ++count) {
            const uint64_t nominal = TQTimecode::addDroppedFrames(count, rate);
            ASSERT_EQ(TQTimecode::subtractDroppedFrames(nominal, rate), count) << "count " << count;
            for (uint64_t skipped = previous + 1; skipped < nominal; ++skipped)
                ASSERT_EQ(TQTimecode::subtractDroppedFrames(skipped, rate), count) << "label " << skipped;
            // Minutes not divisible by ten start at number 2 (29.97) or 4 (59.94).
            const bool minuteStart = nominal % (60 * timebase) == dropped && nominal / (60 * timebase) % 10 != 0;
            ASSERT_EQ(nominal - previous, count == 0 ? 0 : minuteStart ? dropped + 1 : 1) << "count " << count;
            previous = nominal;
        }
    }
    EXPECT_EQ(TQTimecode::frameCountFromTimecode("00:01:00;00", k2997, true, 0), 1800);
    EXPECT_EQ(TQTimecode::frameCountFromTimecode("00:01:00;01", k2997, true, 0), 1800);
}

// A day of frames (sampled) reads back through the strings; the last prints as the last label.
TEST(TQTimecodeTest, StringsRoundTripAtEveryKindOfRate)
{
    const struct {
        FrameRate rate;
        bool dropFrame;
        int64_t perDay;
        const char* lastOfDay;
    } rows[] = {
        // 12.5 fps counts 13 numbers a second, as 29.97 non-drop counts 30.
        {FrameRate::make(25, 2), false, 13 * 86400, "23:59:59:12"},
        {k25, false, 25 * 86400, "23:59:59:24"},
        {k2997, true, 17982 * 6 * 24, "23:59:59;29"},
        {k5994, true, 35964 * 6 * 24, "23:59:59;59"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.rate.description());
        for (int64_t count = 0; count < r.perDay; count += 7) {
            const std::string tc = TQTimecode::timecodeFromFrameCount(count, r.rate, r.dropFrame, 0);
            ASSERT_EQ(TQTimecode::frameCountFromTimecode(tc, r.rate, r.dropFrame, 0), count) << tc;
        }
        EXPECT_EQ(TQTimecode::timecodeFromFrameCount(r.perDay - 1, r.rate, r.dropFrame, 0), r.lastOfDay);
        EXPECT_EQ(TQTimecode::timecodeFromFrameCount(r.perDay, r.rate, r.dropFrame, 0),
                  r.dropFrame ? "00:00:00;00" : "00:00:00:00");
    }
}

TEST(TQTimecodeTest, DropFrameRoutinesAtOddRates)
{
    struct Case {
        uint64_t frames;
        FrameRate rate;
        uint64_t nominal;
    };
    const Case cases[] = {
        {1500, FrameRate::ntsc(25), 1502},        // 24.975: T rounds to 14985
        {360, FrameRate::whole(6), 360},          // d = 0 below 7.5 fps
        {600, FrameRate::fromDouble(7.49), 600},  //
        {500, FrameRate::make(15, 2), 501},       // d = 1 from 7.5 fps on: T = 4500, P = 479
        {479, FrameRate::make(15, 2), 479},       //
        {1000, kNone, 1000},                      // an invalid rate drops nothing
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.frames << " at " << c.rate.description());
        EXPECT_EQ(TQTimecode::addDroppedFrames(c.frames, c.rate), c.nominal);
        EXPECT_EQ(TQTimecode::subtractDroppedFrames(c.nominal, c.rate), c.frames);
    }
    // Extreme counts saturate instead of wrapping.
    EXPECT_EQ(TQTimecode::addDroppedFrames(UINT64_MAX, k2997), UINT64_MAX);
}

TEST(TQTimecodeTest, Arithmetic)
{
    struct Case {
        const char* a;
        const char* b;
        FrameRate rate;
        bool dropFrame;
        const char* sum;
    };
    const Case additions[] = {
        {"00:09:59;29", "00:00:00;01", k2997, true, "00:10:00;00"},
        {"01:00:00:00", "00:30:00:12", k25, false, "01:30:00:12"},
        {"23:59:59:29", "00:00:00:01", k30, false, "00:00:00:00"},
        // A string with fewer than four fields adds nothing
        {"01:00:00:00", "12:00", k25, false, "01:00:00:00"},
        {"junk", "00:00:10:00", kNone, false, "00:00:10:00"},
    };
    for (const Case& c : additions) {
        SCOPED_TRACE(testing::Message() << c.a << " + " << c.b);
        EXPECT_EQ(TQTimecode::addTimecode(c.a, c.b, c.rate, c.dropFrame), c.sum);
    }

    // timecode(tc, incrementBy ...)
    EXPECT_EQ(TQTimecode::timecode("00:00:59;29", 1, k2997, true), "00:01:00;02");
    EXPECT_EQ(TQTimecode::timecode("00:01:00;02", -1, k2997, true), "00:00:59;29");
    EXPECT_EQ(TQTimecode::timecode("01:00:00:00", 48, k24, false), "01:00:02:00");
    // A skipped label moves on to the frame that exists.
    EXPECT_EQ(TQTimecode::timecode("00:02:00;00", 0, k2997, true), "00:02:00;02");

    // subtractTimecode(a, fromTimecode b): b - a, none when negative
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:01:00", "00:00:00:10", k30, false), std::nullopt);
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:05:00", "00:00:05:00", k30, false), "00:00:00:00");
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:00;01", "00:01:00;02", k2997, true), "00:00:59;29");
    EXPECT_EQ(TQTimecode::subtractTimecode("01:00:00;00", "01:10:00;00", k2997, true), "00:10:00;00");
    EXPECT_EQ(TQTimecode::subtractTimecode("short", "00:00:00:10", k30, false), "00:00:00:10");
    // Counts compare as unsigned values: a negative count is larger than any positive one.
    EXPECT_EQ(TQTimecode::subtractTimecode("00:00:-1:00", "00:00:01:00", k30, false), std::nullopt);
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
    EXPECT_EQ(TQTimecode::timecodeFromFrameCount(-1, k30, false, 0), "00:00:-01:-01");
    EXPECT_FALSE(TQTimecode::timecodeFromFrameCount(INT64_MIN, k2997, true, 0).empty());
    EXPECT_FALSE(TQTimecode::timecodeFromFrameCount(INT64_MAX, k30, false, INT64_MAX).empty());
    const FrameRate huge = FrameRate::whole(INT64_MAX), hugeFraction = FrameRate::make(INT64_MAX, 2);
    EXPECT_FALSE(TQTimecode::timecodeFromFrameCount(INT64_MAX, huge, true, 0).empty());
    EXPECT_FALSE(TQTimecode::timecodeFromFrameCount(INT64_MAX, hugeFraction, true, 0).empty());
    (void)TQTimecode::frameCountFromTimecode("99999999999999999999999:-99999999999999999999:9:9", huge, true,
                                             INT64_MIN);
    (void)TQTimecode::addTimecode("9223372036854775807:0:0:0", "9223372036854775807:0:0:0", k5994, true);
}

struct TypedCase {
    const char* typed;
    const char* withDropFrameStart;  // drop frame, start 01:00:00;00
    const char* plainNoStart;        // no drop frame, no start timecode
};

TEST(TQTimecodeStringTest, TypedEntries)
{
    const TypedCase cases[] = {
        {"5", "01:00:00;05", "00:00:00:05"},
        {"1234", "01:00:12;34", "00:00:12:34"},
        {"1.", "01:00:01;00", "00:00:01:00"},
        {"1..", "01:01:00;00", "00:01:00:00"},
        {"1...", "01:00:00;00", "01:00:00:00"},
        {"....", "00:00:00;00", "00:00:00:00"},
        {"1.2.3", "01:01:02;03", "00:01:02:03"},
        {"1:2:3", "01:00:01;23", "00:00:01:23"},
        {"123456789", "23:45:67;89", "23:45:67:89"},
        // Exactly 11 characters: returned as typed
        {"1:2:3:4:5:6", "1:2:3:4:5:6", "1:2:3:4:5:6"},
        // The typed 1 is cut off with the ninth character
        {"1....", "00:00:00;00", "00:00:00:00"},
        // Commas expand like dots
        {"2,,,", "02:00:00;00", "02:00:00:00"},
        // Mixed separators and empty pieces
        {"1.,2", "01:00:01;02", "00:00:01:02"},
        // Leading separators add nothing: the single 5 becomes the frames field
        {"..5", "01:00:00;05", "00:00:00:05"},
        // Typed ";" is dropped like ":"
        {"10;20", "01:00:10;20", "00:00:10:20"},
        // An entry of 3 characters: the odd one out gets a leading 0
        {"123", "01:00:01;23", "00:00:01:23"},
        // Other characters pass through
        {"ab", "01:00:00;ab", "00:00:00:ab"},
        // Empty entry: the start timecode
        {"", "01:00:00;00", "00:00:00:00"},
        // Longer than 11 characters: the last 8 digits
        {"0102030405060", "30:40:50;60", "30:40:50:60"},
    };
    const std::optional<std::string> start = "01:00:00;00";
    for (const TypedCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "typed '" << c.typed << "'");
        EXPECT_EQ(TQTimecode::timecodeFromUserString(std::string(c.typed), true, start), c.withDropFrameStart);
        EXPECT_EQ(TQTimecode::timecodeFromUserString(std::string(c.typed), false, std::nullopt), c.plainNoStart);
    }
}

TEST(TQTimecodeStringTest, TypedEntriesAgainstOtherStarts)
{
    struct Case {
        std::optional<std::string> typed;
        bool dropFrame;
        std::optional<std::string> start;
        std::string result;
    };
    const Case cases[] = {
        {"5", false, "10:00:00:00", "10:00:00:05"},
        {"1..", false, "10:00:00:00", "10:01:00:00"},
        // No entry, or an empty start: the start, or the default start
        {std::nullopt, true, "02:00:00;00", "02:00:00;00"},
        {std::nullopt, false, std::nullopt, "00:00:00:00"},
        {"5", false, "", "00:00:00:05"},
        {"5", true, "", "00:00:00;05"},
        {"", true, std::nullopt, "00:00:00;00"},
        // The start's separators are kept as they stand
        {"5", true, "10:00:00:00", "10:00:00:05"},
        {"1234", false, "10:00:00;00", "10:00:12:34"},
        // A start shorter than the punctuated entry leaves the entry alone
        {"12345", false, "1:00", "01:23:45"},
        {"5", false, "0", "05"},  // a single character always gains its "0"
        // A longer start contributes as many leading characters as are missing
        {"5", false, "aa:bb:cc:dd:ee", "aa:bb:cc:dd:05"},
        // Lengths count characters, not bytes: "\xC3\xA9" is one character
        {"1:2:3:4:5:\xC3\xA9", false, std::nullopt, "1:2:3:4:5:\xC3\xA9"},
        {"\xC3\xA9", false, std::nullopt, "00:00:00:0\xC3\xA9"},
        {"12\xC3\xA9\xC3\xA9", false, std::nullopt, "00:00:12:\xC3\xA9\xC3\xA9"},
        {std::string(5000, '7') + "..", false, std::nullopt, "77:77:00:00"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "typed '" << c.typed.value_or("(none)").substr(0, 20) << "' start '"
                                        << c.start.value_or("(none)") << "'");
        EXPECT_EQ(TQTimecode::timecodeFromUserString(c.typed, c.dropFrame, c.start), c.result);
    }
    // Broken UTF-8 does not break anything.
    EXPECT_FALSE(
        TQTimecode::timecodeFromUserString(std::string("\xFF\xFE\x80\x80\x80..."), true, std::string("\x80\x80"))
            .empty());
}

TEST(TQTimecodeStringTest, Seconds)
{
    struct Case {
        double seconds;
        float fps;  // as a document gives it
        bool dropFrame;
        const char* result;
    };
    const Case cases[] = {
        {60.0, 29.97f, true, "00:00:59;28"},   // 1798 frames
        {60.06, 29.97f, true, "00:01:00;02"},  // 1800 frames
        {1.5, 24.0f, false, "00:00:01:12"},
        {0.02, 25.0f, false, "00:00:00:01"},   // 0.5 frame rounds away from zero
        {-5.0, 30.0f, false, "00:00:00:00"},   // negative times count as frame 0
        {1.0, 23.976f, false, "00:00:01:00"},  // 23.976 rounds to 24 frames at timebase 24
        {1.0, 0.0f, false, "00:00:00:00"},     // no rate: no frames
        // 12.5 fps: 45000 frames an hour, counted 13 numbers a second
        {3600.0, 12.5f, false, "00:57:41:07"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.seconds << " s at " << c.fps);
        EXPECT_EQ(TQTimecode::timecodeFromSeconds(c.seconds, FrameRate::fromDouble(c.fps), c.dropFrame), c.result);
    }
    EXPECT_FALSE(TQTimecode::timecodeFromSeconds(1e300, FrameRate::whole(30), true).empty());
}

std::chrono::system_clock::time_point localTime(int hour, int minute, int second, int millis)
{
    std::tm tm{};
    tm.tm_year = 2026 - 1900;
    tm.tm_mon = 0;
    tm.tm_mday = 15;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    tm.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&tm)) + std::chrono::milliseconds(millis);
}

TEST(TQTimecodeStringTest, TimeOfDay)
{
    struct Case {
        int hour, minute, second, millis;
        FrameRate rate;
        bool dropFrame;
        const char* result;
    };
    const Case cases[] = {
        {10, 5, 7, 489, FrameRate::whole(30), false, "10:05:07:14"},  // hundredths are truncated
        {0, 0, 0, 0, FrameRate::whole(25), true, "00:00:00;00"},
        {23, 59, 59, 990, FrameRate::ntsc(60), true, "23:59:59;59"},      // 0.99 x 59.94 = 59.34
        {9, 8, 7, 500, FrameRate::ntsc(24), false, "09:08:07:11"},        // 0.5 x 23.976 = 11.99
        {12, 30, 45, 990, FrameRate(), false, "12:30:45:00"},             // no rate, no frames
        {12, 30, 45, 500, FrameRate::whole(50), true, "12:30:45;25"},     // no drop-frame renumbering
        {12, 30, 45, 990, FrameRate::make(25, 2), false, "12:30:45:12"},  // 0.99 x 12.5 = 12.375
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.hour << ":" << c.minute << ":" << c.second << "." << c.millis << " at "
                                        << c.rate.description());
        EXPECT_EQ(TQTimecode::timeOfDayTimecode(localTime(c.hour, c.minute, c.second, c.millis), c.rate, c.dropFrame),
                  c.result);
    }

    // The clock itself: two-digit fields, frames 00 with no rate.
    EXPECT_THAT(TQTimecode::timeOfDayTimecode(FrameRate(), true), testing::MatchesRegex("([0-9]{2}:){2}[0-9]{2};00"));
}

TEST(TQTimecodeStringTest, FileNames)
{
    struct Case {
        std::optional<std::string> timecode, result;
    };
    const Case cases[] = {
        {"01:00:00;00", "01.00.00.00"},     {"01:00:00:00", "01.00.00.00"}, {"::;;", "...."}, {"", ""},
        {"no separators", "no separators"}, {std::nullopt, std::nullopt},
    };
    for (const Case& c : cases)
        EXPECT_EQ(TQTimecode::sanitizeTimecodeForFilename(c.timecode), c.result) << c.timecode.value_or("(none)");
}

}  // namespace

}  // namespace corvina::tq
