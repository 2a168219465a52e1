// The movie writing session.
#include "AppController.h"

#include <chrono>
#include <filesystem>

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

// What a pump needs besides the controller.
struct TrackFeed {
    std::shared_ptr<AssetWriterInput> input;
    std::shared_ptr<DispatchGroup> group;
    FormatDescriptionRef format;
};

}  // namespace

struct AppController::Session {
    std::unique_ptr<AssetWriter> writer;
    std::shared_ptr<AssetWriterInput> videoInput;
    std::shared_ptr<AssetWriterInput> audioInput;
    std::shared_ptr<DispatchQueue> serializationQueue;
    std::shared_ptr<DispatchQueue> videoQueue;
    std::shared_ptr<DispatchQueue> audioQueue;
    std::shared_ptr<DispatchGroup> group;
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

int64_t AppController::createQuickTimeMovie(const Value& settings)
{
    // The document goes back to the replay path first, so the last movie can be assembled
    // again by starting the helper without arguments.
    if (const auto replayPath = TQLocalPaths::replaySettingsPath()) settings.writeToFile(*replayPath, true);

    setVideoHandle(nullptr);
    setAudioHandle(nullptr);
    setCurVideoSampleIndex(0);
    setNumVideoSamplesAppended(0);
    setCurAudioSampleIndex(0);
    setNumAudioSamplesAppended(0);
    setVideoFinished(false);
    setAudioFinished(false);
    finishedWithError_.store(false);

    setVideoOffsets(settings["offsetArray"]);
    setAudioOffsets(settings["audioOffsetArray"]);
    TQFileManager::removeFile(settings["destFilename"].stringValue());

    Session session;
    int64_t status = 1;
    try {
        status = runGuardedSession(settings, session);
        if (status != 0 && session.writer && !session.started) {
            // Nothing was written: leave no empty movie behind.
            session.writer->cancelWriting();
            std::error_code ignored;
            std::filesystem::remove(settings["destFilename"].stringValue(), ignored);
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

int64_t AppController::runGuardedSession(const Value& settings, Session& session)
{
    const std::string tmpFilename = settings["tmpFilename"].stringValue();
    const std::string tmpAudioFilename = settings["tmpAudioFilename"].stringValue();
    const int64_t formatType = settings["formatType"].integerValue();
    const float frameRate = settings["frameRate"].floatValue();
    const std::string destFilename = settings["destFilename"].stringValue();
    const int64_t audioFormat = settings["audioFormat"].integerValue();

    TQLog::appendLog("Preparing QuickTime movie...");

    // Audio first: the format line, the description and what the feeder needs.
    const AudioFormatInfo* audio = audioFormatForCode(audioFormat);
    FormatDescriptionRef audioDescription;
    if (audio) {
        TQLog::appendLog(audio->logLine);
        audioDescription =
            audioFormatDescriptionForChannels(audio->channels, audio->stereo, 16, audio->sampleRate, audio->bigEndian);
    } else {
        TQLog::appendLog("No audio");
    }

    const int16_t fWidth = settings.objectForKey("fWidth") ? settings["fWidth"].shortValue() : int16_t(0);
    const int16_t fHeight = settings.objectForKey("fHeight") ? settings["fHeight"].shortValue() : int16_t(0);

    const VideoFormatInfo* video = videoFormatForType(formatType);
    if (!video) {
        TQLog::appendLog(format("Unknown video format. %s", kUnknownFormatText));
        TQAlert::alertSheetWithMessageText("Unknown video format", kUnknownFormatText, nullptr);
        // Without a codec type nothing sensible can be written: the session ends here.
        return 1;
    }
    int32_t width = video->width;
    int32_t height = video->height;
    if (width == 0) {
        width = fWidth;
        height = fHeight;
        TQLog::appendLog(format("Video format is %s %%ix%%i", video->name), static_cast<int>(width),
                         static_cast<int>(height));
    } else {
        TQLog::appendLog(format("Video format is %s", video->name));
    }
    TQLog::appendLog("Video format: %@", TQAVFoundation::fourCCString(video->codecType));
    TQLog::appendLog("1");

    if (!(frameRate > 0.0f)) {
        TQLog::appendLog("Error: frame rate %0.3f is not usable. A movie needs a frame rate above 0.",
                         static_cast<double>(frameRate));
        return 1;
    }

    Error writerError;
    session.writer = AssetWriter::create(destFilename, kFileTypeQuickTimeMovie, &writerError);
    TQLog::appendLog("2");
    if (!session.writer) {
        TQLog::appendLog("Error creating AssetWriter: %@", writerError);
        return 1;
    }
    TQLog::appendLog("3");

    session.videoInput = AssetWriterInput::create(MediaType::Video, nullptr);
    session.videoInput->setExpectsMediaDataInRealTime(true);
    TQLog::appendLog("4");
    if (!session.writer->canAddInput(*session.videoInput)) {
        TQLog::appendLog("Error: unable to add writer input");
        return 1;
    }
    TQLog::appendLog("added video input");
    session.writer->addInput(session.videoInput);
    TQLog::appendLog("5");

    session.audioInput = AssetWriterInput::create(MediaType::Audio, nullptr);
    session.audioInput->setExpectsMediaDataInRealTime(true);
    TQLog::appendLog("6");
    if (!session.writer->canAddInput(*session.audioInput)) {
        TQLog::appendLog("Error: unable to add audio writer input");
        return 1;
    }
    TQLog::appendLog("added audio input");
    session.writer->addInput(session.audioInput);
    TQLog::appendLog("7");

    std::shared_ptr<FileHandle> videoReader = FileHandle::forReadingAtPath(tmpFilename);
    if (!videoReader) {
        TQLog::appendLog("Error creating video read handle for %@", tmpFilename);
        return 1;
    }
    setVideoHandle(videoReader);
    TQLog::appendLog("8");

    std::shared_ptr<FileHandle> audioReader = FileHandle::forReadingAtPath(tmpAudioFilename);
    if (!audioReader) {
        TQLog::appendLog("Error creating audio read handle for %@", tmpAudioFilename);
        return 1;
    }
    setAudioHandle(audioReader);
    TQLog::appendLog("9");

    const std::string self = description();
    session.serializationQueue = DispatchQueue::createSerial(format("%@ serialization queue", self));
    session.videoQueue = DispatchQueue::createSerial(format("%@ rw video serialization queue", self));
    session.audioQueue = DispatchQueue::createSerial(format("%@ rw audio serialization queue", self));
    TQLog::appendLog("10");

    FormatDescriptionRef videoDescription;
    if (FormatDescription::createVideo(video->codecType, width, height, &videoDescription) != kNoErr ||
        !videoDescription) {
        TQLog::appendLog("Error: failed to create video format description.");
        return 1;
    }
    TQLog::appendLog("11");

    session.group = std::make_shared<DispatchGroup>();
    if (!session.writer->startWriting()) {
        TQLog::appendLog("12");
        TQLog::appendLog("Error starting AssetWriter: %@", session.writer->error().value_or(Error{}));
        return 1;
    }
    session.writer->startSessionAtSourceTime(MediaTime::zero());
    session.started = true;
    TQLog::appendLog("12");

    // The pumps: while the input is ready, append what the feeder hands out; the first null
    // finishes the track and leaves the group, once.
    session.group->enter();
    {
        TrackFeed feed{session.videoInput, session.group, videoDescription};
        session.videoInput->requestMediaDataWhenReadyOnQueue(session.videoQueue, [this, feed, frameRate] {
            while (feed.input->isReadyForMoreMediaData()) {
                std::unique_ptr<SampleBuffer> sample;
                try {
                    sample = copyNextVideoSampleBuffer(feed.format, frameRate);
                    if (sample && !feed.input->appendSampleBuffer(*sample)) {
                        TQLog::appendLog("Error appending video sample. The video track ends here.");
                        sample.reset();
                    }
                } catch (const PlatformException& exception) {
                    TQException::logException(exception, "-[AppController copyNextVideoSampleBuffer:fps:]");
                    sample.reset();
                }
                if (!sample) {
                    if (!videoFinished_.exchange(true)) {
                        feed.input->markAsFinished();
                        feed.group->leave();
                    }
                    return;
                }
            }
        });
    }
    TQLog::appendLog("13");

    if (audio) {
        session.group->enter();
        TrackFeed feed{session.audioInput, session.group, audioDescription};
        const uint64_t sampleRate = audio->sampleRate;
        const uint64_t bytesPerFrame = audio->feederBytesPerFrame;
        session.audioInput->requestMediaDataWhenReadyOnQueue(
            session.audioQueue, [this, feed, sampleRate, bytesPerFrame] {
                while (feed.input->isReadyForMoreMediaData()) {
                    std::unique_ptr<SampleBuffer> sample;
                    try {
                        sample = copyNextAudioSampleBuffer(feed.format, sampleRate, bytesPerFrame);
                        if (sample && !feed.input->appendSampleBuffer(*sample)) {
                            TQLog::appendLog("Error appending audio sample. The audio track ends here.");
                            sample.reset();
                        }
                    } catch (const PlatformException& exception) {
                        TQException::logException(
                            exception, "-[AppController copyNextAudioSampleBuffer:sampleRate:bytesPerFrame:]");
                        sample.reset();
                    }
                    if (!sample) {
                        if (!audioFinished_.exchange(true)) {
                            feed.input->markAsFinished();
                            feed.group->leave();
                        }
                        return;
                    }
                }
            });
    }
    TQLog::appendLog("14");

    // The completion step: close the handles and finish the file once both tracks are done.
    AssetWriter* writer = session.writer.get();
    std::atomic<bool>* completed = &session.completed;
    DispatchSemaphore* completion = &session.completion;
    session.group->notify(*session.serializationQueue, [this, writer, completed, completion] {
        try {
            if (auto handle = videoHandle()) handle->closeFile();
            if (auto handle = audioHandle()) handle->closeFile();
            setVideoHandle(nullptr);
            setAudioHandle(nullptr);
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
