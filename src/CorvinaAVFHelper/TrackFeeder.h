// The two sample feeders of a movie session. Each owns its data file, its table of entries
// and its position as plain members: one feeder belongs to one track of one session and is
// only ever called from that track's pump, so nothing in it is shared or atomic.
//
// A feeder hands out one pooled sample buffer, refilled in place for every sample: the
// returned pointer stays valid until the next call, and a steady stream of samples touches
// the heap only while the pooled storage still grows.
//
// The interleave rule of the session's one pump lives here too: the track whose media ends
// earlier gets the next sample, video on a tie (VideoTrackFeeder::goesBefore), and the audio
// frames that would be taken one by one before the video's next turn go as one run
// (AudioTrackFeeder::framesBeforeTurnOf).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Foundation/FileHandle.h"
#include "helper/FrameSplitter.h"
#include "helper/MovieJob.h"
#include "SampleBuffer/SampleBuffer.h"

namespace corvina::helper {

// Reads byte ranges of one raw data file, never past its end; a read error reads as nothing.
// The file's size is taken once, when the reader is made: the data files do not change while
// a movie is written, and a file that shrinks anyway just reads short.
class EssenceReader {
public:
    explicit EssenceReader(std::shared_ptr<corvina::FileHandle> file = nullptr);
    // Opens a data file for reading: a regular file, or a block device (a disk read straight,
    // never written). A FIFO, a socket, a character device or a folder is refused with an
    // error saying which; what is checked is the opened descriptor, wherever a link led.
    static corvina::Result<std::unique_ptr<corvina::FileHandle>> open(const std::string& path);
    const std::shared_ptr<corvina::FileHandle>& file() const { return file_; }
    // Up to length bytes at offset into out; the number of bytes read.
    size_t readAt(uint64_t offset, uint64_t length, uint8_t* out);
    // The bytes at offset, at most length of them, served from a read-ahead window (the audio
    // feeder's frames are a few bytes each). Valid until the next call.
    std::span<const uint8_t> windowAt(uint64_t offset, size_t length);
    // Bytes the file (or the block device) held when the reader was made (0 when it could not be asked).
    uint64_t fileSize() const { return size_; }

private:
    static constexpr size_t kWindowBytes = 256u << 10;
    std::shared_ptr<corvina::FileHandle> file_;
    uint64_t size_ = 0;
    std::vector<uint8_t> window_;
    uint64_t windowStart_ = 0;
    size_t windowLength_ = 0;
};

class AudioTrackFeeder;

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
    uint64_t framesHandedOut() const { return framesHandedOut_; }
    const std::shared_ptr<corvina::FileHandle>& file() const { return reader_.file(); }
    const MediaEntryTable& entries() const { return *entries_; }
    uint64_t fileSize() const { return reader_.fileSize(); }
    const corvina::FrameRate& timing() const { return timing_; }
    // Up to `count` bytes from the start of the first entry (a frame header that tells the
    // frame size); empty when there is no entry or nothing can be read there.
    std::vector<uint8_t> firstEntryStart(size_t count);

    // The end of the media handed out so far, exactly.
    corvina::MediaTime mediaEnd() const;
    // The interleave rule: true when the video's media ends no later than the audio's, so
    // the video takes the next turn.
    bool goesBefore(const AudioTrackFeeder& audio) const;

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
    uint64_t frameIndex() const { return frameIndex_; }
    uint64_t framesHandedOut() const { return framesHandedOut_; }
    const std::shared_ptr<corvina::FileHandle>& file() const { return reader_.file(); }
    const MediaEntryTable& entries() const { return *entries_; }
    uint64_t fileSize() const { return reader_.fileSize(); }

    // The end of the media handed out so far, exactly.
    corvina::MediaTime mediaEnd() const;
    // The most frames one run hands out (once the video track has ended).
    static constexpr uint64_t kMaxRun = 1u << 14;
    // The interleave rule for audio: how many frames to hand out at once so that the audio
    // reaches the end of the video handed out so far (at least 1, at most kMaxRun), exactly
    // the frames that one-by-one turns would take before the video's next turn.
    uint64_t framesBeforeTurnOf(const VideoTrackFeeder& video) const;

private:
    static constexpr uint64_t kRunBytes = 64u << 10;
    // Entries of up to this many frames may carry a run on into the ones after them.
    static constexpr uint64_t kMostFramesFollowing = 7;
    // How many entries after `entry` (of `frames` whole frames) hold as many frames and
    // follow on from it in the file, within roomFrames frames.
    uint64_t followingEntries(const MediaEntry& entry, uint64_t frames, uint64_t roomFrames) const;
    size_t readRun(const MediaEntry& entry, uint64_t frames, uint64_t following, uint64_t& count, uint64_t& passed);
    void logRunLines(uint64_t count, uint64_t frames, uint64_t passed) const;
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

}  // namespace corvina::helper
