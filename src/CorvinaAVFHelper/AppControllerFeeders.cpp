// The controller's feeder operations and properties: thin wrappers over the track feeders.
#include "AppController.h"

using namespace corvina;

VideoTrackFeeder& AppController::videoFeeder()
{
    if (!videoFeeder_) videoFeeder_ = std::make_unique<VideoTrackFeeder>(videoHandle_, videoEntries_);
    return *videoFeeder_;
}

AudioTrackFeeder& AppController::audioFeeder()
{
    if (!audioFeeder_) audioFeeder_ = std::make_unique<AudioTrackFeeder>(audioHandle_, audioEntries_);
    return *audioFeeder_;
}

namespace {

// A new feeder over another file or table that stands where the old one stood.
template <class Feeder>
void replaceFeeder(std::unique_ptr<Feeder>& feeder, std::shared_ptr<FileHandle> file,
                   std::shared_ptr<const MediaEntryTable> entries)
{
    if (!feeder) return;
    auto replacement = std::make_unique<Feeder>(std::move(file), std::move(entries));
    replacement->setEntryIndex(feeder->entryIndex());
    replacement->setFramesHandedOut(feeder->framesHandedOut());
    if constexpr (requires { feeder->frameIndex(); }) replacement->setFrameIndex(feeder->frameIndex());
    feeder = std::move(replacement);
}

}  // namespace

void AppController::setVideoHandle(std::shared_ptr<FileHandle> h)
{
    videoHandle_ = std::move(h);
    replaceFeeder(videoFeeder_, videoHandle_, videoEntries_);
}

void AppController::setAudioHandle(std::shared_ptr<FileHandle> h)
{
    audioHandle_ = std::move(h);
    replaceFeeder(audioFeeder_, audioHandle_, audioEntries_);
}

void AppController::setVideoOffsets(const Value& v)
{
    setVideoOffsets(std::make_shared<const MediaEntryTable>(MovieJob::entriesFrom(v)));
}

void AppController::setVideoOffsets(std::shared_ptr<const MediaEntryTable> entries)
{
    videoEntries_ = entries ? std::move(entries) : std::make_shared<const MediaEntryTable>();
    replaceFeeder(videoFeeder_, videoHandle_, videoEntries_);
}

void AppController::setAudioOffsets(const Value& v)
{
    setAudioOffsets(std::make_shared<const MediaEntryTable>(MovieJob::entriesFrom(v)));
}

void AppController::setAudioOffsets(std::shared_ptr<const MediaEntryTable> entries)
{
    audioEntries_ = entries ? std::move(entries) : std::make_shared<const MediaEntryTable>();
    replaceFeeder(audioFeeder_, audioHandle_, audioEntries_);
}

std::unique_ptr<SampleBuffer> AppController::copyNextVideoSampleBuffer(const FormatDescriptionRef& format, float fps)
{
    VideoTrackFeeder& feeder = videoFeeder();
    feeder.setFormat(format, FrameRate::fromDouble(fps));
    const SampleBuffer* sample = feeder.next();
    return sample ? sample->clone() : nullptr;
}

std::unique_ptr<SampleBuffer> AppController::copyNextAudioSampleBuffer(const FormatDescriptionRef& format,
                                                                       uint64_t sampleRate, uint64_t bytesPerFrame)
{
    AudioTrackFeeder& feeder = audioFeeder();
    feeder.setFormat(format, sampleRate, bytesPerFrame);
    const SampleBuffer* sample = feeder.next();
    return sample ? sample->clone() : nullptr;
}
