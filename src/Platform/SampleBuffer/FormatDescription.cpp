#include "SampleBuffer/FormatDescription.h"

#include <cstdio>

#include "Foundation/ByteOrder.h"

namespace corvina {

std::string fourCCText(FourCharCode code, bool trimBlanks)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    uint8_t bytes[4];
    storeBE32(bytes, code);
    auto blank = [&](int i) { return trimBlanks && (bytes[i] == ' ' || bytes[i] == '\t'); };
    int first = 0, last = 3;
    while (first <= last && blank(first)) ++first;
    while (last >= first && blank(last)) --last;
    std::string text;
    for (int i = first; i <= last; ++i) {
        const uint8_t byte = bytes[i];
        if (byte == '\\') {
            text += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7F) {
            text += char(byte);
        } else {
            text += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
        }
    }
    return text;
}

OSStatus FormatDescription::createVideo(FourCharCode codecType, int32_t width, int32_t height,
                                        std::shared_ptr<const FormatDescription>* out)
{
    if (!out || width < 0 || height < 0) return kFormatDescriptionInvalidParameter;
    // make_shared cannot reach the private constructor.
    std::shared_ptr<FormatDescription> made(new FormatDescription());  // NOLINT: private constructor
    made->mediaType_ = MediaType::Video;
    made->subType_ = codecType;
    made->width_ = width;
    made->height_ = height;
    *out = std::move(made);
    return kNoErr;
}

OSStatus FormatDescription::createAudio(const AudioStreamBasicDescription& asbd, const AudioChannelLayout* layout,
                                        size_t layoutSize, std::shared_ptr<const FormatDescription>* out)
{
    if (!out) return kFormatDescriptionInvalidParameter;
    if (!(asbd.mSampleRate > 0) || asbd.mChannelsPerFrame == 0) return kFormatDescriptionInvalidParameter;
    if (layout && layoutSize < AudioChannelLayout::byteSize(layout->mChannelDescriptions.size()))
        return kFormatDescriptionInvalidParameter;
    std::shared_ptr<FormatDescription> made(new FormatDescription());  // NOLINT: private constructor
    made->mediaType_ = MediaType::Audio;
    made->subType_ = asbd.mFormatID;
    made->asbd_ = asbd;
    if (layout) made->layout_ = *layout;
    *out = std::move(made);
    return kNoErr;
}

OSStatus FormatDescription::createTimecode(FourCharCode subType, MediaTime frameDuration, uint32_t frameQuanta,
                                           uint32_t flags, std::shared_ptr<const FormatDescription>* out)
{
    if (!out) return kFormatDescriptionInvalidParameter;
    std::shared_ptr<FormatDescription> made(new FormatDescription());  // NOLINT: private constructor
    made->mediaType_ = MediaType::Timecode;
    made->subType_ = subType;
    made->frameDuration_ = frameDuration;
    made->frameQuanta_ = frameQuanta;
    made->tcFlags_ = flags;
    *out = std::move(made);
    return kNoErr;
}

std::shared_ptr<const FormatDescription> FormatDescription::withExtensions(
    const FormatDescription& base, const FormatDescriptionExtensions& extensions)
{
    std::shared_ptr<FormatDescription> made(new FormatDescription(base));  // NOLINT: private constructor
    for (const auto& [key, value] : extensions) made->extensions_[key] = value;
    return made;
}

std::optional<std::string> FormatDescription::extension(const std::string& key) const
{
    const auto found = extensions_.find(key);
    if (found == extensions_.end()) return std::nullopt;
    return found->second;
}

std::string FormatDescription::description() const
{
    char text[256];
    if (mediaType_ == MediaType::Timecode) {
        std::snprintf(text, sizeof text, "<FormatDescription timecode '%s' %s, %u frames, flags 0x%x>",
                      fourCCText(subType_).c_str(), frameDuration_.description().c_str(), frameQuanta_, tcFlags_);
    } else if (mediaType_ != MediaType::Audio || !asbd_) {
        std::snprintf(text, sizeof text, "<FormatDescription video '%s' %dx%d>", fourCCText(subType_).c_str(),
                      int(width_), int(height_));
    } else {
        const auto& a = *asbd_;
        std::snprintf(text, sizeof text,
                      "<FormatDescription audio '%s' %.0f Hz, %u ch, %u bits, flags 0x%x, %u bytes/frame, layout 0x%x>",
                      fourCCText(subType_).c_str(), a.mSampleRate, a.mChannelsPerFrame, a.mBitsPerChannel,
                      a.mFormatFlags, a.mBytesPerFrame, layout_ ? layout_->mChannelLayoutTag : 0u);
    }
    return text;
}

}  // namespace corvina
