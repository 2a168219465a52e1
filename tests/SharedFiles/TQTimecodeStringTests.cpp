// Timecode strings from typed entries, seconds, the time of day; file-name forms.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

#include "tq/TQTimecode.h"

namespace corvina::tq {

namespace {

using corvina::FrameRate;

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
        const char* typed;
        bool dropFrame;
        std::optional<std::string> start;
        const char* result;
    };
    const Case cases[] = {
        {"5", false, "10:00:00:00", "10:00:00:05"},
        {"1..", false, "10:00:00:00", "10:01:00:00"},
        // An empty start is the default start
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
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "typed '" << c.typed << "' start '" << c.start.value_or("(none)") << "'");
        EXPECT_EQ(TQTimecode::timecodeFromUserString(std::string(c.typed), c.dropFrame, c.start), c.result);
    }
}

TEST(TQTimecodeStringTest, TypedEntryEdges)
{
    // No entry at all gives the start timecode.
    EXPECT_EQ(TQTimecode::timecodeFromUserString(std::nullopt, true, "02:00:00;00"), "02:00:00;00");
    EXPECT_EQ(TQTimecode::timecodeFromUserString(std::nullopt, false, std::nullopt), "00:00:00:00");
    // Lengths count characters, not bytes: "é" is one character.
    EXPECT_EQ(TQTimecode::timecodeFromUserString(std::string("1:2:3:4:5:\xC3\xA9"), false, std::nullopt),
              "1:2:3:4:5:\xC3\xA9");
    EXPECT_EQ(TQTimecode::timecodeFromUserString(std::string("\xC3\xA9"), false, std::nullopt), "00:00:00:0\xC3\xA9");
    EXPECT_EQ(TQTimecode::timecodeFromUserString(std::string("12\xC3\xA9\xC3\xA9"), false, std::nullopt),
              "00:00:12:\xC3\xA9\xC3\xA9");
    // Broken UTF-8 and long input do not break anything.
    EXPECT_FALSE(
        TQTimecode::timecodeFromUserString(std::string("\xFF\xFE\x80\x80\x80..."), true, std::string("\x80\x80"))
            .empty());
    EXPECT_EQ(TQTimecode::timecodeFromUserString(std::string(5000, '7') + "..", false, std::nullopt), "77:77:00:00");
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
        {10.0, 59.94f, true, "00:00:09;59"},   // 599.4 -> 599 frames
        {-5.0, 30.0f, false, "00:00:00:00"},   // negative times count as frame 0
        {1.0, 23.976f, false, "00:00:01:00"},  // 23.976 rounds to 24 frames at timebase 24
        {1.0, 0.0f, false, "00:00:00:00"},     // no rate: no frames
        // 12.5 fps: 45000 frames an hour, counted 13 numbers a second
        {3600.0, 12.5f, false, "00:57:41:07"},
        {2.0, 12.5f, false, "00:00:01:12"},
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
