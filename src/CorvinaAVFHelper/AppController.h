// The movie-assembly controller: createQuickTimeMovie takes one movie job (a settings
// document read once into a typed job) and writes one QuickTime movie from the raw essence
// files it names, sample by sample, without decoding or re-encoding anything.
//
// The controller holds what outlives a session: the run's summary, the stop that may end it
// from any thread, and the acting user. Everything one session holds (the feeders, the data
// files, the destination, the writer, the pump's flags) belongs to a MovieSession
// (MovieSession.h), made for the run and gone with it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "Foundation/Error.h"
#include "Foundation/UserIdentity.h"
#include "Foundation/Value.h"
#include "helper/MovieJob.h"
#include "helper/RunSummary.h"
#include "SampleBuffer/FormatDescription.h"

namespace corvina {
class AssetWriter;
}

namespace corvina::helper {

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

    // "<AppController: 0x...>", as the queue labels carry it.
    std::string description() const;

private:
    friend class MovieSession;
    int64_t runSession(const MovieJob& job, const std::optional<std::string>& replayPath);
    // Logs an error line that ends the run and keeps the first one for the summary; 1.
    int64_t fail(const std::string& line);
    void noteTrackError(bool video, const std::string& what);
    void publishWriter(corvina::AssetWriter* writer);
    template <class Edit>
    void editSummary(const Edit& edit)
    {
        std::lock_guard lock(mutex_);
        edit(summary_);
    }

    std::string settingsDocumentPath_;
    // The console user a root run acts for: every file of the session is opened and made with
    // that user's rights, on the main thread, in scopes that start no thread.
    std::optional<corvina::UserIdentity> actor_;
    std::atomic<bool> stopRequested_{false};
    mutable std::mutex mutex_;  // guards summary_ and liveWriter_
    RunSummary summary_;
    corvina::AssetWriter* liveWriter_ = nullptr;
};

}  // namespace corvina::helper
