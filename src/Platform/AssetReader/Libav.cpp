#include "AssetReader/Libav.h"

#include <dlfcn.h>

#include <array>
#include <cmath>
#include <iterator>
#include <string>

#include "AssetReader/Asset.h"
#include "Foundation/ByteOrder.h"
#include "Foundation/Exception.h"

namespace corvina::av {

namespace {

#define CORVINA_SONAME(lib, major) "lib" lib ".so." CORVINA_STRINGIFY(major)
#define CORVINA_STRINGIFY(x) CORVINA_STRINGIFY2(x)
#define CORVINA_STRINGIFY2(x) #x

// The libraries in the order they depend on each other, by the names of the versions the
// program was built against.
class MediaLibraries {
public:
    static MediaLibraries& shared()
    {
        static MediaLibraries libraries;  // never closed: functions found stay valid
        return libraries;
    }
    void* find(const char* name) const
    {
        for (void* handle : handles_)
            if (void* symbol = handle ? ::dlsym(handle, name) : nullptr) return symbol;
        return nullptr;
    }
    const std::string& problem() const { return problem_; }

private:
    MediaLibraries()
    {
        const char* names[] = {CORVINA_SONAME("avutil", LIBAVUTIL_VERSION_MAJOR),
                               CORVINA_SONAME("swresample", LIBSWRESAMPLE_VERSION_MAJOR),
                               CORVINA_SONAME("avcodec", LIBAVCODEC_VERSION_MAJOR),
                               CORVINA_SONAME("avformat", LIBAVFORMAT_VERSION_MAJOR)};
        for (size_t i = 0; i < std::size(names); ++i) {
            handles_[i] = ::dlopen(names[i], RTLD_NOW | RTLD_LOCAL);
            if (!handles_[i] && problem_.empty()) {
                const char* why = ::dlerror();
                problem_ = why ? why : names[i];
            }
        }
    }
    std::array<void*, 4> handles_{};
    std::string problem_;
};

}  // namespace

void* librarySymbol(const char* name)
{
    const MediaLibraries& libraries = MediaLibraries::shared();
    if (void* symbol = libraries.find(name)) return symbol;
    throw PlatformException("MediaLibrariesUnavailable",
                            libraries.problem().empty()
                                ? std::string("The media libraries have no function ") + name
                                : "The media libraries cannot be loaded: " + libraries.problem());
}

namespace {

FourCharCode fromTag(uint32_t tag)
{
    // libav keeps a tag in file order in the low byte first.
    return byteSwapped32(tag);
}

}  // namespace

Error error(int avCode, const std::string& what)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    AV_CALL(av_strerror)(avCode, text, sizeof text);
    return Error{kAssetErrorDomain, avCode, what + ": " + text};
}

Error error(const std::string& what) { return Error{kAssetErrorDomain, -1, what}; }

Result<FormatContextPtr> openInput(const std::string& path)
{
    // Failures reach callers as errors; libav's own console messages about damaged input
    // would only repeat them.
    static const bool quiet = [] {
        if (AV_CALL(av_log_get_level)() > AV_LOG_FATAL) AV_CALL(av_log_set_level)(AV_LOG_FATAL);
        return true;
    }();
    (void)quiet;
    AVFormatContext* raw = nullptr;
    int rc = AV_CALL(avformat_open_input)(&raw, path.c_str(), nullptr, nullptr);
    if (rc < 0) return error(rc, "Cannot open " + path);
    FormatContextPtr context(raw);
    rc = AV_CALL(avformat_find_stream_info)(context.get(), nullptr);
    if (rc < 0) return error(rc, "Cannot read the streams of " + path);
    return context;
}

int32_t timescaleFor(AVRational timeBase, int32_t fallbackScale)
{
    return timeBase.num == 1 && timeBase.den > 0 ? timeBase.den : fallbackScale;
}

MediaTime mediaTime(int64_t ts, AVRational timeBase, int32_t fallbackScale)
{
    if (ts == AV_NOPTS_VALUE || timeBase.den <= 0) return MediaTime::invalid();
    const int32_t scale = timescaleFor(timeBase, fallbackScale);
    if (scale == timeBase.den && timeBase.num == 1) return MediaTime::make(ts, scale);
    return MediaTime::make(AV_CALL(av_rescale_q)(ts, timeBase, AVRational{1, scale}), scale);
}

FourCharCode dvSubType(int width, int height, AVPixelFormat pixelFormat, double fps)
{
    const bool fiftyHz = std::fabs(fps - 25) < 0.5 || std::fabs(fps - 50) < 0.5;
    if (height == 720) return fiftyHz ? fourCC("dvhq") : fourCC("dvhp");
    if (height == 1080) return width == 1440 || fiftyHz ? fourCC("dvh5") : fourCC("dvh6");
    const bool fourTwoTwo = pixelFormat == AV_PIX_FMT_YUV422P;
    if (height == 480) return fourTwoTwo ? fourCC("dv5n") : fourCC("dvc ");
    if (fourTwoTwo) return fourCC("dv5p");
    return pixelFormat == AV_PIX_FMT_YUV411P ? fourCC("dvpp") : fourCC("dvcp");
}

FourCharCode videoSubType(const AVCodecParameters& par, AVRational frameRate)
{
    if (par.codec_id == AV_CODEC_ID_DVVIDEO) {
        // AVI and raw DV streams name DV generically ('dvsd'); the profile tells which it is.
        const FourCharCode stored = par.codec_tag ? fromTag(par.codec_tag) : 0;
        if (stored >> 16 == (fourCC("dv  ") >> 16) && stored != fourCC("dvsd")) return stored;
        const double fps = frameRate.den > 0 ? av_q2d(frameRate) : 0;
        return dvSubType(par.width, par.height, AVPixelFormat(par.format), fps);
    }
    if (par.codec_tag) {
        const FourCharCode stored = fromTag(par.codec_tag);
        // AVI names Motion JPEG 'MJPG'; QuickTime movies call it 'jpeg'.
        if (par.codec_id == AV_CODEC_ID_MJPEG) return fourCC("jpeg");
        return stored;
    }
    const AVCodecTag* const tables[] = {AV_CALL(avformat_get_mov_video_tags)(), nullptr};
    if (par.codec_id == AV_CODEC_ID_PRORES) {
        switch (par.profile) {
        case 0:
            return fourCC("apco");
        case 1:
            return fourCC("apcs");
        case 3:
            return fourCC("apch");
        case 4:
            return fourCC("ap4h");
        case 5:
            return fourCC("ap4x");
        default:
            return fourCC("apcn");
        }
    }
    const unsigned tag = AV_CALL(av_codec_get_tag)(tables, par.codec_id);
    return tag ? fromTag(tag) : 0;
}

std::string videoFormatName(const AVCodecParameters& par, FourCharCode subType)
{
    struct Name {
        FourCharCode code;
        const char* name;
    };
    static const Name names[] = {
        {fourCC("dvc "), "DV - NTSC"},         {fourCC("dvcp"), "DV - PAL"},
        {fourCC("dvpp"), "DVCPRO - PAL"},      {fourCC("dv5n"), "DVCPRO50 - NTSC"},
        {fourCC("dv5p"), "DVCPRO50 - PAL"},    {fourCC("dvhp"), "DVCPRO HD 720p60"},
        {fourCC("dvhq"), "DVCPRO HD 720p50"},  {fourCC("dvh6"), "DVCPRO HD 1080i60"},
        {fourCC("dvh5"), "DVCPRO HD 1080i50"}, {fourCC("apco"), "ProRes Proxy"},
        {fourCC("apcs"), "ProRes LT"},         {fourCC("apcn"), "ProRes 422"},
        {fourCC("apch"), "ProRes HQ"},         {fourCC("ap4h"), "ProRes 4444"},
        {fourCC("ap4x"), "ProRes 4444 XQ"},    {fourCC("jpeg"), "Motion JPEG"},
    };
    for (const Name& n : names)
        if (n.code == subType) return n.name;
    if (par.codec_id == AV_CODEC_ID_H264) return "H.264";
    if (par.codec_id == AV_CODEC_ID_HEVC) return "HEVC";
    const AVCodecDescriptor* descriptor = AV_CALL(avcodec_descriptor_get)(par.codec_id);
    return descriptor && descriptor->long_name ? descriptor->long_name : "";
}

AudioStreamBasicDescription streamDescription(const AVCodecParameters& par)
{
    AudioStreamBasicDescription d;
    d.mSampleRate = par.sample_rate;
    d.mChannelsPerFrame = uint32_t(par.ch_layout.nb_channels);
    d.mFramesPerPacket = par.frame_size > 0 ? uint32_t(par.frame_size) : 0;
    struct Pcm {
        AVCodecID id;
        uint32_t bits;
        uint32_t flags;
    };
    constexpr uint32_t sInt = kLinearPCMFormatFlagIsSignedInteger | kLinearPCMFormatFlagIsPacked;
    constexpr uint32_t big = kLinearPCMFormatFlagIsBigEndian;
    constexpr uint32_t flt = kLinearPCMFormatFlagIsFloat | kLinearPCMFormatFlagIsPacked;
    static const Pcm pcm[] = {
        {AV_CODEC_ID_PCM_S16LE, 16, sInt},
        {AV_CODEC_ID_PCM_S16BE, 16, sInt | big},
        {AV_CODEC_ID_PCM_S24LE, 24, sInt},
        {AV_CODEC_ID_PCM_S24BE, 24, sInt | big},
        {AV_CODEC_ID_PCM_S32LE, 32, sInt},
        {AV_CODEC_ID_PCM_S32BE, 32, sInt | big},
        {AV_CODEC_ID_PCM_F32LE, 32, flt},
        {AV_CODEC_ID_PCM_F32BE, 32, flt | big},
        {AV_CODEC_ID_PCM_F64LE, 64, flt},
        {AV_CODEC_ID_PCM_F64BE, 64, flt | big},
        {AV_CODEC_ID_PCM_U8, 8, kLinearPCMFormatFlagIsPacked},
        {AV_CODEC_ID_PCM_S8, 8, sInt},
    };
    for (const Pcm& p : pcm) {
        if (p.id != par.codec_id) continue;
        d.mFormatID = kAudioFormatLinearPCM;
        d.mFormatFlags = p.flags;
        d.mBitsPerChannel = p.bits;
        d.mFramesPerPacket = 1;
        d.mBytesPerFrame = d.mBytesPerPacket = p.bits / 8 * d.mChannelsPerFrame;
        return d;
    }
    if (par.codec_id == AV_CODEC_ID_AAC) {
        d.mFormatID = fourCC("aac ");
    } else if (par.codec_tag) {
        d.mFormatID = fromTag(par.codec_tag);
    } else {
        const AVCodecTag* const tables[] = {AV_CALL(avformat_get_mov_audio_tags)(), nullptr};
        d.mFormatID = fromTag(AV_CALL(av_codec_get_tag)(tables, par.codec_id));
    }
    return d;
}

AudioChannelLayout channelLayoutFor(uint32_t channels)
{
    AudioChannelLayout layout;
    if (channels == 1)
        layout.mChannelLayoutTag = kAudioChannelLayoutTag_Mono;
    else if (channels == 2)
        layout.mChannelLayoutTag = kAudioChannelLayoutTag_Stereo;
    else
        layout.mChannelLayoutTag = (147u << 16) | channels;  // discrete channels, in order
    return layout;
}

}  // namespace corvina::av
