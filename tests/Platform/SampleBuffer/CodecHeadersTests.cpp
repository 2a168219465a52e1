#include <gtest/gtest.h>

#include <vector>

#include "SampleBuffer/CodecHeaders.h"

using namespace corvina;

// The fields sit where the frame header puts them; the bytes after the picture size are
// optional, and too few bytes or another identifier give nothing.
TEST(CodecHeaders, ProResFrameHeaderFields)
{
    // size 0x1000, 'icpf', header 148, reserved, version, encoder, 1920 x 1080, then
    // 4:4:4 interlaced (0xC4) at 25 frames (code 3).
    const std::vector<uint8_t> frame = {0, 0,   0x10, 0,   'i', 'c',  'p',  'f',  0,    148,  0,
                                        0, 'a', 'p',  'l', '0', 0x07, 0x80, 0x04, 0x38, 0xC4, 0x03};
    const auto h = codec::readProResFrameHeader(frame);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->frameSize, 0x1000u);
    EXPECT_EQ(h->headerSize, 148u);
    EXPECT_EQ(h->width, 1920u);
    EXPECT_EQ(h->height, 1080u);
    EXPECT_EQ(h->chroma, 3);
    EXPECT_EQ(h->interlaceMode, 1);
    EXPECT_EQ(codec::proResFrameRate(h->frameRateCode), 25.0);
    EXPECT_EQ(codec::proResFrameSize(frame), 0x1000u);

    const auto sizesOnly = codec::readProResFrameHeader(std::span(frame).first(20));
    ASSERT_TRUE(sizesOnly);
    EXPECT_EQ(sizesOnly->chroma, 0);
    EXPECT_FALSE(codec::readProResFrameHeader(std::span(frame).first(19)));
    EXPECT_FALSE(codec::proResFrameSize(std::span(frame).first(7)));
    auto other = frame;
    other[7] = 'g';
    EXPECT_FALSE(codec::readProResFrameHeader(other));
    EXPECT_FALSE(codec::proResFrameSize(other));
    EXPECT_EQ(codec::proResFrameRate(9), 0.0);
}
