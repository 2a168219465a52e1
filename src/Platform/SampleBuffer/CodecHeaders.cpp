#include "SampleBuffer/CodecHeaders.h"

#include <algorithm>

#include "Foundation/ByteOrder.h"

namespace corvina::codec {

std::optional<uint32_t> proResFrameSize(std::span<const uint8_t> bytes)
{
    if (bytes.size() < kProResFrameHeaderAt || loadBE32(bytes, 4) != kProResFrameIdentifier) return std::nullopt;
    return loadBE32(bytes, 0);
}

std::optional<ProResFrameHeader> readProResFrameHeader(std::span<const uint8_t> bytes)
{
    if (bytes.size() < kProResSizeFieldsBytes || loadBE32(bytes, 4) != kProResFrameIdentifier) return std::nullopt;
    ProResFrameHeader h;
    h.frameSize = loadBE32(bytes, 0);
    h.headerSize = loadBE16(bytes, 8);
    h.width = loadBE16(bytes, 16);
    h.height = loadBE16(bytes, 18);
    if (bytes.size() >= kProResFormatFieldsBytes) {
        h.chroma = bytes[20] >> 6;
        h.interlaceMode = (bytes[20] >> 2) & 3;
        h.frameRateCode = bytes[21] & 0x0F;
    }
    return h;
}

double proResFrameRate(int frameRateCode)
{
    static constexpr double kRates[] = {0, 24000.0 / 1001, 24, 25, 30000.0 / 1001, 30, 50, 60000.0 / 1001, 60};
    return frameRateCode >= 0 && frameRateCode < 9 ? kRates[frameRateCode] : 0;
}

std::optional<JpegFrameHeader> readJpegFrameHeader(std::span<const uint8_t> body)
{
    if (body.size() < 5) return std::nullopt;
    JpegFrameHeader h;
    h.precision = body[0];
    h.height = loadBE16(body, 1);
    h.width = loadBE16(body, 3);
    if (body.size() >= 6) h.components = body[5];
    return h;
}

std::optional<JpegFrameHeader> findJpegFrameHeader(std::span<const uint8_t> b)
{
    if (b.size() < 4 || b[0] != 0xFF || b[1] != kJpegStartOfImage) return std::nullopt;
    size_t at = 2;
    for (;;) {
        if (at >= b.size() || b[at] != 0xFF) return std::nullopt;
        while (at < b.size() && b[at] == 0xFF) ++at;  // fill bytes before a marker code
        if (at >= b.size()) return std::nullopt;
        const uint8_t marker = b[at++];
        if (marker == 0x01 || isJpegRestartMarker(marker)) continue;  // no segment
        if (marker == kJpegEndOfImage || marker == kJpegStartOfScan || at + 2 > b.size()) return std::nullopt;
        const uint16_t length = loadBE16(b, at);
        if (length < 2) return std::nullopt;
        if (isJpegStartOfFrame(marker)) {
            if (length < 7) return std::nullopt;
            const size_t bodyBytes = std::min<size_t>(length - 2, b.size() - at - 2);
            return readJpegFrameHeader(b.subspan(at + 2, bodyBytes));
        }
        at += length;
    }
}

}  // namespace corvina::codec
