// The movie writing session.
#include "AppController.h"

#include <chrono>
#include <filesystem>
#include <system_error>

#include "Dispatch/Dispatch.h"
#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "QuickTime/AssetWriter.h"
#include "TQAVFoundation.h"
#include "TQAlert.h"
#include "TQException.h"
#include "TQFileManager.h"
#include "TQLocalPaths.h"
#include "TQLog.h"

using namespace corvina;

namespace {

constexpr const char* kSessionMethod = "-[AppController createQuickTimeMovie:]";
constexpr const char* kUnknownFormatText =
    "This movie is an unknown video format. Please report this error to Brantwell.";

}  // namespace

struct AppController::Session {
    std::unique_ptr<AssetWriter> writer;
    std::shared_ptr<AssetWriterInput> videoInput;
    std::shared_ptr<AssetWriterInput> audioInput;
    std::shared_ptr<DispatchQueue> serializationQueue;
    std::shared_ptr<DispatchQueue> videoQueue;
    std::shared_ptr<DispatchQueue> audioQueue;
    std::shared_ptr<DispatchGroup> group;
    FormatDescriptionRef videoDescription;
    FormatDescriptionRef audioDescription;
    bool hasAudio = false;
    std::atomic<bool> completed{false};
    DispatchSemaphore completion{0};
    bool started = false;
};

AppController::AppController() = default;

AppController::~AppController() = default;

std::string AppController::description() const
{
    return format("<AppController: %p>", static_cast<const void*>(this));
}

Value AppController::settingsForMovieFile(const std::string& /*path*/)
{
    return Value(Value::DictionaryType{});
}

int64_t AppController::createQuickTimeMovie(const Value& settings)
{
    // The document goes back to the replay path first, so the last movie can be assembled
    // again by starting the helper without arguments.
    if (const auto replayPath = TQLocalPaths::replaySettingsPath()) settings.writeToFile(*replayPath, true);
    return runSession(MovieJob::fromSettings(settings));
}

int64_t AppController::createQuickTimeMovie(MovieJob job)
{
    // The job's own document goes to the replay path, unless it was read from there.
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    if (replayPath && !job.documentPath.empty()) {
        std::error_code ec;
        if (!std::filesystem::equivalent(job.documentPath, *replayPath, ec)) {
            const std::string beside = *replayPath + ".copying";
            std::filesystem::copy_file(job.documentPath, beside, std::filesystem::copy_options::overwrite_existing, ec);
            if (!ec) std::filesystem::rename(beside, *replayPath, ec);
            if (ec) std::filesystem::remove(beside, ec);
        }
    }
    return runSession(job);
}

void AppController::resetForSession(const MovieJob& job)
{
    videoHandle_.reset();
    audioHandle_.reset();
    videoEntries_ = job.videoEntries;
    audioEntries_ = job.audioEntries;
    videoFeeder_.reset();
    audioFeeder_.reset();
    videoFinished_ = false;
    audioFinished_ = false;
    finishedWithError_.store(false);
}

int64_t AppController::runSession(const MovieJob& job)
{
    resetForSession(job);
    TQFileManager::removeFile(job.destFilename);

    Session session;
    int64_t status = 1;
    try {
        status = runGuardedSession(job, session);
        if (status != 0 && session.writer && !session.started) {
            // Nothing was written: leave no empty movie behind.
            session.writer->cancelWriting();
            std::error_code ignored;
            std::filesystem::remove(job.destFilename, ignored);
        }
    } catch (const PlatformException& exception) {
        TQException::logException(exception, kSessionMethod);
        status = 1;
    } catch (...) {
        TQLog::appendLog("Removing temp data files...");
        throw;
    }
    TQLog::appendLog("Removing temp data files...");
    return status;
}

int64_t AppController::runGuardedSession(const MovieJob& job, Session& session)
{
    TQLog::appendLog("Preparing QuickTime movie...");

    // Audio first: the format line, the description and what the feeder needs.
    const AudioFormatInfo* audio = audioFormatForCode(job.audioFormat);
    if (audio) {
        TQLog::appendLog(audio->logLine);
        session.audioDescription =
            audioFormatDescriptionForChannels(audio->channels, audio->stereo, 16, audio->sampleRate, audio->bigEndian);
        session.hasAudio = true;
    } else {
        TQLog::appendLog("No audio");
    }

    const VideoFormatInfo* video = videoFormatForType(job.formatType);
    if (!video) {
        TQLog::appendLog(format("Unknown video format. %s", kUnknownFormatText));
        TQAlert::alertSheetWithMessageText("Unknown video format", kUnknownFormatText, nullptr);
        // Without a codec type nothing sensible can be written: the session ends here.
        return 1;
    }
    int32_t width = video->width;
    int32_t height = video->height;
    if (width == 0) {
        width = job.fWidth;
        height = job.fHeight;
        TQLog::appendLog(format("Video format is %s %%ix%%i", video->name), static_cast<int>(width),
                         static_cast<int>(height));
    } else {
        TQLog::appendLog(format("Video format is %s", video->name));
    }
    TQLog::appendLog("Video format: %@", TQAVFoundation::fourCCString(video->codecType));
    TQLog::appendLog("1");

    const FrameTiming timing = job.frameTiming();
    if (!timing.usable()) {
        TQLog::appendLog("Error: frame rate %0.3f is not usable. A movie needs a frame rate above 0.",
                         static_cast<double>(job.frameRate));
        return 1;
    }

    if (!openWriter(job, session) || !openReaders(job, session)) return 1;

    const std::string self = description();
    session.serializationQueue = DispatchQueue::createSerial(format("%@ serialization queue", self));
    session.videoQueue = DispatchQueue::createSerial(format("%@ rw video serialization queue", self));
    session.audioQueue = DispatchQueue::createSerial(format("%@ rw audio serialization queue", self));
    TQLog::appendLog("10");

    if (FormatDescription::createVideo(video->codecType, width, height, &session.videoDescription) != kNoErr ||
        !session.videoDescription) {
        TQLog::appendLog("Error: failed to create video format description.");
        return 1;
    }
    TQLog::appendLog("11");
    videoFeeder().setFormat(session.videoDescription, timing);
    if (session.hasAudio) audioFeeder().setFormat(session.audioDescription, audio->sampleRate, audio->feederBytesPerFrame);

    session.group = std::make_shared<DispatchGroup>();
    if (!session.writer->startWriting()) {
        TQLog::appendLog("12");
        TQLog::appendLog("Error starting AssetWriter: %@", session.writer->error().value_or(Error{}));
        return 1;
    }
    session.writer->startSessionAtSourceTime(MediaTime::zero());
    session.started = true;
    TQLog::appendLog("12");

    startPump(session);
    return waitForCompletion(session);
}

bool AppController::openWriter(const MovieJob& job, Session& session)
{
    Error writerError;
    session.writer = AssetWriter::create(job.destFilename, kFileTypeQuickTimeMovie, &writerError);
    TQLog::appendLog("2");
    if (!session.writer) {
        TQLog::appendLog("Error creating AssetWriter: %@", writerError);
        return false;
    }
    TQLog::appendLog("3");

    session.videoInput = AssetWriterInput::create(MediaType::Video, nullptr);
    session.videoInput->setExpectsMediaDataInRealTime(true);
    TQLog::appendLog("4");
    if (!session.writer->canAddInput(*session.videoInput)) {
        TQLog::appendLog("Error: unable to add writer input");
        return false;
    }
    TQLog::appendLog("added video input");
    session.writer->addInput(session.videoInput);
    TQLog::appendLog("5");

    session.audioInput = AssetWriterInput::create(MediaType::Audio, nullptr);
    session.audioInput->setExpectsMediaDataInRealTime(true);
    TQLog::appendLog("6");
    if (!session.writer->canAddInput(*session.audioInput)) {
        TQLog::appendLog("Error: unable to add audio writer input");
        return false;
    }
    TQLog::appendLog("added audio input");
    session.writer->addInput(session.audioInput);
    TQLog::appendLog("7");
    return true;
}

bool AppController::openReaders(const MovieJob& job, Session&)
{
    std::shared_ptr<FileHandle> videoReader = FileHandle::forReadingAtPath(job.tmpFilename);
    if (!videoReader) {
        TQLog::appendLog("Error creating video read handle for %@", job.tmpFilename);
        return false;
    }
    setVideoHandle(videoReader);
    videoFeeder_ = std::make_unique<VideoTrackFeeder>(videoHandle_, videoEntries_);
    TQLog::appendLog("8");

    std::shared_ptr<FileHandle> audioReader = FileHandle::forReadingAtPath(job.tmpAudioFilename);
    if (!audioReader) {
        TQLog::appendLog("Error creating audio read handle for %@", job.tmpAudioFilename);
        return false;
    }
    setAudioHandle(audioReader);
    audioFeeder_ = std::make_unique<AudioTrackFeeder>(audioHandle_, audioEntries_);
    TQLog::appendLog("9");
    return true;
}

void AppController::startPump(Session& session)
{
    // One pump feeds both tracks on the video queue: the track whose media ends earlier gets
    // the next sample (video on a tie), so the tracks stay within a frame of each other, the
    // writer never has to hold either back, and the chunks land in the same order every run.
    session.group->enter();
    if (session.hasAudio) session.group->enter();
    TQLog::appendLog("13");

    auto group = session.group;
    auto videoInput = session.videoInput;
    auto audioInput = session.audioInput;
    const bool hasAudio = session.hasAudio;
    session.videoQueue->async([this, group, videoInput, audioInput, hasAudio] {
        VideoTrackFeeder& video = *videoFeeder_;
        AudioTrackFeeder& audio = *audioFeeder_;
        const FrameTiming timing = video.timing();
        const auto audioRate = static_cast<unsigned __int128>(audio.sampleRate());
        bool videoOpen = true;
        bool audioOpen = hasAudio;
        const auto finish = [&group](AssetWriterInput& input, bool& open, bool& finished) {
            open = false;
            finished = true;
            input.markAsFinished();
            group->leave();
        };
        while (videoOpen || audioOpen) {
            // video end <= audio end: frames * duration / timescale <= audioFrames / rate
            const bool takeVideo =
                videoOpen && (!audioOpen || static_cast<unsigned __int128>(video.framesHandedOut()) *
                                                    static_cast<uint64_t>(timing.frameDuration) * audioRate <=
                                                static_cast<unsigned __int128>(audio.framesHandedOut()) *
                                                    static_cast<uint64_t>(timing.timescale));
            if (takeVideo) {
                const SampleBuffer* sample = nullptr;
                try {
                    sample = video.next();
                    if (sample && !videoInput->appendSampleBuffer(*sample)) {
                        TQLog::appendLog("Error appending video sample. The video track ends here.");
                        sample = nullptr;
                    }
                } catch (const PlatformException& exception) {
                    TQException::logException(exception, "-[AppController copyNextVideoSampleBuffer:fps:]");
                    sample = nullptr;
                }
                if (!sample) finish(*videoInput, videoOpen, videoFinished_);
            } else {
                const SampleBuffer* sample = nullptr;
                try {
                    sample = audio.next();
                    if (sample && !audioInput->appendSampleBuffer(*sample)) {
                        TQLog::appendLog("Error appending audio sample. The audio track ends here.");
                        sample = nullptr;
                    }
                } catch (const PlatformException& exception) {
                    TQException::logException(exception,
                                              "-[AppController copyNextAudioSampleBuffer:sampleRate:bytesPerFrame:]");
                    sample = nullptr;
                }
                if (!sample) finish(*audioInput, audioOpen, audioFinished_);
            }
        }
    });
    TQLog::appendLog("14");
}

int64_t AppController::waitForCompletion(Session& session)
{
    // The completion step: close the handles and finish the file once both tracks are done.
    AssetWriter* writer = session.writer.get();
    std::atomic<bool>* completed = &session.completed;
    DispatchSemaphore* completion = &session.completion;
    session.group->notify(*session.serializationQueue, [this, writer, completed, completion] {
        try {
            if (videoHandle_) videoHandle_->closeFile();
            if (audioHandle_) audioHandle_->closeFile();
            const bool success = writer->finishWriting();
            std::optional<Error> error;
            if (!success) error = writer->error();
            readingAndWritingDidFinishSuccessfully(success, error);
        } catch (const PlatformException& exception) {
            TQException::logException(exception, kSessionMethod);
            finishedWithError_.store(true);
        }
        completed->store(true);
        completion->signal();
        notifyMainThreadWaiters();
    });
    TQLog::appendLog("15");
    TQLog::appendLog("17");
    TQLog::appendLog("File created successfully");

    // The main thread waits for the completion step, answering main-queue work meanwhile.
    if (isMainThread()) {
        runMainQueueUntil([completed] { return completed->load(); });
    } else {
        completion->wait();
    }
    return finishedWithError_.load() ? 1 : 0;
}

void AppController::readingAndWritingDidFinishSuccessfully(bool success, const std::optional<Error>& error)
{
    if (success) {
        TQLog::appendLog("Finished writing movie.");
        return;
    }
    finishedWithError_.store(true);
    if (error) {
        TQLog::appendLog("Error finishing movie: %@", *error);
    } else {
        TQLog::appendLog("Error finishing movie: the writer gave no reason.");
    }
}
