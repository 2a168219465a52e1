// Media inspection helpers over the asset layer: the frame rate, length and start timecode of
// a movie, the coding of its tracks, and a compact waveform of its first audio track.
//
// Every member is a class-level function that runs synchronously on the caller's thread; the
// ones that read samples (the start timecode, the waveform) block while they read. Nothing
// here reports errors: an unreadable asset gives the documented default.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AssetReader/Asset.h"
#include "MediaTime/MediaTime.h"

namespace corvina::tq {

// A time of day in hours, minutes, seconds and frames, as a timecode sample describes it.
struct SMPTETime {
    int16_t mSubframes = 0;
    int16_t mSubframeDivisor = 0;
    uint32_t mCounter = 0;
    uint32_t mType = 0;
    uint32_t mFlags = 0;  // kSMPTETimeValid when the fields hold a time
    int16_t mHours = 0;
    int16_t mMinutes = 0;
    int16_t mSeconds = 0;
    int16_t mFrames = 0;
};
inline constexpr uint32_t kSMPTETimeValid = 1;

// The time held by a timecode sample: `frameNumber` as stored (big-endian) in the sample,
// counted with the description's frames per second and flags. An all-zero record when the
// description is not a timecode description.
SMPTETime timecodeForFrameNumber32UsingFormatDescription(uint32_t frameNumber,
                                                         const corvina::FormatDescription& description);

class TQAVFoundation {
public:
    using Asset = corvina::AssetRef;
    using Track = corvina::AssetTrackRef;
    using MediaTime = corvina::MediaTime;

    // --- Readability and timing -----------------------------------------------------------

    // False for assets that cannot be read, playlists (m3u, m3u8) and remote URLs.
    static bool isReadable(const Asset& asset);
    // The first video track's rate (29.97 without video), replaced by the first timecode
    // track's rate when that has one.
    static double fpsForAsset(const Asset& asset);
    // timescale / value of the first timecode description's frame duration; 0.0 when none.
    static double fpsFromTimecodeForAsset(const Asset& asset, const Track& timecodeTrack);
    // Whether the first timecode track counts in drop-frame numbering.
    static bool isDropFrame(const Asset& asset);
    // Seconds x rate, rounded half away from zero; 0 for invalid or indefinite times.
    static uint64_t framesAtTime(MediaTime time, double fps);
    static uint64_t frameDurationForAsset(const Asset& asset);
    // 1000 / (rate x 1000): 29.97 gives 1000/29970.
    static MediaTime frameLengthForFPS(double fps);
    static MediaTime frameLengthForAsset(const Asset& asset);
    static MediaTime timeFromFrameCount(uint64_t frameCount, double fps);

    // --- Timecode -------------------------------------------------------------------------

    // The start timecode stored in the first timecode track; the default when there is none.
    static std::optional<std::string> timecodeStartForAsset(const Asset& asset,
                                                            const std::optional<std::string>& defaultStart);
    static std::optional<std::string> timecodeStartForAsset(const Asset& asset, const Track& timecodeTrack,
                                                            const std::optional<std::string>& defaultStart);
    // The timecode of `time` in material that starts at `fromStartPoint` (none: 0).
    static std::string timecodeForAsset(const Asset& asset, MediaTime atTime,
                                        const std::optional<std::string>& fromStartPoint, bool dropFrame);
    static std::string timecodeForAsset(const Asset& asset, MediaTime atTime,
                                        const std::optional<std::string>& fromStartPoint);
    static std::string timecodeAtTime(MediaTime time, const Asset& asset,
                                      const std::optional<std::string>& defaultStart);
    static std::string timecodeAtTime(MediaTime time, const Asset& asset);

    // --- Codecs ---------------------------------------------------------------------------

    // The media subtype of the track's first description; 0 without one.
    static uint32_t fourCCForTrack(const Track& track);
    // The four characters of the code, most significant byte first, with spaces and tabs
    // trimmed from both ends: 'aac ' prints as "aac", 0x20202020 as "". Other bytes are
    // escaped as corvina::fourCCText does, so the text is always plain ASCII.
    static std::string fourCCString(uint32_t code);
    // A display name. Video: "H.264 (avc1)" for 'avc1', "H.265 / HEVC" for 'hvc1' and 'hev1',
    // "ProRes 4444 XQ" for 'ap4x', else the format's own name ("Motion JPEG", "DV - PAL",
    // "H.264" for other H.264 codes, ...). Audio: "Linear PCM", "AAC", else the printed code.
    // "Unknown codec" for a track without a description, "Unsupported track type" for
    // tracks of other kinds.
    static std::string codecNameForTrack(const Track& track);

    // --- Waveform -------------------------------------------------------------------------

    // The loudness of the first audio track, about fifty levels a second: for each full
    // bucket of (rate / 50, rounded up) frames, the peak and the RMS of its samples over all
    // channels, 1.0 being full scale (a 16-bit sample of 32768). The samples of a last,
    // incomplete bucket are dropped. None when the asset cannot be read or has no audio.
    struct WaveformLevel {
        float peak = 0;
        float rms = 0;
    };
    static std::optional<std::vector<WaveformLevel>> waveformLevelsForAsset(const Asset& asset,
                                                                            uint32_t* bucketFrames = nullptr);
    // The buckets' peaks in 16-bit sample units (0 to 32768). *normalizeMax (when given)
    // receives the largest (-90 when there is none) and is left alone when the result is none.
    static std::optional<std::vector<float>> waveformDataForAsset(const Asset& asset, float* normalizeMax);
    static std::optional<std::vector<float>> waveformDataForAsset(const Asset& asset);
};

}  // namespace corvina::tq
