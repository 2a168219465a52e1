#include "tq/TQAVFoundation.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "AssetReader/AssetReader.h"
#include "Foundation/ByteOrder.h"
#include "Foundation/Format.h"
#include "Foundation/StringUtils.h"
#include "tq/TQTimecode.h"

namespace corvina::tq {

using namespace corvina;

namespace {

constexpr double kDefaultRate = 29.97;

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](char c) { return char(std::tolower(uint8_t(c))); });
    return text;
}

std::string pathExtension(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    const size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    return path.substr(dot + 1);
}

TQAVFoundation::Track firstTrack(const TQAVFoundation::Asset& asset, MediaType type)
{
    if (!asset) return nullptr;
    const auto tracks = asset->tracksWithMediaType(type);
    return tracks.empty() ? nullptr : tracks.front();
}

}  // namespace

// --- Readability and timing ----------------------------------------------------------------

bool TQAVFoundation::isReadable(const Asset& asset)
{
    if (!asset || !asset->isReadable()) return false;
    const std::string scheme = asset->urlScheme();
    // The extension of the URL's path: for a file URL the local path, else what follows the
    // authority, without query or fragment.
    std::string path = asset->path();
    if (path.empty()) {
        path = asset->url();
        if (const size_t q = path.find_first_of("?#"); q != std::string::npos) path.resize(q);
    }
    const std::string extension = lowerCase(pathExtension(path));
    if (extension == "m3u" || extension == "m3u8") return false;
    if (scheme == "http" || scheme == "https") return false;
    return scheme != "ftp";
}

double TQAVFoundation::fpsForAsset(const Asset& asset)
{
    double rate = kDefaultRate;
    if (const Track video = firstTrack(asset, MediaType::Video)) rate = double(video->nominalFrameRate());
    if (const Track timecode = firstTrack(asset, MediaType::Timecode)) {
        const double r = fpsFromTimecodeForAsset(asset, timecode);
        if (r > 0.0) rate = r;
    }
    return rate;
}

double TQAVFoundation::fpsFromTimecodeForAsset(const Asset& asset, const Track& timecodeTrack)
{
    if (!isReadable(asset) || !timecodeTrack) return 0.0;
    for (const auto& format : timecodeTrack->formatDescriptions()) {
        if (format->mediaType() != MediaType::Timecode || format->mediaSubType() != fourCC("tmcd")) continue;
        const MediaTime d = format->frameDuration();
        if (d.timescale > 0 && d.value > 0) return double(d.timescale) / double(d.value);
    }
    return 0.0;
}

bool TQAVFoundation::isDropFrame(const Asset& asset)
{
    const Track timecode = firstTrack(asset, MediaType::Timecode);
    if (!timecode) return false;
    for (const auto& format : timecode->formatDescriptions())
        if (format->mediaSubType() == fourCC("tmcd") && (format->timeCodeFlags() & kTimeCodeFlag_DropFrame))
            return true;
    return false;
}

uint64_t TQAVFoundation::framesAtTime(MediaTime time, double fps)
{
    const double seconds = time.getSeconds();
    if (std::isnan(seconds)) return 0;
    const double frames = std::round(seconds * fps);
    if (!(frames > 0)) return 0;
    return frames >= 18446744073709551615.0 ? UINT64_MAX : uint64_t(frames);
}

uint64_t TQAVFoundation::frameDurationForAsset(const Asset& asset)
{
    if (!asset) return 0;
    return framesAtTime(asset->duration(), fpsForAsset(asset));
}

MediaTime TQAVFoundation::frameLengthForFPS(double fps)
{
    const double scale = fps * 1000.0;
    const int32_t timescale = std::isfinite(scale) && std::fabs(scale) < 2147483648.0 ? int32_t(scale) : 0;
    return MediaTime::make(1000, timescale);
}

MediaTime TQAVFoundation::frameLengthForAsset(const Asset& asset) { return frameLengthForFPS(fpsForAsset(asset)); }

MediaTime TQAVFoundation::timeFromFrameCount(uint64_t frameCount, double fps)
{
    return frameLengthForFPS(fps) * int32_t(uint32_t(frameCount));
}

// --- Timecode -------------------------------------------------------------------------------

std::optional<std::string> TQAVFoundation::timecodeStartForAsset(const Asset& asset,
                                                                 const std::optional<std::string>& defaultStart)
{
    if (const Track timecode = firstTrack(asset, MediaType::Timecode))
        return timecodeStartForAsset(asset, timecode, defaultStart);
    return defaultStart;
}

std::optional<std::string> TQAVFoundation::timecodeStartForAsset(const Asset& asset, const Track& timecodeTrack,
                                                                 const std::optional<std::string>& defaultStart)
{
    if (!isReadable(asset) || !timecodeTrack) return defaultStart;
    const FrameRate rate = FrameRate::fromDouble(fpsForAsset(asset));
    const bool dropFrame = isDropFrame(asset);

    auto reader = AssetReader::create(asset).valueOr(nullptr);
    if (!reader) return defaultStart;
    auto output = AssetReaderTrackOutput::create(timecodeTrack);
    reader->addOutput(output);
    reader->startReading();
    while (reader->status() == AssetReaderStatus::Reading) {
        const auto sample = output->copyNextSampleBuffer();
        if (!sample) continue;
        const BlockBuffer* data = sample->dataBuffer();
        const auto& format = sample->formatDescription();
        if (!data || data->dataLength() < 4 || !format) continue;
        const uint8_t* p = data->data();
        const uint32_t frameNumber = loadBE32(p);
        reader->cancelReading();
        // The counter counts frameQuanta numbers a second, at the asset's rate when that is its timebase.
        const auto quanta = int64_t(format->frameQuanta());
        const FrameRate counted = quanta == rate.timebase() ? rate
                                  : rate.isNTSC()           ? FrameRate::ntsc(quanta)
                                                            : FrameRate::whole(quanta);
        return TQTimecode::timecodeFromFrameCount(frameNumber, counted, dropFrame, 0);
    }
    reader->cancelReading();
    return defaultStart;
}

std::string TQAVFoundation::timecodeForAsset(const Asset& asset, MediaTime atTime,
                                             const std::optional<std::string>& fromStartPoint, bool dropFrame)
{
    const double rate = fpsForAsset(asset);
    const FrameRate exactRate = FrameRate::fromDouble(rate);
    const int64_t startFrames =
        fromStartPoint ? TQTimecode::frameCountFromTimecode(*fromStartPoint, exactRate, dropFrame, 0) : 0;
    if (atTime.value < 0) atTime.value = 0;
    const double seconds = atTime.getSeconds();
    const double rounded = std::isnan(seconds) ? 0.0 : std::round(seconds * rate);
    const int64_t frames = rounded >= 9.2e18 ? INT64_MAX : int64_t(rounded);
    return TQTimecode::timecodeFromFrameCount(frames, exactRate, dropFrame, startFrames);
}

std::string TQAVFoundation::timecodeForAsset(const Asset& asset, MediaTime atTime,
                                             const std::optional<std::string>& fromStartPoint)
{
    return timecodeForAsset(asset, atTime, fromStartPoint, isDropFrame(asset));
}

std::string TQAVFoundation::timecodeAtTime(MediaTime time, const Asset& asset,
                                           const std::optional<std::string>& defaultStart)
{
    return timecodeForAsset(asset, time, timecodeStartForAsset(asset, defaultStart));
}

std::string TQAVFoundation::timecodeAtTime(MediaTime time, const Asset& asset)
{
    return timecodeAtTime(time, asset, std::nullopt);
}

SMPTETime timecodeForFrameNumber32UsingFormatDescription(uint32_t frameNumber, const FormatDescription& description)
{
    SMPTETime time;
    if (description.mediaSubType() != fourCC("tmcd")) return time;
    const auto value = int32_t(byteSwapped32(frameNumber));
    int32_t n = value == INT32_MIN ? INT32_MAX : std::abs(value);
    const int32_t q = int16_t(description.frameQuanta());
    const uint32_t flags = description.timeCodeFlags();
    if (q <= 0) return time;
    if (flags & kTimeCodeFlag_DropFrame) {
        const int32_t t = q * 600 - 18;
        int32_t added = 0;
        if (t > 0) {
            added = 18 * (n / t);
            const int32_t r = n % t;
            if (r >= q * 60 && q * 60 - 2 > 0) added += 2 + 2 * ((r - q * 60) / (q * 60 - 2));
        }
        n += added;
    }
    int32_t hours = (n / q) / 3600;
    time.mFrames = int16_t(n % q);
    time.mSeconds = int16_t((n / q) % 60);
    time.mMinutes = int16_t(((n / q) / 60) % 60);
    if (flags & kTimeCodeFlag_24HourMax) {
        hours %= 24;
        if (value < 0 && !(flags & kTimeCodeFlag_NegTimesOK)) hours = 23 - hours;
    }
    time.mHours = int16_t(hours);
    time.mFlags = kSMPTETimeValid;
    return time;
}

// --- Codecs ---------------------------------------------------------------------------------

uint32_t TQAVFoundation::fourCCForTrack(const Track& track)
{
    if (!track || track->formatDescriptions().empty()) return 0;
    return track->formatDescriptions().front()->mediaSubType();
}

std::string TQAVFoundation::fourCCString(uint32_t code) { return fourCCText(code, true); }

std::string TQAVFoundation::codecNameForTrack(const Track& track)
{
    if (!track) return "Unsupported track type";
    const auto& formats = track->formatDescriptions();
    if (track->mediaType() == MediaType::Video) {
        if (formats.empty()) return "Unknown codec";
        // Codecs named after their four-character code; the others by the format's own name.
        struct Named {
            uint32_t code;
            const char* name;
        };
        static constexpr Named kNamedVideo[] = {{fourCC("avc1"), "H.264 (avc1)"},
                                                {fourCC("hvc1"), "H.265 / HEVC"},
                                                {fourCC("hev1"), "H.265 / HEVC"},
                                                {fourCC("ap4x"), "ProRes 4444 XQ"}};
        const uint32_t code = formats.front()->mediaSubType();
        for (const Named& n : kNamedVideo)
            if (n.code == code) return n.name;
        return formats.front()->extension(kFormatDescriptionExtension_FormatName).value_or("");
    }
    if (track->mediaType() == MediaType::Audio) {
        if (formats.empty()) return "Unknown codec";
        const AudioStreamBasicDescription* asbd = formats.front()->streamBasicDescription();
        const std::string code = fourCCString(asbd ? asbd->mFormatID : 0);
        if (code == "lpcm") return "Linear PCM";
        if (code == "aac") return "AAC";
        return code;
    }
    return "Unsupported track type";
}

// --- Waveform -------------------------------------------------------------------------------

std::optional<std::vector<TQAVFoundation::WaveformLevel>> TQAVFoundation::waveformLevelsForAsset(const Asset& asset,
                                                                                                 uint32_t* bucketFrames)
{
    const Track audio = firstTrack(asset, MediaType::Audio);
    if (!isReadable(asset) || !audio) return std::nullopt;
    auto reader = AssetReader::create(asset).valueOr(nullptr);
    if (!reader) return std::nullopt;
    AudioOutputSettings settings;  // 16-bit signed little-endian interleaved, the track's rate
    auto output = AssetReaderTrackOutput::createAudio(audio, settings);
    if (!output) return std::nullopt;
    reader->addOutput(output);

    double sampleRate = 0;
    uint32_t channels = 1;
    for (const auto& format : audio->formatDescriptions()) {
        if (const AudioStreamBasicDescription* asbd = format->streamBasicDescription()) {
            sampleRate = std::trunc(asbd->mSampleRate);
            channels = asbd->mChannelsPerFrame ? asbd->mChannelsPerFrame : 1;
        }
    }
    const auto bucket = std::max<uint32_t>(1, uint32_t(std::ceil(std::clamp(sampleRate, 0.0, 4.0e9) / 50.0)));
    if (bucketFrames) *bucketFrames = bucket;

    reader->startReading();
    std::vector<WaveformLevel> levels;
    // A bucket's largest magnitude and sum of squares, carried from one sample buffer to the
    // next (the converted buffers hold whole frames).
    int32_t peak = 0;
    double squares = 0;
    uint32_t frames = 0;
    constexpr double kFullScale = 32768.0;
    while (reader->status() == AssetReaderStatus::Reading) {
        const auto sample = output->copyNextSampleBuffer();
        if (!sample || !sample->dataBuffer()) continue;
        const BlockBuffer& data = *sample->dataBuffer();
        const size_t count = data.dataLength() / (2 * size_t(channels));
        for (size_t i = 0; i < count; ++i) {
            for (uint32_t c = 0; c < channels; ++c) {
                int16_t v;
                std::memcpy(&v, data.data() + (i * channels + c) * 2, 2);
                peak = std::max(peak, std::abs(int32_t(v)));
                squares += double(v) * double(v);
            }
            if (++frames < bucket) continue;
            levels.push_back(
                {float(peak / kFullScale), float(std::sqrt(squares / (double(bucket) * channels)) / kFullScale)});
            peak = 0;
            squares = 0;
            frames = 0;
        }
    }
    if (reader->status() != AssetReaderStatus::Completed) return std::nullopt;
    return levels;
}

std::optional<std::vector<float>> TQAVFoundation::waveformDataForAsset(const Asset& asset, float* normalizeMax)
{
    const auto levels = waveformLevelsForAsset(asset);
    if (!levels) return std::nullopt;
    std::vector<float> peaks;
    peaks.reserve(levels->size());
    float maximum = -90.0f;
    for (const WaveformLevel& level : *levels) {
        peaks.push_back(level.peak * 32768.0f);
        maximum = std::max(maximum, peaks.back());
    }
    if (normalizeMax) *normalizeMax = maximum;
    return peaks;
}

std::optional<std::vector<float>> TQAVFoundation::waveformDataForAsset(const Asset& asset)
{
    return waveformDataForAsset(asset, nullptr);
}

}  // namespace corvina::tq
