#include "helper/FrameSplitter.h"

#include <cstring>

#include "Foundation/ByteOrder.h"
#include "SampleBuffer/CodecHeaders.h"

namespace corvina::helper {

using corvina::fourCC;
using corvina::FourCharCode;
namespace codec = corvina::codec;

namespace {

// ProRes: every frame begins with its size (4 bytes, big-endian, the size field included)
// and the frame identifier.
bool splitProRes(std::span<const uint8_t> bytes, uint64_t frameCount, std::vector<size_t>& sizes)
{
    size_t at = 0;
    for (uint64_t i = 0; i < frameCount; ++i) {
        const auto size = codec::proResFrameSize(bytes.subspan(at));
        if (!size || *size < 8 || *size > bytes.size() - at) return false;
        sizes.push_back(*size);
        at += *size;
    }
    return at == bytes.size();
}

// The end of the JPEG image that starts at `at` (just past its end-of-image marker), or 0.
// Marker segments are stepped over by their lengths, so that markers inside embedded data
// (a thumbnail, say) do not count; in entropy-coded data only a marker that is neither a
// stuffed zero nor a restart marker ends the scan.
size_t jpegImageEnd(std::span<const uint8_t> bytes, size_t at)
{
    const size_t n = bytes.size();
    if (n - at < 4 || bytes[at] != 0xFF || bytes[at + 1] != codec::kJpegStartOfImage) return 0;
    size_t p = at + 2;
    bool inScan = false;
    while (p < n) {
        if (inScan) {
            const uint8_t* start = bytes.data() + p;
            const void* ff = std::memchr(start, 0xFF, n - p);
            if (!ff) return 0;
            p = size_t(static_cast<const uint8_t*>(ff) - bytes.data());
            if (p + 1 >= n) return 0;
            const uint8_t marker = bytes[p + 1];
            if (marker == 0x00 || codec::isJpegRestartMarker(marker) || marker == 0xFF) {
                p += marker == 0xFF ? 1 : 2;
                continue;
            }
            inScan = false;
            continue;
        }
        if (bytes[p] != 0xFF || p + 1 >= n) return 0;
        const uint8_t marker = bytes[p + 1];
        if (marker == 0xFF) {  // fill byte
            ++p;
            continue;
        }
        if (marker == codec::kJpegEndOfImage) return p + 2;
        if (marker == codec::kJpegStartOfImage || marker == 0x01 || codec::isJpegRestartMarker(marker)) {
            p += 2;
            continue;
        }
        if (n - p < 4) return 0;
        const size_t length = corvina::loadBE16(bytes, p + 2);
        if (length < 2 || length > n - p - 2) return 0;
        p += 2 + length;
        if (marker == codec::kJpegStartOfScan) inScan = true;
    }
    return 0;
}

bool splitJPEG(std::span<const uint8_t> bytes, uint64_t frameCount, std::vector<size_t>& sizes)
{
    size_t at = 0;
    for (uint64_t i = 0; i < frameCount; ++i) {
        const size_t end = jpegImageEnd(bytes, at);
        if (end == 0) return false;
        sizes.push_back(end - at);
        at = end;
    }
    return at == bytes.size();
}

}  // namespace

size_t FrameSplitter::dvFrameSize(FourCharCode codecType)
{
    const auto layout = codec::dvLayout(codecType);
    return layout ? layout->frameBytes() : 0;
}

FrameSplitter FrameSplitter::forCodec(FourCharCode codecType)
{
    FrameSplitter splitter;
    if (const size_t size = dvFrameSize(codecType)) {
        splitter.rule_ = Rule::FixedSize;
        splitter.fixedSize_ = size;
        return splitter;
    }
    switch (codecType) {
    case fourCC("apch"):
    case fourCC("apcn"):
    case fourCC("apcs"):
    case fourCC("apco"):
    case fourCC("ap4h"):
    case fourCC("ap4x"):
        splitter.rule_ = Rule::ProRes;
        break;
    case fourCC("jpeg"):
        splitter.rule_ = Rule::JPEG;
        break;
    default:
        break;
    }
    return splitter;
}

bool FrameSplitter::split(std::span<const uint8_t> bytes, uint64_t frameCount, std::vector<size_t>& sizes) const
{
    sizes.clear();
    if (frameCount < 2 || bytes.empty()) return false;
    bool ok = false;
    switch (rule_) {
    case Rule::FixedSize:
        ok = bytes.size() / fixedSize_ == frameCount && bytes.size() % fixedSize_ == 0;
        if (ok) sizes.assign(1, fixedSize_);  // one entry covers every frame
        break;
    case Rule::ProRes:
        ok = splitProRes(bytes, frameCount, sizes);
        break;
    case Rule::JPEG:
        ok = splitJPEG(bytes, frameCount, sizes);
        break;
    case Rule::None:
        break;
    }
    if (!ok) sizes.clear();
    return ok;
}

}  // namespace corvina::helper
