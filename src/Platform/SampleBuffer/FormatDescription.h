// Format descriptions of media samples, and the audio stream and channel-layout records
// they carry. Immutable once made; shared between the samples that point at them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MediaTime/MediaTime.h"

namespace corvina {

using OSStatus = int32_t;
using FourCharCode = uint32_t;

constexpr FourCharCode fourCC(const char (&s)[5])
{
    return (FourCharCode(uint8_t(s[0])) << 24) | (FourCharCode(uint8_t(s[1])) << 16) |
           (FourCharCode(uint8_t(s[2])) << 8) | FourCharCode(uint8_t(s[3]));
}

// The code as text, most significant byte first, for logs and messages: printable ASCII
// stands as itself, a backslash as "\\", any other byte as "\xHH" ('dvc ' is "dvc ",
// 0x61000062 is "a\x00\x00b"). The one place a code becomes text. trimBlanks leaves out
// the spaces and tabs at either end ('aac ' gives "aac").
std::string fourCCText(FourCharCode code, bool trimBlanks = false);

// Status codes, with the platform's numbers.
inline constexpr OSStatus kNoErr = 0;
inline constexpr OSStatus kFormatDescriptionInvalidParameter = -12710;
inline constexpr OSStatus kBlockBufferBadLengthParameter = -12703;
inline constexpr OSStatus kBlockBufferStructureAllocationFailed = -12700;
inline constexpr OSStatus kSampleBufferRequiredParameterMissing = -12731;
inline constexpr OSStatus kSampleBufferInvalidEntryCount = -12744;

enum class MediaType : FourCharCode {
    Video = fourCC("vide"),
    Audio = fourCC("soun"),
    Timecode = fourCC("tmcd"),
    Text = fourCC("text"),
    Subtitle = fourCC("sbtl"),
    Metadata = fourCC("meta"),
};

// Timecode description flags.
inline constexpr uint32_t kTimeCodeFlag_DropFrame = 1;
inline constexpr uint32_t kTimeCodeFlag_24HourMax = 2;
inline constexpr uint32_t kTimeCodeFlag_NegTimesOK = 4;

// The extension that carries a codec's display name.
inline constexpr const char* kFormatDescriptionExtension_FormatName = "FormatName";
using FormatDescriptionExtensions = std::map<std::string, std::string>;

inline constexpr FourCharCode kAudioFormatLinearPCM = fourCC("lpcm");
inline constexpr uint32_t kLinearPCMFormatFlagIsFloat = 1u << 0;
inline constexpr uint32_t kLinearPCMFormatFlagIsBigEndian = 1u << 1;
inline constexpr uint32_t kLinearPCMFormatFlagIsSignedInteger = 1u << 2;
inline constexpr uint32_t kLinearPCMFormatFlagIsPacked = 1u << 3;

struct AudioStreamBasicDescription {
    double mSampleRate = 0;
    uint32_t mFormatID = 0;
    uint32_t mFormatFlags = 0;
    uint32_t mBytesPerPacket = 0;
    uint32_t mFramesPerPacket = 0;
    uint32_t mBytesPerFrame = 0;
    uint32_t mChannelsPerFrame = 0;
    uint32_t mBitsPerChannel = 0;
    uint32_t mReserved = 0;
    bool operator==(const AudioStreamBasicDescription&) const = default;
};

inline constexpr uint32_t kAudioChannelLayoutTag_UseChannelDescriptions = 0;
inline constexpr uint32_t kAudioChannelLayoutTag_Mono = (100u << 16) | 1;
inline constexpr uint32_t kAudioChannelLayoutTag_Stereo = (101u << 16) | 2;
inline constexpr uint32_t kAudioChannelLabel_Mono = 42;

struct AudioChannelDescription {
    uint32_t mChannelLabel = 0;
    uint32_t mChannelFlags = 0;
    float mCoordinates[3] = {0, 0, 0};
    bool operator==(const AudioChannelDescription&) const = default;
};

struct AudioChannelLayout {
    uint32_t mChannelLayoutTag = 0;
    uint32_t mChannelBitmap = 0;
    std::vector<AudioChannelDescription> mChannelDescriptions;  // count = size()
    bool operator==(const AudioChannelLayout&) const = default;
    // Bytes the platform's record takes: 12-byte header plus 20 per description (a layout
    // with no descriptions still reserves room for one: 32).
    static constexpr size_t byteSize(size_t descriptions) { return 12 + 20 * (descriptions ? descriptions : 1); }
};

class FormatDescription {
public:
    // Video: codec type and frame size; no extensions (no field, interlace or aspect data).
    static OSStatus createVideo(FourCharCode codecType, int32_t width, int32_t height,
                                std::shared_ptr<const FormatDescription>* out);
    // Audio: a stream description, an optional channel layout with the byte size the caller
    // passes (checked against the layout's own size), no magic cookie, no extensions.
    // Fails with kFormatDescriptionInvalidParameter for a zero rate or channel count.
    static OSStatus createAudio(const AudioStreamBasicDescription& asbd, const AudioChannelLayout* layout,
                                size_t layoutSize, std::shared_ptr<const FormatDescription>* out);

    // Timecode: 'tmcd' samples of one 32-bit frame number each, counted at frameQuanta
    // frames per second of `frameDuration` each.
    static OSStatus createTimecode(FourCharCode subType, MediaTime frameDuration, uint32_t frameQuanta, uint32_t flags,
                                   std::shared_ptr<const FormatDescription>* out);
    // The same description with string extensions added (or replaced).
    static std::shared_ptr<const FormatDescription> withExtensions(const FormatDescription& base,
                                                                   const FormatDescriptionExtensions& extensions);

    MediaType mediaType() const { return mediaType_; }
    FourCharCode mediaSubType() const { return subType_; }
    int32_t width() const { return width_; }
    int32_t height() const { return height_; }
    const AudioStreamBasicDescription* streamBasicDescription() const { return asbd_ ? &*asbd_ : nullptr; }
    const AudioChannelLayout* channelLayout() const { return layout_ ? &*layout_ : nullptr; }
    std::optional<std::string> extension(const std::string& key) const;
    const FormatDescriptionExtensions& extensions() const { return extensions_; }
    uint32_t timeCodeFlags() const { return tcFlags_; }
    MediaTime frameDuration() const { return frameDuration_; }
    uint32_t frameQuanta() const { return frameQuanta_; }
    std::string description() const;

private:
    FormatDescription() = default;
    MediaType mediaType_ = MediaType::Video;
    FourCharCode subType_ = 0;
    int32_t width_ = 0;
    int32_t height_ = 0;
    std::optional<AudioStreamBasicDescription> asbd_;
    std::optional<AudioChannelLayout> layout_;
    FormatDescriptionExtensions extensions_;
    uint32_t tcFlags_ = 0;
    MediaTime frameDuration_ = MediaTime::invalid();
    uint32_t frameQuanta_ = 0;
};

using FormatDescriptionRef = std::shared_ptr<const FormatDescription>;

}  // namespace corvina
