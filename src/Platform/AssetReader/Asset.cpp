#include "AssetReader/Asset.h"

#include <algorithm>
#include <cctype>
#include <cmath>

extern "C" {
#include <libavutil/timecode.h>
}

#include "AssetReader/Libav.h"
#include "Foundation/ByteOrder.h"

namespace corvina {

namespace {

std::string percentDecoded(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(uint8_t(text[i + 1])) &&
            std::isxdigit(uint8_t(text[i + 2]))) {
            out += char(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

AVRational streamRate(const AVStream& st)
{
    if (st.avg_frame_rate.num > 0 && st.avg_frame_rate.den > 0) return st.avg_frame_rate;
    return st.r_frame_rate;
}

}  // namespace

std::shared_ptr<const Asset> Asset::assetWithPath(const std::string& path)
{
    std::shared_ptr<Asset> asset(new Asset());  // NOLINT: private constructor
    asset->url_ = "file://" + path;
    asset->path_ = path;
    asset->inspect();
    return asset;
}

std::shared_ptr<const Asset> Asset::assetWithURL(const std::string& url)
{
    std::shared_ptr<Asset> asset(new Asset());  // NOLINT: private constructor
    asset->url_ = url;
    const std::string scheme = asset->urlScheme();
    if (scheme.empty()) {
        asset->path_ = url;
    } else if (scheme == "file") {
        std::string rest = url.substr(5);
        if (rest.rfind("//", 0) == 0) {
            rest = rest.substr(2);
            const size_t slash = rest.find('/');  // skip the host ("localhost" or nothing)
            rest = slash == std::string::npos ? std::string() : rest.substr(slash);
        }
        asset->path_ = percentDecoded(rest);
    }
    if (asset->path_.empty())
        asset->error_ = av::error("Assets at " + url + " are not fetched: only local files are read");
    else
        asset->inspect();
    return asset;
}

std::string Asset::urlScheme() const
{
    const size_t colon = url_.find(':');
    if (colon == std::string::npos || colon == 0) return {};
    std::string scheme = url_.substr(0, colon);
    for (char c : scheme)
        if (!std::isalnum(uint8_t(c)) && c != '+' && c != '-' && c != '.') return {};
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](char c) { return char(std::tolower(uint8_t(c))); });
    return scheme;
}

std::vector<AssetTrackRef> Asset::tracksWithMediaType(MediaType type) const
{
    std::vector<AssetTrackRef> found;
    for (const auto& track : tracks_)
        if (track->mediaType() == type) found.push_back(track);
    return found;
}

void Asset::inspect()
{
    auto opened = av::openInput(path_);
    if (!opened) {
        error_ = opened.error();
        return;
    }
    av::FormatContextPtr context = std::move(*opened);
    containerName_ = context->iformat->name;
    AVRational videoRate{0, 1};
    bool hasTimecodeTrack = false;

    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream& st = *context->streams[i];
        const AVCodecParameters& par = *st.codecpar;
        if (st.disposition & AV_DISPOSITION_ATTACHED_PIC) continue;
        auto track = std::make_shared<AssetTrack>();
        track->trackID_ = int32_t(i + 1);
        track->streamIndex_ = int(i);
        if (st.duration != AV_NOPTS_VALUE && st.duration > 0)
            track->duration_ = av::mediaTime(st.duration, st.time_base);
        else if (context->duration > 0)
            track->duration_ = MediaTime::make(context->duration, AV_TIME_BASE);

        FormatDescriptionRef format;
        if (par.codec_type == AVMEDIA_TYPE_VIDEO) {
            track->mediaType_ = MediaType::Video;
            const AVRational rate = streamRate(st);
            if (rate.num > 0 && rate.den > 0) track->nominalFrameRate_ = float(av_q2d(rate));
            if (!videoRate.num) videoRate = rate;
            const FourCharCode subType = av::videoSubType(par, rate);
            FormatDescriptionRef plain;
            if (FormatDescription::createVideo(subType, par.width, par.height, &plain) == kNoErr)
                format = FormatDescription::withExtensions(
                    *plain, {{kFormatDescriptionExtension_FormatName, av::videoFormatName(par, subType)}});
        } else if (par.codec_type == AVMEDIA_TYPE_AUDIO) {
            track->mediaType_ = MediaType::Audio;
            const AudioStreamBasicDescription asbd = av::streamDescription(par);
            const AudioChannelLayout layout = av::channelLayoutFor(asbd.mChannelsPerFrame);
            FormatDescription::createAudio(asbd, &layout, AudioChannelLayout::byteSize(0), &format);
        } else if (par.codec_tag == MKTAG('t', 'm', 'c', 'd')) {
            // The stored sample description after its reserved word: flags, timescale, frame
            // duration, frames per second.
            track->mediaType_ = MediaType::Timecode;
            hasTimecodeTrack = true;
            if (par.extradata && par.extradata_size >= 17) {
                const uint8_t* d = par.extradata;
                const uint32_t scale = loadBE32(d + 8);
                FormatDescription::createTimecode(
                    fourCC("tmcd"), MediaTime::make(loadBE32(d + 12), int32_t(std::min<uint32_t>(scale, INT32_MAX))),
                    d[16], loadBE32(d + 4), &format);
            }
        } else if (par.codec_type == AVMEDIA_TYPE_SUBTITLE) {
            track->mediaType_ = MediaType::Subtitle;
        }
        if (format) track->formats_.push_back(std::move(format));
        if (track->duration_.isNumeric() && track->duration_ > duration_) duration_ = track->duration_;
        tracks_.push_back(std::move(track));
    }

    // A start timecode kept as a property of the container or of its video becomes a track.
    if (!hasTimecodeTrack && videoRate.num > 0 && videoRate.den > 0) {
        const AVDictionaryEntry* entry = AV_CALL(av_dict_get)(context->metadata, "timecode", nullptr, 0);
        for (unsigned i = 0; !entry && i < context->nb_streams; ++i)
            entry = AV_CALL(av_dict_get)(context->streams[i]->metadata, "timecode", nullptr, 0);
        AVTimecode tc{};
        if (entry && AV_CALL(av_timecode_init_from_string)(&tc, videoRate, entry->value, nullptr) == 0) {
            auto track = std::make_shared<AssetTrack>();
            track->trackID_ = int32_t(context->nb_streams + 1);
            track->mediaType_ = MediaType::Timecode;
            track->duration_ = duration_;
            uint32_t flags = kTimeCodeFlag_24HourMax;
            if (tc.flags & AV_TIMECODE_FLAG_DROPFRAME) flags |= kTimeCodeFlag_DropFrame;
            FormatDescriptionRef format;
            FormatDescription::createTimecode(fourCC("tmcd"), MediaTime::make(videoRate.den, videoRate.num), tc.fps,
                                              flags, &format);
            track->formats_.push_back(std::move(format));
            const uint32_t start = uint32_t(tc.start);
            track->madeSample_.resize(4);
            storeBE32(track->madeSample_.data(), start);
            tracks_.push_back(std::move(track));
        }
    }

    readable_ = !tracks_.empty();
    if (!readable_) error_ = av::error("No media tracks in " + path_);
}

}  // namespace corvina
