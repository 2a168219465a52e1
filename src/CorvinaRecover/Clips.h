// From frames in input order to clips: runs of frames of one format and frame size whose
// timecode (where the essence carries one) goes on frame by frame and whose gaps are no longer
// than interleaved audio explains. With an audio layout, the bytes between a clip's frames are
// its audio runs when they hold whole sample frames that look like 16-bit PCM.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "recover/Essence.h"
#include "recover/Scanner.h"

namespace corvina::recover {

// What the reference (or --format) fixes about the essence.
struct Expectation {
    std::optional<int64_t> formatType;
    std::optional<double> frameRate;
    int32_t width = 0, height = 0;  // 0: as the frames say
    int64_t audioFormat = 0;        // the helper's audio row, 0: no audio between frames
};

struct ByteRange {
    uint64_t offset = 0;
    uint64_t length = 0;
    uint64_t end() const { return offset + length; }
};

struct Clip {
    int64_t formatType = -1;
    Family family = Family::DV;
    int32_t width = 0, height = 0;
    double frameRate = 0;
    std::vector<ByteRange> frames;
    std::optional<Timecode> startTimecode, endTimecode;
    std::vector<uint64_t> joinedAt;  // frame indexes where a later piece of the clip was joined on
    // Frames a file system cut in two: frames[index] is the head, `tail` the rest, elsewhere.
    struct CutFrame {
        size_t index = 0;
        ByteRange tail;
    };
    std::vector<CutFrame> cutFrames;
    int64_t audioFormat = 0;
    std::vector<ByteRange> audio;
    uint64_t audioGapsRefused = 0;           // gaps between frames that were not all audio (the clip ended there)
    std::vector<ByteRange> audioNotPlaced;   // sound before the clip's first frame that it could not take
    uint64_t longestSoundBetweenFrames = 0;  // the interleave's largest chunk of sound in the clip
    std::vector<Rejection> rejections;       // damaged frames inside the clip's span
    std::string endReason;                   // why the clip ended where it did
    int dvAudioRate = 0, dvAudioBits = 0;

    uint64_t firstByte() const { return frames.empty() ? 0 : frames.front().offset; }
    uint64_t lastByte() const { return frames.empty() ? 0 : frames.back().end(); }
    double seconds() const { return frameRate > 0 ? double(frames.size()) / frameRate : 0; }
};

// Reads up to into.size() bytes at offset of the input (for the audio checks); the count read,
// fewer at the input's end or on failure.
using ReadBytes = std::function<size_t(uint64_t offset, std::span<uint8_t> into)>;

// Frames the expectation rules out become rejections. Pieces of one recording that a file
// system scattered (their timecode goes on where another piece's ends, give or take the frames
// that straddled the cut) are joined into one clip in timecode order.
std::vector<Clip> groupClips(const std::vector<FrameInfo>& frames, const std::vector<Rejection>& rejections,
                             const Expectation& expectation, const ReadBytes& read,
                             std::vector<Rejection>* outside = nullptr);

// Whether bytes read as 16-bit PCM of `channels` channels in the byte order given: a sound
// moves little from one sample to the next compared to its level, noise and compressed
// video do not.
bool looksLikePCM(std::span<const uint8_t> bytes, int channels, bool bigEndian);

// The frame rate the helper is given for a clip: the expectation's, else the essence's, else
// 29.97 (Motion JPEG carries none).
// How many sample frames of 16-bit PCM of `channels` channels run on unbroken from the start
// of bytes (forward) or back from their end (backward): each sample must land near where its
// channel's last two samples point, as sound does and noise, video and atom headers do not. A
// run of zero samples (what file systems and holes leave) ends it; a run shorter than
// kShortestEdgeRun sample frames, or one of zeros only, counts as none.
size_t soundRunFrames(std::span<const uint8_t> bytes, int channels, bool bigEndian, bool backward);
constexpr size_t kShortestEdgeRun = 4;

double clipFrameRate(const Expectation& expectation, const FrameInfo& first);

}  // namespace corvina::recover
