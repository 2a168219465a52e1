// The movie-assembly controller: createQuickTimeMovie takes one settings document and writes
// one QuickTime movie from the raw essence files it names, sample by sample, without
// decoding or re-encoding anything.
//
// The session feeds the video and the audio track concurrently, each on a serial queue of its
// own through the writer's pull model; a dispatch group joins the tracks and a completion
// step on a third queue finishes the file. The controller's state is a set of properties with
// atomic accessors: each get and each set is indivisible on its own, and the video side and
// the audio side share none of them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Foundation/Error.h"
#include "Foundation/FileHandle.h"
#include "Foundation/Value.h"
#include "RunSummary.h"
#include "SampleBuffer/SampleBuffer.h"

namespace corvina {
class AssetWriter;
}

// One row of the video format table.
struct VideoFormatInfo {
    int64_t formatType;
    const char* name;               // as the log line names it
    corvina::FourCharCode codecType;
    int32_t width;                  // 0: taken from the document's fWidth/fHeight
    int32_t height;
};

// One row of the audio format table.
struct AudioFormatInfo {
    int64_t audioFormat;
    uint64_t channels;
    bool stereo;
    uint64_t sampleRate;
    bool bigEndian;
    const char* logLine;
    uint64_t feederBytesPerFrame;
};

class AppController {
public:
    AppController();
    ~AppController();
    AppController(const AppController&) = delete;
    AppController& operator=(const AppController&) = delete;

    // Runs one movie writing session; 0 on success, 1 on failure. Called once per controller,
    // on the main thread.
    int64_t createQuickTimeMovie(const corvina::Value& settings);

    // Where the settings document came from, for the run's summary and so that the movie is
    // never written over it.
    void setSettingsDocumentPath(std::string path) { settingsDocumentPath_ = std::move(path); }
    // Stops a running session from any thread: the writing is cancelled, nothing is put in
    // place and the session returns 1. The reason is logged once.
    void requestStop(const std::string& reason);
    bool stopRequested() const { return stopRequested_.load(); }
    // The story of the last session (also written to the log when it ends).
    RunSummary summary() const;

    // The -settings mode: what the helper knows about a movie file. Empty for now.
    corvina::Value settingsForMovieFile(const std::string& path);

    // Format tables. Null when the code is not in the table.
    static const VideoFormatInfo* videoFormatForType(int64_t formatType);
    static const AudioFormatInfo* audioFormatForCode(int64_t audioFormat);
    // A linear PCM description with its channel layout; null (and a log line) on failure.
    corvina::FormatDescriptionRef audioFormatDescriptionForChannels(uint64_t channels, bool stereo, uint64_t bitDepth,
                                                                    uint64_t sampleRate, bool bigEndian);
    // The code's four bytes, most significant first, each byte one character (Latin-1).
    static std::string codecTypeFrom4CC(uint32_t code);

    // Sample feeders: the next sample buffer of each track, or null at the end of the track
    // (or when a sample cannot be read or wrapped). Only the track's own pump calls them.
    std::unique_ptr<corvina::SampleBuffer> copyNextVideoSampleBuffer(const corvina::FormatDescriptionRef& format,
                                                                     float fps);
    std::unique_ptr<corvina::SampleBuffer> copyNextAudioSampleBuffer(const corvina::FormatDescriptionRef& format,
                                                                     uint64_t sampleRate, uint64_t bytesPerFrame);

    // The completion report: logs the outcome of finishing the movie and records it.
    void readingAndWritingDidFinishSuccessfully(bool success, const std::optional<corvina::Error>& error);

    // Properties.
    std::shared_ptr<corvina::FileHandle> videoHandle() const { return videoHandle_.load(); }
    void setVideoHandle(std::shared_ptr<corvina::FileHandle> h) { videoHandle_.store(std::move(h)); }
    std::shared_ptr<corvina::FileHandle> audioHandle() const { return audioHandle_.load(); }
    void setAudioHandle(std::shared_ptr<corvina::FileHandle> h) { audioHandle_.store(std::move(h)); }
    std::shared_ptr<const corvina::Value> videoOffsets() const { return videoOffsets_.load(); }
    void setVideoOffsets(corvina::Value v) { videoOffsets_.store(std::make_shared<const corvina::Value>(std::move(v))); }
    std::shared_ptr<const corvina::Value> audioOffsets() const { return audioOffsets_.load(); }
    void setAudioOffsets(corvina::Value v) { audioOffsets_.store(std::make_shared<const corvina::Value>(std::move(v))); }
    uint64_t curVideoSampleIndex() const { return curVideoSampleIndex_.load(); }
    void setCurVideoSampleIndex(uint64_t v) { curVideoSampleIndex_.store(v); }
    uint64_t numVideoSamplesAppended() const { return numVideoSamplesAppended_.load(); }
    void setNumVideoSamplesAppended(uint64_t v) { numVideoSamplesAppended_.store(v); }
    uint64_t curAudioSampleIndex() const { return curAudioSampleIndex_.load(); }
    void setCurAudioSampleIndex(uint64_t v) { curAudioSampleIndex_.store(v); }
    uint64_t curAudioSampleSubIndex() const { return curAudioSampleSubIndex_.load(); }
    void setCurAudioSampleSubIndex(uint64_t v) { curAudioSampleSubIndex_.store(v); }
    uint64_t numAudioSamplesAppended() const { return numAudioSamplesAppended_.load(); }
    void setNumAudioSamplesAppended(uint64_t v) { numAudioSamplesAppended_.store(v); }
    bool videoFinished() const { return videoFinished_.load(); }
    void setVideoFinished(bool v) { videoFinished_.store(v); }
    bool audioFinished() const { return audioFinished_.load(); }
    void setAudioFinished(bool v) { audioFinished_.store(v); }

    // "<AppController: 0x...>", as the queue labels carry it.
    std::string description() const;

private:
    struct Session;
    int64_t runGuardedSession(const corvina::Value& settings, Session& session);
    // Logs an error line that ends the run and keeps the first one for the summary.
    int64_t fail(const std::string& line);
    void noteTrackError(bool video, const std::string& what);
    void publishWriter(corvina::AssetWriter* writer);

    std::atomic<std::shared_ptr<corvina::FileHandle>> videoHandle_;
    std::atomic<std::shared_ptr<corvina::FileHandle>> audioHandle_;
    std::atomic<std::shared_ptr<const corvina::Value>> videoOffsets_;
    std::atomic<std::shared_ptr<const corvina::Value>> audioOffsets_;
    std::atomic<uint64_t> curVideoSampleIndex_{0};
    std::atomic<uint64_t> numVideoSamplesAppended_{0};
    std::atomic<uint64_t> curAudioSampleIndex_{0};
    std::atomic<uint64_t> curAudioSampleSubIndex_{0};
    std::atomic<uint64_t> numAudioSamplesAppended_{0};
    std::atomic<bool> videoFinished_{false};
    std::atomic<bool> audioFinished_{false};
    std::atomic<bool> finishedWithError_{false};

    std::string settingsDocumentPath_;
    std::atomic<bool> stopRequested_{false};
    mutable std::mutex mutex_;  // guards summary_ and liveWriter_
    RunSummary summary_;
    corvina::AssetWriter* liveWriter_ = nullptr;
};
