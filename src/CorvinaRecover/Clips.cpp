#include "Clips.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "AppController.h"
#include "Foundation/ByteOrder.h"

namespace recover {

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

void joinPieces(std::vector<Clip>& clips)
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
                if (a == b || !then.startTimecode || then.formatType != first.formatType || then.width != first.width ||
                    then.height != first.height)
                    continue;
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
                    first.joinedAt.push_back(first.frames.size());
                    first.frames.insert(first.frames.end(), then.frames.begin(), then.frames.end());
                    first.audio.insert(first.audio.end(), then.audio.begin(), then.audio.end());
                    first.audioGapsRefused += then.audioGapsRefused;
                    first.endTimecode = then.endTimecode;
                    first.endReason = then.endReason;
                    clips.erase(clips.begin() + std::ptrdiff_t(b));
                    joined = true;
                }
            }
        }
    }
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

std::vector<Clip> groupClips(const std::vector<FrameInfo>& frames, const std::vector<Rejection>& rejections,
                             const Expectation& expectation, const ReadBytes& read, std::vector<Rejection>* outside)
{
    const AudioFormatInfo* audio =
        expectation.audioFormat ? AppController::audioFormatForCode(expectation.audioFormat) : nullptr;
    std::vector<Rejection> refused = rejections;
    std::vector<Clip> clips;
    const FrameInfo* previous = nullptr;
    std::vector<uint8_t> gapBytes;

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
        uint64_t gap = 0;
        if (!previous) {
            newClipBecause = "start";
        } else {
            Clip& clip = clips.back();
            gap = frame.offset - (previous->offset + previous->length);
            const uint64_t frameBytes = previous->length;
            const uint64_t maxGap = audio
                                        ? uint64_t(2 * audio->sampleRate * audio->feederBytesPerFrame) + 2 * frameBytes
                                        : 2 * frameBytes + 65536;
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
            clips.push_back(std::move(clip));
        } else if (audio && gap > 0) {
            Clip& clip = clips.back();
            const uint64_t start = previous->offset + previous->length;
            bool taken = false;
            if (gap % audio->feederBytesPerFrame == 0) {
                gapBytes.resize(size_t(gap));
                taken = read(start, gapBytes) && looksLikePCM(gapBytes, int(audio->channels), audio->bigEndian);
            }
            if (taken)
                clip.audio.push_back({start, gap});
            else
                ++clip.audioGapsRefused;
        }
        clips.back().frames.push_back({frame.offset, frame.length});
        clips.back().endTimecode = frame.timecode;
        previous = &frame;
    }
    if (!clips.empty()) clips.back().endReason = "the last frame found";
    joinPieces(clips);
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

}  // namespace recover
