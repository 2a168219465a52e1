// The tables of supported source formats and the format descriptions built from them.
#include <array>

#include "helper/AppController.h"
#include "tq/TQLog.h"

namespace corvina::helper {
using namespace corvina::tq;

using namespace corvina;

namespace {

// AIC has no codec type of its own in the table; it is stored as 'icod', the code under which
// players know intermediate-codec essence.
constexpr std::array kVideoFormats = {
    VideoFormatInfo{0, "DV NTSC", fourCC("dvc "), 720, 480},
    VideoFormatInfo{1, "DV PAL", fourCC("dvcp"), 720, 576},
    VideoFormatInfo{2, "DVCPRO50 NTSC", fourCC("dv5n"), 720, 480},
    VideoFormatInfo{3, "DVCPRO50 PAL", fourCC("dv5p"), 720, 576},
    VideoFormatInfo{4, "Motion JPEG", fourCC("jpeg"), 0, 0},  // the size of the first frame's picture
    VideoFormatInfo{10, "DVCPROHD 720p60", fourCC("dvhp"), 1280, 720},
    VideoFormatInfo{11, "DVCPROHD 1080i60", fourCC("dvh6"), 1920, 1080},
    VideoFormatInfo{12, "DVCPROHD 1080i50", fourCC("dvh5"), 1920, 1080},
    VideoFormatInfo{20, "AIC", fourCC("icod"), 0, 0},
    VideoFormatInfo{30, "ProRes HQ", fourCC("apch"), 0, 0},
    VideoFormatInfo{31, "ProRes 422", fourCC("apcn"), 0, 0},
    VideoFormatInfo{32, "ProRes LT", fourCC("apcs"), 0, 0},
    VideoFormatInfo{33, "ProRes Proxy", fourCC("apco"), 0, 0},
    VideoFormatInfo{34, "ProRes 4444", fourCC("ap4h"), 0, 0},
    VideoFormatInfo{35, "ProRes 4444 XQ", fourCC("ap4x"), 0, 0},
};

// The LtRt rows feed whole two-channel frames (4 bytes), as their stream description says.
constexpr std::array kAudioFormats = {
    AudioFormatInfo{1, 2, true, 44100, false, "Audio format is 16-bit Linear PCM 44.1KHz Stereo Little Endian", 4},
    AudioFormatInfo{2, 2, true, 48000, false, "Audio format is 16-bit Linear PCM 48KHz Stereo Little Endian", 4},
    AudioFormatInfo{3, 1, false, 44100, false, "Audio format is 16-bit Linear PCM 44.1KHz Mono Little Endian", 2},
    AudioFormatInfo{4, 1, false, 48000, false, "Audio format is 16-bit Linear PCM 48KHz Mono Little Endian", 2},
    AudioFormatInfo{5, 2, true, 44100, true, "Audio format is 16-bit Linear PCM 44.1KHz Stereo Big Endian", 4},
    AudioFormatInfo{6, 2, true, 48000, true, "Audio format is 16-bit Linear PCM 48KHz Stereo Big Endian", 4},
    AudioFormatInfo{7, 1, false, 44100, true, "Audio format is 16-bit Linear PCM 44.1KHz Mono Big Endian", 2},
    AudioFormatInfo{8, 1, false, 48000, true, "Audio format is 16-bit Linear PCM 48KHz Mono Big Endian", 2},
    AudioFormatInfo{9, 2, true, 32000, false, "Audio format is 16-bit Linear PCM 32KHz Stereo Little Endian", 4},
    AudioFormatInfo{10, 2, true, 32000, true, "Audio format is 16-bit Linear PCM 32KHz Stereo Big Endian", 4},
    AudioFormatInfo{11, 1, false, 32000, false, "Audio format is 16-bit Linear PCM 32KHz Mono Little Endian", 2},
    AudioFormatInfo{12, 1, false, 32000, true, "Audio format is 16-bit Linear PCM 32KHz Mono Big Endian", 2},
    AudioFormatInfo{13, 2, false, 48000, false, "Audio format is 16-bit Linear PCM 48KHz LtRt Little Endian", 4},
    AudioFormatInfo{14, 2, false, 48000, true, "Audio format is 16-bit Linear PCM 48KHz LtRt Big Endian", 4},
    AudioFormatInfo{15, 2, false, 44100, false, "Audio format is 16-bit Linear PCM 44.1KHz LtRt Little Endian", 4},
    AudioFormatInfo{16, 2, false, 44100, true, "Audio format is 16-bit Linear PCM 44.1KHz LtRt Big Endian", 4},
    AudioFormatInfo{17, 2, false, 32000, false, "Audio format is 16-bit Linear PCM 32KHz LtRt Little Endian", 4},
    AudioFormatInfo{18, 2, false, 32000, true, "Audio format is 16-bit Linear PCM 32KHz LtRt Big Endian", 4},
};

}  // namespace

const VideoFormatInfo* AppController::videoFormatForType(int64_t formatType)
{
    for (const auto& row : kVideoFormats)
        if (row.formatType == formatType) return &row;
    return nullptr;
}

const AudioFormatInfo* AppController::audioFormatForCode(int64_t audioFormat)
{
    for (const auto& row : kAudioFormats)
        if (row.audioFormat == audioFormat) return &row;
    return nullptr;
}

std::string AppController::codecTypeFrom4CC(uint32_t code)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto byte = static_cast<uint8_t>(code >> shift);
        if (byte < 0x80) {
            text += static_cast<char>(byte);
        } else {
            text += static_cast<char>(0xC0 | (byte >> 6));
            text += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return text;
}

FormatDescriptionRef AppController::audioFormatDescriptionForChannels(uint64_t channels, bool stereo, uint64_t bitDepth,
                                                                      uint64_t sampleRate, bool bigEndian)
{
    AudioStreamBasicDescription asbd;
    asbd.mSampleRate = static_cast<double>(sampleRate);
    asbd.mFormatID = kAudioFormatLinearPCM;
    asbd.mFormatFlags = kLinearPCMFormatFlagIsSignedInteger | kLinearPCMFormatFlagIsPacked;
    if (bigEndian) asbd.mFormatFlags |= kLinearPCMFormatFlagIsBigEndian;
    const auto bytesPerFrame = static_cast<uint32_t>((bitDepth / 8) * channels);
    asbd.mBytesPerPacket = bytesPerFrame;
    asbd.mFramesPerPacket = 1;
    asbd.mBytesPerFrame = bytesPerFrame;
    asbd.mChannelsPerFrame = static_cast<uint32_t>(channels);
    asbd.mBitsPerChannel = static_cast<uint32_t>(bitDepth);
    asbd.mReserved = 0;

    AudioChannelLayout layout;
    if (stereo && channels == 2) {
        layout.mChannelLayoutTag = kAudioChannelLayoutTag_Stereo;
    } else if (channels == 2) {
        layout.mChannelLayoutTag = kAudioChannelLayoutTag_UseChannelDescriptions;
        AudioChannelDescription mono;
        mono.mChannelLabel = kAudioChannelLabel_Mono;
        layout.mChannelDescriptions = {mono, mono};
    } else {
        layout.mChannelLayoutTag = kAudioChannelLayoutTag_Mono;
    }
    const size_t layoutSize = AudioChannelLayout::byteSize(layout.mChannelDescriptions.size());

    FormatDescriptionRef description;
    if (FormatDescription::createAudio(asbd, &layout, layoutSize, &description) != kNoErr || !description) {
        TQLog::appendLog("Error: failed to create audio format description.");
        return nullptr;
    }
    return description;
}

}  // namespace corvina::helper
