// Block buffers and sample buffers. A block buffer owns the bytes it was made with (the
// feeders hand it the bytes they read, so nothing is copied and nothing dangles); a sample
// buffer carries one block buffer, a format description, a sample count, timing and sizes.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "Foundation/ByteBuffer.h"
#include "FormatDescription.h"
#include "MediaTime/MediaTime.h"

namespace corvina {

class BlockBuffer {
public:
    // Takes ownership of the bytes. dataLength must be at least 1 and at most bytes.size()
    // (kBlockBufferBadLengthParameter otherwise): nothing read means no block buffer.
    static OSStatus createWithMemoryBlock(ByteBuffer bytes, size_t dataLength, std::unique_ptr<BlockBuffer>* out);

    const uint8_t* data() const { return bytes_.data(); }
    size_t dataLength() const { return length_; }

    // A block kept for reuse: the feeders read each sample straight into its storage and
    // then set the length, so a steady stream of samples touches the heap only while the
    // storage still grows.
    static std::unique_ptr<BlockBuffer> makeReusable();
    // Room for at least size bytes; earlier contents are not kept.
    uint8_t* prepare(size_t size)
    {
        bytes_.resize(size);
        return bytes_.data();
    }
    // The bytes filled since prepare; 0 is allowed here, the sample it becomes is not.
    void setDataLength(size_t length) { length_ = length <= bytes_.size() ? length : bytes_.size(); }

private:
    BlockBuffer() = default;
    ByteBuffer bytes_;
    size_t length_ = 0;
};

struct SampleTimingInfo {
    MediaTime duration;
    MediaTime presentationTimeStamp;
    MediaTime decodeTimeStamp;
};

class SampleBuffer {
public:
    // As the platform's sample-buffer creation with data ready: numSamples >= 1; timing has
    // 1 entry (shared by every sample) or numSamples entries; sizes has 0 entries (sizes
    // unknown), 1 entry (every sample that size) or numSamples entries. Sizes must add up to
    // no more than the block buffer's length (kSampleBufferInvalidEntryCount otherwise).
    static OSStatus create(std::unique_ptr<BlockBuffer> dataBuffer, bool dataReady, FormatDescriptionRef format,
                           int64_t numSamples, std::span<const SampleTimingInfo> timing,
                           std::span<const size_t> sampleSizes, std::unique_ptr<SampleBuffer>* out);

    const BlockBuffer* dataBuffer() const { return data_.get(); }
    const FormatDescriptionRef& formatDescription() const { return format_; }
    int64_t numSamples() const { return numSamples_; }
    const std::vector<SampleTimingInfo>& timing() const { return timing_; }
    const std::vector<size_t>& sampleSizes() const { return sizes_; }

    // A sample buffer whose block and tables are refilled for every sample (the pooled path):
    // refill checks what create checks and keeps the storage of the previous sample.
    static std::unique_ptr<SampleBuffer> makeReusable();
    BlockBuffer* mutableDataBuffer() { return data_.get(); }
    OSStatus refill(const FormatDescriptionRef& format, int64_t numSamples, std::span<const SampleTimingInfo> timing,
                    std::span<const size_t> sampleSizes);
    // A separate copy that owns its own bytes.
    std::unique_ptr<SampleBuffer> clone() const;

    // Per-sample views, derived from the entries above.
    MediaTime presentationTimeStamp(int64_t sample = 0) const;
    MediaTime duration(int64_t sample = 0) const;
    size_t sampleSize(int64_t sample) const;

private:
    SampleBuffer() = default;
    std::unique_ptr<BlockBuffer> data_;
    FormatDescriptionRef format_;
    int64_t numSamples_ = 0;
    std::vector<SampleTimingInfo> timing_;
    std::vector<size_t> sizes_;
};

}  // namespace corvina
