// The -settings mode: the settings that would assemble essence like a reference movie's (for
// instance one shot by the same camera as the damaged footage).
#include <cmath>
#include <cstdio>

#include "helper/AppController.h"
#include "tq/TQAVFoundation.h"
#include "tq/TQLog.h"

namespace corvina::helper {
using namespace corvina::tq;

using namespace corvina;

namespace {

// The table row of the video's codec type; null when the helper writes no such video.
const VideoFormatInfo* videoRowFor(FourCharCode codec)
{
    for (int64_t formatType = 0; formatType < 64; ++formatType)
        if (const VideoFormatInfo* row = AppController::videoFormatForType(formatType); row && row->codecType == codec)
            return row;
    return nullptr;
}

// The audio row for 16-bit linear PCM of the reference's rate, channel count and byte order;
// 0 (no audio) for audio that the helper does not wrap.
int64_t audioRowFor(const AudioStreamBasicDescription* asbd)
{
    if (!asbd || asbd->mFormatID != kAudioFormatLinearPCM || asbd->mBitsPerChannel != 16 ||
        (asbd->mFormatFlags & kLinearPCMFormatFlagIsFloat))
        return 0;
    const bool bigEndian = (asbd->mFormatFlags & kLinearPCMFormatFlagIsBigEndian) != 0;
    for (int64_t code = 1; code <= 12; ++code) {
        const AudioFormatInfo* row = AppController::audioFormatForCode(code);
        if (row && row->channels == asbd->mChannelsPerFrame && double(row->sampleRate) == asbd->mSampleRate &&
            row->bigEndian == bigEndian)
            return code;
    }
    return 0;
}

void report(const std::string& text)
{
    TQLog::appendLog("%@", text);
    std::fprintf(stderr, "%s\n", text.c_str());
}

}  // namespace

Value AppController::settingsForMovieFile(const std::string& path)
{
    const AssetRef asset = Asset::assetWithPath(path);
    if (!TQAVFoundation::isReadable(asset)) {
        report(format("Unable to read movie file %@: %@", path,
                      asset->error() ? asset->error()->localizedDescription : std::string("not a movie")));
        return Value();
    }
    const auto videoTracks = asset->tracksWithMediaType(MediaType::Video);
    if (videoTracks.empty()) {
        report(format("Unrecognised movie file %@: it has no video track", path));
        return Value();
    }
    const AssetTrackRef& video = videoTracks.front();
    const uint32_t codec = TQAVFoundation::fourCCForTrack(video);
    const VideoFormatInfo* row = videoRowFor(codec);
    if (!row) {
        report(format("Unrecognised movie file %@: its video (%@, %@) is not a format the helper writes", path,
                      TQAVFoundation::fourCCString(codec), TQAVFoundation::codecNameForTrack(video)));
        return Value();
    }
    // Rows with a fixed frame size keep it; the others take the reference's.
    int32_t width = row->width, height = row->height;
    if (!width || !height) {
        width = video->formatDescriptions().front()->width();
        height = video->formatDescriptions().front()->height();
    }
    const auto audioTracks = asset->tracksWithMediaType(MediaType::Audio);
    const AudioStreamBasicDescription* asbd =
        audioTracks.empty() || audioTracks.front()->formatDescriptions().empty()
            ? nullptr
            : audioTracks.front()->formatDescriptions().front()->streamBasicDescription();
    // Rates are written as the whole or NTSC rate they stand for (29.97, 23.976, 59.94).
    const double fps = TQAVFoundation::fpsForAsset(asset);
    const double frameRate = std::round(fps * 1000.0) / 1000.0;

    Value::DictionaryType settings;
    settings["formatType"] = Value(row->formatType);
    settings["frameRate"] = Value(frameRate);
    settings["fWidth"] = Value(int64_t(width));
    settings["fHeight"] = Value(int64_t(height));
    settings["audioFormat"] = Value(audioRowFor(asbd));
    return Value(std::move(settings));
}

}  // namespace corvina::helper
