// Reading the samples of an asset's tracks: a reader with one output per track, each output
// handing out sample buffers in presentation order until its track (or the reader's time
// range) ends.
//
// Outputs come in three kinds:
// - as stored: the track's samples unchanged, labelled with the track's own description;
// - linear PCM: an audio track decoded and converted to the rate, channel count, sample size,
//   byte order and layout asked for;
// - re-encoded video: a video track decoded and encoded again with one of the codecs that
//   movies of this project carry (DV family, ProRes family, Motion JPEG). Frames are not
//   scaled or converted: the decoded frames must already have a size and sampling that the
//   encoder takes, otherwise the reader fails and says so.
//
// Every output opens the file for itself, so outputs may be drained on different threads at
// once; one output must not be used by two threads at the same time. The reader's status
// moves from Unknown to Reading (startReading), then to Completed once every output has
// handed out its last sample, to Failed when the file cannot be read on, or to Cancelled.
// Damaged samples that a decoder refuses are skipped; the reader fails only when the file
// itself cannot be read.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "AssetReader/Asset.h"
#include "Foundation/Error.h"
#include "Foundation/Result.h"
#include "SampleBuffer/SampleBuffer.h"

namespace corvina {

enum class AssetReaderStatus { Unknown, Reading, Completed, Failed, Cancelled };

struct AudioOutputSettings {
    double sampleRate = 0;   // 0: the track's own rate
    uint32_t channels = 0;   // 0: the track's own channel count
    uint32_t bitDepth = 16;  // 8, 16, 24 or 32 for integers; 32 or 64 for floats
    bool isFloat = false;
    bool bigEndian = false;
    uint32_t channelLayoutTag = 0;  // 0: mono, stereo or discrete channels by the count
};

struct VideoOutputSettings {
    FourCharCode codec = 0;        // 'dvc ', 'dvcp', 'dv5n', 'dv5p', 'dvh*', 'ap**', 'jpeg'
    double bitrate = 0;            // bits per second; 0: the encoder's default
    int64_t keyFrameInterval = 0;  // frames; 0: the encoder's default
};

// Whether re-encoded video outputs can produce this codec type.
bool canEncodeVideo(FourCharCode codec);

class AssetReader;
struct AssetReaderState;

class AssetReaderTrackOutput {
public:
    static std::shared_ptr<AssetReaderTrackOutput> create(AssetTrackRef track);
    static std::shared_ptr<AssetReaderTrackOutput> createAudio(AssetTrackRef track,
                                                               const AudioOutputSettings& settings);
    static std::shared_ptr<AssetReaderTrackOutput> createVideo(AssetTrackRef track,
                                                               const VideoOutputSettings& settings);
    ~AssetReaderTrackOutput();

    const AssetTrackRef& track() const;
    // The next sample buffer, or null when the track is done or the reader is not reading.
    std::unique_ptr<SampleBuffer> copyNextSampleBuffer();

private:
    friend class AssetReader;
    AssetReaderTrackOutput();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

class AssetReader {
public:
    // Fails when the asset cannot be read.
    static Result<std::unique_ptr<AssetReader>> create(AssetRef asset);
    ~AssetReader();

    const AssetRef& asset() const { return asset_; }
    // Limits reading to [start, start + duration); a duration that is not above zero reads
    // everything. Only before startReading.
    void setTimeRange(MediaTime start, MediaTime duration);

    bool canAddOutput(const AssetReaderTrackOutput& output) const;
    void addOutput(std::shared_ptr<AssetReaderTrackOutput> output);
    const std::vector<std::shared_ptr<AssetReaderTrackOutput>>& outputs() const { return outputs_; }

    bool startReading();
    void cancelReading();
    AssetReaderStatus status() const;
    std::optional<Error> error() const;

private:
    AssetReader() = default;
    AssetRef asset_;
    std::shared_ptr<AssetReaderState> state_;
    std::vector<std::shared_ptr<AssetReaderTrackOutput>> outputs_;
};

}  // namespace corvina
