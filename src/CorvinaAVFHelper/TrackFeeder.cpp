#include "helper/TrackFeeder.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Foundation/Error.h"
#include "Foundation/PosixIO.h"
#include "tq/TQLog.h"

namespace corvina::helper {
using namespace corvina::tq;

using namespace corvina;

// ---------------------------------------------------------------------------------------
// EssenceReader

EssenceReader::EssenceReader(std::shared_ptr<FileHandle> file) : file_(std::move(file))
{
    struct stat info {};
    if (!file_ || file_->isClosed() || ::fstat(file_->fileDescriptor(), &info) != 0) return;
    if (S_ISBLK(info.st_mode)) {
        uint64_t bytes = 0;
        if (::ioctl(file_->fileDescriptor(), BLKGETSIZE64, &bytes) == 0) size_ = bytes;
    } else if (info.st_size > 0) {
        size_ = static_cast<uint64_t>(info.st_size);
    }
}

Result<std::unique_ptr<FileHandle>> EssenceReader::open(const std::string& path)
{
    auto file = FileHandle::forReadingRegularFileAtPath(path);
    if (file) return std::move(*file);
    // Refused as no regular file: a block device is taken after all (read only, its
    // descriptor checked); anything else keeps the refusal's error.
    auto device = FileHandle::forReadingAtPath(path);
    struct stat info {};
    if (device && ::fstat(device->fileDescriptor(), &info) == 0 && S_ISBLK(info.st_mode)) return device;
    return file.error();
}

size_t EssenceReader::readAt(uint64_t offset, uint64_t length, uint8_t* out)
{
    if (!file_ || file_->isClosed() || length == 0 || offset > uint64_t(INT64_MAX)) return 0;
    // A range that would end past the largest file offset is cut there: pread never sees a
    // negative offset.
    length = std::min(length, uint64_t(INT64_MAX) - offset);
    // What could be read: a read error ends the range as the end of the file does.
    return corvina::posix::preadAll(file_->fileDescriptor(), {out, size_t(length)}, offset).count;
}

std::span<const uint8_t> EssenceReader::windowAt(uint64_t offset, size_t length)
{
    // Compared without adding offsets, so no offset (an impossible one from the document
    // included) can wrap around into the window.
    if (offset >= windowStart_) {
        const uint64_t into = offset - windowStart_;
        if (into <= windowLength_ && length <= windowLength_ - into) return {window_.data() + into, length};
    }
    const size_t want = std::max(length, kWindowBytes);
    if (window_.size() < want) window_.resize(want);
    windowStart_ = offset;
    windowLength_ = readAt(offset, want, window_.data());
    return {window_.data(), std::min(length, windowLength_)};
}

// ---------------------------------------------------------------------------------------
// VideoTrackFeeder

VideoTrackFeeder::VideoTrackFeeder(std::shared_ptr<FileHandle> file, std::shared_ptr<const MediaEntryTable> entries)
    : reader_(std::move(file)), entries_(entries ? std::move(entries) : std::make_shared<const MediaEntryTable>())
{
}

void VideoTrackFeeder::setFormat(const FormatDescriptionRef& format, FrameRate timing)
{
    if (format_ != format) {
        format_ = format;
        splitter_ = format ? FrameSplitter::forCodec(format->mediaSubType()) : FrameSplitter();
    }
    timing_ = timing;
}

std::vector<uint8_t> VideoTrackFeeder::firstEntryStart(size_t count)
{
    if (entries_->empty()) return {};
    std::vector<uint8_t> bytes(std::min<uint64_t>(entries_->front().length, count));
    bytes.resize(reader_.readAt(entries_->front().offset, bytes.size(), bytes.data()));
    return bytes;
}

MediaTime VideoTrackFeeder::mediaEnd() const { return timing_.durationOfFrames(int64_t(framesHandedOut_)); }

bool VideoTrackFeeder::goesBefore(const AudioTrackFeeder& audio) const { return mediaEnd() <= audio.mediaEnd(); }

const SampleBuffer* VideoTrackFeeder::next()
{
    TQLog::sampleAppendLog("Requesting next video sample at sample index...");
    if (entryIndex_ >= entries_->size()) return nullptr;
    const MediaEntry& entry = (*entries_)[entryIndex_];
    const uint64_t frameCount = entry.frameCount < 1 ? 1 : uint64_t(entry.frameCount);

    // Never more than the file holds, so an absurd length in the document costs nothing.
    const uint64_t fileSize = reader_.fileSize();
    const uint64_t available = entry.offset < fileSize ? fileSize - entry.offset : 0;
    const uint64_t want = std::min(entry.length, available);
    BlockBuffer* block = sample_->mutableDataBuffer();
    size_t got = 0;
    if (want > 0) got = reader_.readAt(entry.offset, want, block->prepare(size_t(want)));
    block->setDataLength(got);
    if (got == 0) {
        TQLog::fastAppendLog("Error allocating video block buffer");
        return nullptr;
    }

    const MediaTime start = mediaEnd();
    OSStatus status;
    if (frameCount > 1 && got == entry.length && splitter_.split({block->data(), got}, frameCount, sizes_)) {
        // One sample a frame, each with its own size when they differ.
        const SampleTimingInfo timing{timing_.frameDuration(), start, MediaTime::invalid()};
        status = sample_->refill(format_, int64_t(frameCount), {&timing, 1}, sizes_);
    } else {
        // One sample that lasts all of the entry's frames.
        const SampleTimingInfo timing{timing_.durationOfFrames(int64_t(frameCount)), start, MediaTime::invalid()};
        const size_t size = size_t(entry.length);
        status = sample_->refill(format_, 1, {&timing, 1}, {&size, 1});
    }
    if (status != kNoErr) {
        TQLog::fastAppendLog("Error creating video CMSampleBuffer");
        return nullptr;
    }
    ++entryIndex_;
    framesHandedOut_ += frameCount;
    return sample_.get();
}

// ---------------------------------------------------------------------------------------
// AudioTrackFeeder

uint64_t AudioTrackFeeder::followingEntries(const MediaEntry& entry, uint64_t frames, uint64_t roomFrames) const
{
    if (frames == 0 || frames > kMostFramesFollowing || entry.length != frames * bytesPerFrame_) return 0;
    uint64_t count = 0;
    uint64_t end = entry.offset;
    for (uint64_t i = entryIndex_ + 1; i < entries_->size() && roomFrames >= frames; ++i) {
        const MediaEntry& next = (*entries_)[i];
        if (end > UINT64_MAX - entry.length || next.offset != end + entry.length || next.length != entry.length) break;
        end = next.offset;
        roomFrames -= frames;
        ++count;
    }
    return count;
}

AudioTrackFeeder::AudioTrackFeeder(std::shared_ptr<FileHandle> file, std::shared_ptr<const MediaEntryTable> entries)
    : reader_(std::move(file)), entries_(entries ? std::move(entries) : std::make_shared<const MediaEntryTable>())
{
}

void AudioTrackFeeder::setFormat(const FormatDescriptionRef& format, uint64_t sampleRate, uint64_t bytesPerFrame)
{
    format_ = format;
    sampleRate_ = sampleRate;
    bytesPerFrame_ = bytesPerFrame;
}

// Reads the run of `count` frames at the current position into the pooled block, and the
// `following` entries of `frames` frames after it when the file holds all of them (*passed
// says how many it did). A short read keeps whole frames only, and hands out the frame it cut
// alone. The bytes read; 0 when nothing could be.
size_t AudioTrackFeeder::readRun(const MediaEntry& entry, uint64_t frames, uint64_t following, uint64_t& count,
                                 uint64_t& passed)
{
    const uint64_t within = frameIndex_ * bytesPerFrame_;
    BlockBuffer* block = sample_->mutableDataBuffer();
    size_t got = 0;
    if (entry.offset <= UINT64_MAX - within && bytesPerFrame_ <= (1u << 20)) {
        const uint64_t wanted = (count + following * frames) * bytesPerFrame_;
        const std::span<const uint8_t> bytes = reader_.windowAt(entry.offset + within, size_t(wanted));
        got = bytes.size();
        if (got == wanted) {
            passed = following;
        } else if (got < count * bytesPerFrame_) {
            // Only whole frames make a run; a short read hands out the frame it cut alone.
            count = std::max<uint64_t>(1, got / bytesPerFrame_);
            got = std::min<size_t>(got, count * bytesPerFrame_);
        } else {
            got = size_t(count * bytesPerFrame_);
        }
        if (got) std::memcpy(block->prepare(got), bytes.data(), got);
    }
    block->setDataLength(got);
    return got;
}

// The lines that the frames of a run after its first, and the entries it passed into, would
// have written had each frame been asked for alone.
void AudioTrackFeeder::logRunLines(uint64_t count, uint64_t frames, uint64_t passed) const
{
    if (count > 1) {
        const FormatArg request[] = {entryIndex_, frameIndex_ + 1};
        const FormatArg number[] = {frames};
        const TQLog::SeriesLine lines[] = {{"Requesting next audio sample at sample index %u,%u...", request, 1},
                                           {"number of audio samples: %u", number, std::nullopt}};
        TQLog::sampleAppendLogSeries(count - 1, lines);
    }
    if (passed > 0) {
        // Per entry passed into: the call that finds the previous one used up, then one
        // call per frame of the next.
        FormatArg request[kMostFramesFollowing + 1][2];
        const FormatArg number[] = {frames};
        TQLog::SeriesLine lines[2 * (kMostFramesFollowing + 1)];
        for (uint64_t j = 0; j <= frames; ++j) {
            request[j][0] = j == 0 ? entryIndex_ : entryIndex_ + 1;
            request[j][1] = j == 0 ? frames : j - 1;
            lines[2 * j] = {"Requesting next audio sample at sample index %u,%u...", request[j], 0};
            lines[2 * j + 1] = {"number of audio samples: %u", number, std::nullopt};
        }
        TQLog::sampleAppendLogSeries(passed, std::span(lines, size_t(2 * (frames + 1))));
    }
}

const SampleBuffer* AudioTrackFeeder::next() { return nextRun(1); }

MediaTime AudioTrackFeeder::mediaEnd() const
{
    return MediaTime::make(int64_t(framesHandedOut_), static_cast<int32_t>(sampleRate_));
}

uint64_t AudioTrackFeeder::framesBeforeTurnOf(const VideoTrackFeeder& video) const
{
    // The video's end in audio frames, rounded up, minus the frames handed out: the audio
    // frames that come before the video's next turn.
    const FrameRate& rate = video.timing();
    if (!rate.isValid()) return kMaxRun;
    const MediaTime turn =
        rate.durationOfFrames(int64_t(video.framesHandedOut()))
            .convertScale(static_cast<int32_t>(sampleRate_), MediaTime::Rounding::towardPositiveInfinity);
    if (!turn.isNumeric()) return kMaxRun;
    const uint64_t handed = framesHandedOut_;
    return uint64_t(turn.value) > handed ? std::min<uint64_t>(uint64_t(turn.value) - handed, kMaxRun) : 1;
}

const SampleBuffer* AudioTrackFeeder::nextRun(uint64_t maxFrames)
{
    // Passing over a used-up entry is a turn of this loop, so a long run of entries without a
    // whole frame costs no stack.
    for (;;) {
        TQLog::sampleAppendLog("Requesting next audio sample at sample index %u,%u...", entryIndex_, frameIndex_);
        if (entryIndex_ >= entries_->size() || bytesPerFrame_ == 0) return nullptr;
        const MediaEntry& entry = (*entries_)[entryIndex_];
        const uint64_t frames = entry.length / bytesPerFrame_;
        TQLog::sampleAppendLog("number of audio samples: %u", frames);
        if (frameIndex_ >= frames) {
            frameIndex_ = 0;
            ++entryIndex_;
            continue;
        }

        // The frames asked for that this entry still holds, as many as fit the read window.
        const uint64_t most =
            std::max<uint64_t>(1, std::min(std::max<uint64_t>(maxFrames, 1), kRunBytes / bytesPerFrame_));
        uint64_t count = std::min(most, frames - frameIndex_);
        // A run that reaches the entry's end goes on into the entries after it that hold the
        // same whole number of frames and follow on in the file (carved audio in short
        // pieces): the lines that passing from one to the next writes form a series too.
        const uint64_t following = frameIndex_ + count == frames ? followingEntries(entry, frames, most - count) : 0;
        uint64_t passed = 0;
        const size_t got = readRun(entry, frames, following, count, passed);
        if (got == 0) {
            TQLog::fastAppendLog("Error allocating audio block buffer");
            return nullptr;
        }

        const auto timescale = static_cast<int32_t>(sampleRate_);
        const SampleTimingInfo timing{MediaTime::make(1, timescale),
                                      MediaTime::make(static_cast<int64_t>(framesHandedOut_), timescale),
                                      MediaTime::invalid()};
        const size_t size = size_t(bytesPerFrame_);
        const uint64_t handed = count + passed * frames;
        if (sample_->refill(format_, int64_t(handed), {&timing, 1}, {&size, 1}) != kNoErr) {
            TQLog::fastAppendLog("Error creating audio CMSampleBuffer");
            return nullptr;
        }
        logRunLines(count, frames, passed);
        if (passed > 0) {
            entryIndex_ += passed;
            frameIndex_ = frames;
        } else {
            frameIndex_ += count;
        }
        framesHandedOut_ += handed;
        return sample_.get();
    }
}

}  // namespace corvina::helper
