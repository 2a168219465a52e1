#include "recover/Clips.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "helper/AppController.h"
#include "Foundation/ByteOrder.h"

namespace corvina::recover {
using namespace corvina::helper;

namespace {

Family familyOfRow(int64_t formatType)
{
    if (formatType == 4) return Family::JPEG;
    if (formatType >= 30 && formatType <= 35) return Family::ProRes;
    return Family::DV;
}

std::string number(uint64_t n) { return std::to_string(n); }

// A piece whose first timecode follows another's last one, at most this many frames on
// (the frames cut in two where the file system split the file are lost), continues it.
constexpr int kMostFramesLostAtACut = 3;

// The frame a file system cut in two where it split a recording: its head runs from the first
// piece's end to the end of a sector, its tail begins on a sector and ends where the later
// piece starts. Every split on a sector boundary is tried; the one whose whole frame passes
// the DV reader with the timecode between the pieces is taken, and none when two do.
std::optional<std::pair<ByteRange, ByteRange>> cutFrameBetween(const Clip& first, const Clip& then,
                                                               const Timecode& expected, const ReadBytes& read)
{
    constexpr uint64_t kSector = 512;
    const uint64_t size = first.frames.back().length, head = first.lastByte(), tailEnd = then.firstByte();
    // The head ends and the tail begins on a sector: both at once only when these agree.
    if (first.family != Family::DV || tailEnd < size || (head + size - tailEnd) % kSector != 0) return std::nullopt;
    // What could hold the head (after the first piece) and the tail (before the later one).
    std::vector<uint8_t> after(size), before(size), frame(size);
    if (read(head, after) != size || read(tailEnd - size, before) != size) return std::nullopt;
    std::optional<std::pair<ByteRange, ByteRange>> found;
    for (uint64_t split = (kSector - head % kSector) % kSector; split < size; split += kSector) {
        const ByteRange headRange{head, split}, tailRange{tailEnd - (size - split), size - split};
        if (split == 0 || (headRange.offset < tailRange.end() && tailRange.offset < headRange.end())) continue;
        std::memcpy(frame.data(), after.data(), size_t(split));
        std::memcpy(frame.data() + split, before.data() + split, size_t(size - split));
        const Examination e = examineDV(frame, true);
        if (e.verdict != Examination::Verdict::Frame || e.frame.length != size || e.frame.timecode != expected)
            continue;
        if (found) return std::nullopt;
        found = {headRange, tailRange};
    }
    return found;
}

// Whether two pieces could be of one recording: the same row and frame size.
bool samePicture(const Clip& a, const Clip& b)
{
    return a.formatType == b.formatType && a.width == b.width && a.height == b.height;
}

// Appends the later piece `then` of a recording to `first`: its frames (with the frames cut in
// two inside it), the sound that stood before its first frame, which goes on between the two,
// then its own sound, and how it ends.
void appendPiece(Clip& first, const Clip& then)
{
    for (const Clip::CutFrame& cut : then.cutFrames)
        first.cutFrames.push_back({cut.index + first.frames.size(), cut.tail});
    first.joinedAt.push_back(first.frames.size());
    first.frames.insert(first.frames.end(), then.frames.begin(), then.frames.end());
    first.audio.insert(first.audio.end(), then.audioNotPlaced.begin(), then.audioNotPlaced.end());
    first.audio.insert(first.audio.end(), then.audio.begin(), then.audio.end());
    first.audioGapsRefused += then.audioGapsRefused;
    first.longestSoundBetweenFrames = std::max(first.longestSoundBetweenFrames, then.longestSoundBetweenFrames);
    first.endReason = then.endReason;
}

void joinPieces(std::vector<Clip>& clips, const ReadBytes& read)
{
    bool joined = true;
    while (joined) {
        joined = false;
        for (size_t a = 0; a < clips.size() && !joined; ++a) {
            Clip& first = clips[a];
            if (!first.endTimecode) continue;
            const int nominal = int(std::lround(first.frameRate));
            for (size_t b = 0; b < clips.size() && !joined; ++b) {
                Clip& then = clips[b];
                if (a == b || !then.startTimecode || !samePicture(first, then)) continue;
                // A piece right after in the input lost frames to damage, not to a cut: the
                // jump in its timecode is real and the clips stay apart.
                const uint64_t frameBytes = first.frames.back().length;
                if (then.firstByte() >= first.lastByte() &&
                    then.firstByte() - first.lastByte() <= uint64_t(kMostFramesLostAtACut + 1) * frameBytes)
                    continue;
                Timecode expected = first.endTimecode->next(nominal);
                for (int lost = 0; lost <= kMostFramesLostAtACut && !joined;
                     ++lost, expected = expected.next(nominal)) {
                    if (expected != *then.startTimecode) continue;
                    // One frame between the pieces is the one cut in two, when it can be put together.
                    if (lost == 1)
                        if (const auto cut = cutFrameBetween(first, then, first.endTimecode->next(nominal), read)) {
                            first.cutFrames.push_back({first.frames.size(), cut->second});
                            first.frames.push_back(cut->first);
                        }
                    appendPiece(first, then);
                    first.endTimecode = then.endTimecode;
                    clips.erase(clips.begin() + std::ptrdiff_t(b));
                    joined = true;
                }
            }
        }
    }
}

// Pieces of one recording whose essence carries no timecode (ProRes, Motion JPEG) that a file
// system cut apart inside a chunk of sound: the first piece's sound runs past its last frame to
// the cut, the later piece's leading sound runs from the cut to its first frame, and across the
// junction each sample lands where its channel's last two point. Such pieces of the same row
// and frame size are joined when the match is the only one for both.
void joinBySound(std::vector<Clip>& clips, const ReadBytes& read, const AudioFormatInfo& audio)
{
    constexpr size_t kSide = 64;  // sample frames on either side of the junction
    const size_t side = kSide * audio.feederBytesPerFrame;
    // Each clip's last sound, when it runs on from its last frame, and its first, when it runs
    // up to its first frame and has no clip before it: `side` bytes of each, read once.
    std::vector<std::vector<uint8_t>> tails(clips.size()), heads(clips.size());
    for (size_t i = 0; i < clips.size(); ++i) {
        const Clip& clip = clips[i];
        if (clip.family == Family::DV) continue;
        if (!clip.audio.empty()) {
            const ByteRange& tail = clip.audio.back();
            tails[i].resize(side);
            if (tail.offset != clip.lastByte() || tail.length < side || read(tail.end() - side, tails[i]) != side)
                tails[i].clear();
        }
        if (clip.audioNotPlaced.size() == 1) {
            const ByteRange& head = clip.audioNotPlaced.front();
            heads[i].resize(side);
            if (head.end() != clip.firstByte() || head.length < side || read(head.offset, heads[i]) != side)
                heads[i].clear();
        }
    }
    // The pairs whose sound goes on across the junction; a clip's only one is taken when it is
    // also the other clip's only one.
    std::vector<size_t> after(clips.size(), 0), before(clips.size(), 0);
    std::vector<std::optional<size_t>> next(clips.size());
    std::vector<uint8_t> junction(2 * side);
    for (size_t a = 0; a < clips.size(); ++a)
        for (size_t b = 0; b < clips.size(); ++b) {
            if (a == b || tails[a].empty() || heads[b].empty() || !samePicture(clips[a], clips[b])) continue;
            std::copy(tails[a].begin(), tails[a].end(), junction.begin());
            std::copy(heads[b].begin(), heads[b].end(), junction.begin() + std::ptrdiff_t(side));
            if (soundRunFrames(junction, int(audio.channels), audio.bigEndian, false) != 2 * kSide) continue;
            ++after[a];
            ++before[b];
            next[a] = b;
        }
    for (size_t a = 0; a < clips.size(); ++a)
        if (next[a] && (after[a] != 1 || before[*next[a]] != 1)) next[a].reset();
    // Each chain of pieces becomes its first piece's clip, in the order of the first pieces (a
    // ring of pieces, which no recording makes, is cut open where the input meets it first).
    std::vector<bool> followsAnother(clips.size(), false), used(clips.size(), false);
    for (size_t a = 0; a < clips.size(); ++a)
        if (next[a]) followsAnother[*next[a]] = true;
    std::vector<Clip> joined;
    for (int pass = 0; pass < 2; ++pass)
        for (size_t a = 0; a < clips.size(); ++a) {
            if (used[a] || (pass == 0 && followsAnother[a])) continue;
            used[a] = true;
            Clip first = std::move(clips[a]);
            for (std::optional<size_t> b = next[a]; b && !used[*b]; b = next[*b]) {
                used[*b] = true;
                appendPiece(first, clips[*b]);
            }
            joined.push_back(std::move(first));
        }
    clips = std::move(joined);
}

}  // namespace

double clipFrameRate(const Expectation& expectation, const FrameInfo& first)
{
    if (expectation.frameRate && *expectation.frameRate > 0) return *expectation.frameRate;
    if (first.frameRate > 0) return first.frameRate;
    return 30000.0 / 1001;
}

bool looksLikePCM(std::span<const uint8_t> bytes, int channels, bool bigEndian)
{
    const size_t frameBytes = size_t(2 * channels);
    const size_t count = bytes.size() / frameBytes;
    if (count < 2) return true;  // too short to tell; a lone frame of sound harms nothing
    // Summed over all channels: how far each sample moves from the previous one of its
    // channel, against how far samples are from zero.
    double moves = 0, level = 0;
    const auto sample = [&](size_t frame, int channel) {
        const uint8_t* p = bytes.data() + frame * frameBytes + size_t(channel) * 2;
        return int(corvina::loadPCM16(p, bigEndian));
    };
    for (size_t f = 1; f < count; ++f)
        for (int c = 0; c < channels; ++c) {
            const int s = sample(f, c);
            moves += std::abs(s - sample(f - 1, c));
            level += std::abs(s);
        }
    // Uniform noise moves about 4/3 of its level from sample to sample; sound far less. The
    // allowance per sample keeps near-silence (a few steps of dither) from being refused.
    return moves <= 0.8 * level + 48.0 * double(count - 1) * channels;
}

size_t soundRunFrames(std::span<const uint8_t> bytes, int channels, bool bigEndian, bool backward)
{
    // A sample may land this far from where its channel's last two point, or four times its
    // channel's recent largest step when that is more (loud, bright sound).
    constexpr int kLeastTolerance = 256;
    constexpr size_t kZeroRun = 64;
    const size_t frameBytes = size_t(2 * channels), count = bytes.size() / frameBytes;
    const auto sample = [&](size_t i, int channel) {
        const size_t frame = backward ? count - 1 - i : i;
        const uint8_t* p = bytes.data() + frame * frameBytes + size_t(channel) * 2;
        return int(int16_t(bigEndian ? (p[0] << 8 | p[1]) : (p[1] << 8 | p[0])));
    };
    std::vector<int> step(size_t(channels), 0);
    size_t run = 0, zeros = 0;
    for (size_t i = 0; i < count; ++i) {
        bool fits = true, silent = true;
        for (int c = 0; c < channels && fits; ++c) {
            const int x = sample(i, c);
            silent = silent && x == 0;
            if (i == 0) continue;
            const int last = sample(i - 1, c), predicted = i >= 2 ? 2 * last - sample(i - 2, c) : last;
            fits = std::abs(x - predicted) <= std::max(kLeastTolerance, 4 * step[size_t(c)]);
        }
        if (!fits) break;
        zeros = silent ? zeros + 1 : 0;
        if (zeros >= kZeroRun) {
            run = i + 1 - zeros;
            break;
        }
        run = i + 1;
        for (int c = 0; c < channels && i > 0; ++c) {
            int& s = step[size_t(c)];
            s = std::max(std::abs(sample(i, c) - sample(i - 1, c)), s - s / 64);
        }
    }
    // Silence alone is no evidence of sound: it is what a disk holds where nothing was written.
    bool heard = false;
    for (size_t i = 0; i < run && !heard; ++i)
        for (int c = 0; c < channels && !heard; ++c) heard = sample(i, c) != 0;
    return run >= kShortestEdgeRun && heard ? run : 0;
}

std::vector<Clip> groupClips(const std::vector<FrameInfo>& frames, const std::vector<Rejection>& rejections,
                             const Expectation& expectation, const ReadBytes& read, std::vector<Rejection>* outside)
{
    const AudioFormatInfo* audio =
        expectation.audioFormat ? AppController::audioFormatForCode(expectation.audioFormat) : nullptr;
    std::vector<Rejection> refused = rejections;
    std::vector<Clip> clips;
    const FrameInfo* previous = nullptr;
    std::vector<uint8_t> gapBytes;
    const uint64_t soundFrame = audio ? audio->feederBytesPerFrame : 1;
    const uint64_t mostSound = audio ? 2 * audio->sampleRate * soundFrame : 0;  // two seconds

    // The row of the recording: a damaged frame's own row may come from its damage.
    const std::optional<int64_t> recordingRow = expectation.formatType;
    // The sound at the start (forward) or the end (backward) of [from, to), at most two
    // seconds of it, in whole sample frames. Backward, a walk that ran on into the last bytes
    // of a frame (a DV frame's padding, all -1 as samples, passes for sound) is cut back to
    // where that frame ends, when the frame's last bytes show it within one DIF block.
    std::vector<uint8_t> frameEnd;
    const auto edgeSound = [&](uint64_t from, uint64_t to, bool backward) -> ByteRange {
        uint64_t length = std::min(to - from, mostSound);
        length -= length % soundFrame;
        if (length == 0) return {};
        const uint64_t at = backward ? to - length : from;
        gapBytes.resize(size_t(length));
        size_t got = read(at, gapBytes);
        if (backward && got < length) return {};
        got -= got % soundFrame;
        uint64_t bytes =
            soundRunFrames({gapBytes.data(), got}, int(audio->channels), audio->bigEndian, backward) * soundFrame;
        if (!backward) return ByteRange{from, bytes};
        if (bytes > 0 && recordingRow) {
            constexpr uint64_t kReach = 80;  // one DIF block
            const uint64_t start = to - bytes, before = std::min(start, kReach);
            frameEnd.resize(size_t(before + std::min(bytes, kReach)));
            if (read(start - before, frameEnd) == frameEnd.size())
                for (uint64_t into = 0; into <= std::min(bytes, kReach); into += soundFrame)
                    if (endsFrame({frameEnd.data(), size_t(before + into)}, familyOfRow(*recordingRow),
                                  *recordingRow)) {
                        bytes -= into;
                        break;
                    }
        }
        return bytes / soundFrame >= kShortestEdgeRun ? ByteRange{to - bytes, bytes} : ByteRange{};
    };
    ByteRange soundBefore;  // before the next clip's first frame, when no clip takes it

    // Where damaged frames lie: sound ends where one begins and starts again after its end
    // (a DV row's frame size, a ProRes frame's own size field; a JPEG's end is not known).
    std::vector<ByteRange> damaged;
    if (audio) {
        for (const Rejection& r : rejections) {
            uint64_t length = 2;
            if (r.family == Family::DV) {
                // The row a damaged DV frame names is read from its third block, which the damage
                // may have hit; in a recording of the reference's row the frame is of that row.
                const bool dvRecording = recordingRow && familyOfRow(*recordingRow) == Family::DV;
                length = std::max<uint64_t>(length, dvFrameBytes(dvRecording ? *recordingRow : r.formatType));
            } else if (r.family == Family::ProRes) {
                std::array<uint8_t, 4> size{};
                if (read(r.offset, size) == size.size()) {
                    const uint64_t claimed = uint64_t(size[0]) << 24 | size[1] << 16 | size[2] << 8 | size[3];
                    if (claimed <= kMaxFrameBytes) length = std::max<uint64_t>(length, claimed);
                }
            }
            damaged.push_back({r.offset, length});
        }
        std::sort(damaged.begin(), damaged.end(),
                  [](const ByteRange& a, const ByteRange& b) { return a.offset < b.offset; });
    }
    // The part of [from, to) that sound may fill from `from` on, and from where up to `to`.
    const auto soundBounds = [&](uint64_t from, uint64_t to) {
        uint64_t forwardTo = to, backwardFrom = from;
        auto it = std::lower_bound(damaged.begin(), damaged.end(), from,
                                   [](const ByteRange& r, uint64_t at) { return r.offset < at; });
        for (; it != damaged.end() && it->offset < to; ++it) {
            forwardTo = std::min(forwardTo, it->offset);
            backwardFrom = std::max(backwardFrom, std::min(it->end(), to));
        }
        return std::pair{forwardTo, backwardFrom};
    };

    for (const FrameInfo& frame : frames) {
        int64_t row = frame.formatType;
        int32_t width = frame.width, height = frame.height;
        if (expectation.formatType) {
            const int64_t wanted = *expectation.formatType;
            if (familyOfRow(wanted) != frame.family || (frame.family == Family::DV && row != wanted)) {
                refused.push_back({frame.offset, frame.family, row,
                                   "a frame of another format than the reference's (row " + std::to_string(row) + ")"});
                continue;
            }
            row = wanted;  // a ProRes frame does not tell its profile; the reference does
        }
        if (expectation.width > 0 && frame.family == Family::ProRes &&
            (width != expectation.width || height != expectation.height)) {
            refused.push_back({frame.offset, frame.family, row,
                               "frame size " + std::to_string(width) + "x" + std::to_string(height) +
                                   " differs from the reference's"});
            continue;
        }

        std::string newClipBecause;
        if (!previous) {
            newClipBecause = "start";
            if (audio) {
                const uint64_t from = frame.offset - std::min(frame.offset, mostSound);
                soundBefore = edgeSound(soundBounds(from, frame.offset).second, frame.offset, true);
            }
        } else {
            Clip& clip = clips.back();
            const uint64_t end = previous->offset + previous->length, gap = frame.offset - end;
            const uint64_t frameBytes = previous->length;
            const uint64_t maxGap = audio ? mostSound + 2 * frameBytes : 2 * frameBytes + 65536;
            const int nominal = int(std::lround(clip.frameRate));
            if (row != clip.formatType || width != clip.width || height != clip.height)
                newClipBecause = "the format or frame size changes";
            else if (previous->timecode.has_value() != frame.timecode.has_value())
                newClipBecause = "the essence's timecode starts or stops";
            else if (previous->timecode && frame.timecode && *frame.timecode != previous->timecode->next(nominal))
                newClipBecause =
                    "the timecode jumps from " + previous->timecode->text() + " to " + frame.timecode->text();
            else if (gap > maxGap)
                newClipBecause = "a gap of " + number(gap) + " bytes without frames";
            if (newClipBecause.empty() && audio && gap > 0) {
                bool taken = false;
                if (gap % soundFrame == 0) {
                    gapBytes.resize(size_t(gap));
                    taken =
                        read(end, gapBytes) == gap && looksLikePCM(gapBytes, int(audio->channels), audio->bigEndian);
                }
                if (taken) {
                    clip.audio.push_back({end, gap});
                    clip.longestSoundBetweenFrames = std::max(clip.longestSoundBetweenFrames, gap);
                } else {
                    // Damage between two frames: the sound on either side of it ends this clip,
                    // and the next clip's sound begins with its first frame, both in step.
                    ++clip.audioGapsRefused;
                    newClipBecause = "a gap of " + number(gap) + " bytes between frames that is not all sound";
                }
            }
            if (!newClipBecause.empty() && audio) {
                // The clip's sound runs on after its last frame to the damage, the next frame or
                // the end; what lies before the next frame belongs to frames lost here and
                // follows it, when the next frame is near enough to be of the same recording.
                const auto [forwardTo, backwardFrom] = soundBounds(end, frame.offset);
                const ByteRange after = edgeSound(end, forwardTo, false);
                if (after.length > 0) clip.audio.push_back(after);
                const ByteRange before = edgeSound(std::max(after.end(), backwardFrom), frame.offset, true);
                if (before.length > 0 && gap <= maxGap)
                    clip.audio.push_back(before);
                else
                    soundBefore = before;
            }
        }
        if (!newClipBecause.empty()) {
            if (!clips.empty()) clips.back().endReason = newClipBecause;
            Clip clip;
            clip.formatType = row;
            clip.family = frame.family;
            clip.width = width;
            clip.height = height;
            clip.frameRate = clipFrameRate(expectation, frame);
            clip.startTimecode = frame.timecode;
            clip.audioFormat = audio ? expectation.audioFormat : 0;
            clip.dvAudioRate = frame.dvAudioRate;
            clip.dvAudioBits = frame.dvAudioBits;
            if (soundBefore.length > 0) clip.audioNotPlaced.push_back(soundBefore);
            soundBefore = {};
            clips.push_back(std::move(clip));
        }
        clips.back().frames.push_back({frame.offset, frame.length});
        clips.back().endTimecode = frame.timecode;
        previous = &frame;
    }
    if (audio && previous) {
        const uint64_t end = previous->offset + previous->length;
        const ByteRange after = edgeSound(end, soundBounds(end, end + mostSound).first, false);
        if (after.length > 0) clips.back().audio.push_back(after);
    }
    if (!clips.empty()) clips.back().endReason = "the last frame found";
    joinPieces(clips, read);
    if (audio) joinBySound(clips, read, *audio);
    // Sound before a clip's first frame that no clip ends next to is what is left of the sound
    // of frames lost before it. It opens the clip when it is no longer than the longest run
    // the clip holds between two of its frames (a chunk of the interleave): the clip's sound then
    // runs behind its pictures by at most that chunk, as far as the interleave itself moves it.
    for (Clip& clip : clips) {
        uint64_t leading = 0;
        for (const ByteRange& run : clip.audioNotPlaced) leading += run.length;
        if (leading == 0 || leading > clip.longestSoundBetweenFrames) continue;
        clip.audio.insert(clip.audio.begin(), clip.audioNotPlaced.begin(), clip.audioNotPlaced.end());
        clip.audioNotPlaced.clear();
    }
    // Clips that all carry a timecode are numbered in its order, which pieces scattered over a
    // disk no longer show; the damaged frames are assigned by input position before that.

    // Each damaged frame goes to the last clip that starts before it: the one it broke off.
    std::sort(refused.begin(), refused.end(),
              [](const Rejection& a, const Rejection& b) { return a.offset < b.offset; });
    for (Rejection& rejection : refused) {
        auto it = std::upper_bound(clips.begin(), clips.end(), rejection.offset,
                                   [](uint64_t offset, const Clip& clip) { return offset < clip.firstByte(); });
        if (it != clips.begin())
            std::prev(it)->rejections.push_back(std::move(rejection));
        else if (outside)
            outside->push_back(std::move(rejection));
    }
    if (std::all_of(clips.begin(), clips.end(), [](const Clip& clip) { return clip.startTimecode.has_value(); }))
        std::stable_sort(clips.begin(), clips.end(), [](const Clip& a, const Clip& b) {
            const auto key = [](const Timecode& t) {
                return ((t.hours * 60 + t.minutes) * 60 + t.seconds) * 100 + t.frames;
            };
            return key(*a.startTimecode) < key(*b.startTimecode);
        });
    return clips;
}

}  // namespace corvina::recover
