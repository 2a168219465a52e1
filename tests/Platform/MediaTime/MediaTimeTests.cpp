#include <gtest/gtest.h>

#include <cmath>

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

TEST(MediaTime, ConvertScaleRoundsHalfAwayFromZeroAndFlagsRounding)
{
    struct Row {
        int64_t value;
        int32_t from, to;
        int64_t expected;
        bool rounded;
    } rows[] = {
        {1001, 30000, 600, 20, true},                                                       // 20.02
        {3003, 30000, 600, 60, true},                                                       // 60.06
        {1, 48000, 48000, 1, false},  {48000, 48000, 600, 600, false}, {1, 2, 1, 1, true},  // 0.5 -> 1
        {-1, 2, 1, -1, true},                                                               // -0.5 -> -1
        {5, 4, 2, 3, true},                                                                 // 2.5 -> 3
        {900, 30000, 600, 18, false},
    };
    for (const auto& r : rows) {
        MediaTime c = MediaTime::make(r.value, r.from).convertScale(r.to);
        EXPECT_EQ(c.value, r.expected) << r.value << "/" << r.from << " -> " << r.to;
        EXPECT_EQ(c.timescale, r.to);
        EXPECT_EQ((c.flags & MediaTime::kHasBeenRounded) != 0, r.rounded) << r.value << "/" << r.from;
    }
    EXPECT_FALSE(MediaTime::make(1, 2).convertScale(0).isValid());
    EXPECT_FALSE(MediaTime::invalid().convertScale(600).isValid());
}

TEST(MediaTime, OrderingIsExactAndInvalidSortsFirst)
{
    EXPECT_EQ(compare(MediaTime::make(1001, 30000), MediaTime::make(1, 30)), 1);  // 1/29.97 > 1/30
    EXPECT_EQ(compare(MediaTime::make(1, 30), MediaTime::make(1000, 30000)), 0);
    EXPECT_TRUE(MediaTime::make(1000, 30000) == MediaTime::make(1, 30));
    EXPECT_TRUE(MediaTime::invalid() < MediaTime::make(-1000000, 1));
    EXPECT_TRUE(MediaTime::make(INT64_MAX, 1) < MediaTime::positiveInfinity());
    // Values whose cross products overflow 64 bits still compare exactly.
    EXPECT_EQ(compare(MediaTime::make(INT64_MAX - 1, 1000000007), MediaTime::make(INT64_MAX, 1000000007)), -1);
}

TEST(MediaTime, MultiplicationAndNonNumericOperands)
{
    MediaTime t = MediaTime::make(1001, 30000) * 30;
    EXPECT_EQ(t.value, 30030);
    EXPECT_EQ(t.timescale, 30000);
    EXPECT_FALSE((MediaTime::invalid() + MediaTime::make(1, 1)).isValid());
    EXPECT_TRUE((MediaTime::positiveInfinity() + MediaTime::make(1, 1)).flags & MediaTime::kPositiveInfinity);
    EXPECT_TRUE((MediaTime::positiveInfinity() - MediaTime::positiveInfinity()).flags & MediaTime::kIndefinite);
    EXPECT_TRUE((MediaTime::make(INT64_MAX, 1) + MediaTime::make(1, 1)).flags & MediaTime::kPositiveInfinity);
}

TEST(MediaTime, SecondsAndDescription)
{
    EXPECT_DOUBLE_EQ(MediaTime::make(3003, 30000).getSeconds(), 0.1001);
    EXPECT_TRUE(std::isnan(MediaTime::invalid().getSeconds()));
    EXPECT_EQ(MediaTime::make(3003, 30000).description(), "{3003/30000 = 0.100}");
    EXPECT_EQ(MediaTime::invalid().description(), "{INVALID}");
    EXPECT_FALSE(MediaTime::make(1, 0).isValid());
}

}  // namespace
}  // namespace corvina
