// The movie writing session, step by step.
#include "helper/MovieSession.h"

#include <sys/stat.h>

#include "helper/AppController.h"
#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/UserIdentity.h"
#include "QuickTime/AssetWriter.h"
#include "tq/TQAVFoundation.h"
#include "tq/TQAlert.h"
#include "tq/TQException.h"
#include "tq/TQLog.h"

namespace corvina::helper {
using namespace corvina::tq;

using namespace corvina;

namespace {

constexpr const char* kSessionMethod = "-[AppController createQuickTimeMovie:]";
constexpr const char* kVideoFeederMethod = "-[AppController copyNextVideoSampleBuffer:fps:]";
constexpr const char* kAudioFeederMethod = "-[AppController copyNextAudioSampleBuffer:sampleRate:bytesPerFrame:]";
constexpr const char* kUnknownFormatText =
    "This movie is an unknown video format. Please report this error to Brantwell.";
constexpr int64_t kFirstProResFormat = 30;
constexpr int64_t kLastProResFormat = 35;

// A step's failure: the line that ends the run, logged by statusOf; none for a run that was
// stopped or whose end was logged already.
Error ending(std::string line = {}) { return Error{"CorvinaAVFHelper", 0, std::move(line)}; }

uint64_t regularFileSize(const std::string& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? static_cast<uint64_t>(info.st_size) : 0;
}

// "DV NTSC 720x480 (dvc )", as the summary names the video.
std::string videoSummaryFormat(const VideoFormatInfo& video, jobcheck::FrameSize size)
{
    return format("%s %ix%i (%@)", video.name, static_cast<int>(size.width), static_cast<int>(size.height),
                  TQAVFoundation::fourCCString(video.codecType));
}

// Bytes of the entries that a file of fileSize bytes holds, in whole units.
uint64_t bytesHeld(const MediaEntryTable& entries, uint64_t fileSize, uint64_t unit)
{
    uint64_t held = 0;
    for (const MediaEntry& entry : entries)
        held = jobcheck::addSaturating(held, jobcheck::bytesHeld({entry.offset, entry.length}, fileSize, unit));
    return held;
}

}  // namespace

MovieSession::MovieSession(AppController& controller, const MovieJob& job) : controller_(controller), job_(job) {}

MovieSession::~MovieSession() = default;

int64_t MovieSession::statusOf(const Result<void>& done)
{
    if (done) return 0;
    if (!done.error().localizedDescription.empty()) controller_.fail(done.error().localizedDescription);
    return 1;
}

int64_t MovieSession::run()
{
    TQLog::appendLog("Preparing QuickTime movie...");
    for (const auto step :
         {&MovieSession::describeFormats, &MovieSession::checkJob, &MovieSession::checkRoom, &MovieSession::openWriter,
          &MovieSession::addInputs, &MovieSession::openReaders, &MovieSession::startWriting})
        if (auto done = (this->*step)(); !done) return statusOf(done);
    startPump();
    return statusOf(waitForCompletion());
}

// The audio format line, the description and what the feeder needs (audio first); then the
// video's lines, and "1".
Result<void> MovieSession::describeFormats()
{
    audio_ = AppController::audioFormatForCode(job_.audioFormat);
    if (audio_) {
        TQLog::appendLog(audio_->logLine);
        audioDescription_ = controller_.audioFormatDescriptionForChannels(audio_->channels, audio_->stereo, 16,
                                                                          audio_->sampleRate, audio_->bigEndian);
    } else {
        TQLog::appendLog("No audio");
    }
    video_ = AppController::videoFormatForType(job_.formatType);
    if (!video_) {
        TQLog::appendLog(format("Unknown video format. %s", kUnknownFormatText));
        TQAlert::alertSheetWithMessageText("Unknown video format", kUnknownFormatText, nullptr);
        // Without a codec type nothing sensible can be written: the session ends here.
        return ending(format("Error: unknown video format %lld.", job_.formatType));
    }
    // Motion JPEG frames carry their size in their own header, which decoders follow: the
    // first frame's is taken later, the document's only when that cannot be read.
    size_ = {video_->width, video_->height};
    if (video_->codecType != fourCC("jpeg") && size_.width == 0) {
        size_ = {job_.fWidth, job_.fHeight};
        TQLog::appendLog(format("Video format is %s %%ix%%i", video_->name), static_cast<int>(size_.width),
                         static_cast<int>(size_.height));
    } else {
        TQLog::appendLog(format("Video format is %s", video_->name));
    }
    TQLog::appendLog("Video format: %@", TQAVFoundation::fourCCString(video_->codecType));
    TQLog::appendLog("1");
    return success();
}

// The job is checked as a whole before anything is written, straight from its tables: a
// document of a million entries must not cost a second copy of them.
Result<void> MovieSession::checkJob()
{
    const MediaEntryTable& videoEntries = *job_.videoEntries;
    for (const MediaEntry& entry : videoEntries)
        videoFrames_ =
            jobcheck::addSaturating(videoFrames_, entry.frameCount < 1 ? 1 : static_cast<uint64_t>(entry.frameCount));
    if (audio_)
        for (const MediaEntry& entry : *job_.audioEntries)
            audioFrames_ = jobcheck::addSaturating(audioFrames_, entry.length / audio_->feederBytesPerFrame);
    controller_.editSummary([&](RunSummary& summary) {
        summary.video = {videoSummaryFormat(*video_, size_), 0, videoEntries.size(), 0, videoFrames_, {}};
        if (audio_)
            summary.audio = {
                std::string(audio_->logLine).substr(16), 0, job_.audioEntries->size(), 0, audioFrames_, {}};
    });

    if (auto problem = jobcheck::frameRateProblem(job_.frameRate)) return ending(*problem);
    openDataFiles();
    if (auto settled = settleFrameSize(); !settled) return settled;
    if (auto problem = jobcheck::videoFramesProblem(videoFrames_)) return ending(*problem);
    if (audio_ && audio_->feederBytesPerFrame > 0)
        if (auto problem = jobcheck::audioFramesProblem(audioFrames_)) return ending(*problem);
    if (videoEntries.empty() && audioFrames_ == 0)
        return ending(
            "Error: the document describes no samples (offsetArray and audioOffsetArray hold no entries); "
            "the movie would have no track.");
    return success();
}

// Both data files are opened here, once, with the acting user's rights; a file that cannot be
// opened is reported where the session reads it (openReaders).
void MovieSession::openDataFiles()
{
    ScopedFileIdentity asUser(controller_.actor_);
    if (auto file = EssenceReader::open(job_.tmpFilename))
        videoFeeder_ = std::make_unique<VideoTrackFeeder>(std::move(*file), job_.videoEntries);
    else
        videoOpenError_ = file.error();
    if (auto file = EssenceReader::open(job_.tmpAudioFilename))
        audioFeeder_ = std::make_unique<AudioTrackFeeder>(std::move(*file), job_.audioEntries);
    else
        audioOpenError_ = file.error();
}

// Motion JPEG and ProRes without a size in the document: the first frame's header tells it.
Result<void> MovieSession::settleFrameSize()
{
    const bool motionJpeg = video_->codecType == fourCC("jpeg");
    if (!motionJpeg && size_.usable()) return success();
    const bool proRes = job_.formatType >= kFirstProResFormat && job_.formatType <= kLastProResFormat;
    std::optional<jobcheck::FrameSize> fromHeader;
    if ((motionJpeg || proRes) && !job_.videoEntries->empty()) {
        const std::vector<uint8_t> start =
            videoFeeder_
                ? videoFeeder_->firstEntryStart(motionJpeg ? jobcheck::kJpegHeaderBytes : jobcheck::kProResHeaderBytes)
                : std::vector<uint8_t>();
        fromHeader = motionJpeg ? jobcheck::frameSizeFromJpegFrame(start) : jobcheck::frameSizeFromProResFrame(start);
    }
    if (fromHeader) {
        size_ = *fromHeader;
        TQLog::appendLog("Frame size %ix%i read from the first frame", static_cast<int>(size_.width),
                         static_cast<int>(size_.height));
    } else if (motionJpeg) {
        size_ = {job_.fWidth, job_.fHeight};
    }
    if (!size_.usable())
        return ending(
            format("Error: the frame size of this %s movie is unknown: the document gives none "
                   "(fWidth, fHeight) and the first frame of %@ does not tell it.",
                   video_->name, job_.tmpFilename));
    controller_.editSummary([&](RunSummary& summary) { summary.video.format = videoSummaryFormat(*video_, size_); });
    return success();
}

// The destination is checked and locked, stale temporary files go, then the room is measured
// against the essence the data files really hold.
Result<void> MovieSession::checkRoom()
{
    const std::string settingsPath = controller_.summary().settingsDocument;
    const MovieDestination::Input inputs[] = {{"video data file", job_.tmpFilename},
                                              {"audio data file", job_.tmpAudioFilename},
                                              {"settings document", settingsPath}};
    auto opened = MovieDestination::open(job_.destFilename, controller_.actor_, inputs);
    if (!opened) return opened.error();
    destination_ = std::move(*opened);
    if (controller_.stopRequested()) return ending();
    if (auto locked = destination_->acquire(); !locked) {
        destination_.reset();
        return locked.error();
    }
    if (destination_->staleFilesRemoved() > 0)
        TQLog::appendLog("Removed %i temporary file(s) that an interrupted run left for %@",
                         destination_->staleFilesRemoved(), job_.destFilename);

    // A file that could not be opened is measured by its name, as the user sees it.
    const auto sizeOf = [this](const auto& feeder, const std::string& path) {
        if (feeder) return feeder->fileSize();
        ScopedFileIdentity asUser(controller_.actor_);
        return regularFileSize(path);
    };
    uint64_t needed = bytesHeld(*job_.videoEntries, sizeOf(videoFeeder_, job_.tmpFilename), 1);
    if (audio_)
        needed = jobcheck::addSaturating(
            needed,
            bytesHeld(*job_.audioEntries, sizeOf(audioFeeder_, job_.tmpAudioFilename), audio_->feederBytesPerFrame));
    needed = jobcheck::addSaturating(
        needed, jobcheck::movieHeaderAllowance(job_.videoEntries->size(), audio_ ? job_.audioEntries->size() : 0));
    const auto available = destination_->freeBytes();
    if (available && *available < needed)
        return ending(
            format("Error: not enough free space for %@: the movie needs %llu bytes, the volume has %llu "
                   "bytes free.",
                   job_.destFilename, needed, *available));
    return success();
}

// The writer, on the temporary file the destination creates.
Result<void> MovieSession::openWriter()
{
    auto temporary = destination_->createTemporary();
    auto writer =
        temporary ? AssetWriter::createOnDescriptor(*temporary, destination_->temporaryPath(), kFileTypeQuickTimeMovie)
                  : Result<std::unique_ptr<AssetWriter>>(temporary.error());
    TQLog::appendLog("2");
    if (!writer) return ending(format("Error creating AssetWriter: %@", writer.error()));
    writer_ = std::move(*writer);
    controller_.publishWriter(writer_.get());
    TQLog::appendLog("3");
    return success();
}

// One pass-through input per track; the audio input is added even without audio, and then
// stays empty.
Result<void> MovieSession::addInputs()
{
    videoInput_ = AssetWriterInput::create(MediaType::Video, nullptr);
    TQLog::appendLog("4");
    if (!writer_->canAddInput(*videoInput_)) return ending("Error: unable to add writer input");
    TQLog::appendLog("added video input");
    writer_->addInput(videoInput_);
    TQLog::appendLog("5");

    audioInput_ = AssetWriterInput::create(MediaType::Audio, nullptr);
    TQLog::appendLog("6");
    if (!writer_->canAddInput(*audioInput_)) return ending("Error: unable to add audio writer input");
    TQLog::appendLog("added audio input");
    writer_->addInput(audioInput_);
    TQLog::appendLog("7");
    return success();
}

// The data files opened by openDataFiles, or the line that says why one could not be.
Result<void> MovieSession::openReaders()
{
    if (!videoFeeder_) {
        TQLog::appendLog("Error creating video read handle for %@", job_.tmpFilename);
        return ending(format("Error: cannot read the video data file %@: %@", job_.tmpFilename,
                             videoOpenError_.localizedDescription));
    }
    TQLog::appendLog("8");
    if (!audioFeeder_) {
        TQLog::appendLog("Error creating audio read handle for %@", job_.tmpAudioFilename);
        return ending(format("Error: cannot read the audio data file %@: %@", job_.tmpAudioFilename,
                             audioOpenError_.localizedDescription));
    }
    TQLog::appendLog("9");
    return success();
}

// The queues, the video description, the feeders' formats, and the writer started at zero.
Result<void> MovieSession::startWriting()
{
    const std::string self = controller_.description();
    serializationQueue_ = DispatchQueue::createSerial(format("%@ serialization queue", self));
    videoQueue_ = DispatchQueue::createSerial(format("%@ rw video serialization queue", self));
    audioQueue_ = DispatchQueue::createSerial(format("%@ rw audio serialization queue", self));
    TQLog::appendLog("10");

    if (FormatDescription::createVideo(video_->codecType, size_.width, size_.height, &videoDescription_) != kNoErr ||
        !videoDescription_)
        return ending("Error: failed to create video format description.");
    TQLog::appendLog("11");
    videoFeeder_->setFormat(videoDescription_, job_.frameTiming());
    if (audio_) audioFeeder_->setFormat(audioDescription_, audio_->sampleRate, audio_->feederBytesPerFrame);

    group_ = std::make_shared<DispatchGroup>();
    if (!writer_->startWriting()) {
        TQLog::appendLog("12");
        return ending(format("Error starting AssetWriter: %@", writer_->error().value_or(Error{})));
    }
    writer_->startSessionAtSourceTime(MediaTime::zero());
    TQLog::appendLog("12");
    return success();
}

// One pump feeds both tracks on the video queue (see pump). The group is entered once for
// each track, and left as that track ends.
void MovieSession::startPump()
{
    videoOpen_ = true;
    audioOpen_ = audio_ != nullptr;
    group_->enter();
    if (audioOpen_) group_->enter();
    TQLog::appendLog("13");
    pumpStarted_ = true;
    videoQueue_->async([this] { pump(); });
    TQLog::appendLog("14");
}

// The track whose media ends earlier gets the next sample (video on a tie), so the tracks stay
// within a frame of each other, the writer never has to hold either back, and the chunks land
// in the same order every run. A stopped run ends both tracks at once.
//
// The last track's end lets the main thread finish the run and destroy the session: after it,
// the pump touches nothing of the session's, so the loop runs on its own copies of the flags.
void MovieSession::pump()
{
    bool video = videoOpen_;
    bool audio = audioOpen_;
    while (video || audio) {
        if (video && (!audio || videoFeeder_->goesBefore(*audioFeeder_))) {
            video = feed(true, [this] { return videoFeeder_->next(); });
            if (!video) endTrack(true);
        } else {
            // The audio frames one-by-one turns would take before the video's next turn, as one
            // run; the writer stores them as it would store them singly.
            const uint64_t run = video ? audioFeeder_->framesBeforeTurnOf(*videoFeeder_) : AudioTrackFeeder::kMaxRun;
            audio = feed(false, [this, run] { return audioFeeder_->nextRun(run); });
            if (!audio) endTrack(false);
        }
    }
}

// One turn of a track: the feeder's next entry (`next`, none at the track's end) goes to the
// writer. False when the track ends here; a refused entry or a feeder's exception is logged.
template <class Next>
bool MovieSession::feed(bool video, Next next)
{
    try {
        if (controller_.stopRequested()) return false;
        const SampleBuffer* sample = next();
        if (!sample) return false;
        if (video ? videoInput_->appendSampleBuffer(*sample) : audioInput_->appendSampleRun(*sample)) return true;
        if (!controller_.stopRequested())
            TQLog::appendLog(video ? "Error appending video sample. The video track ends here."
                                   : "Error appending audio sample. The audio track ends here.");
        return false;
    } catch (const PlatformException& exception) {
        TQException::logException(exception, video ? kVideoFeederMethod : kAudioFeederMethod);
        controller_.noteTrackError(video, exception.reason());
        return false;
    }
}

// Why a track ended before its last entry is kept for the summary.
void MovieSession::endTrack(bool video)
{
    (video ? videoOpen_ : audioOpen_) = false;
    if (!controller_.stopRequested()) {
        const uint64_t index = video ? videoFeeder_->entryIndex() : audioFeeder_->entryIndex();
        const uint64_t count = video ? job_.videoEntries->size() : job_.audioEntries->size();
        if (const auto error = writer_->error())
            controller_.noteTrackError(
                video, format("the writer failed at entry %llu: %@", index, error->localizedDescription));
        else if (index < count)
            controller_.noteTrackError(video,
                                       format("entry %llu of %llu could not be read from the data file", index, count));
    }
    (video ? videoInput_ : audioInput_)->markAsFinished();
    // The group outlives this call even when its last leave ends the session.
    const std::shared_ptr<DispatchGroup> group = group_;
    group->leave();
}

// The completion step closes the data files and finishes the movie once both tracks are done;
// the main thread waits for it, answering main-queue work meanwhile. Only then is the movie
// put in place, and only when it holds a sample.
Result<void> MovieSession::waitForCompletion()
{
    const std::shared_ptr<Completion> completion = completion_;
    group_->notify(*serializationQueue_, [this, completion] {
        finishMovie();
        completion->done.store(true);
        completion->signal.signal();
        notifyMainThreadWaiters();
    });
    TQLog::appendLog("15");
    TQLog::appendLog("17");
    TQLog::appendLog("File created successfully");

    if (isMainThread()) {
        runMainQueueUntil([completion] { return completion->done.load(); });
    } else {
        completion->signal.wait();
    }
    if (controller_.stopRequested() || completion->failed.load()) return ending();
    if (videoFeeder_->framesHandedOut() == 0 && audioFeeder_->framesHandedOut() == 0)
        return ending("Error: no sample could be read from the data files; no movie was written.");
    return destination_->commit();
}

void MovieSession::finishMovie()
{
    try {
        videoFeeder_->file()->closeFile();
        audioFeeder_->file()->closeFile();
        if (controller_.stopRequested()) {
            completion_->failed.store(true);
            return;
        }
        if (writer_->finishWriting()) {
            TQLog::appendLog("Finished writing movie.");
            return;
        }
        completion_->failed.store(true);
        const auto error = writer_->error();
        controller_.fail(error ? format("Error finishing movie: %@", *error)
                               : std::string("Error finishing movie: the writer gave no reason."));
    } catch (const PlatformException& exception) {
        TQException::logException(exception, kSessionMethod);
        completion_->failed.store(true);
    }
}

void MovieSession::close()
{
    controller_.publishWriter(nullptr);
    if (writer_ && !(destination_ && destination_->committed())) writer_->cancelWriting();
    // A pump still running (the session was left by an exception) ends now that its appends
    // are refused; nothing of the session is touched before it has.
    if (pumpStarted_ && !completion_->done.load()) completion_->signal.wait();
    if (destination_) destination_->discard();
    TQLog::appendLog("Removing temp data files...");
}

void MovieSession::tellSummary(RunSummary& story) const
{
    story.video.entriesRead = videoFeeder_ ? videoFeeder_->entryIndex() : 0;
    story.video.framesWritten = videoFeeder_ ? videoFeeder_->framesHandedOut() : 0;
    story.audio.entriesRead = audioFeeder_ ? audioFeeder_->entryIndex() : 0;
    story.audio.framesWritten = audioFeeder_ ? audioFeeder_->framesHandedOut() : 0;
    if (destination_ && destination_->committed()) {
        story.moviePath = destination_->path();
        story.movieBytes = regularFileSize(story.moviePath);
    }
}

}  // namespace corvina::helper
