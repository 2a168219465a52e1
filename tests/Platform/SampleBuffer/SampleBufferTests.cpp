#include <gtest/gtest.h>

#include "SampleBuffer/SampleBuffer.h"

namespace corvina {
namespace {

std::unique_ptr<BlockBuffer> block(size_t n)
{
    std::unique_ptr<BlockBuffer> b;
    EXPECT_EQ(BlockBuffer::createWithMemoryBlock(ByteBuffer(n), n, &b), kNoErr);
    return b;
}

FormatDescriptionRef video()
{
    FormatDescriptionRef f;
    EXPECT_EQ(FormatDescription::createVideo(fourCC("dvc "), 720, 480, &f), kNoErr);
    return f;
}

TEST(FourCharCodeText, PrintableBytesStandEveryOtherIsEscaped)
{
    EXPECT_EQ(fourCCText(fourCC("dvc ")), "dvc ");
    EXPECT_EQ(fourCCText(0x61000062), "a\\x00\\x00b");
    EXPECT_EQ(fourCCText(0xFF7F5C7E), "\\xFF\\x7F\\\\~");
}

TEST(FormatDescription, AudioChecksRateChannelsAndLayoutSize)
{
    AudioStreamBasicDescription asbd{48000, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};
    AudioChannelLayout ltrt{0, 0, {AudioChannelDescription{42, 0, {}}, AudioChannelDescription{42, 0, {}}}};
    AudioChannelLayout stereo{kAudioChannelLayoutTag_Stereo, 0, {}};
    struct Row {
        double rate;
        uint32_t channels;
        const AudioChannelLayout* layout;
        size_t size;
        OSStatus expected;
    } rows[] = {
        {48000, 2, &stereo, 32, kNoErr},
        {48000, 2, &ltrt, 52, kNoErr},
        {48000, 2, &ltrt, 32, kFormatDescriptionInvalidParameter},
        {0, 2, &stereo, 32, kFormatDescriptionInvalidParameter},
        {48000, 0, &stereo, 32, kFormatDescriptionInvalidParameter},
        {44100, 1, nullptr, 0, kNoErr},
    };
    for (const auto& r : rows) {
        auto a = asbd;
        a.mSampleRate = r.rate;
        a.mChannelsPerFrame = r.channels;
        FormatDescriptionRef f;
        EXPECT_EQ(FormatDescription::createAudio(a, r.layout, r.size, &f), r.expected) << r.rate << " " << r.channels;
        if (r.expected == kNoErr) {
            ASSERT_TRUE(f);
            EXPECT_EQ(f->mediaType(), MediaType::Audio);
            EXPECT_EQ(f->mediaSubType(), kAudioFormatLinearPCM);
        }
    }
    EXPECT_EQ(video()->streamBasicDescription(), nullptr);
}

TEST(BlockBuffer, RejectsEmptyAndOverlongLengths)
{
    std::unique_ptr<BlockBuffer> b;
    EXPECT_EQ(BlockBuffer::createWithMemoryBlock(ByteBuffer(4), 0, &b), kBlockBufferBadLengthParameter);
    EXPECT_EQ(BlockBuffer::createWithMemoryBlock(ByteBuffer(4), 5, &b), kBlockBufferBadLengthParameter);
    EXPECT_EQ(BlockBuffer::createWithMemoryBlock(ByteBuffer(4), 3, &b), kNoErr);
    EXPECT_EQ(b->dataLength(), 3u);
}

TEST(SampleBuffer, EntryCountsAndPerSampleViews)
{
    const SampleTimingInfo one{MediaTime::make(1001, 30000), MediaTime::make(3003, 30000), MediaTime::invalid()};
    struct Row {
        int64_t n;
        size_t timingEntries;
        std::vector<size_t> sizes;
        size_t length;
        OSStatus expected;
    } rows[] = {
        {1, 1, {}, 100, kNoErr},
        {4, 1, {25}, 100, kNoErr},
        {4, 1, {100}, 100, kNoErr},  // one entry naming the whole block
        {2, 1, {60, 40}, 100, kNoErr},
        {2, 1, {60, 41}, 100, kSampleBufferInvalidEntryCount},
        {4, 1, {26}, 100, kSampleBufferInvalidEntryCount},
        {3, 2, {}, 100, kSampleBufferInvalidEntryCount},
        {2, 1, {1, 2, 3}, 100, kSampleBufferInvalidEntryCount},
        {0, 1, {}, 100, kSampleBufferInvalidEntryCount},
    };
    for (const auto& r : rows) {
        std::vector<SampleTimingInfo> timing(r.timingEntries, one);
        std::unique_ptr<SampleBuffer> s;
        EXPECT_EQ(SampleBuffer::create(block(r.length), true, video(), r.n, timing, r.sizes, &s), r.expected)
            << "n=" << r.n << " sizes=" << r.sizes.size();
    }
    std::unique_ptr<SampleBuffer> s;
    std::vector<size_t> sizes{60, 40};
    ASSERT_EQ(SampleBuffer::create(block(100), true, video(), 2, std::span(&one, 1), sizes, &s), kNoErr);
    EXPECT_EQ(s->sampleSize(1), 40u);
    EXPECT_EQ(s->presentationTimeStamp(1), MediaTime::make(4004, 30000));
    EXPECT_FALSE(s->presentationTimeStamp(2).isValid());
}

}  // namespace
}  // namespace corvina
