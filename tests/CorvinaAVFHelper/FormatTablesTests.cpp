#include <gtest/gtest.h>

#include "AppController.h"
#include "TQAVFoundation.h"

using namespace corvina;

namespace {

// Every code 1-18 builds a 16-bit PCM description whose frame, byte order and layout agree
// with what the feeder reads: mono, stereo, or LtRt as two described mono channels.
TEST(AudioFormatTable, EveryRowBuildsADescriptionTheFeederAgreesWith)
{
    AppController controller;
    for (int64_t code = 1; code <= 18; ++code) {
        SCOPED_TRACE(code);
        const AudioFormatInfo* info = AppController::audioFormatForCode(code);
        ASSERT_NE(info, nullptr);
        const bool ltrt = code >= 13;
        const uint32_t channels = ltrt || info->stereo ? 2 : 1;
        EXPECT_EQ(info->feederBytesPerFrame, channels * 2u);
        EXPECT_TRUE(info->sampleRate == 32000 || info->sampleRate == 44100 || info->sampleRate == 48000);
        const auto description = controller.audioFormatDescriptionForChannels(info->channels, info->stereo, 16,
                                                                              info->sampleRate, info->bigEndian);
        ASSERT_NE(description, nullptr);
        const AudioStreamBasicDescription* asbd = description->streamBasicDescription();
        ASSERT_NE(asbd, nullptr);
        EXPECT_EQ(*asbd, (AudioStreamBasicDescription{double(info->sampleRate), kAudioFormatLinearPCM,
                                                      info->bigEndian ? 14u : 12u, channels * 2, 1, channels * 2,
                                                      channels, 16, 0}));
        const AudioChannelLayout* layout = description->channelLayout();
        ASSERT_NE(layout, nullptr);
        EXPECT_EQ(layout->mChannelLayoutTag, ltrt            ? kAudioChannelLayoutTag_UseChannelDescriptions
                                             : channels == 2 ? kAudioChannelLayoutTag_Stereo
                                                             : kAudioChannelLayoutTag_Mono);
        ASSERT_EQ(layout->mChannelDescriptions.size(), ltrt ? 2u : 0u);
        for (const auto& channel : layout->mChannelDescriptions)
            EXPECT_EQ(channel.mChannelLabel, kAudioChannelLabel_Mono);
    }
}

TEST(AudioFormatTable, CodesOutsideTheTableMeanNoAudio)
{
    for (int64_t code : {0, 19, -1, 100}) EXPECT_EQ(AppController::audioFormatForCode(code), nullptr) << code;
    // The LtRt layout is passed with its two descriptions: 12 + 2 x 20 bytes.
    EXPECT_EQ(AudioChannelLayout::byteSize(2), 52u);
    EXPECT_EQ(AudioChannelLayout::byteSize(0), 32u);
}

TEST(VideoFormatTable, CodesOutsideTheTableAreUnknown)
{
    for (int64_t code : {-1, 5, 7, 9, 13, 19, 21, 29, 36, 1000})
        EXPECT_EQ(AppController::videoFormatForType(code), nullptr) << code;
}

TEST(FourCharacterCodes, LoggedTrimmedAndEscaped)
{
    EXPECT_EQ(TQAVFoundation::fourCCString(fourCC("dvc ")), "dvc");
    EXPECT_EQ(TQAVFoundation::fourCCString(fourCC(" ab\t")), "ab");
    EXPECT_EQ(TQAVFoundation::fourCCString(0x20202020), "");
    EXPECT_EQ(TQAVFoundation::fourCCString(0xA9610A20), "\\xA9a\\x0A");
}

}  // namespace
