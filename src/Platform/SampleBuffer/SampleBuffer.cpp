#include "SampleBuffer/SampleBuffer.h"

namespace corvina {

OSStatus BlockBuffer::createWithMemoryBlock(ByteBuffer bytes, size_t dataLength, std::unique_ptr<BlockBuffer>* out)
{
    if (!out) return kBlockBufferBadLengthParameter;
    if (dataLength == 0 || dataLength > bytes.size()) return kBlockBufferBadLengthParameter;
    std::unique_ptr<BlockBuffer> made(new BlockBuffer());  // NOLINT: private constructor
    made->bytes_ = std::move(bytes);
    made->length_ = dataLength;
    *out = std::move(made);
    return kNoErr;
}

namespace {

OSStatus checkEntries(const BlockBuffer* dataBuffer, int64_t numSamples, std::span<const SampleTimingInfo> timing,
                      std::span<const size_t> sampleSizes)
{
    if (numSamples < 1) return kSampleBufferInvalidEntryCount;
    if (!(timing.size() == 1 || int64_t(timing.size()) == numSamples)) return kSampleBufferInvalidEntryCount;
    if (!(sampleSizes.empty() || sampleSizes.size() == 1 || int64_t(sampleSizes.size()) == numSamples))
        return kSampleBufferInvalidEntryCount;
    if (dataBuffer && !sampleSizes.empty()) {
        // One entry covers every sample, unless it is the whole block (one sample of n durations).
        unsigned __int128 total = 0;
        if (sampleSizes.size() == 1) {
            total = sampleSizes[0] == dataBuffer->dataLength()
                        ? sampleSizes[0]
                        : (unsigned __int128)sampleSizes[0] * uint64_t(numSamples);
        } else {
            for (size_t s : sampleSizes) total += s;
        }
        if (total > dataBuffer->dataLength()) return kSampleBufferInvalidEntryCount;
    }
    return kNoErr;
}

}  // namespace

std::unique_ptr<BlockBuffer> BlockBuffer::makeReusable()
{
    return std::unique_ptr<BlockBuffer>(new BlockBuffer());  // NOLINT: private constructor
}

std::unique_ptr<SampleBuffer> SampleBuffer::makeReusable()
{
    std::unique_ptr<SampleBuffer> made(new SampleBuffer());  // NOLINT: private constructor
    made->data_ = BlockBuffer::makeReusable();
    return made;
}

OSStatus SampleBuffer::refill(const FormatDescriptionRef& format, int64_t numSamples,
                              std::span<const SampleTimingInfo> timing, std::span<const size_t> sampleSizes)
{
    if (!data_ || data_->dataLength() == 0) return kBlockBufferBadLengthParameter;
    if (const OSStatus status = checkEntries(data_.get(), numSamples, timing, sampleSizes); status != kNoErr)
        return status;
    if (format_ != format) format_ = format;
    numSamples_ = numSamples;
    timing_.assign(timing.begin(), timing.end());
    sizes_.assign(sampleSizes.begin(), sampleSizes.end());
    return kNoErr;
}

std::unique_ptr<SampleBuffer> SampleBuffer::clone() const
{
    std::unique_ptr<SampleBuffer> made(new SampleBuffer());  // NOLINT: private constructor
    if (data_) {
        std::unique_ptr<BlockBuffer> block;
        if (BlockBuffer::createWithMemoryBlock(ByteBuffer(data_->data(), data_->dataLength()), data_->dataLength(),
                                               &block) == kNoErr)
            made->data_ = std::move(block);
    }
    made->format_ = format_;
    made->numSamples_ = numSamples_;
    made->timing_ = timing_;
    made->sizes_ = sizes_;
    return made;
}

OSStatus SampleBuffer::create(std::unique_ptr<BlockBuffer> dataBuffer, bool dataReady, FormatDescriptionRef format,
                              int64_t numSamples, std::span<const SampleTimingInfo> timing,
                              std::span<const size_t> sampleSizes, std::unique_ptr<SampleBuffer>* out)
{
    if (!out || !dataReady) return kSampleBufferRequiredParameterMissing;
    if (const OSStatus status = checkEntries(dataBuffer.get(), numSamples, timing, sampleSizes); status != kNoErr)
        return status;
    std::unique_ptr<SampleBuffer> made(new SampleBuffer());  // NOLINT: private constructor
    made->data_ = std::move(dataBuffer);
    made->format_ = std::move(format);
    made->numSamples_ = numSamples;
    made->timing_.assign(timing.begin(), timing.end());
    made->sizes_.assign(sampleSizes.begin(), sampleSizes.end());
    *out = std::move(made);
    return kNoErr;
}

MediaTime SampleBuffer::presentationTimeStamp(int64_t sample) const
{
    if (timing_.empty() || sample < 0 || sample >= numSamples_) return MediaTime::invalid();
    if (timing_.size() > 1) return timing_[size_t(sample)].presentationTimeStamp;
    const SampleTimingInfo& t = timing_[0];
    if (sample == 0) return t.presentationTimeStamp;
    if (sample > INT32_MAX) return MediaTime::invalid();
    return t.presentationTimeStamp + t.duration * int32_t(sample);
}

MediaTime SampleBuffer::duration(int64_t sample) const
{
    if (timing_.empty() || sample < 0 || sample >= numSamples_) return MediaTime::invalid();
    return timing_.size() > 1 ? timing_[size_t(sample)].duration : timing_[0].duration;
}

size_t SampleBuffer::sampleSize(int64_t sample) const
{
    if (sample < 0 || sample >= numSamples_) return 0;
    if (sizes_.empty()) {
        size_t length = data_ ? data_->dataLength() : 0;
        return length / size_t(numSamples_);
    }
    return sizes_.size() == 1 ? sizes_[0] : sizes_[size_t(sample)];
}

}  // namespace corvina
