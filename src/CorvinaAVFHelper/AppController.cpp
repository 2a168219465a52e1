// The movie writing session.
#include "AppController.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <vector>

#include "Dispatch/Dispatch.h"
#include "Foundation/Exception.h"
#include "Foundation/FileOperations.h"
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
    FormatDescriptionRef videoDescription;
    FormatDescriptionRef audioDescription;
    bool hasAudio = false;
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
std::vector<uint8_t> firstFrameStart(const std::string& path, const MediaEntryTable& entries, size_t count)
{
    if (entries.empty()) return {};
    const uint64_t length = std::min<uint64_t>(entries.front().length, count);
    Error ignored;
    auto handle = FileHandle::forReadingRegularFileAtPath(path, &ignored, 0);
    if (!handle) return {};
    try {
        handle->seekToFileOffset(entries.front().offset);
        ByteBuffer bytes = handle->readDataOfLength(length);
        return std::vector<uint8_t>(bytes.data(), bytes.data() + bytes.size());
    } catch (const PlatformException&) {
        return {};
    }
}

}  // namespace

AppController::AppController() = default;

AppController::~AppController() = default;

std::string AppController::description() const { return format("<AppController: %p>", static_cast<const void*>(this)); }

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
    // The document goes back to the replay path first, so the last movie can be assembled
    // again by starting the helper without arguments. A document that is already there is
    // left exactly as it is.
    actor_ = TQLocalPaths::actingUser();
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    if (replayPath) {
        try {
            ScopedFileIdentity asUser(actor_);
            const auto present = Value::fromPropertyListFile(*replayPath);
            if (!present || !(*present == settings)) settings.writeToFile(*replayPath, true);
        } catch (const PlatformException&) {
            // No copy without the user's rights; the session reports the identity itself.
        }
    }
    return runSession(MovieJob::fromSettings(settings), replayPath);
}

int64_t AppController::createQuickTimeMovie(MovieJob job)
{
    // The job's own document goes to the replay path (beside, then renamed), unless it was
    // read from there.
    actor_ = TQLocalPaths::actingUser();
    const auto replayPath = TQLocalPaths::replaySettingsPath();
    if (replayPath && !job.documentPath.empty()) {
        // Read and written with the acting user's rights, through a fresh file beside the
        // replay path that is then renamed over it.
        try {
            ScopedFileIdentity asUser(actor_);
            std::error_code ec;
            if (!std::filesystem::equivalent(job.documentPath, *replayPath, ec))
                if (const auto bytes = Value::propertyListFileBytes(job.documentPath))
                    writeFileAtomically(*replayPath, *bytes);
        } catch (const PlatformException&) {
            // No copy without the user's rights; the session reports the identity itself.
        }
    }
    if (settingsDocumentPath_.empty() && !job.documentPath.empty()) settingsDocumentPath_ = job.documentPath;
    return runSession(job, replayPath);
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

int64_t AppController::runSession(const MovieJob& job, const std::optional<std::string>& replayPath)
{
    const auto startedAt = std::chrono::steady_clock::now();
    resetForSession(job);
    {
        std::lock_guard lock(mutex_);
        summary_ = RunSummary{};
        summary_.settingsDocument = settingsDocumentPath_.empty() ? replayPath.value_or("") : settingsDocumentPath_;
    }

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
        if (!stopRequested_.load()) status = runGuardedSession(job, session);
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

int64_t AppController::runGuardedSession(const MovieJob& job, Session& session)
{
    const std::string& tmpFilename = job.tmpFilename;
    const std::string& destFilename = job.destFilename;

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
        return fail(format("Error: unknown video format %lld.", job.formatType));
    }
    // Motion JPEG frames carry their size in their own header, which decoders follow: the
    // first frame's is taken below, the document's only when that cannot be read.
    const bool motionJpeg = video->codecType == fourCC("jpeg");
    jobcheck::FrameSize size{video->width, video->height};
    if (motionJpeg) {
        TQLog::appendLog(format("Video format is %s", video->name));
    } else if (size.width == 0) {
        size = {job.fWidth, job.fHeight};
        TQLog::appendLog(format("Video format is %s %%ix%%i", video->name), static_cast<int>(size.width),
                         static_cast<int>(size.height));
    } else {
        TQLog::appendLog(format("Video format is %s", video->name));
    }
    TQLog::appendLog("Video format: %@", TQAVFoundation::fourCCString(video->codecType));
    TQLog::appendLog("1");

    // The job is checked as a whole before anything is touched, straight from its tables:
    // a document of a million entries must not cost a second copy of them.
    const MediaEntryTable& videoEntries = *job.videoEntries;
    const MediaEntryTable& audioEntries = *job.audioEntries;
    const size_t videoCount = videoEntries.size();
    const size_t audioCount = audio ? audioEntries.size() : 0;
    uint64_t videoFrames = 0;
    uint64_t audioFrames = 0;
    uint64_t videoHeld = 0;
    uint64_t audioHeld = 0;
    {
        for (const MediaEntry& entry : videoEntries)
            videoFrames = jobcheck::addSaturating(videoFrames,
                                                  entry.frameCount < 1 ? 1 : static_cast<uint64_t>(entry.frameCount));
        if (audio)
            for (const MediaEntry& entry : audioEntries)
                audioFrames = jobcheck::addSaturating(audioFrames, entry.length / audio->feederBytesPerFrame);
        {
            std::lock_guard lock(mutex_);
            summary_.video = {format("%s %ix%i (%@)", video->name, static_cast<int>(size.width),
                                     static_cast<int>(size.height), TQAVFoundation::fourCCString(video->codecType)),
                              0,
                              videoCount,
                              0,
                              videoFrames,
                              {}};
            if (audio) summary_.audio = {std::string(audio->logLine).substr(16), 0, audioCount, 0, audioFrames, {}};
        }

        if (auto problem = jobcheck::frameRateProblem(job.frameRate)) return fail(*problem);
        if (motionJpeg || !size.usable()) {
            const bool proRes = job.formatType >= kFirstProResFormat && job.formatType <= kLastProResFormat;
            std::optional<jobcheck::FrameSize> fromHeader;
            if ((motionJpeg || proRes) && videoCount > 0) {
                std::vector<uint8_t> start;
                {
                    ScopedFileIdentity asUser(actor_);
                    start = firstFrameStart(tmpFilename, videoEntries,
                                            motionJpeg ? jobcheck::kJpegHeaderBytes : jobcheck::kProResHeaderBytes);
                }
                fromHeader =
                    motionJpeg ? jobcheck::frameSizeFromJpegFrame(start) : jobcheck::frameSizeFromProResFrame(start);
            }
            if (fromHeader) {
                size = *fromHeader;
                TQLog::appendLog("Frame size %ix%i read from the first frame", static_cast<int>(size.width),
                                 static_cast<int>(size.height));
            } else if (motionJpeg) {
                size = {job.fWidth, job.fHeight};
            }
            if (!size.usable())
                return fail(
                    format("Error: the frame size of this %s movie is unknown: the document gives none "
                           "(fWidth, fHeight) and the first frame of %@ does not tell it.",
                           video->name, tmpFilename));
            std::lock_guard lock(mutex_);
            summary_.video.format =
                format("%s %ix%i (%@)", video->name, static_cast<int>(size.width), static_cast<int>(size.height),
                       TQAVFoundation::fourCCString(video->codecType));
        }
        if (auto problem = jobcheck::videoFramesProblem(videoFrames)) return fail(*problem);
        if (audio && audio->feederBytesPerFrame > 0)
            if (auto problem = jobcheck::audioFramesProblem(audioFrames)) return fail(*problem);
        if (videoCount == 0 && audioFrames == 0)
            return fail(
                "Error: the document describes no samples (offsetArray and audioOffsetArray hold no entries); "
                "the movie would have no track.");
        uint64_t videoFileSize = 0, audioFileSize = 0;
        {
            ScopedFileIdentity asUser(actor_);
            videoFileSize = regularFileSize(tmpFilename);
            audioFileSize = regularFileSize(job.tmpAudioFilename);
        }
        for (const MediaEntry& entry : videoEntries)
            videoHeld =
                jobcheck::addSaturating(videoHeld, jobcheck::bytesHeld({entry.offset, entry.length}, videoFileSize));
        if (audio) {
            for (const MediaEntry& entry : audioEntries)
                audioHeld = jobcheck::addSaturating(
                    audioHeld,
                    jobcheck::bytesHeld({entry.offset, entry.length}, audioFileSize, audio->feederBytesPerFrame));
        }
    }

    const std::string settingsPath = summary().settingsDocument;
    const MovieDestination::Input inputs[] = {{"video data file", tmpFilename},
                                              {"audio data file", job.tmpAudioFilename},
                                              {"settings document", settingsPath}};
    session.destination = std::make_unique<MovieDestination>(destFilename, actor_);
    if (auto problem = session.destination->check(inputs)) return fail(*problem);

    if (stopRequested_.load()) return 1;
    // Holding the destination's lock: stale temporary files go, then the room is measured.
    std::string lockProblem;
    if (!session.destination->acquire(&lockProblem)) {
        session.destination.reset();
        return fail(lockProblem);
    }
    if (session.destination->staleFilesRemoved() > 0)
        TQLog::appendLog("Removed %i temporary file(s) that an interrupted run left for %@",
                         session.destination->staleFilesRemoved(), destFilename);
    const uint64_t needed = jobcheck::addSaturating(jobcheck::addSaturating(videoHeld, audioHeld),
                                                    jobcheck::movieHeaderAllowance(videoCount, audioCount));
    const auto available = session.destination->freeBytes();
    if (available && *available < needed)
        return fail(
            format("Error: not enough free space for %@: the movie needs %llu bytes, the volume has %llu "
                   "bytes free.",
                   destFilename, needed, *available));

    if (const int64_t status = openWriter(job, session)) return status;
    if (const int64_t status = openReaders(job, session)) return status;

    const std::string self = description();
    session.serializationQueue = DispatchQueue::createSerial(format("%@ serialization queue", self));
    session.videoQueue = DispatchQueue::createSerial(format("%@ rw video serialization queue", self));
    session.audioQueue = DispatchQueue::createSerial(format("%@ rw audio serialization queue", self));
    TQLog::appendLog("10");

    if (FormatDescription::createVideo(video->codecType, size.width, size.height, &session.videoDescription) !=
            kNoErr ||
        !session.videoDescription)
        return fail("Error: failed to create video format description.");
    TQLog::appendLog("11");
    videoFeeder().setFormat(session.videoDescription, job.frameTiming());
    if (audio) audioFeeder().setFormat(session.audioDescription, audio->sampleRate, audio->feederBytesPerFrame);

    session.group = std::make_shared<DispatchGroup>();
    if (!session.writer->startWriting()) {
        TQLog::appendLog("12");
        return fail(format("Error starting AssetWriter: %@", session.writer->error().value_or(Error{})));
    }
    session.writer->startSessionAtSourceTime(MediaTime::zero());
    session.started = true;
    TQLog::appendLog("12");

    startPump(session);
    return waitForCompletion(session);
}

int64_t AppController::openWriter(const MovieJob&, Session& session)
{
    Error writerError;
    const int fd = session.destination->createTemporary(&writerError);
    if (fd >= 0)
        session.writer = AssetWriter::createOnDescriptor(fd, session.destination->temporaryPath(),
                                                         kFileTypeQuickTimeMovie, &writerError);
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
    return 0;
}

int64_t AppController::openReaders(const MovieJob& job, Session&)
{
    // Both data files are opened with the acting user's rights; the feeders read through the
    // open handles.
    Error openError;
    std::shared_ptr<FileHandle> videoReader;
    {
        ScopedFileIdentity asUser(actor_);
        videoReader = FileHandle::forReadingRegularFileAtPath(job.tmpFilename, &openError);
    }
    if (!videoReader) {
        TQLog::appendLog("Error creating video read handle for %@", job.tmpFilename);
        return fail(
            format("Error: cannot read the video data file %@: %@", job.tmpFilename, openError.localizedDescription));
    }
    setVideoHandle(videoReader);
    videoFeeder_ = std::make_unique<VideoTrackFeeder>(videoHandle_, videoEntries_);
    TQLog::appendLog("8");

    std::shared_ptr<FileHandle> audioReader;
    {
        ScopedFileIdentity asUser(actor_);
        audioReader = FileHandle::forReadingRegularFileAtPath(job.tmpAudioFilename, &openError);
    }
    if (!audioReader) {
        TQLog::appendLog("Error creating audio read handle for %@", job.tmpAudioFilename);
        return fail(format("Error: cannot read the audio data file %@: %@", job.tmpAudioFilename,
                           openError.localizedDescription));
    }
    setAudioHandle(audioReader);
    audioFeeder_ = std::make_unique<AudioTrackFeeder>(audioHandle_, audioEntries_);
    TQLog::appendLog("9");
    return 0;
}

namespace {
// The most audio frames handed to the writer at once once the video track has ended.
constexpr uint64_t kMaxAudioRun = 1u << 14;
}  // namespace

void AppController::startPump(Session& session)
{
    // One pump feeds both tracks on the video queue: the track whose media ends earlier gets
    // the next sample (video on a tie), so the tracks stay within a frame of each other, the
    // writer never has to hold either back, and the chunks land in the same order every run.
    // A stopped run ends both tracks at once; why a track ended before its last entry is kept
    // for the summary.
    session.group->enter();
    if (session.hasAudio) session.group->enter();
    TQLog::appendLog("13");

    auto group = session.group;
    auto videoInput = session.videoInput;
    auto audioInput = session.audioInput;
    AssetWriter* writer = session.writer.get();
    const bool hasAudio = session.hasAudio;
    session.videoQueue->async([this, group, videoInput, audioInput, writer, hasAudio] {
        VideoTrackFeeder& video = *videoFeeder_;
        AudioTrackFeeder& audio = *audioFeeder_;
        const FrameRate timing = video.timing();
        const auto audioRate = static_cast<int32_t>(audio.sampleRate());
        bool videoOpen = true;
        bool audioOpen = hasAudio;
        const auto finish = [this, &group, writer](bool isVideo, AssetWriterInput& input, bool& open, bool& finished) {
            open = false;
            finished = true;
            if (!stopRequested_.load()) {
                const uint64_t index = isVideo ? videoFeeder_->entryIndex() : audioFeeder_->entryIndex();
                const uint64_t count = isVideo ? videoEntries_->size() : audioEntries_->size();
                if (const auto error = writer->error())
                    noteTrackError(isVideo,
                                   format("the writer failed at entry %llu: %@", index, error->localizedDescription));
                else if (index < count)
                    noteTrackError(isVideo,
                                   format("entry %llu of %llu could not be read from the data file", index, count));
            }
            input.markAsFinished();
            group->leave();
        };
        while (videoOpen || audioOpen) {
            // video end <= audio end
            const bool takeVideo =
                videoOpen && (!audioOpen || timing.durationOfFrames(int64_t(video.framesHandedOut())) <=
                                                MediaTime::make(int64_t(audio.framesHandedOut()), audioRate));
            if (takeVideo) {
                const SampleBuffer* sample = nullptr;
                try {
                    if (!stopRequested_.load()) sample = video.next();
                    if (sample && !videoInput->appendSampleBuffer(*sample)) {
                        if (!stopRequested_.load())
                            TQLog::appendLog("Error appending video sample. The video track ends here.");
                        sample = nullptr;
                    }
                } catch (const PlatformException& exception) {
                    TQException::logException(exception, "-[AppController copyNextVideoSampleBuffer:fps:]");
                    noteTrackError(true, exception.reason());
                    sample = nullptr;
                }
                if (!sample) finish(true, *videoInput, videoOpen, videoFinished_);
            } else {
                // The audio frames this loop would take one by one before the video's turn
                // comes again go to the writer as one run; it stores them as it would store
                // them singly.
                uint64_t run = kMaxAudioRun;
                if (videoOpen && timing.isValid()) {
                    const MediaTime turn = timing.durationOfFrames(int64_t(video.framesHandedOut()))
                                               .convertScale(audioRate, MediaTime::Rounding::towardPositiveInfinity);
                    const uint64_t handed = audio.framesHandedOut();
                    run = !turn.isNumeric()               ? kMaxAudioRun
                          : uint64_t(turn.value) > handed ? std::min(uint64_t(turn.value) - handed, kMaxAudioRun)
                                                          : 1;
                }
                const SampleBuffer* sample = nullptr;
                try {
                    if (!stopRequested_.load()) sample = audio.nextRun(run);
                    if (sample && !audioInput->appendSampleRun(*sample)) {
                        if (!stopRequested_.load())
                            TQLog::appendLog("Error appending audio sample. The audio track ends here.");
                        sample = nullptr;
                    }
                } catch (const PlatformException& exception) {
                    TQException::logException(exception,
                                              "-[AppController copyNextAudioSampleBuffer:sampleRate:bytesPerFrame:]");
                    noteTrackError(false, exception.reason());
                    sample = nullptr;
                }
                if (!sample) finish(false, *audioInput, audioOpen, audioFinished_);
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
