// The sample tables of one track, kept compact: time-to-sample and sample-to-chunk as runs,
// sample sizes as one constant until they first differ, chunk offsets one per chunk. Adding
// a sample never allocates while sizes are constant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace corvina::qt {

struct TimeToSampleRun {
    uint32_t count;
    uint32_t delta;
};

struct SampleToChunkRun {
    uint32_t firstChunk;  // 1-based
    uint32_t samplesPerChunk;
};

class TrackTables {
public:
    // Adds count samples of one size and duration (in the track's timescale).
    void addSamples(uint64_t count, uint32_t size, uint32_t delta)
    {
        if (count == 0) return;
        addTiming(count, delta);
        addSizes(count, size);
        sampleCount_ += count;
        mediaDuration_ += uint64_t(delta) * count;
    }
    // Records a chunk of samplesInChunk samples (the latest ones) at a file offset.
    void addChunk(uint64_t offset, uint32_t samplesInChunk);

    uint64_t sampleCount() const { return sampleCount_; }
    uint64_t mediaDuration() const { return mediaDuration_; }
    bool sizesConstant() const { return constant_; }
    uint32_t constantSize() const { return constantSize_; }
    uint32_t sampleSize(uint64_t index) const { return constant_ ? constantSize_ : sizes_[index]; }
    const std::vector<uint32_t>& sampleSizes() const { return sizes_; }  // empty while constant
    const std::vector<TimeToSampleRun>& timeToSample() const { return stts_; }
    const std::vector<SampleToChunkRun>& sampleToChunk() const { return stsc_; }
    const std::vector<uint64_t>& chunkOffsets() const { return offsets_; }
    bool needs64BitOffsets() const { return !offsets_.empty() && offsets_.back() > 0xFFFFFFFFull; }
    // Bytes the tables hold on the heap, for memory checks.
    size_t heapBytes() const
    {
        return stts_.capacity() * sizeof(TimeToSampleRun) + stsc_.capacity() * sizeof(SampleToChunkRun) +
               sizes_.capacity() * sizeof(uint32_t) + offsets_.capacity() * sizeof(uint64_t);
    }

private:
    void addTiming(uint64_t count, uint32_t delta)
    {
        while (count) {
            if (stts_.empty() || stts_.back().delta != delta || stts_.back().count == UINT32_MAX)
                stts_.push_back({0, delta});
            uint64_t room = UINT32_MAX - stts_.back().count;
            uint64_t take = count < room ? count : room;
            stts_.back().count += uint32_t(take);
            count -= take;
        }
    }
    void addSizes(uint64_t count, uint32_t size)
    {
        if (constant_) {
            if (sampleCount_ == 0) constantSize_ = size;
            if (size == constantSize_) return;
            constant_ = false;
            sizes_.assign(sampleCount_, constantSize_);
        }
        sizes_.insert(sizes_.end(), count, size);
    }

    std::vector<TimeToSampleRun> stts_;
    std::vector<SampleToChunkRun> stsc_;
    std::vector<uint32_t> sizes_;
    std::vector<uint64_t> offsets_;
    uint64_t sampleCount_ = 0;
    uint64_t mediaDuration_ = 0;
    uint32_t constantSize_ = 0;
    bool constant_ = true;
};

}  // namespace corvina::qt
