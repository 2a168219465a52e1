// What the codecs' own headers say, read in one place: the ProRes frame header, the DV
// frame layout (DIF blocks and sequences), the JPEG markers and start-of-frame segment.
// The readers here only take fields apart; what a value must be for a caller to use it (a
// size the movie can describe, a chroma format the scanner knows) is the caller's to judge.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "SampleBuffer/FormatDescription.h"

namespace corvina::codec {

// ---- ProRes ------------------------------------------------------------------------------
// A frame: its size (4 bytes, big-endian, the size field included), the identifier 'icpf',
// then the frame header, which starts with its own size (2 bytes) and gives the picture's
// horizontal and vertical size at bytes 16 and 18 of the frame, the chroma format and
// interlace mode at byte 20 and the frame-rate code at byte 21.
inline constexpr FourCharCode kProResFrameIdentifier = fourCC("icpf");
inline constexpr size_t kProResFrameHeaderAt = 8;
// Bytes of a frame's start that hold the picture size.
inline constexpr size_t kProResSizeFieldsBytes = 20;
// ... and the chroma format, interlace mode and frame rate.
inline constexpr size_t kProResFormatFieldsBytes = 22;

struct ProResFrameHeader {
    uint32_t frameSize = 0;   // the whole frame, as its first field says
    uint16_t headerSize = 0;  // the frame header's own bytes, counted from byte 8
    uint16_t width = 0, height = 0;
    // From bytes 20 and 21; 0 when the bytes given stop before them.
    int chroma = 0;         // 2: 4:2:2, 3: 4:4:4
    int interlaceMode = 0;  // 0: progressive; else the frame holds two pictures
    int frameRateCode = 0;  // 0: not given
};

// The frame size field, when the bytes start with a frame's size and identifier.
std::optional<uint32_t> proResFrameSize(std::span<const uint8_t> bytes);
// The frame header's fields, when the bytes hold at least its size fields and start with
// the identifier.
std::optional<ProResFrameHeader> readProResFrameHeader(std::span<const uint8_t> bytes);
// Frames per second of a frame-rate code, 0 for "not given" or a code beyond the table.
double proResFrameRate(int frameRateCode);

// ---- DV ----------------------------------------------------------------------------------
// A DV frame is made of DIF sequences of 150 blocks of 80 bytes: 10 sequences a channel at
// 60 fields, 12 at 50; one channel for DV, two for DVCPRO50 and 720p, four for the 1080-line
// formats. Channels follow one another, each its sequences in order.
inline constexpr size_t kDifBlockBytes = 80;
inline constexpr size_t kDifBlocksPerSequence = 150;

struct DVLayout {
    int sequences = 0;  // per channel
    int channels = 0;
    constexpr size_t frameBytes() const
    {
        return size_t(sequences) * size_t(channels) * kDifBlocksPerSequence * kDifBlockBytes;
    }
};

// The layout of the DV format a codec type names ('dvc ', 'dvcp', 'dv5n', 'dv5p', 'dvhp',
// 'dvh6', 'dvh5'), or nothing for any other type.
constexpr std::optional<DVLayout> dvLayout(FourCharCode codecType)
{
    switch (codecType) {
    case fourCC("dvc "):
        return DVLayout{10, 1};
    case fourCC("dvcp"):
        return DVLayout{12, 1};
    case fourCC("dv5n"):
    case fourCC("dvhp"):
        return DVLayout{10, 2};
    case fourCC("dv5p"):
        return DVLayout{12, 2};
    case fourCC("dvh6"):
        return DVLayout{10, 4};
    case fourCC("dvh5"):
        return DVLayout{12, 4};
    default:
        return std::nullopt;
    }
}

// ---- JPEG --------------------------------------------------------------------------------
// Marker codes (the byte after 0xFF).
inline constexpr uint8_t kJpegStartOfImage = 0xD8;
inline constexpr uint8_t kJpegEndOfImage = 0xD9;
inline constexpr uint8_t kJpegStartOfScan = 0xDA;
inline constexpr uint8_t kJpegQuantisationTable = 0xDB;

constexpr bool isJpegRestartMarker(uint8_t marker) { return marker >= 0xD0 && marker <= 0xD7; }
// Any SOFn: 0xC0 to 0xCF but for the Huffman tables (C4), the reserved C8 and the
// arithmetic-coding conditioning (CC).
constexpr bool isJpegStartOfFrame(uint8_t marker)
{
    return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

struct JpegFrameHeader {
    uint8_t precision = 0;
    uint16_t height = 0, width = 0;
    uint8_t components = 0;  // 0 when the segment stops before the count
};

// The fields of a start-of-frame segment's body (what follows its length field), when the
// body holds at least the precision and the two sizes.
std::optional<JpegFrameHeader> readJpegFrameHeader(std::span<const uint8_t> body);
// The start-of-frame segment of a JPEG image, found by stepping over the segments after the
// start-of-image marker, when the bytes reach it before any scan.
std::optional<JpegFrameHeader> findJpegFrameHeader(std::span<const uint8_t> image);

}  // namespace corvina::codec
