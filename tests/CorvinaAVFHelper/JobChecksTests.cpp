// The job checks over plain values, at their boundaries.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "JobChecks.h"

using namespace jobcheck;

namespace {

TEST(JobChecks, FrameRatesOutsideOneToAThousandAreRefused)
{
    const float inf = std::numeric_limits<float>::infinity();
    for (const float usable : {1.0f, 23.976f, 29.97f, 59.94f, 1000.0f})
        EXPECT_FALSE(frameRateProblem(usable)) << usable;
    for (const float refused : {0.0f, 0.999f, -25.0f, 1000.5f, 1e9f, inf, -inf, std::nanf("")})
        EXPECT_TRUE(frameRateProblem(refused)) << refused;
    EXPECT_EQ(*frameRateProblem(inf),
              "Error: frame rate inf is not usable. A movie needs 1 to 1000 frames per second.");
}

TEST(JobChecks, ProResFrameSizeComesFromTheFrameHeader)
{
    // frame size, 'icpf', header size 148, reserved, version, encoder, 1920, 1080
    const std::vector<uint8_t> frame = {0, 0, 0x10, 0,   'i', 'c', 'p',  'f',  0,    148,
                                        0, 0, 'a',  'p', 'l', '0', 0x07, 0x80, 0x04, 0x38};
    ASSERT_TRUE(frameSizeFromProResFrame(frame));
    EXPECT_EQ(frameSizeFromProResFrame(frame)->width, 1920);
    EXPECT_EQ(frameSizeFromProResFrame(frame)->height, 1080);
    EXPECT_FALSE(frameSizeFromProResFrame(std::span(frame).first(19)));
    // No 'icpf', a zero width, a width beyond the description's signed 16 bits.
    for (const auto& [at, byte] : std::vector<std::pair<size_t, uint8_t>>{{4, 'x'}, {16, 0}, {16, 0x90}}) {
        auto bad = frame;
        bad[at] = byte;
        if (at == 16 && byte == 0) bad[17] = 0;
        EXPECT_FALSE(frameSizeFromProResFrame(bad)) << at;
    }
}

TEST(JobChecks, CountsThatOverflowATrackAreRefused)
{
    const int64_t big = int64_t(1) << 62;
    EXPECT_FALSE(videoCountsProblem(std::vector<int64_t>{1, 0, -3, 5}));
    EXPECT_FALSE(videoCountsProblem(std::vector<int64_t>{int64_t(kMaxFramesPerTrack) - 1, 0}));
    EXPECT_TRUE(videoCountsProblem(std::vector<int64_t>{int64_t(kMaxFramesPerTrack), 1}));
    const auto overflow = videoCountsProblem(std::vector<int64_t>{big, big, big, big, big});
    ASSERT_TRUE(overflow);
    EXPECT_NE(overflow->find("more than 18446744073709551614 frames"), std::string::npos) << *overflow;

    EXPECT_FALSE(audioCountsProblem(std::vector<uint64_t>{8, 4, 3}, 4));
    EXPECT_TRUE(audioCountsProblem(std::vector<uint64_t>{UINT64_MAX, UINT64_MAX}, 2));
    EXPECT_FALSE(audioCountsProblem(std::vector<uint64_t>{kMaxFramesPerTrack * 4}, 4));
    EXPECT_TRUE(audioCountsProblem(std::vector<uint64_t>{kMaxFramesPerTrack * 4 + 4}, 4));
}

}  // namespace
