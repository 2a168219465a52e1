// Re-export of a movie: the audio and video of an asset copied into a new QuickTime movie by
// the project's movie writer, through a reader limited to a time range. Video passes through
// unchanged, or is encoded again when videoFourCC names a codec of the DV family, the ProRes
// family or Motion JPEG; audio is decoded and written as linear PCM with the configured rate,
// sample size, byte order, layout and channel count.
//
// An export runs on two serial queues (audio and video pumps) and ends with one delegate call
// on the main queue: avExportFinished (also after cancel) or avExportFailed. cancel() stops
// the export in progress and does nothing to an idle exporter; an export asked for while one
// is in progress fails at once and leaves the running one alone. A requested video codec is
// written as asked or the export fails (a DV variant that the frames do not make is refused),
// and a source that cannot be read to its end fails the export. Progress is the
// mean of the two tracks, reported on the pumps' queues in whole-percentage steps. The
// exporter must outlive the export it started (until its delegate hears the end).
//
// The movie is written beside the output path and renamed over it only when it is complete,
// so a file already at the output path is replaced by a finished export and left untouched by
// a failed or cancelled one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "AssetReader/Asset.h"
#include "Dispatch/Dispatch.h"
#include "Foundation/Error.h"
#include "Foundation/Result.h"
#include "MediaTime/MediaTime.h"

namespace corvina {
class AssetReader;
class AssetReaderTrackOutput;
class AssetWriter;
class AssetWriterInput;
}  // namespace corvina

namespace corvina::tq {

class TQAVExport;

// Every callback is optional: the defaults do nothing.
class TQAVExportDelegate {
public:
    virtual ~TQAVExportDelegate() = default;
    virtual void avExportProgress(TQAVExport& exporter, float progress) { (void)exporter, (void)progress; }
    virtual void avExportFinished(TQAVExport& exporter) { (void)exporter; }
    virtual void avExportFailed(TQAVExport& exporter, const std::optional<corvina::Error>& error)
    {
        (void)exporter, (void)error;
    }
};

struct TQTimeRange {
    corvina::MediaTime start = corvina::MediaTime::zero();
    corvina::MediaTime duration = corvina::MediaTime::zero();
};

class TQAVExport {
public:
    TQAVExport();
    ~TQAVExport();
    TQAVExport(const TQAVExport&) = delete;
    TQAVExport& operator=(const TQAVExport&) = delete;

    void exportAsset();  // `export`, a reserved word in C++
    void cancel();

    // Internal steps, public as the design has them.
    corvina::Result<void> setupAssetReaderAndAssetWriter();
    corvina::Result<void> startAssetReaderAndWriter();
    void readingAndWritingDidFinishSuccessfully(bool success, const std::optional<corvina::Error>& error);

    // --- Properties -----------------------------------------------------------------------
    corvina::AssetRef asset() const;
    void setAsset(corvina::AssetRef asset);
    // A path, or a file URL.
    std::string outputURL() const;
    void setOutputURL(std::string url);
    bool cancelled() const { return cancelled_; }
    TQAVExportDelegate* delegate() const { return delegate_; }
    void setDelegate(TQAVExportDelegate* delegate) { delegate_ = delegate; }
    float audioProgress() const { return audioProgress_; }
    void setAudioProgress(float p) { audioProgress_ = p; }
    float videoProgress() const { return videoProgress_; }
    void setVideoProgress(float p) { videoProgress_ = p; }

    int64_t audioCodec = 1819304813;  // 'lpcm'
    uint32_t videoFourCC = 0;         // 0: video as stored
    TQTimeRange timeRange;
    bool dropFrame = false;
    struct Size {
        double width = 0, height = 0;
    } videoFrameSize;
    float videoBitrate = 0;
    uint64_t videoKeyFrameInterval = 0;
    uint64_t videoKeyFrameDuration = 0;
    uint64_t audioBitrate = 128000;
    uint64_t audioRate = 48000;
    uint64_t audioSampleSize = 16;
    bool audioFloatingPoint = false;
    bool audioLittleEndian = true;
    uint32_t audioLayout = 6619138;  // stereo
    uint64_t audioChannelCount = 2;

    // "<TQAVExport: 0x...>", as the queue labels carry it.
    std::string description() const;

private:
    struct Track;
    void pump(Track& track, std::atomic<float>& progress);
    void completion();
    std::string outputPath() const;
    void discardPartial();

    mutable std::mutex propertyMutex_;
    corvina::AssetRef asset_;
    std::string outputURL_;
    std::atomic<bool> cancelled_{false};
    // From the start of the pumps until the completion step: cancel() acts only then, and
    // only on the export that was in progress when it was called.
    std::atomic<bool> running_{false};
    std::atomic<uint64_t> runNumber_{0};
    std::atomic<TQAVExportDelegate*> delegate_{nullptr};
    std::atomic<float> audioProgress_{0};
    std::atomic<float> videoProgress_{0};

    std::shared_ptr<corvina::DispatchQueue> mainQueue_;
    std::shared_ptr<corvina::DispatchQueue> audioQueue_;
    std::shared_ptr<corvina::DispatchQueue> videoQueue_;
    std::unique_ptr<corvina::DispatchGroup> group_;
    std::unique_ptr<corvina::AssetReader> reader_;
    std::unique_ptr<corvina::AssetWriter> writer_;
    std::shared_ptr<Track> audio_;
    std::shared_ptr<Track> video_;
    std::string partialPath_;
    std::shared_ptr<std::atomic<int64_t>> lastPercent_;
    float total_ = 0;
    corvina::MediaTime totalStart_ = corvina::MediaTime::zero();
    int32_t totalScale_ = 1;
};

}  // namespace corvina::tq
