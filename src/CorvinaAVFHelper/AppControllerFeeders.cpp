// The two sample feeders: byte ranges of the raw data files turned into timed sample buffers.
#include <sys/stat.h>

#include <cmath>

#include "AppController.h"
#include "Foundation/Exception.h"
#include "TQLog.h"

using namespace corvina;

namespace {

// Reads up to length bytes at offset, never more than the file holds, so an absurd length in
// the document costs nothing. A read error of the handle reads as nothing read.
ByteBuffer readRange(FileHandle* handle, uint64_t offset, uint64_t length)
{
    if (!handle || length == 0) return {};
    try {
        struct stat info {};
        if (::fstat(handle->fileDescriptor(), &info) != 0) return {};
        const auto fileSize = static_cast<uint64_t>(info.st_size);
        if (offset >= fileSize) return {};
        const uint64_t available = fileSize - offset;
        handle->seekToFileOffset(offset);
        return handle->readDataOfLength(length < available ? length : available);
    } catch (const PlatformException&) {
        return {};
    }
}

}  // namespace

std::unique_ptr<SampleBuffer> AppController::copyNextVideoSampleBuffer(const FormatDescriptionRef& format, float fps)
{
    const double rate = fps;
    const double ceilRate = std::ceil(rate);
    const double floorRate = std::floor(rate);
    const uint64_t index = curVideoSampleIndex();
    TQLog::fastAppendLog("Requesting next video sample at sample index...");

    const auto offsets = videoOffsets();
    if (!offsets || index >= offsets->count()) return nullptr;
    const Value& entry = (*offsets)[index];
    int64_t frameCount = entry["frameCount"].integerValue();
    if (frameCount < 1) frameCount = 1;

    const uint64_t length = entry["length"].unsignedLongLongValue();
    const auto handle = videoHandle();
    ByteBuffer bytes = readRange(handle.get(), entry["offset"].unsignedLongLongValue(), length);
    const size_t bytesRead = bytes.size();

    std::unique_ptr<BlockBuffer> block;
    if (BlockBuffer::createWithMemoryBlock(std::move(bytes), bytesRead, &block) != kNoErr) {
        TQLog::fastAppendLog("Error allocating video block buffer");
        return nullptr;
    }

    // Exact frame timing: 29.97 is 1001/30000 per frame, 25 is 1000/25000.
    const auto timescale = static_cast<int32_t>(static_cast<int64_t>(ceilRate) * 1000);
    const int64_t frameDuration = floorRate == ceilRate ? 1000 : 1001;
    const uint64_t framesBefore = numVideoSamplesAppended();

    // An entry of n frames whose length divides by n holds n equal samples, one frame each;
    // otherwise it is one sample that lasts n frames.
    // The sample size is the entry's length (its unsigned-integer reading is the same value).
    const uint64_t sampleSizeValue = length;
    const bool split = frameCount > 1 && sampleSizeValue % static_cast<uint64_t>(frameCount) == 0;
    const int64_t numSamples = split ? frameCount : 1;
    const size_t sampleSize = static_cast<size_t>(split ? sampleSizeValue / static_cast<uint64_t>(frameCount) : sampleSizeValue);
    const SampleTimingInfo timing{
        MediaTime::make(split ? frameDuration : frameDuration * frameCount, timescale),
        MediaTime::make(static_cast<int64_t>(framesBefore) * frameDuration, timescale),
        MediaTime::invalid(),
    };

    std::unique_ptr<SampleBuffer> sample;
    if (SampleBuffer::create(std::move(block), true, format, numSamples, {&timing, 1}, {&sampleSize, 1}, &sample) !=
        kNoErr) {
        TQLog::fastAppendLog("Error creating video CMSampleBuffer");
        return nullptr;
    }
    setCurVideoSampleIndex(index + 1);
    setNumVideoSamplesAppended(framesBefore + static_cast<uint64_t>(frameCount));
    return sample;
}

std::unique_ptr<SampleBuffer> AppController::copyNextAudioSampleBuffer(const FormatDescriptionRef& format,
                                                                       uint64_t sampleRate, uint64_t bytesPerFrame)
{
    const auto offsets = audioOffsets();
    // Moving on to the next entry is a loop here rather than a call of the feeder by itself,
    // so that a long run of entries without a whole frame cannot exhaust the stack.
    for (;;) {
        const uint64_t index = curAudioSampleIndex();
        const uint64_t subIndex = curAudioSampleSubIndex();
        TQLog::fastAppendLog("Requesting next audio sample at sample index %u,%u...", index, subIndex);
        if (!offsets || index >= offsets->count() || bytesPerFrame == 0) return nullptr;

        const Value& entry = (*offsets)[index];
        const uint64_t frames = entry["length"].unsignedLongLongValue() / bytesPerFrame;
        TQLog::fastAppendLog("number of audio samples: %u", frames);
        if (subIndex >= frames) {
            setCurAudioSampleSubIndex(0);
            setCurAudioSampleIndex(index + 1);
            continue;
        }

        const uint64_t base = entry["offset"].unsignedLongLongValue();
        const uint64_t within = subIndex * bytesPerFrame;
        const auto handle = audioHandle();
        ByteBuffer bytes;
        if (base <= UINT64_MAX - within) {
            try {
                if (handle) {
                    handle->seekToFileOffset(base + within);
                    bytes = handle->readDataOfLength(bytesPerFrame);
                }
            } catch (const PlatformException&) {
                bytes = ByteBuffer();
            }
        }
        const size_t bytesRead = bytes.size();
        std::unique_ptr<BlockBuffer> block;
        if (BlockBuffer::createWithMemoryBlock(std::move(bytes), bytesRead, &block) != kNoErr) {
            TQLog::fastAppendLog("Error allocating audio block buffer");
            return nullptr;
        }

        const auto timescale = static_cast<int32_t>(sampleRate);
        const uint64_t framesBefore = numAudioSamplesAppended();
        const SampleTimingInfo timing{
            MediaTime::make(1, timescale),
            MediaTime::make(static_cast<int64_t>(framesBefore), timescale),
            MediaTime::invalid(),
        };
        const size_t size = static_cast<size_t>(bytesPerFrame);
        std::unique_ptr<SampleBuffer> sample;
        if (SampleBuffer::create(std::move(block), true, format, 1, {&timing, 1}, {&size, 1}, &sample) != kNoErr) {
            TQLog::fastAppendLog("Error creating audio CMSampleBuffer");
            return nullptr;
        }
        setCurAudioSampleSubIndex(subIndex + 1);
        setNumAudioSamplesAppended(framesBefore + 1);
        return sample;
    }
}
