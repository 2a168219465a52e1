// The two sample feeders of a movie session. Each owns its data file, its table of entries
// and its position as plain members: one feeder belongs to one track of one session and is
// only ever called from that track's pump, so nothing in it is shared or atomic.
//
// A feeder hands out one pooled sample buffer, refilled in place for every sample: the
// returned pointer stays valid until the next call, and a steady stream of samples touches
// the heap only while the pooled storage still grows.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Foundation/FileHandle.h"
#include "FrameSplitter.h"
#include "MovieJob.h"
#include "SampleBuffer/SampleBuffer.h"

// Reads byte ranges of one raw data file, never past its end; a read error reads as nothing.
class EssenceReader {
public:
    explicit EssenceReader(std::shared_ptr<corvina::FileHandle> file = nullptr);
    const std::shared_ptr<corvina::FileHandle>& file() const { return file_; }
    // Up to length bytes at offset into out; the number of bytes read.
    size_t readAt(uint64_t offset, uint64_t length, uint8_t* out);
    // The bytes at offset, at most length of them, served from a read-ahead window (the audio
    // feeder's frames are a few bytes each). Valid until the next call.
    std::span<const uint8_t> windowAt(uint64_t offset, size_t length);
    // Bytes the file holds now (0 when it cannot be asked).
    uint64_t fileSize();

private:
    static constexpr size_t kWindowBytes = 256u << 10;
    std::shared_ptr<corvina::FileHandle> file_;
    std::vector<uint8_t> window_;
    uint64_t windowStart_ = 0;
    size_t windowLength_ = 0;
};

class VideoTrackFeeder {
public:
    VideoTrackFeeder(std::shared_ptr<corvina::FileHandle> file, std::shared_ptr<const MediaEntryTable> entries);

    // The format the samples carry and how they are timed; the splitter follows the codec.
    void setFormat(const corvina::FormatDescriptionRef& format, corvina::FrameRate timing);

    // The next sample, or null at the end of the table or when an entry cannot be read or
    // wrapped (with the log line that says which).
    const corvina::SampleBuffer* next();

    // Where the track stands: the next entry, and the frames handed out before it.
    uint64_t entryIndex() const { return entryIndex_; }
    void setEntryIndex(uint64_t index) { entryIndex_ = index; }
    uint64_t framesHandedOut() const { return framesHandedOut_; }
    void setFramesHandedOut(uint64_t frames) { framesHandedOut_ = frames; }
    const std::shared_ptr<corvina::FileHandle>& file() const { return reader_.file(); }
    const std::shared_ptr<const MediaEntryTable>& entries() const { return entries_; }
    const corvina::FrameRate& timing() const { return timing_; }

private:
    EssenceReader reader_;
    std::shared_ptr<const MediaEntryTable> entries_;
    corvina::FormatDescriptionRef format_;
    corvina::FrameRate timing_;
    FrameSplitter splitter_;
    std::unique_ptr<corvina::SampleBuffer> sample_ = corvina::SampleBuffer::makeReusable();
    std::vector<size_t> sizes_;
    uint64_t entryIndex_ = 0;
    uint64_t framesHandedOut_ = 0;
};

class AudioTrackFeeder {
public:
    AudioTrackFeeder(std::shared_ptr<corvina::FileHandle> file, std::shared_ptr<const MediaEntryTable> entries);

    void setFormat(const corvina::FormatDescriptionRef& format, uint64_t sampleRate, uint64_t bytesPerFrame);

    // The next audio frame as a sample of its own, or null at the end of the table or when
    // the frame cannot be read or wrapped.
    const corvina::SampleBuffer* next();
    // Up to maxFrames consecutive frames as one sample buffer of that many samples: the
    // current entry's, and those of following entries that continue it in the file with as
    // many frames (fewer at an entry's end or when the file ends). Logs the lines, moves the
    // indices and fails exactly as that many calls of next() would; the writer's
    // appendSampleRun stores it as it would store them one by one.
    const corvina::SampleBuffer* nextRun(uint64_t maxFrames);

    uint64_t entryIndex() const { return entryIndex_; }
    void setEntryIndex(uint64_t index) { entryIndex_ = index; }
    uint64_t frameIndex() const { return frameIndex_; }
    void setFrameIndex(uint64_t index) { frameIndex_ = index; }
    uint64_t framesHandedOut() const { return framesHandedOut_; }
    void setFramesHandedOut(uint64_t frames) { framesHandedOut_ = frames; }
    uint64_t sampleRate() const { return sampleRate_; }
    const std::shared_ptr<corvina::FileHandle>& file() const { return reader_.file(); }
    const std::shared_ptr<const MediaEntryTable>& entries() const { return entries_; }

private:
    static constexpr uint64_t kRunBytes = 64u << 10;
    // Entries of up to this many frames may carry a run on into the ones after them.
    static constexpr uint64_t kMostFramesFollowing = 7;
    // How many entries after `entry` (of `frames` whole frames) hold as many frames and
    // follow on from it in the file, within roomFrames frames.
    uint64_t followingEntries(const MediaEntry& entry, uint64_t frames, uint64_t roomFrames) const;
    EssenceReader reader_;
    std::shared_ptr<const MediaEntryTable> entries_;
    corvina::FormatDescriptionRef format_;
    uint64_t sampleRate_ = 0;
    uint64_t bytesPerFrame_ = 0;
    std::unique_ptr<corvina::SampleBuffer> sample_ = corvina::SampleBuffer::makeReusable();
    uint64_t entryIndex_ = 0;
    uint64_t frameIndex_ = 0;
    uint64_t framesHandedOut_ = 0;
};
