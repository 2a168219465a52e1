#include "tq/TQAVExport.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "AssetReader/AssetReader.h"
#include "Foundation/Format.h"
#include "QuickTime/AssetWriter.h"
#include "tq/TQAVFoundation.h"

namespace corvina::tq {

using namespace corvina;

namespace {

constexpr const char* kExportErrorDomain = "TQAVExportErrorDomain";

Error exportError(const std::string& text) { return Error{kExportErrorDomain, -1, text}; }

bool isStoredAsIs(FourCharCode code)
{
    // Codecs whose samples stand on their own: the movie writer labels them with the codec
    // type and frame size alone, so they pass through unchanged.
    const FourCharCode family = code >> 16;
    return family == (fourCC("dv  ") >> 16) || family == (fourCC("ap  ") >> 16) || code == fourCC("jpeg");
}

}  // namespace

struct TQAVExport::Track {
    std::shared_ptr<AssetReaderTrackOutput> output;
    std::shared_ptr<AssetWriterInput> input;
    std::shared_ptr<DispatchQueue> queue;
    std::atomic<bool> finished{false};

    // Sets the finished flag; the caller that set it marks the input finished and leaves the
    // group, so each track leaves exactly once.
    bool finish() { return !finished.exchange(true); }
};

TQAVExport::TQAVExport()
{
    const std::string self = description();
    mainQueue_ = DispatchQueue::createSerial(format("%@ serialization queue", self));
    audioQueue_ = DispatchQueue::createSerial(format("%@ rw audio serialization queue", self));
    videoQueue_ = DispatchQueue::createSerial(format("%@ rw video serialization queue", self));
}

TQAVExport::~TQAVExport()
{
    // Blocks still queued refer to this object: let them run out.
    mainQueue_->sync([] {});
    audioQueue_->sync([] {});
    videoQueue_->sync([] {});
    mainQueue_->sync([] {});
}

std::string TQAVExport::description() const { return format("<TQAVExport: %p>", static_cast<const void*>(this)); }

AssetRef TQAVExport::asset() const
{
    std::lock_guard lock(propertyMutex_);
    return asset_;
}

void TQAVExport::setAsset(AssetRef asset)
{
    std::lock_guard lock(propertyMutex_);
    asset_ = std::move(asset);
}

std::string TQAVExport::outputURL() const
{
    std::lock_guard lock(propertyMutex_);
    return outputURL_;
}

void TQAVExport::setOutputURL(std::string url)
{
    std::lock_guard lock(propertyMutex_);
    outputURL_ = std::move(url);
}

std::string TQAVExport::outputPath() const
{
    const std::string url = outputURL();
    if (url.rfind("file://", 0) == 0) return url.substr(7);
    return url;
}

void TQAVExport::discardPartial()
{
    if (!partialPath_.empty()) ::unlink(partialPath_.c_str());
    partialPath_.clear();
}

void TQAVExport::exportAsset()
{
    if (running_) {
        const Error busy = exportError("An export is already in progress");
        DispatchQueue::main().async([this, busy] {
            if (TQAVExportDelegate* d = delegate_.load()) d->avExportFailed(*this, busy);
        });
        return;
    }
    // Whatever is at the output path stays until a complete movie replaces it; only a folder
    // (which a movie cannot replace) stops the export here.
    struct stat st {};
    const std::string path = outputPath();
    const bool folder = !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    Result<void> started = folder ? Result<void>(Error::fromErrno(EISDIR, path)) : setupAssetReaderAndAssetWriter();
    if (started) started = startAssetReaderAndWriter();
    if (!started) readingAndWritingDidFinishSuccessfully(false, started.error());
}

Result<void> TQAVExport::setupAssetReaderAndAssetWriter()
{
    const auto fail = [&](Error e) -> Result<void> {
        reader_.reset();
        audio_.reset();
        video_.reset();
        writer_.reset();
        discardPartial();
        return e;
    };
    const AssetRef source = asset();
    const std::string path = outputPath();
    if (!source) return fail(exportError("No asset to export"));
    if (path.empty()) return fail(exportError("No output URL"));
    auto reader = AssetReader::create(source);
    if (!reader) return fail(reader.error());
    reader_ = std::move(*reader);
    if (timeRange.duration.isNumeric() && timeRange.duration.value > 0)
        reader_->setTimeRange(timeRange.start, timeRange.duration);

    const auto videoTracks = source->tracksWithMediaType(MediaType::Video);
    if (!videoTracks.empty()) {
        const AssetTrackRef& track = videoTracks.front();
        const uint32_t stored = TQAVFoundation::fourCCForTrack(track);
        video_ = std::make_shared<Track>();
        video_->queue = videoQueue_;
        if (videoFourCC && videoFourCC != stored) {
            VideoOutputSettings settings;
            settings.codec = videoFourCC;
            settings.bitrate = videoBitrate;
            settings.keyFrameInterval = int64_t(videoKeyFrameInterval);
            video_->output = AssetReaderTrackOutput::createVideo(track, settings);
            if (!video_->output)
                return fail(
                    exportError(format("Video cannot be encoded as %@", TQAVFoundation::fourCCString(videoFourCC))));
        } else if (isStoredAsIs(stored)) {
            video_->output = AssetReaderTrackOutput::create(track);
        } else {
            return fail(
                exportError(format("Video coded as %@ cannot be copied unchanged into the movie; "
                                   "choose a codec to encode it with",
                                   TQAVFoundation::fourCCString(stored))));
        }
    }
    const auto audioTracks = source->tracksWithMediaType(MediaType::Audio);
    if (!audioTracks.empty()) {
        if (audioCodec != int64_t(kAudioFormatLinearPCM))
            return fail(exportError(format("Audio can only be written as linear PCM, not as %@",
                                           TQAVFoundation::fourCCString(uint32_t(audioCodec)))));
        AudioOutputSettings settings;
        settings.sampleRate = double(audioRate);
        settings.channels = uint32_t(audioChannelCount);
        settings.bitDepth = uint32_t(audioSampleSize);
        settings.isFloat = audioFloatingPoint;
        settings.bigEndian = !audioLittleEndian;
        settings.channelLayoutTag = audioLayout;
        audio_ = std::make_shared<Track>();
        audio_->queue = audioQueue_;
        audio_->output = AssetReaderTrackOutput::createAudio(audioTracks.front(), settings);
        if (!audio_->output)
            return fail(exportError(format("Audio cannot be written with %lu-bit samples%s",
                                           static_cast<unsigned long>(audioSampleSize),
                                           audioFloatingPoint ? " in floating point" : "")));
    }
    if (!audio_ && !video_) return fail(exportError("The asset has no audio or video to export"));

    // The movie is written beside its final path and renamed when complete.
    partialPath_ = format("%@.%d.partial", path, int(::getpid()));
    ::unlink(partialPath_.c_str());
    auto writer = AssetWriter::create(partialPath_, kFileTypeQuickTimeMovie);
    if (!writer) {
        partialPath_.clear();
        return fail(writer.error());
    }
    writer_ = std::move(*writer);
    for (Track* track : {video_.get(), audio_.get()}) {
        if (!track) continue;
        reader_->addOutput(track->output);
        track->input = AssetWriterInput::create(track == video_.get() ? MediaType::Video : MediaType::Audio);
        writer_->addInput(track->input);
    }
    return success();
}

Result<void> TQAVExport::startAssetReaderAndWriter()
{
    const AssetRef source = asset();
    const bool ranged = timeRange.duration.isNumeric() && timeRange.duration.value > 0;
    const MediaTime totalTime = ranged ? timeRange.duration : (source ? source->duration() : MediaTime::zero());
    total_ = float(totalTime.value);
    totalScale_ = totalTime.timescale > 0 ? totalTime.timescale : 1;
    totalStart_ = ranged ? timeRange.start : MediaTime::zero();

    if (!reader_ || !reader_->startReading())
        return (reader_ ? reader_->error() : std::nullopt).value_or(exportError("The asset cannot be read"));
    if (!writer_->startWriting()) return writer_->error().value_or(exportError("The movie cannot be written"));
    group_ = std::make_unique<DispatchGroup>();
    writer_->startSessionAtSourceTime(ranged ? timeRange.start : MediaTime::zero());
    lastPercent_ = std::make_shared<std::atomic<int64_t>>(0);
    cancelled_ = false;
    ++runNumber_;
    running_ = true;

    if (audio_) {
        audio_->finished = false;
        group_->enter();
        audio_->input->requestMediaDataWhenReadyOnQueue(audioQueue_, [this] { pump(*audio_, audioProgress_); });
    }
    if (video_) {
        video_->finished = false;
        group_->enter();
        video_->input->requestMediaDataWhenReadyOnQueue(videoQueue_, [this] { pump(*video_, videoProgress_); });
    }
    group_->notify(*mainQueue_, [this] { completion(); });
    return success();
}

void TQAVExport::pump(Track& track, std::atomic<float>& progress)
{
    if (track.finished || !track.input->isReadyForMoreMediaData()) return;
    bool done = false;
    while (track.input->isReadyForMoreMediaData() && !done) {
        if (cancelled_) return;  // the cancel step finishes the track on this queue
        const auto sample = track.output->copyNextSampleBuffer();
        if (!sample) {
            done = true;
            break;
        }
        if (!track.input->appendSampleBuffer(*sample)) done = true;

        // Progress of this track: its position in the exported span.
        const MediaTime at = (sample->presentationTimeStamp() - totalStart_).convertScale(totalScale_);
        const float p = total_ > 0 && at.isNumeric() ? std::clamp(float(at.value) / total_, 0.0f, 1.0f) : 0.0f;
        progress = p;
        const double mean = (double(audioProgress_) + double(videoProgress_)) * 0.5;
        const auto percent = int64_t(std::round(mean * 100.0));
        if (TQAVExportDelegate* d = delegate_.load(); d && percent > lastPercent_->load()) {
            lastPercent_->store(percent);
            d->avExportProgress(*this, float(mean));
        }
    }
    if (done && track.finish()) {
        track.input->markAsFinished();
        group_->leave();
    }
}

void TQAVExport::completion()
{
    running_ = false;  // a cancel step queued from now on finds nothing to stop
    if (cancelled_) {
        reader_->cancelReading();
        writer_->cancelWriting();
        discardPartial();
        readingAndWritingDidFinishSuccessfully(true, std::nullopt);
    } else if (reader_->status() == AssetReaderStatus::Failed) {
        readingAndWritingDidFinishSuccessfully(false, reader_->error());
    } else if (writer_->finishWriting()) {
        std::error_code ec;
        std::filesystem::rename(partialPath_, outputPath(), ec);
        if (ec) {
            readingAndWritingDidFinishSuccessfully(false, Error::fromErrno(ec.value(), outputPath()));
            return;
        }
        partialPath_.clear();
        readingAndWritingDidFinishSuccessfully(true, std::nullopt);
    } else {
        readingAndWritingDidFinishSuccessfully(false, writer_->error());
    }
}

void TQAVExport::readingAndWritingDidFinishSuccessfully(bool success, const std::optional<Error>& error)
{
    if (success) {
        // The finished flags stay set until the next start clears them: a cancel step queued
        // on a track's queue may still run after this, and must find its track finished.
        cancelled_ = false;
        DispatchQueue::main().async([this] {
            if (TQAVExportDelegate* d = delegate_.load()) d->avExportFinished(*this);
        });
        return;
    }
    if (reader_) reader_->cancelReading();
    if (writer_) writer_->cancelWriting();
    discardPartial();
    DispatchQueue::main().async([this, error] {
        if (TQAVExportDelegate* d = delegate_.load()) d->avExportFailed(*this, error);
    });
}

void TQAVExport::cancel()
{
    if (!running_) return;  // idle: nothing to stop, and the next export must not inherit it
    mainQueue_->async([this, run = runNumber_.load()] {
        if (!running_ || runNumber_ != run) return;
        for (const std::shared_ptr<Track>& track : {audio_, video_}) {
            if (!track || !track->input || track->finished) continue;
            track->queue->async([this, track] {
                if (track->finish()) {
                    track->input->markAsFinished();
                    group_->leave();
                }
            });
        }
        cancelled_ = true;
    });
}

}  // namespace corvina::tq
