// One movie writing session: everything one run of createQuickTimeMovie holds while it turns
// a job into a movie (the format rows, the data files and their feeders, the destination, the
// writer and its inputs, the queues, the flags of the finish), owned here and gone with it.
//
// run() reads as the steps the session takes, each logging its numbered line (see
// src/CorvinaAVFHelper/README.md) and each giving success or the line that ends the run. What the run tells the summary
// and the stop that may end it stay with the AppController that started the session.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Dispatch/Dispatch.h"
#include "Foundation/Error.h"
#include "Foundation/FileHandle.h"
#include "Foundation/Result.h"
#include "helper/JobChecks.h"
#include "helper/MovieDestination.h"
#include "helper/MovieJob.h"
#include "helper/RunSummary.h"
#include "SampleBuffer/SampleBuffer.h"
#include "helper/TrackFeeder.h"

namespace corvina {
class AssetWriter;
class AssetWriterInput;
}  // namespace corvina

namespace corvina::helper {

class AppController;
struct AudioFormatInfo;
struct VideoFormatInfo;

class MovieSession {
public:
    MovieSession(AppController& controller, const MovieJob& job);
    ~MovieSession();
    MovieSession(const MovieSession&) = delete;
    MovieSession& operator=(const MovieSession&) = delete;

    // The whole session: 0 when the movie is in place, 1 otherwise.
    int64_t run();
    // Nothing unplayable stays: an unfinished movie goes with its temporary file.
    void close();
    // What the tracks and the destination tell the run's summary.
    void tellSummary(RunSummary& story) const;

private:
    // The steps, in the order run() takes them. A step that fails gives the line that ends
    // the run as its error's description (nothing for a stopped run); statusOf logs it.
    corvina::Result<void> describeFormats();
    corvina::Result<void> checkJob();
    void openDataFiles();
    corvina::Result<void> settleFrameSize();
    corvina::Result<void> checkRoom();
    corvina::Result<void> openWriter();
    corvina::Result<void> addInputs();
    corvina::Result<void> openReaders();
    corvina::Result<void> startWriting();
    void startPump();
    corvina::Result<void> waitForCompletion();
    int64_t statusOf(const corvina::Result<void>& done);

    // The pump, on the video queue: one turn feeds the track whose media ends earlier.
    void pump();
    template <class Next>
    bool feed(bool video, Next next);
    void endTrack(bool video);
    // The completion step, on the serialization queue once both tracks ended.
    void finishMovie();

    AppController& controller_;
    const MovieJob& job_;
    const AudioFormatInfo* audio_ = nullptr;  // null: no audio
    const VideoFormatInfo* video_ = nullptr;
    jobcheck::FrameSize size_;
    uint64_t videoFrames_ = 0;
    uint64_t audioFrames_ = 0;

    // The data files, each opened once with the acting user's rights, and their feeders.
    corvina::Error videoOpenError_;
    corvina::Error audioOpenError_;
    std::unique_ptr<VideoTrackFeeder> videoFeeder_;
    std::unique_ptr<AudioTrackFeeder> audioFeeder_;

    std::unique_ptr<MovieDestination> destination_;
    std::unique_ptr<corvina::AssetWriter> writer_;
    std::shared_ptr<corvina::AssetWriterInput> videoInput_;
    std::shared_ptr<corvina::AssetWriterInput> audioInput_;
    corvina::FormatDescriptionRef videoDescription_;
    corvina::FormatDescriptionRef audioDescription_;
    std::shared_ptr<corvina::DispatchQueue> serializationQueue_;
    std::shared_ptr<corvina::DispatchQueue> videoQueue_;
    std::shared_ptr<corvina::DispatchQueue> audioQueue_;  // made, as the log says, but idle
    std::shared_ptr<corvina::DispatchGroup> group_;

    // Written by the pump only.
    bool videoOpen_ = false;
    bool audioOpen_ = false;
    // The completion step's outcome; shared with it, so that it may outlive a session that
    // has seen it signal.
    struct Completion {
        std::atomic<bool> done{false};
        std::atomic<bool> failed{false};
        corvina::DispatchSemaphore signal{0};
    };
    std::shared_ptr<Completion> completion_ = std::make_shared<Completion>();
    bool pumpStarted_ = false;
};

}  // namespace corvina::helper
