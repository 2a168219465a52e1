#include <gtest/gtest.h>

#include <cmath>
#include <iomanip>
#include <limits>

#include "MediaTime/MediaTime.h"

namespace corvina {
namespace {

struct SumRow {
    MediaTime a, b;
    int64_t sumValue, diffValue;
    int32_t timescale;
};

TEST(MediaTime, AdditionAndSubtractionAreExact)
{
    const SumRow rows[] = {
        {MediaTime::make(1001, 30000), MediaTime::make(1001, 30000), 2002, 0, 30000},
        {MediaTime::make(1, 25), MediaTime::make(1, 48000), 1921, 1919, 48000},
        // lcm(44100, 30000) = 4410000
        {MediaTime::make(1, 44100), MediaTime::make(1001, 30000), 100 + 1001 * 147, 100 - 1001 * 147, 4410000},
        {MediaTime::make(3, 2), MediaTime::make(1, 3), 11, 7, 6},
        {MediaTime::make(-5, 10), MediaTime::make(5, 10), 0, -10, 10},
    };
    for (const auto& r : rows) {
        MediaTime sum = r.a + r.b;
        MediaTime diff = r.a - r.b;
        // Exactness: the sum equals a + b as rationals, whatever the timescale chosen.
        EXPECT_EQ(compare(sum - r.b, r.a), 0) << r.a.description() << " + " << r.b.description();
        EXPECT_EQ(compare(diff + r.b, r.a), 0);
        EXPECT_FALSE(sum.flags & MediaTime::kHasBeenRounded);
        EXPECT_EQ(sum.timescale, r.timescale);
        EXPECT_EQ(sum.value, r.sumValue);
        EXPECT_EQ(diff.value, r.diffValue);
    }
}

TEST(MediaTime, ConvertScaleRoundsAsAskedAndFlagsRounding)
{
    constexpr auto kUp = MediaTime::Rounding::towardPositiveInfinity;
    struct Row {
        int64_t value;
        int32_t from, to;
        int64_t expected;
        bool rounded;
        MediaTime::Rounding rounding = MediaTime::Rounding::halfAwayFromZero;
    } rows[] = {
        {1001, 30000, 600, 20, true},  // 20.02
        {3003, 30000, 600, 60, true},  // 60.06
        {1, 48000, 48000, 1, false},  {48000, 48000, 600, 600, false},
        {1, 2, 1, 1, true},    // 0.5 -> 1
        {-1, 2, 1, -1, true},  // -0.5 -> -1
        {5, 4, 2, 3, true},    // 2.5 -> 3
        {900, 30000, 600, 18, false}, {1001, 30000, 600, 21, true, kUp},
        {-1, 2, 1, 0, true, kUp},     {900, 30000, 600, 18, false, kUp},
    };
    for (const auto& r : rows) {
        MediaTime c = MediaTime::make(r.value, r.from).convertScale(r.to, r.rounding);
        EXPECT_EQ(c.value, r.expected) << r.value << "/" << r.from << " -> " << r.to;
        EXPECT_EQ(c.timescale, r.to);
        EXPECT_EQ((c.flags & MediaTime::kHasBeenRounded) != 0, r.rounded) << r.value << "/" << r.from;
    }
    EXPECT_FALSE(MediaTime::make(1, 2).convertScale(0).isValid());
    EXPECT_FALSE(MediaTime::invalid().convertScale(600).isValid());
}

TEST(MediaTime, ExactOrderNonNumericOperandsAndText)
{
    EXPECT_EQ(compare(MediaTime::make(1001, 30000), MediaTime::make(1, 30)), 1);  // 1/29.97 > 1/30
    EXPECT_EQ(compare(MediaTime::make(1, 30), MediaTime::make(1000, 30000)), 0);
    EXPECT_TRUE(MediaTime::make(1000, 30000) == MediaTime::make(1, 30));
    EXPECT_TRUE(MediaTime::invalid() < MediaTime::make(-1000000, 1));
    EXPECT_TRUE(MediaTime::make(INT64_MAX, 1) < MediaTime::positiveInfinity());
    // Values whose cross products overflow 64 bits still compare exactly.
    EXPECT_EQ(compare(MediaTime::make(INT64_MAX - 1, 1000000007), MediaTime::make(INT64_MAX, 1000000007)), -1);
    MediaTime t = MediaTime::make(1001, 30000) * 30;
    EXPECT_EQ(t.value, 30030);
    EXPECT_EQ(t.timescale, 30000);
    EXPECT_FALSE((MediaTime::invalid() + MediaTime::make(1, 1)).isValid());
    EXPECT_TRUE((MediaTime::positiveInfinity() + MediaTime::make(1, 1)).flags & MediaTime::kPositiveInfinity);
    EXPECT_TRUE((MediaTime::positiveInfinity() - MediaTime::positiveInfinity()).flags & MediaTime::kIndefinite);
    EXPECT_TRUE((MediaTime::make(INT64_MAX, 1) + MediaTime::make(1, 1)).flags & MediaTime::kPositiveInfinity);
    EXPECT_DOUBLE_EQ(MediaTime::make(3003, 30000).getSeconds(), 0.1001);
    EXPECT_TRUE(std::isnan(MediaTime::invalid().getSeconds()));
    EXPECT_EQ(MediaTime::make(3003, 30000).description(), "{3003/30000 = 0.100}");
    EXPECT_EQ(MediaTime::invalid().description(), "{INVALID}");
}

// The documented rule from a document's rate to an exact one, and the frame duration each
// rate writes (whole and NTSC rates keep the durations movies have always had).
TEST(FrameRate, FromDoubleFollowsTheRule)
{
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const struct {
        double fps;
        int64_t num, den;  // 0/1: invalid
        int64_t durationValue;
        int32_t durationTimescale;
        int64_t timebase;
    } rows[] = {
        {25, 25, 1, 1000, 25000, 25},
        {24.99999, 25, 1, 1000, 25000, 25},  // within a millionth of a whole rate
        {double(29.97f), 30000, 1001, 1001, 30000, 30},
        {30000.0 / 1001, 30000, 1001, 1001, 30000, 30},  // 29.970029970...
        {23.98, 24000, 1001, 1001, 24000, 24},           // two decimals, as the carving application writes
        {double(23.976f), 24000, 1001, 1001, 24000, 24},
        {47.952, 48000, 1001, 1001, 48000, 48},
        {double(59.94f), 60000, 1001, 1001, 60000, 60},
        {119.88, 120000, 1001, 1001, 120000, 120},
        {4.995, 5000, 1001, 1001, 5000, 5},  // 5000/1001 although it reduces: 1001 units a frame
        {12.5, 25, 2, 1000, 12500, 13},
        {7.5, 15, 2, 1000, 7500, 8},
        {double(12.345f), 2469, 200, 1000, 12345, 13},
        {29.96, 749, 25, 1000, 29960, 30},  // a hundredth off 29.97: a rate of its own
        {1000.0 / 3, 333333, 1000, 1000, 333333, 334},
        {2147483, 2147483, 1, 1000, 2147483000, 2147483},
        {0, 0, 1, 0, 0, 0},
        {0.0004, 0, 1, 0, 0, 0},
        {-25, 0, 1, 0, 0, 0},
        {2147483.5, 0, 1, 0, 0, 0},
        {nan, 0, 1, 0, 0, 0},
        {inf, 0, 1, 0, 0, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << std::setprecision(17) << r.fps);
        const FrameRate rate = FrameRate::fromDouble(r.fps);
        EXPECT_EQ(rate.numerator(), r.num);
        EXPECT_EQ(rate.denominator(), r.den);
        EXPECT_EQ(rate.isValid(), r.num != 0);
        EXPECT_EQ(rate.timebase(), r.timebase);
        const MediaTime frame = rate.frameDuration();
        EXPECT_EQ(frame.isValid(), r.num != 0);
        if (r.num == 0) continue;
        EXPECT_EQ(frame.value, r.durationValue);
        EXPECT_EQ(frame.timescale, r.durationTimescale);
        // One second of frames lasts exactly one second.
        EXPECT_EQ(rate.durationOfFrames(r.num), MediaTime::make(r.den, 1));
    }
}

TEST(FrameRate, ExactOrderAndLongDurations)
{
    EXPECT_LT(FrameRate::whole(29), FrameRate::ntsc(30));
    EXPECT_LT(FrameRate::ntsc(30), FrameRate::whole(30));
    EXPECT_LT(FrameRate(), FrameRate::whole(1));
    EXPECT_FALSE(FrameRate::ntsc(INT64_MAX / 100).isValid());
    EXPECT_TRUE(FrameRate::whole(25).durationOfFrames(INT64_MAX).flags & MediaTime::kPositiveInfinity);
    EXPECT_TRUE(FrameRate::whole(25).durationOfFrames(INT64_MIN).flags & MediaTime::kNegativeInfinity);
    // A day of 29.97 frames against the audio samples of the same span, exactly.
    const MediaTime day = FrameRate::ntsc(30).durationOfFrames(2589408);
    EXPECT_LT(day, MediaTime::make(int64_t(48000) * 86400, 48000));
    EXPECT_EQ(day.convertScale(48000, MediaTime::Rounding::towardPositiveInfinity).value, 4147200000 - 4147);
}

}  // namespace
}  // namespace corvina
