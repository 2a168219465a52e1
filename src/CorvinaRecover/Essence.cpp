#include "recover/Essence.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "Foundation/ByteOrder.h"
#include "SampleBuffer/CodecHeaders.h"

namespace corvina::recover {

namespace {

using corvina::loadBE16;
using corvina::loadBE32;
namespace codec = corvina::codec;

Examination notAFrame() { return {}; }

Examination rejected(FrameInfo frame, std::string reason)
{
    Examination e;
    e.verdict = Examination::Verdict::Rejected;
    e.frame = frame;
    e.reason = std::move(reason);
    return e;
}

Examination accepted(FrameInfo frame)
{
    Examination e;
    e.verdict = Examination::Verdict::Frame;
    e.frame = frame;
    return e;
}

// ---------------------------------------------------------------------------------------
// DV family.

constexpr size_t kDifBlock = codec::kDifBlockBytes;
constexpr size_t kBlocksPerSequence = codec::kDifBlocksPerSequence;

struct DVRow {
    int64_t formatType;
    corvina::FourCharCode codecType;  // its sequences and channels
    int dsf;                          // 0: 525 lines / 60 fields, 1: 625 / 50
    int stype;                        // the video source pack's signal type
    int32_t width, height;
    double rate;
    codec::DVLayout layout() const { return *codec::dvLayout(codecType); }
    size_t bytes() const { return layout().frameBytes(); }
};

using corvina::fourCC;
constexpr std::array kDVRows = {
    DVRow{0, fourCC("dvc "), 0, 0x00, 720, 480, 30000.0 / 1001},
    DVRow{1, fourCC("dvcp"), 1, 0x00, 720, 576, 25},
    DVRow{2, fourCC("dv5n"), 0, 0x04, 720, 480, 30000.0 / 1001},
    DVRow{3, fourCC("dv5p"), 1, 0x04, 720, 576, 25},
    DVRow{10, fourCC("dvhp"), 0, 0x18, 1280, 720, 60000.0 / 1001},
    DVRow{11, fourCC("dvh6"), 0, 0x14, 1920, 1080, 30000.0 / 1001},
    DVRow{12, fourCC("dvh5"), 1, 0x14, 1920, 1080, 25},
};

// Where block k of a DIF sequence belongs: header, two subcode blocks, three VAUX blocks,
// then nine runs of one audio block and fifteen video blocks. Section type and block number.
struct BlockPlace {
    uint8_t section;
    uint8_t number;
};

constexpr std::array<BlockPlace, kBlocksPerSequence> makeLayout()
{
    std::array<BlockPlace, kBlocksPerSequence> layout{};
    layout[0] = {0, 0};
    for (int k = 1; k < 3; ++k) layout[k] = {1, uint8_t(k - 1)};
    for (int k = 3; k < 6; ++k) layout[k] = {2, uint8_t(k - 3)};
    for (int k = 6; k < 150; ++k) {
        const int run = (k - 6) / 16, within = (k - 6) % 16;
        layout[k] = within == 0 ? BlockPlace{3, uint8_t(run)} : BlockPlace{4, uint8_t(run * 15 + within - 1)};
    }
    return layout;
}
constexpr auto kLayout = makeLayout();

int bcd(uint8_t value, uint8_t tensMask) { return ((value & tensMask) >> 4) * 10 + (value & 0x0F); }

// The timecode pack (0x13) of the subcode blocks of the first sequence, when one is there.
std::optional<Timecode> dvTimecode(const uint8_t* frame)
{
    for (size_t block = 1; block < 3; ++block)
        for (size_t sync = 0; sync < 6; ++sync) {
            const uint8_t* pack = frame + block * kDifBlock + 3 + sync * 8 + 3;
            if (pack[0] != 0x13) continue;
            if (pack[1] == 0xFF && pack[2] == 0xFF && pack[3] == 0xFF && pack[4] == 0xFF) continue;
            Timecode tc;
            tc.dropFrame = (pack[1] & 0x40) != 0;
            tc.frames = bcd(pack[1], 0x30);
            tc.seconds = bcd(pack[2], 0x70);
            tc.minutes = bcd(pack[3], 0x70);
            tc.hours = bcd(pack[4], 0x30);
            if (tc.frames > 59 || tc.seconds > 59 || tc.minutes > 59 || tc.hours > 23) continue;
            return tc;
        }
    return std::nullopt;
}

}  // namespace

const char* familyName(Family family)
{
    switch (family) {
    case Family::DV:
        return "DV";
    case Family::ProRes:
        return "ProRes";
    case Family::JPEG:
        return "Motion JPEG";
    }
    return "?";
}

Timecode Timecode::next(int fps) const
{
    Timecode t = *this;
    if (++t.frames < fps) return t;
    t.frames = 0;
    if (++t.seconds == 60) {
        t.seconds = 0;
        if (++t.minutes == 60) {
            t.minutes = 0;
            t.hours = (t.hours + 1) % 24;
        }
        // Drop-frame numbering skips frames 0 and 1 of every minute but each tenth.
        if (t.dropFrame && t.minutes % 10 != 0) t.frames = 2;
    }
    return t;
}

std::string Timecode::text() const
{
    char out[16];
    std::snprintf(out, sizeof out, "%02d:%02d:%02d%c%02d", hours, minutes, seconds, dropFrame ? ';' : ':', frames);
    return out;
}

size_t dvFrameBytes(int64_t formatType)
{
    for (const DVRow& row : kDVRows)
        if (row.formatType == formatType) return row.bytes();
    return 0;
}

bool endsFrame(std::span<const uint8_t> bytes, Family family, int64_t formatType)
{
    const size_t n = bytes.size();
    if (family == Family::JPEG) return n >= 2 && bytes[n - 2] == 0xFF && bytes[n - 1] == codec::kJpegEndOfImage;
    if (family != Family::DV || n < kDifBlock) return false;
    for (const DVRow& row : kDVRows) {
        if (row.formatType != formatType) continue;
        const codec::DVLayout layout = row.layout();
        const int channel = layout.channels - 1, sequence = layout.sequences - 1;
        const uint8_t* block = bytes.data() + n - kDifBlock;
        return (block[0] >> 5) == kLayout.back().section &&
               block[1] == uint8_t(sequence << 4 | (channel & 1) << 3 | (channel < 2 ? 4 : 0) | 3) &&
               block[2] == kLayout.back().number;
    }
    return false;
}

Examination examineDV(std::span<const uint8_t> bytes, bool atEnd)
{
    // The header block of channel 0, sequence 0, then the video source pack in VAUX block 2.
    if (bytes.size() < 6 * kDifBlock) return notAFrame();
    const uint8_t* p = bytes.data();
    if ((p[0] & 0xE0) != 0 || (p[1] & 0xFB) != 0x03 || p[2] != 0) return notAFrame();
    if ((p[kDifBlock] & 0xE0) != 0x20 || (p[kDifBlock + 1] & 0xF8) != 0 || p[kDifBlock + 2] != 0) return notAFrame();
    const int dsf = p[3] >> 7;
    const int stype = p[5 * kDifBlock + 48 + 3] & 0x1F;
    const DVRow* row = nullptr;
    for (const DVRow& candidate : kDVRows)
        if (candidate.dsf == dsf && candidate.stype == stype) row = &candidate;
    if (!row) return notAFrame();

    FrameInfo frame;
    frame.family = Family::DV;
    frame.formatType = row->formatType;
    frame.width = row->width;
    frame.height = row->height;
    frame.frameRate = row->rate;
    frame.length = row->bytes();
    if (bytes.size() < row->bytes()) {
        if (atEnd) return rejected(frame, "cut off by the end of the input");
        return rejected(frame, "longer than the bytes available");
    }

    const codec::DVLayout layout = row->layout();
    for (int channel = 0; channel < layout.channels; ++channel)
        for (int sequence = 0; sequence < layout.sequences; ++sequence) {
            const uint8_t* seq = p + size_t(channel * layout.sequences + sequence) * kBlocksPerSequence * kDifBlock;
            const uint8_t idByte1 = uint8_t(sequence << 4 | (channel & 1) << 3 | (channel < 2 ? 4 : 0) | 3);
            for (size_t k = 0; k < kBlocksPerSequence; ++k) {
                const uint8_t* block = seq + k * kDifBlock;
                if ((block[0] >> 5) != kLayout[k].section || (block[1] & 0xFF) != idByte1 ||
                    block[2] != kLayout[k].number) {
                    char reason[128];
                    std::snprintf(reason, sizeof reason,
                                  "damaged DIF block %zu of sequence %d, channel %d (byte %zu of the frame)", k,
                                  sequence, channel, size_t(block - p));
                    return rejected(frame, reason);
                }
            }
        }

    frame.timecode = dvTimecode(p);
    // The audio source pack opens one of the audio blocks of the first two sequences.
    for (size_t block = 6; block < 2 * kBlocksPerSequence; block += block % kBlocksPerSequence == 134 ? 22 : 16) {
        const uint8_t* aaux = p + block * kDifBlock + 3;
        if (aaux[0] != 0x50) continue;
        static constexpr int kRates[] = {48000, 44100, 32000};
        const int rateCode = (aaux[4] >> 3) & 7;
        frame.dvAudioRate = rateCode < 3 ? kRates[rateCode] : 0;
        frame.dvAudioBits = (aaux[4] & 7) == 0 ? 16 : 12;
        break;
    }
    return accepted(frame);
}

// ---------------------------------------------------------------------------------------
// ProRes.

Examination examineProRes(std::span<const uint8_t> bytes, bool atEnd)
{
    if (bytes.size() < 28) return notAFrame();
    const uint8_t* p = bytes.data();
    const auto header = codec::readProResFrameHeader(bytes);
    if (!header) return notAFrame();
    const uint32_t size = header->frameSize;
    const uint32_t headerSize = header->headerSize;
    FrameInfo frame;
    frame.family = Family::ProRes;
    frame.length = size;
    frame.width = int32_t(header->width);
    frame.height = int32_t(header->height);
    frame.chroma = header->chroma;
    if (size < 8 + 20 || size > kMaxFrameBytes || headerSize < 20 || headerSize > size - 8 || frame.width == 0 ||
        frame.height == 0 || (frame.chroma != 2 && frame.chroma != 3))
        return notAFrame();
    frame.frameRate = codec::proResFrameRate(header->frameRateCode);
    frame.formatType = frame.chroma == 3 ? 34 : 31;
    if (bytes.size() < size)
        return rejected(frame, atEnd ? "cut off by the end of the input" : "longer than the bytes available");

    // One picture, or two for interlaced frames; each must account for its bytes exactly.
    const int pictures = header->interlaceMode != 0 ? 2 : 1;
    size_t at = 8 + headerSize;
    for (int picture = 0; picture < pictures; ++picture) {
        if (size - at < 8) return rejected(frame, "picture header runs past the frame");
        const size_t pictureHeader = p[at] >> 3;
        const uint32_t pictureSize = loadBE32(p + at + 1);
        const uint32_t slices = loadBE16(p + at + 5);
        if (pictureHeader < 8 || pictureSize < pictureHeader + 2 * slices || pictureSize > size - at || slices == 0)
            return rejected(frame, "picture header sizes disagree with the frame");
        size_t sum = pictureHeader + 2 * size_t(slices);
        const uint8_t* table = p + at + pictureHeader;
        for (uint32_t s = 0; s < slices; ++s) sum += loadBE16(table + 2 * s);
        if (sum != pictureSize) return rejected(frame, "slice sizes disagree with the picture size");
        // Each slice's header: its own size, a quantiser in range, and coded sizes of the
        // components that fit in the slice.
        const uint8_t* slice = table + 2 * size_t(slices);
        for (uint32_t s = 0; s < slices; ++s) {
            const size_t sliceSize = loadBE16(table + 2 * s);
            if (sliceSize < 6) return rejected(frame, "a slice too small for its header");
            const size_t header = slice[0] >> 3;
            if (header < 6 || header > sliceSize || slice[1] == 0 || slice[1] > 224 ||
                header + loadBE16(slice + 2) + loadBE16(slice + 4) + (header >= 8 ? loadBE16(slice + 6) : 0) >
                    sliceSize)
                return rejected(frame, "a slice header disagrees with its slice (damaged slice " + std::to_string(s) +
                                           " of picture " + std::to_string(picture) + ")");
            slice += sliceSize;
        }
        at += pictureSize;
    }
    if (at != size) return rejected(frame, "pictures do not fill the frame");
    return accepted(frame);
}

// ---------------------------------------------------------------------------------------
// Motion JPEG.

Examination examineJPEG(std::span<const uint8_t> bytes, bool atEnd)
{
    const size_t n = std::min(bytes.size(), kMaxFrameBytes);
    const uint8_t* p = bytes.data();
    if (n < 4 || p[0] != 0xFF || p[1] != codec::kJpegStartOfImage || p[2] != 0xFF) return notAFrame();
    FrameInfo frame;
    frame.family = Family::JPEG;
    frame.formatType = 4;
    bool quantisation = false, frameHeader = false, scan = false;
    size_t at = 2;
    const auto damaged = [&](const char* why) {
        // Only a start that already showed a frame header is a damaged frame; before that the
        // SOI was most likely chance.
        return frameHeader ? rejected(frame, why) : notAFrame();
    };
    while (true) {
        if (at + 2 > n) return damaged(atEnd || n == kMaxFrameBytes ? "cut off" : "longer than the bytes available");
        if (p[at] != 0xFF) return damaged("marker expected between segments");
        const uint8_t marker = p[at + 1];
        if (marker == 0xFF) {
            ++at;
            continue;
        }
        if (marker == codec::kJpegEndOfImage) {
            if (!scan || !quantisation) return damaged("image ends before its scan");
            frame.length = at + 2;
            return accepted(frame);
        }
        if (marker == codec::kJpegStartOfImage || marker == 0x00 || marker == 0x01 ||
            codec::isJpegRestartMarker(marker))
            return damaged("misplaced marker");
        if (at + 4 > n) return damaged(atEnd || n == kMaxFrameBytes ? "cut off" : "longer than the bytes available");
        const size_t length = loadBE16(p + at + 2);
        if (length < 2 || at + 2 + length > n) return damaged("segment runs past the bytes");
        const uint8_t* body = p + at + 4;
        if (marker == codec::kJpegQuantisationTable) quantisation = true;
        if (marker == 0xC0 || marker == 0xC1 || marker == 0xC2) {
            const auto header = codec::readJpegFrameHeader({body, length - 2});
            if (!header || length < 8) return notAFrame();
            frame.height = int32_t(header->height);
            frame.width = int32_t(header->width);
            if (frame.width == 0 || frame.height == 0 || header->components == 0 || header->components > 4)
                return notAFrame();
            frameHeader = true;
        } else if (codec::isJpegStartOfFrame(marker)) {
            return notAFrame();  // coding processes Motion JPEG does not use
        }
        at += 2 + length;
        if (marker != codec::kJpegStartOfScan) continue;
        if (!frameHeader) return notAFrame();
        scan = true;
        // Entropy-coded data: a 0xFF is followed by a stuffed zero or a restart marker, any
        // other marker ends the scan.
        while (true) {
            const void* ff = std::memchr(p + at, 0xFF, n - at);
            if (!ff) return damaged(atEnd ? "cut off" : "scan runs past the bytes available");
            at = size_t(static_cast<const uint8_t*>(ff) - p);
            if (at + 1 >= n) return damaged("cut off");
            const uint8_t next = p[at + 1];
            if (next == 0x00 || codec::isJpegRestartMarker(next)) {
                at += 2;
                continue;
            }
            if (next == 0xFF) {
                ++at;
                continue;
            }
            break;
        }
    }
}

StartPattern startPattern(Family family)
{
    static constexpr uint8_t kDV[] = {0x1F, 0x07, 0x00};
    static constexpr std::array<uint8_t, 4> kProRes = [] {
        std::array<uint8_t, 4> identifier{};
        corvina::storeBE32(identifier.data(), codec::kProResFrameIdentifier);
        return identifier;
    }();
    static constexpr uint8_t kJPEG[] = {0xFF, codec::kJpegStartOfImage, 0xFF};
    switch (family) {
    case Family::DV:
        return {kDV, 0};
    case Family::ProRes:
        return {kProRes, codec::kProResFrameHeaderAt - 4};
    case Family::JPEG:
        return {kJPEG, 0};
    }
    return {};
}

}  // namespace corvina::recover
