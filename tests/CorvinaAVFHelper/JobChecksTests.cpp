// The job checks and the format tables over plain values, at their boundaries.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "helper/AppController.h"
#include "helper/JobChecks.h"

namespace corvina::helper {

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
    // (Reading the header itself is CodecHeaders' and tested there.) A header too short to
    // hold the sizes, a zero width, a width beyond the description's signed 16 bits.
    for (const auto& [at, byte] : std::vector<std::pair<size_t, uint8_t>>{{9, 11}, {16, 0}, {16, 0x90}}) {
        auto bad = frame;
        bad[at] = byte;
        if (at == 16 && byte == 0) bad[17] = 0;
        EXPECT_FALSE(frameSizeFromProResFrame(bad)) << at;
    }
}

TEST(JobChecks, JpegFrameSizeComesFromTheStartOfFrame)
{
    using Bytes = std::vector<uint8_t>;
    const Bytes soi = {0xFF, 0xD8};
    const Bytes app0 = {0xFF, 0xE0, 0x00, 0x06, 'A', 'V', 'I', '1'};
    const Bytes dqt = {0xFF, 0xDB, 0x00, 0x03, 0x00};
    const auto sof = [](uint8_t marker, uint16_t w, uint16_t h) {
        return Bytes{0xFF, marker, 0x00, 0x11, 8, uint8_t(h >> 8), uint8_t(h), uint8_t(w >> 8), uint8_t(w), 3};
    };
    const auto cat = [](std::initializer_list<Bytes> parts) {
        Bytes all;
        for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
        return all;
    };
    Bytes cutShort = cat({soi, sof(0xC0, 16, 16)});
    cutShort.resize(cutShort.size() - 3);
    struct Case {
        const char* name;
        Bytes bytes;
        int width, height;  // 0: none
    } cases[] = {
        {"baseline after tables", cat({soi, app0, dqt, sof(0xC0, 1280, 720)}), 1280, 720},
        {"progressive, fill bytes", cat({soi, {0xFF, 0xFF}, sof(0xC2, 320, 240)}), 320, 240},
        {"restart marker skipped", cat({soi, {0xFF, 0xD0}, sof(0xC1, 64, 48)}), 64, 48},
        {"Huffman tables are not a frame", cat({soi, {0xFF, 0xC4, 0x00, 0x02}, sof(0xC0, 16, 16)}), 16, 16},
        {"scan before any frame", cat({soi, {0xFF, 0xDA, 0x00, 0x02}, sof(0xC0, 16, 16)}), 0, 0},
        {"not a JPEG", cat({{0xFF, 0xD9}, sof(0xC0, 16, 16)}), 0, 0},
        {"cut inside the frame header", cutShort, 0, 0},
        {"segment running past the bytes", cat({soi, {0xFF, 0xE1, 0xFF, 0xF0}, sof(0xC0, 16, 16)}), 0, 0},
        {"zero height", cat({soi, sof(0xC0, 16, 0)}), 0, 0},
        {"width beyond 32767", cat({soi, sof(0xC0, 40000, 16)}), 0, 0},
        {"garbage between segments", cat({soi, dqt, {0x00}, sof(0xC0, 16, 16)}), 0, 0},
    };
    for (const Case& c : cases) {
        const auto size = frameSizeFromJpegFrame(c.bytes);
        EXPECT_EQ(size ? size->width : 0, c.width) << c.name;
        EXPECT_EQ(size ? size->height : 0, c.height) << c.name;
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

TEST(VideoFormatTable, CodecTypeFrom4CCGivesTheFourCharacters)
{
    EXPECT_EQ(AppController::codecTypeFrom4CC(0x61706368), "apch");
    EXPECT_EQ(AppController::codecTypeFrom4CC(fourCC("dvc ")), "dvc ");   // spaces kept
    EXPECT_EQ(AppController::codecTypeFrom4CC(0xA9786D70), "\u00A9xmp");  // bytes above 127: U+0080-U+00FF
    EXPECT_EQ(AppController::codecTypeFrom4CC(0xFF000041), std::string("\u00FF\0\0A", 5));
}

}  // namespace

}  // namespace corvina::helper
