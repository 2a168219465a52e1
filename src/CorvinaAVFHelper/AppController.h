// The movie-assembly controller: createQuickTimeMovie takes one movie job (a settings
// document read once into a typed job) and writes one QuickTime movie from the raw essence
// files it names, sample by sample, without decoding or re-encoding anything.
//
// A session opens the writer, opens the two feeders (one per track, each owning its data file
// and its position), runs one pump that feeds both tracks in media-time order on the video
// queue, and waits for the completion step that finishes the file. The controller's feeder
// properties are thin wrappers over the feeders; only the pump touches them while a session
// runs, so they are plain members.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Foundation/Error.h"
#include "Foundation/FileHandle.h"
#include "Foundation/UserIdentity.h"
#include "Foundation/Value.h"
#include "MovieJob.h"
#include "RunSummary.h"
#include "SampleBuffer/SampleBuffer.h"
#include "TrackFeeder.h"

namespace corvina {
class AssetWriter;
}

// One row of the video format table.
struct VideoFormatInfo {
    int64_t formatType;
    const char* name;  // as the log line names it
    corvina::FourCharCode codecType;
    int32_t width;  // 0: taken from the document's fWidth/fHeight, or from the first frame
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
    // on the main thread. The settings form writes the document back to the replay path and
    // reads it into a job; the job form copies the document it was read from there.
    int64_t createQuickTimeMovie(const corvina::Value& settings);
    int64_t createQuickTimeMovie(MovieJob job);

    // Where the settings document came from, for the run's summary and so that the movie is
    // never written over it.
    void setSettingsDocumentPath(std::string path) { settingsDocumentPath_ = std::move(path); }
    // Stops a running session from any thread: the writing is cancelled, nothing is put in
    // place and the session returns 1. The reason is logged once.
    void requestStop(const std::string& reason);
    bool stopRequested() const { return stopRequested_.load(); }
    // The story of the last session (also written to the log when it ends).
    RunSummary summary() const;

    // The -settings mode: formatType, frameRate, fWidth, fHeight and audioFormat of a settings
    // document that would assemble essence like the movie at `path`. A none value (and a
    // message on standard error and in the log) when the movie cannot be read or its video is
    // not a format the helper writes.
    corvina::Value settingsForMovieFile(const std::string& path);

    // Format tables. Null when the code is not in the table.
    static const VideoFormatInfo* videoFormatForType(int64_t formatType);
    static const AudioFormatInfo* audioFormatForCode(int64_t audioFormat);
    // The code's four characters, most significant byte first, each byte taken as the
    // character of that number (bytes of 128 and above as U+0080 to U+00FF, in UTF-8).
    static std::string codecTypeFrom4CC(uint32_t code);
    // A linear PCM description with its channel layout; null (and a log line) on failure.
    corvina::FormatDescriptionRef audioFormatDescriptionForChannels(uint64_t channels, bool stereo, uint64_t bitDepth,
                                                                    uint64_t sampleRate, bool bigEndian);

    // Sample feeders: the next sample buffer of each track, or null at the end of the track
    // (or when a sample cannot be read or wrapped). Only the track's own pump calls them.
    std::unique_ptr<corvina::SampleBuffer> copyNextVideoSampleBuffer(const corvina::FormatDescriptionRef& format,
                                                                     float fps);
    std::unique_ptr<corvina::SampleBuffer> copyNextAudioSampleBuffer(const corvina::FormatDescriptionRef& format,
                                                                     uint64_t sampleRate, uint64_t bytesPerFrame);

    // The completion report: logs the outcome of finishing the movie and records it.
    void readingAndWritingDidFinishSuccessfully(bool success, const std::optional<corvina::Error>& error);

    // Properties: wrappers over the two feeders (made on first use from the handle and the
    // table set here). Setting a handle or a table keeps the track's position.
    std::shared_ptr<corvina::FileHandle> videoHandle() const { return videoHandle_; }
    void setVideoHandle(std::shared_ptr<corvina::FileHandle> h);
    std::shared_ptr<corvina::FileHandle> audioHandle() const { return audioHandle_; }
    void setAudioHandle(std::shared_ptr<corvina::FileHandle> h);
    std::shared_ptr<const MediaEntryTable> videoOffsets() const { return videoEntries_; }
    void setVideoOffsets(const corvina::Value& v);
    void setVideoOffsets(std::shared_ptr<const MediaEntryTable> entries);
    std::shared_ptr<const MediaEntryTable> audioOffsets() const { return audioEntries_; }
    void setAudioOffsets(const corvina::Value& v);
    void setAudioOffsets(std::shared_ptr<const MediaEntryTable> entries);
    uint64_t curVideoSampleIndex() const { return videoFeeder_ ? videoFeeder_->entryIndex() : 0; }
    void setCurVideoSampleIndex(uint64_t v) { videoFeeder().setEntryIndex(v); }
    uint64_t numVideoSamplesAppended() const { return videoFeeder_ ? videoFeeder_->framesHandedOut() : 0; }
    void setNumVideoSamplesAppended(uint64_t v) { videoFeeder().setFramesHandedOut(v); }
    uint64_t curAudioSampleIndex() const { return audioFeeder_ ? audioFeeder_->entryIndex() : 0; }
    void setCurAudioSampleIndex(uint64_t v) { audioFeeder().setEntryIndex(v); }
    uint64_t curAudioSampleSubIndex() const { return audioFeeder_ ? audioFeeder_->frameIndex() : 0; }
    void setCurAudioSampleSubIndex(uint64_t v) { audioFeeder().setFrameIndex(v); }
    uint64_t numAudioSamplesAppended() const { return audioFeeder_ ? audioFeeder_->framesHandedOut() : 0; }
    void setNumAudioSamplesAppended(uint64_t v) { audioFeeder().setFramesHandedOut(v); }
    bool videoFinished() const { return videoFinished_; }
    void setVideoFinished(bool v) { videoFinished_ = v; }
    bool audioFinished() const { return audioFinished_; }
    void setAudioFinished(bool v) { audioFinished_ = v; }

    // The track feeders behind the properties.
    VideoTrackFeeder& videoFeeder();
    AudioTrackFeeder& audioFeeder();

    // "<AppController: 0x...>", as the queue labels carry it.
    std::string description() const;

private:
    struct Session;
    void resetForSession(const MovieJob& job);
    int64_t runSession(const MovieJob& job, const std::optional<std::string>& replayPath);
    int64_t runGuardedSession(const MovieJob& job, Session& session);
    // Each gives 0, or the failure status with its line logged.
    int64_t openWriter(const MovieJob& job, Session& session);
    int64_t openReaders(const MovieJob& job, Session& session);
    void startPump(Session& session);
    int64_t waitForCompletion(Session& session);
    // Logs an error line that ends the run and keeps the first one for the summary.
    int64_t fail(const std::string& line);
    void noteTrackError(bool video, const std::string& what);
    void publishWriter(corvina::AssetWriter* writer);

    std::shared_ptr<corvina::FileHandle> videoHandle_;
    std::shared_ptr<corvina::FileHandle> audioHandle_;
    std::shared_ptr<const MediaEntryTable> videoEntries_ = std::make_shared<const MediaEntryTable>();
    std::shared_ptr<const MediaEntryTable> audioEntries_ = std::make_shared<const MediaEntryTable>();
    std::unique_ptr<VideoTrackFeeder> videoFeeder_;
    std::unique_ptr<AudioTrackFeeder> audioFeeder_;
    bool videoFinished_ = false;
    bool audioFinished_ = false;
    std::atomic<bool> finishedWithError_{false};

    std::string settingsDocumentPath_;
    // The console user a root run acts for: every file of the session is opened and made with
    // that user's rights, on the main thread, in scopes that start no thread.
    std::optional<corvina::UserIdentity> actor_;
    std::atomic<bool> stopRequested_{false};
    mutable std::mutex mutex_;  // guards summary_ and liveWriter_
    RunSummary summary_;
    corvina::AssetWriter* liveWriter_ = nullptr;
};
