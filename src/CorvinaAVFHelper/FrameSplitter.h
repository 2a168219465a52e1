// Where the frames of a multi-frame video entry begin and end. Each codec family has its own
// rule: DV frames have one fixed size per format, every ProRes frame starts with its own size,
// and a Motion JPEG frame runs from its start-of-image marker to its end-of-image marker.
// When the bytes do not split into exactly the expected number of frames the entry stays
// one sample that lasts all of its frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "SampleBuffer/FormatDescription.h"

namespace corvina::helper {

class FrameSplitter {
public:
    enum class Rule { None, FixedSize, ProRes, JPEG };

    FrameSplitter() = default;
    // The rule for a codec type; fixedFrameSize only counts for the DV family.
    static FrameSplitter forCodec(corvina::FourCharCode codecType);
    // The size of one frame for the DV family's codec types, 0 for the rest.
    static size_t dvFrameSize(corvina::FourCharCode codecType);

    Rule rule() const { return rule_; }

    // Fills sizes with the byte size of each of the frameCount frames in bytes (sizes are
    // reused storage). False when the bytes do not split cleanly into frameCount frames that
    // cover them exactly.
    bool split(std::span<const uint8_t> bytes, uint64_t frameCount, std::vector<size_t>& sizes) const;

private:
    Rule rule_ = Rule::None;
    size_t fixedSize_ = 0;
};

}  // namespace corvina::helper
