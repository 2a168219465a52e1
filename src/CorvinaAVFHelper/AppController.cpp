// The movie writing session.
#include "AppController.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "Dispatch/Dispatch.h"
#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "JobChecks.h"
#include "MovieDestination.h"
#include "QuickTime/AssetWriter.h"
#include "TQAVFoundation.h"
#include "TQAlert.h"
#include "TQException.h"
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
    std::unique_ptr<MovieDestination> destination;
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

namespace {

constexpr int64_t kFirstProResFormat = 30;
constexpr int64_t kLastProResFormat = 35;

uint64_t regularFileSize(const std::string& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0;
}

// The first bytes of the first video entry, for formats that carry their frame size there.
std::vector<uint8_t> firstFrameStart(const std::string& path, const Value& entries, size_t count)
{
    const Value& first = entries[size_t(0)];
    const uint64_t length = std::min<uint64_t>(first["length"].unsignedLongLongValue(), count);
    Error ignored;
    auto handle = FileHandle::forReadingRegularFileAtPath(path, &ignored, 0);
    if (!handle || first.isNone()) return {};
    try {
        handle->seekToFileOffset(first["offset"].unsignedLongLongValue());
        ByteBuffer bytes = handle->readDataOfLength(length);
        return std::vector<uint8_t>(bytes.data(), bytes.data() + bytes.size());
    } catch (const PlatformException&) {
        return {};
    }
}

}  // namespace

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

RunSummary AppController::summary() const
{
    std::lock_guard lock(mutex_);
    return summary_;
}

int64_t AppController::fail(const std::string& line)
{
    TQLog::appendLog("%@", line);
    std::lock_guard lock(mutex_);
    summary_.noteError(line);
    return 1;
}

void AppController::noteTrackError(bool video, const std::string& what)
{
    std::lock_guard lock(mutex_);
    std::string& slot = video ? summary_.video.firstError : summary_.audio.firstError;
    if (slot.empty()) slot = what;
}

void AppController::publishWriter(AssetWriter* writer)
{
    std::lock_guard lock(mutex_);
    liveWriter_ = writer;
    if (writer && stopRequested_.load()) writer->cancelWriting();
}

void AppController::requestStop(const std::string& reason)
{
    if (stopRequested_.exchange(true)) return;
    TQLog::appendLog("%@", reason);
    std::lock_guard lock(mutex_);
    summary_.noteError(reason);
    if (liveWriter_) liveWriter_->cancelWriting();
}

int64_t AppController::createQuickTimeMovie(const Value& settings)
{
    const auto startedAt = std::chrono::steady_clock::now();
    // The document goes back to the replay path first, so the last movie can be assembled
    // again by starting the helper without arguments. A document that is already there is
    // left exactly as it is.
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    if (replayPath) {
        const auto present = Value::fromPropertyListFile(*replayPath);
        if (!present || !(*present == settings)) settings.writeToFile(*replayPath, true);
    }

    setVideoHandle(nullptr);
    setAudioHandle(nullptr);
    setCurVideoSampleIndex(0);
    setNumVideoSamplesAppended(0);
    setCurAudioSampleIndex(0);
    setNumAudioSamplesAppended(0);
    setVideoFinished(false);
    setAudioFinished(false);
    finishedWithError_.store(false);
    {
        std::lock_guard lock(mutex_);
        summary_ = RunSummary{};
        summary_.settingsDocument = settingsDocumentPath_.empty() ? replayPath.value_or("") : settingsDocumentPath_;
    }

    setVideoOffsets(settings["offsetArray"]);
    setAudioOffsets(settings["audioOffsetArray"]);

    Session session;
    int64_t status = 1;
    const auto closeSession = [&] {
        // Nothing unplayable stays: an unfinished movie goes with its temporary file.
        publishWriter(nullptr);
        if (session.writer && !(session.destination && session.destination->committed()))
            session.writer->cancelWriting();
        if (session.destination) session.destination->discard();
        TQLog::appendLog("Removing temp data files...");
    };
    try {
        if (!stopRequested_.load()) status = runGuardedSession(settings, session);
    } catch (const PlatformException& exception) {
        TQException::logException(exception, kSessionMethod);
        fail(format("Exception in %s: %@", kSessionMethod, exception.reason()));
        status = 1;
    } catch (...) {
        closeSession();
        throw;
    }
    if (stopRequested_.load()) status = 1;
    closeSession();

    RunSummary story = summary();
    story.video.entriesRead = curVideoSampleIndex();
    story.video.framesWritten = numVideoSamplesAppended();
    story.audio.entriesRead = curAudioSampleIndex();
    story.audio.framesWritten = numAudioSamplesAppended();
    if (session.destination && session.destination->committed()) {
        story.moviePath = session.destination->path();
        story.movieBytes = regularFileSize(story.moviePath);
    }
    story.status = status;
    story.elapsedSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - startedAt).count();
    {
        std::lock_guard lock(mutex_);
        summary_ = story;
    }
    TQLog::appendLog("%@", story.text());
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
        return fail(format("Error: unknown video format %lld.", formatType));
    }
    jobcheck::FrameSize size{video->width, video->height};
    if (size.width == 0) {
        size = {fWidth, fHeight};
        TQLog::appendLog(format("Video format is %s %%ix%%i", video->name), static_cast<int>(size.width),
                         static_cast<int>(size.height));
    } else {
        TQLog::appendLog(format("Video format is %s", video->name));
    }
    TQLog::appendLog("Video format: %@", TQAVFoundation::fourCCString(video->codecType));
    TQLog::appendLog("1");

    // The job is checked as a whole before anything is touched.
    const Value& videoEntries = settings["offsetArray"];
    const Value& audioEntries = settings["audioOffsetArray"];
    const size_t videoCount = videoEntries.count();
    const size_t audioCount = audio ? audioEntries.count() : 0;
    std::vector<int64_t> frameCounts(videoCount);
    std::vector<jobcheck::ByteRange> videoRanges(videoCount);
    uint64_t videoFrames = 0;
    for (size_t i = 0; i < videoCount; ++i) {
        const Value& entry = videoEntries[i];
        frameCounts[i] = entry["frameCount"].integerValue();
        videoRanges[i] = {entry["offset"].unsignedLongLongValue(), entry["length"].unsignedLongLongValue()};
        videoFrames = jobcheck::addSaturating(videoFrames, frameCounts[i] < 1 ? 1 : static_cast<uint64_t>(frameCounts[i]));
    }
    std::vector<uint64_t> audioLengths(audioCount);
    std::vector<jobcheck::ByteRange> audioRanges(audioCount);
    uint64_t audioFrames = 0;
    for (size_t i = 0; i < audioCount; ++i) {
        const Value& entry = audioEntries[i];
        audioLengths[i] = entry["length"].unsignedLongLongValue();
        audioRanges[i] = {entry["offset"].unsignedLongLongValue(), audioLengths[i]};
        audioFrames = jobcheck::addSaturating(audioFrames, audioLengths[i] / audio->feederBytesPerFrame);
    }
    {
        std::lock_guard lock(mutex_);
        summary_.video = {format("%s %ix%i (%@)", video->name, static_cast<int>(size.width), static_cast<int>(size.height),
                                 TQAVFoundation::fourCCString(video->codecType)),
                          0, videoCount, 0, videoFrames, {}};
        if (audio) summary_.audio = {std::string(audio->logLine).substr(16), 0, audioCount, 0, audioFrames, {}};
    }

    if (auto problem = jobcheck::frameRateProblem(frameRate)) return fail(*problem);
    if (!size.usable()) {
        const bool proRes = formatType >= kFirstProResFormat && formatType <= kLastProResFormat;
        const auto fromHeader =
            proRes && videoCount > 0
                ? jobcheck::frameSizeFromProResFrame(firstFrameStart(tmpFilename, videoEntries, jobcheck::kProResHeaderBytes))
                : std::nullopt;
        if (!fromHeader)
            return fail(format("Error: the frame size of this %s movie is unknown: the document gives none "
                               "(fWidth, fHeight) and the first frame of %@ does not tell it.",
                               video->name, tmpFilename));
        size = *fromHeader;
        TQLog::appendLog("Frame size %ix%i read from the first frame", static_cast<int>(size.width),
                         static_cast<int>(size.height));
        std::lock_guard lock(mutex_);
        summary_.video.format = format("%s %ix%i (%@)", video->name, static_cast<int>(size.width),
                                       static_cast<int>(size.height), TQAVFoundation::fourCCString(video->codecType));
    }
    if (auto problem = jobcheck::videoCountsProblem(frameCounts)) return fail(*problem);
    if (audio)
        if (auto problem = jobcheck::audioCountsProblem(audioLengths, audio->feederBytesPerFrame)) return fail(*problem);
    if (videoCount == 0 && audioFrames == 0)
        return fail("Error: the document describes no samples (offsetArray and audioOffsetArray hold no entries); "
                    "the movie would have no track.");

    const std::string settingsPath = summary().settingsDocument;
    const MovieDestination::Input inputs[] = {
        {"video data file", tmpFilename}, {"audio data file", tmpAudioFilename}, {"settings document", settingsPath}};
    if (auto problem = MovieDestination::problem(destFilename, inputs)) return fail(*problem);

    if (stopRequested_.load()) return 1;
    // Holding the destination's lock: stale temporary files go, then the room is measured.
    session.destination = std::make_unique<MovieDestination>(destFilename);
    std::string lockProblem;
    if (!session.destination->acquire(&lockProblem)) {
        session.destination.reset();
        return fail(lockProblem);
    }
    if (session.destination->staleFilesRemoved() > 0)
        TQLog::appendLog("Removed %i temporary file(s) that an interrupted run left for %@",
                         session.destination->staleFilesRemoved(), destFilename);
    const uint64_t needed = jobcheck::addSaturating(
        jobcheck::addSaturating(jobcheck::bytesHeld(videoRanges, regularFileSize(tmpFilename)),
                                audio ? jobcheck::bytesHeld(audioRanges, regularFileSize(tmpAudioFilename),
                                                            audio->feederBytesPerFrame)
                                      : 0),
        jobcheck::movieHeaderAllowance(videoCount, audioCount));
    const auto available = MovieDestination::freeBytes(MovieDestination::folderOf(destFilename));
    if (available && *available < needed)
        return fail(format("Error: not enough free space for %@: the movie needs %llu bytes, the volume has %llu "
                           "bytes free.",
                           destFilename, needed, *available));

    Error writerError;
    session.writer = AssetWriter::create(session.destination->temporaryPath(), kFileTypeQuickTimeMovie, &writerError);
    TQLog::appendLog("2");
    if (!session.writer) return fail(format("Error creating AssetWriter: %@", writerError));
    publishWriter(session.writer.get());
    TQLog::appendLog("3");

    session.videoInput = AssetWriterInput::create(MediaType::Video, nullptr);
    session.videoInput->setExpectsMediaDataInRealTime(true);
    TQLog::appendLog("4");
    if (!session.writer->canAddInput(*session.videoInput)) return fail("Error: unable to add writer input");
    TQLog::appendLog("added video input");
    session.writer->addInput(session.videoInput);
    TQLog::appendLog("5");

    session.audioInput = AssetWriterInput::create(MediaType::Audio, nullptr);
    session.audioInput->setExpectsMediaDataInRealTime(true);
    TQLog::appendLog("6");
    if (!session.writer->canAddInput(*session.audioInput)) return fail("Error: unable to add audio writer input");
    TQLog::appendLog("added audio input");
    session.writer->addInput(session.audioInput);
    TQLog::appendLog("7");

    Error openError;
    std::shared_ptr<FileHandle> videoReader = FileHandle::forReadingRegularFileAtPath(tmpFilename, &openError);
    if (!videoReader) {
        TQLog::appendLog("Error creating video read handle for %@", tmpFilename);
        return fail(format("Error: cannot read the video data file %@: %@", tmpFilename, openError.localizedDescription));
    }
    setVideoHandle(videoReader);
    TQLog::appendLog("8");

    std::shared_ptr<FileHandle> audioReader = FileHandle::forReadingRegularFileAtPath(tmpAudioFilename, &openError);
    if (!audioReader) {
        TQLog::appendLog("Error creating audio read handle for %@", tmpAudioFilename);
        return fail(format("Error: cannot read the audio data file %@: %@", tmpAudioFilename,
                           openError.localizedDescription));
    }
    setAudioHandle(audioReader);
    TQLog::appendLog("9");

    const std::string self = description();
    session.serializationQueue = DispatchQueue::createSerial(format("%@ serialization queue", self));
    session.videoQueue = DispatchQueue::createSerial(format("%@ rw video serialization queue", self));
    session.audioQueue = DispatchQueue::createSerial(format("%@ rw audio serialization queue", self));
    TQLog::appendLog("10");

    FormatDescriptionRef videoDescription;
    if (FormatDescription::createVideo(video->codecType, size.width, size.height, &videoDescription) != kNoErr ||
        !videoDescription)
        return fail("Error: failed to create video format description.");
    TQLog::appendLog("11");

    session.group = std::make_shared<DispatchGroup>();
    if (!session.writer->startWriting()) {
        TQLog::appendLog("12");
        return fail(format("Error starting AssetWriter: %@", session.writer->error().value_or(Error{})));
    }
    session.writer->startSessionAtSourceTime(MediaTime::zero());
    session.started = true;
    TQLog::appendLog("12");

    // The pumps: while the input is ready, append what the feeder hands out; the first null
    // finishes the track and leaves the group, once. A stopped run ends both tracks at once.
    // Why a track ended before its last entry is kept for the summary.
    const auto endedEarly = [this](bool isVideo, AssetWriter* writer) {
        if (stopRequested_.load()) return;
        const uint64_t index = isVideo ? curVideoSampleIndex() : curAudioSampleIndex();
        const auto entries = isVideo ? videoOffsets() : audioOffsets();
        const uint64_t count = entries ? entries->count() : 0;
        if (const auto error = writer->error())
            noteTrackError(isVideo, format("the writer failed at entry %llu: %@", index, error->localizedDescription));
        else if (index < count)
            noteTrackError(isVideo, format("entry %llu of %llu could not be read from the data file", index, count));
    };
    AssetWriter* writer = session.writer.get();
    session.group->enter();
    {
        TrackFeed feed{session.videoInput, session.group, videoDescription};
        session.videoInput->requestMediaDataWhenReadyOnQueue(session.videoQueue, [this, feed, frameRate, endedEarly, writer] {
            while (feed.input->isReadyForMoreMediaData()) {
                std::unique_ptr<SampleBuffer> sample;
                try {
                    if (!stopRequested_.load()) sample = copyNextVideoSampleBuffer(feed.format, frameRate);
                    if (sample && !feed.input->appendSampleBuffer(*sample)) {
                        if (!stopRequested_.load())
                            TQLog::appendLog("Error appending video sample. The video track ends here.");
                        sample.reset();
                    }
                } catch (const PlatformException& exception) {
                    TQException::logException(exception, "-[AppController copyNextVideoSampleBuffer:fps:]");
                    noteTrackError(true, exception.reason());
                    sample.reset();
                }
                if (!sample) {
                    if (!videoFinished_.exchange(true)) {
                        endedEarly(true, writer);
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
            session.audioQueue, [this, feed, sampleRate, bytesPerFrame, endedEarly, writer] {
                while (feed.input->isReadyForMoreMediaData()) {
                    std::unique_ptr<SampleBuffer> sample;
                    try {
                        if (!stopRequested_.load())
                            sample = copyNextAudioSampleBuffer(feed.format, sampleRate, bytesPerFrame);
                        if (sample && !feed.input->appendSampleBuffer(*sample)) {
                            if (!stopRequested_.load())
                                TQLog::appendLog("Error appending audio sample. The audio track ends here.");
                            sample.reset();
                        }
                    } catch (const PlatformException& exception) {
                        TQException::logException(
                            exception, "-[AppController copyNextAudioSampleBuffer:sampleRate:bytesPerFrame:]");
                        noteTrackError(false, exception.reason());
                        sample.reset();
                    }
                    if (!sample) {
                        if (!audioFinished_.exchange(true)) {
                            endedEarly(false, writer);
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
    std::atomic<bool>* completed = &session.completed;
    DispatchSemaphore* completion = &session.completion;
    session.group->notify(*session.serializationQueue, [this, writer, completed, completion] {
        try {
            if (auto handle = videoHandle()) handle->closeFile();
            if (auto handle = audioHandle()) handle->closeFile();
            setVideoHandle(nullptr);
            setAudioHandle(nullptr);
            if (stopRequested_.load()) {
                finishedWithError_.store(true);
            } else {
                const bool success = writer->finishWriting();
                std::optional<Error> error;
                if (!success) error = writer->error();
                readingAndWritingDidFinishSuccessfully(success, error);
            }
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
    if (stopRequested_.load() || finishedWithError_.load()) return 1;
    // A movie without a single sample plays nothing: it is not put in place.
    if (numVideoSamplesAppended() == 0 && numAudioSamplesAppended() == 0)
        return fail("Error: no sample could be read from the data files; no movie was written.");
    std::string commitProblem;
    if (!session.destination->commit(&commitProblem)) return fail(commitProblem);
    return 0;
}

void AppController::readingAndWritingDidFinishSuccessfully(bool success, const std::optional<Error>& error)
{
    if (success) {
        TQLog::appendLog("Finished writing movie.");
        return;
    }
    finishedWithError_.store(true);
    fail(error ? format("Error finishing movie: %@", *error)
               : std::string("Error finishing movie: the writer gave no reason."));
}
