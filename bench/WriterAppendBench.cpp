// Cost of the writer's hot path: one-frame 16-bit stereo audio samples (48 kHz: 2.9 million
// a minute), each wrapped in a block buffer and a sample buffer as the audio feeder does.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <string>

#include "QuickTime/AssetWriter.h"

namespace {

using namespace corvina;

FormatDescriptionRef stereo48k()
{
    AudioStreamBasicDescription a{48000, kAudioFormatLinearPCM, 12, 4, 1, 4, 2, 16, 0};
    AudioChannelLayout layout{kAudioChannelLayoutTag_Stereo, 0, {}};
    FormatDescriptionRef f;
    FormatDescription::createAudio(a, &layout, 32, &f);
    return f;
}

void appendOneFrameAudio(benchmark::State& state)
{
    std::string path = "/tmp/writer-bench-" + std::to_string(::getpid()) + ".mov";
    ::unlink(path.c_str());
    Error error;
    auto writer = AssetWriter::create(path, kFileTypeQuickTimeMovie, &error);
    auto input = AssetWriterInput::create(MediaType::Audio);
    writer->addInput(input);
    writer->startWriting();
    auto format = stereo48k();
    const uint8_t frame[4] = {1, 2, 3, 4};
    const size_t size = 4;
    int64_t i = 0;
    for (auto _ : state) {
        std::unique_ptr<BlockBuffer> block;
        BlockBuffer::createWithMemoryBlock(ByteBuffer(frame, 4), 4, &block);
        SampleTimingInfo timing{MediaTime::make(1, 48000), MediaTime::make(i++, 48000), MediaTime::invalid()};
        std::unique_ptr<SampleBuffer> sample;
        SampleBuffer::create(std::move(block), true, format, 1, std::span(&timing, 1), std::span(&size, 1), &sample);
        benchmark::DoNotOptimize(input->appendSampleBuffer(*sample));
    }
    writer->finishWriting();
    ::unlink(path.c_str());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(appendOneFrameAudio);

// The feeders' pooled path: one sample buffer refilled in place for every frame.
void appendPooledOneFrameAudio(benchmark::State& state)
{
    std::string path = "/tmp/writer-bench-pooled-" + std::to_string(::getpid()) + ".mov";
    ::unlink(path.c_str());
    Error error;
    auto writer = AssetWriter::create(path, kFileTypeQuickTimeMovie, &error);
    auto input = AssetWriterInput::create(MediaType::Audio);
    writer->addInput(input);
    writer->startWriting();
    auto format = stereo48k();
    auto sample = SampleBuffer::makeReusable();
    const size_t size = 4;
    int64_t i = 0;
    for (auto _ : state) {
        BlockBuffer* block = sample->mutableDataBuffer();
        uint8_t* bytes = block->prepare(4);
        bytes[0] = uint8_t(i);
        bytes[1] = bytes[2] = bytes[3] = 7;
        block->setDataLength(4);
        SampleTimingInfo timing{MediaTime::make(1, 48000), MediaTime::make(i++, 48000), MediaTime::invalid()};
        sample->refill(format, 1, std::span(&timing, 1), std::span(&size, 1));
        benchmark::DoNotOptimize(input->appendSampleBuffer(*sample));
    }
    writer->finishWriting();
    ::unlink(path.c_str());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(appendPooledOneFrameAudio);

}  // namespace

BENCHMARK_MAIN();
