#include <gtest/gtest.h>

#include "AppController.h"
#include "TQAVFoundation.h"

using namespace corvina;

namespace {

struct AudioRow {
    int64_t code;
    uint32_t channels;
    double rate;
    uint32_t flags;
    uint32_t layoutTag;
    size_t descriptions;
};

// Every row of the audio table: channel count, rate, byte order flags and layout.
const AudioRow kAudioRows[] = {
    {1, 2, 44100, 12, kAudioChannelLayoutTag_Stereo, 0},  {2, 2, 48000, 12, kAudioChannelLayoutTag_Stereo, 0},
    {3, 1, 44100, 12, kAudioChannelLayoutTag_Mono, 0},    {4, 1, 48000, 12, kAudioChannelLayoutTag_Mono, 0},
    {5, 2, 44100, 14, kAudioChannelLayoutTag_Stereo, 0},  {6, 2, 48000, 14, kAudioChannelLayoutTag_Stereo, 0},
    {7, 1, 44100, 14, kAudioChannelLayoutTag_Mono, 0},    {8, 1, 48000, 14, kAudioChannelLayoutTag_Mono, 0},
    {9, 2, 32000, 12, kAudioChannelLayoutTag_Stereo, 0},  {10, 2, 32000, 14, kAudioChannelLayoutTag_Stereo, 0},
    {11, 1, 32000, 12, kAudioChannelLayoutTag_Mono, 0},   {12, 1, 32000, 14, kAudioChannelLayoutTag_Mono, 0},
    {13, 2, 48000, 12, kAudioChannelLayoutTag_UseChannelDescriptions, 2},
    {14, 2, 48000, 14, kAudioChannelLayoutTag_UseChannelDescriptions, 2},
    {15, 2, 44100, 12, kAudioChannelLayoutTag_UseChannelDescriptions, 2},
    {16, 2, 44100, 14, kAudioChannelLayoutTag_UseChannelDescriptions, 2},
    {17, 2, 32000, 12, kAudioChannelLayoutTag_UseChannelDescriptions, 2},
    {18, 2, 32000, 14, kAudioChannelLayoutTag_UseChannelDescriptions, 2},
};

TEST(AudioFormatTable, EveryRowBuildsTheStreamDescriptionAndLayout)
{
    AppController controller;
    for (const auto& row : kAudioRows) {
        SCOPED_TRACE(row.code);
        const AudioFormatInfo* info = AppController::audioFormatForCode(row.code);
        ASSERT_NE(info, nullptr);
        // The feeder reads whole frames: 2 bytes mono, 4 bytes for every two-channel row.
        EXPECT_EQ(info->feederBytesPerFrame, row.channels * 2u);
        const auto description = controller.audioFormatDescriptionForChannels(info->channels, info->stereo, 16,
                                                                             info->sampleRate, info->bigEndian);
        ASSERT_NE(description, nullptr);
        const AudioStreamBasicDescription* asbd = description->streamBasicDescription();
        ASSERT_NE(asbd, nullptr);
        EXPECT_EQ(asbd->mSampleRate, row.rate);
        EXPECT_EQ(asbd->mFormatID, kAudioFormatLinearPCM);
        EXPECT_EQ(asbd->mFormatFlags, row.flags);
        EXPECT_EQ(asbd->mBytesPerPacket, row.channels * 2);
        EXPECT_EQ(asbd->mBytesPerFrame, row.channels * 2);
        EXPECT_EQ(asbd->mFramesPerPacket, 1u);
        EXPECT_EQ(asbd->mChannelsPerFrame, row.channels);
        EXPECT_EQ(asbd->mBitsPerChannel, 16u);
        const AudioChannelLayout* layout = description->channelLayout();
        ASSERT_NE(layout, nullptr);
        EXPECT_EQ(layout->mChannelLayoutTag, row.layoutTag);
        ASSERT_EQ(layout->mChannelDescriptions.size(), row.descriptions);
        for (const auto& channel : layout->mChannelDescriptions) EXPECT_EQ(channel.mChannelLabel, kAudioChannelLabel_Mono);
    }
}

TEST(AudioFormatTable, CodesOutsideTheTableMeanNoAudio)
{
    for (int64_t code : {0, 19, -1, 100}) EXPECT_EQ(AppController::audioFormatForCode(code), nullptr) << code;
    // The LtRt layout is passed with its two descriptions: 12 + 2 x 20 bytes.
    EXPECT_EQ(AudioChannelLayout::byteSize(2), 52u);
    EXPECT_EQ(AudioChannelLayout::byteSize(0), 32u);
}

TEST(VideoFormatTable, KnownRowsAndUnknownCodes)
{
    struct Row {
        int64_t code;
        const char* fourcc;
        int32_t width, height;
    } rows[] = {{0, "dvc", 720, 480},   {1, "dvcp", 720, 576},   {2, "dv5n", 720, 480},   {3, "dv5p", 720, 576},
                {4, "jpeg", 720, 576},  {10, "dvhp", 1280, 720}, {11, "dvh6", 1920, 1080}, {12, "dvh5", 1920, 1080},
                {20, "icod", 0, 0},     {30, "apch", 0, 0},      {31, "apcn", 0, 0},       {32, "apcs", 0, 0},
                {33, "apco", 0, 0},     {34, "ap4h", 0, 0},      {35, "ap4x", 0, 0}};
    for (const auto& row : rows) {
        const VideoFormatInfo* info = AppController::videoFormatForType(row.code);
        ASSERT_NE(info, nullptr) << row.code;
        EXPECT_EQ(TQAVFoundation::fourCCString(info->codecType), row.fourcc);
        EXPECT_EQ(info->width, row.width);
        EXPECT_EQ(info->height, row.height);
    }
    for (int64_t code : {-1, 5, 7, 9, 13, 19, 21, 29, 36, 1000})
        EXPECT_EQ(AppController::videoFormatForType(code), nullptr) << code;
}

TEST(FourCharacterCodes, PrintedAndTrimmed)
{
    EXPECT_EQ(TQAVFoundation::fourCCString(0x61616320), "aac");
    EXPECT_EQ(TQAVFoundation::fourCCString(0x20202020), "");
    EXPECT_EQ(TQAVFoundation::fourCCString(fourCC("lpcm")), "lpcm");
    EXPECT_EQ(TQAVFoundation::fourCCString(fourCC(" ab ")), "ab");
    EXPECT_EQ(AppController::codecTypeFrom4CC(0x61706368), "apch");
    // Bytes above 127 become the characters of the same number.
    EXPECT_EQ(AppController::codecTypeFrom4CC(0xA9616263), "\xC2\xA9" "abc");
}

}  // namespace
