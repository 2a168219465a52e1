// Frames found by their codec's own structure, with no container around them. Each reader
// looks at the bytes from a candidate start and says whether a whole, consistent frame of its
// family begins there, how long it is and what it says about itself.
//
//   DV family (DV, DVCPRO50, DVCPRO HD): DIF sequences of 150 blocks of 80 bytes; the header
//     section's DSF bit and the video source pack's STYPE pick the row and the frame size,
//     and every block's section type, sequence, channel and block number must be where the
//     DIF layout puts them.
//   ProRes: the frame's size and 'icpf', the frame header, then one or two pictures whose
//     header sizes, picture sizes and slice tables must add up to the frame's size exactly.
//   Motion JPEG: SOI, marker segments stepped over by their lengths (a quantisation table,
//     a frame header and a scan header required), entropy-coded data, EOI.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace corvina::recover {

enum class Family { DV, ProRes, JPEG };
const char* familyName(Family family);

// A time of day in frames, as DV's subcode carries it.
struct Timecode {
    int hours = 0, minutes = 0, seconds = 0, frames = 0;
    bool dropFrame = false;
    bool operator==(const Timecode&) const = default;
    // The next frame's timecode at a nominal rate of fps frames (30 or 25 and so on).
    Timecode next(int fps) const;
    std::string text() const;  // HH:MM:SS:FF, ';' before the frames when drop-frame
};

// What a frame says about itself.
struct FrameInfo {
    uint64_t offset = 0;  // in the input
    uint64_t length = 0;
    Family family = Family::DV;
    int64_t formatType = -1;  // the helper's video row
    int32_t width = 0, height = 0;
    double frameRate = 0;  // as the essence tells it; 0 when it does not
    std::optional<Timecode> timecode;
    // DV's audio source pack: sample rate (0: none found) and bits per sample.
    int dvAudioRate = 0;
    int dvAudioBits = 0;
    // ProRes: 2 for 4:2:2, 3 for 4:4:4 (from the frame header).
    int chroma = 0;
};

// The answer of a reader at one candidate start.
struct Examination {
    enum class Verdict {
        NotAFrame,  // nothing of the family starts here
        Frame,      // a whole, consistent frame
        Rejected,   // a frame of the family starts here, but it is damaged or cut off
    };
    Verdict verdict = Verdict::NotAFrame;
    FrameInfo frame;     // the frame (Frame), or what was read of it (Rejected)
    std::string reason;  // why it was rejected
};

// Each examines bytes that begin at the candidate start. atEnd says that nothing follows the
// bytes in the input, so that a frame running past them is cut off rather than unread.
Examination examineDV(std::span<const uint8_t> bytes, bool atEnd);
Examination examineProRes(std::span<const uint8_t> bytes, bool atEnd);
Examination examineJPEG(std::span<const uint8_t> bytes, bool atEnd);

// What each family's start looks like, for the scanner's search: DV's header block ID of the
// first channel's first sequence, ProRes's identifier (4 bytes after the start), JPEG's SOI
// followed by a marker.
struct StartPattern {
    std::span<const uint8_t> bytes;
    size_t startBefore;  // the frame starts this many bytes before the pattern
};
StartPattern startPattern(Family family);

// The largest frame any reader accepts: the scanner keeps this much ahead of a candidate.
constexpr size_t kMaxFrameBytes = 16u << 20;

// The size of one DV frame of the helper's row, 0 for other rows.
size_t dvFrameBytes(int64_t formatType);

// Whether bytes end where a frame of the family ends, by what a frame's last bytes always are:
// a DV frame of the row with the ID of its last DIF block (the last channel's last sequence,
// video block 134), a JPEG with its EOI. A ProRes frame's end shows nothing: false.
bool endsFrame(std::span<const uint8_t> bytes, Family family, int64_t formatType);

}  // namespace corvina::recover
