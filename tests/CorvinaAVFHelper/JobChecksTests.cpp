// The job checks over plain values, and the destination's lock and stale-file rules.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>

#include "HelperRun.h"
#include "JobChecks.h"
#include "MovieDestination.h"

using namespace jobcheck;

namespace {

TEST(JobChecks, FrameRatesOutsideOneToAThousandAreRefused)
{
    const float inf = std::numeric_limits<float>::infinity();
    for (const float usable : {1.0f, 23.976f, 29.97f, 59.94f, 1000.0f}) EXPECT_FALSE(frameRateProblem(usable)) << usable;
    for (const float refused : {0.0f, 0.999f, -25.0f, 1000.5f, 1e9f, inf, -inf, std::nanf("")})
        EXPECT_TRUE(frameRateProblem(refused)) << refused;
    EXPECT_EQ(*frameRateProblem(inf), "Error: frame rate inf is not usable. A movie needs 1 to 1000 frames per second.");
}

TEST(JobChecks, ProResFrameSizeComesFromTheFrameHeader)
{
    // frame size, 'icpf', header size 148, reserved, version, encoder, 1920, 1080
    std::vector<uint8_t> frame = {0, 0, 0x10, 0, 'i', 'c', 'p', 'f', 0, 148, 0, 0, 'a', 'p', 'l', '0', 0x07, 0x80, 0x04, 0x38};
    const auto size = frameSizeFromProResFrame(frame);
    ASSERT_TRUE(size);
    EXPECT_EQ(size->width, 1920);
    EXPECT_EQ(size->height, 1080);
    EXPECT_FALSE(frameSizeFromProResFrame(std::span(frame).first(19)));  // too short
    auto noTag = frame;
    noTag[4] = 'x';
    EXPECT_FALSE(frameSizeFromProResFrame(noTag));
    auto zero = frame;
    zero[16] = zero[17] = 0;
    EXPECT_FALSE(frameSizeFromProResFrame(zero));
    auto wide = frame;
    wide[16] = 0x90;  // 36864 does not fit the description's signed 16 bits
    EXPECT_FALSE(frameSizeFromProResFrame(wide));
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

TEST(JobChecks, BytesHeldCountOnlyWhatTheFileHolds)
{
    const ByteRange ranges[] = {{0, 100}, {950, 100}, {2000, 10}, {UINT64_MAX, UINT64_MAX}, {10, UINT64_MAX}};
    EXPECT_EQ(bytesHeld(std::span(ranges).first(3), 1000), 150u);
    EXPECT_EQ(bytesHeld(std::span(ranges).first(2), 1000, 4), 100u + 48u);
    EXPECT_EQ(bytesHeld(ranges, 1000), 150u + 990u);
    EXPECT_EQ(addSaturating(UINT64_MAX - 1, 5), UINT64_MAX);
    EXPECT_GE(movieHeaderAllowance(UINT64_MAX, UINT64_MAX), movieHeaderAllowance(0, 0));
}

TEST(MovieDestinationTest, OneRunPerDestinationAndOnlyKilledRunsFilesGo)
{
    corvina::test::TempDir dir;
    const std::string dest = dir / "movie.mov";
    { std::ofstream(dest) << "previous"; }
    { std::ofstream(dir / "movie.mov.incomplete-1"); }  // empty: a run killed at once
    { std::ofstream(dir / "movie.mov.incomplete-2") << "someone's text"; }
    std::string problem;
    {
        MovieDestination first(dest);
        ASSERT_TRUE(first.acquire(&problem)) << problem;
        EXPECT_EQ(first.staleFilesRemoved(), 1);
        EXPECT_TRUE(std::filesystem::exists(dir / "movie.mov.incomplete-2"));
        MovieDestination second(dest);
        EXPECT_FALSE(second.acquire(&problem));
        EXPECT_EQ(problem, "Error: another run is writing " + dest + " now; this run stops.");
        MovieDestination other(dir / "other.mov");
        EXPECT_TRUE(other.acquire(&problem)) << problem;

        { std::ofstream(first.temporaryPath()) << "new"; }
        EXPECT_EQ(corvina::test::readTextFile(dest), "previous");
        ASSERT_TRUE(first.commit(&problem)) << problem;
        EXPECT_EQ(corvina::test::readTextFile(dest), "new");
        first.discard();  // after the commit the movie stays
        { std::ofstream(other.temporaryPath()) << "unfinished"; }
    }
    // Both ended: the lock files and the unfinished file are gone, the movie stays.
    EXPECT_EQ(corvina::test::readTextFile(dest), "new");
    EXPECT_FALSE(std::filesystem::exists(dir / ".movie.mov.lock"));
    EXPECT_FALSE(std::filesystem::exists(dir / ".other.mov.lock"));
    EXPECT_FALSE(std::filesystem::exists(dir / "other.mov.incomplete-" + std::to_string(::getpid())));
    MovieDestination again(dest);
    EXPECT_TRUE(again.acquire(&problem)) << problem;

    EXPECT_TRUE(MovieDestination::isTemporaryNameFor("a.mov.incomplete-12", "a.mov"));
    for (const char* name : {"a.mov.incomplete-", "a.mov.incomplete-1x", "b.mov.incomplete-1", "a.mov"})
        EXPECT_FALSE(MovieDestination::isTemporaryNameFor(name, "a.mov")) << name;
    EXPECT_EQ(MovieDestination::folderOf("movie.mov"), ".");
    EXPECT_EQ(MovieDestination::folderOf("/movie.mov"), "/");
}

}  // namespace
