// Cost of the writer's hot path: 16-bit stereo audio frames (48 kHz: 2.9 million a minute),
// one sample each, wrapped in a block buffer and a sample buffer as the audio feeder does.
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

// A writer with one audio input, writing to a file of its own that goes at the end.
struct AudioWriter {
    explicit AudioWriter(const std::string& name)
        : path("/tmp/writer-bench-" + name + "-" + std::to_string(::getpid()) + ".mov")
    {
        ::unlink(path.c_str());
        writer = *AssetWriter::create(path, kFileTypeQuickTimeMovie);
        writer->addInput(input);
        writer->startWriting();
    }
    ~AudioWriter()
    {
        writer->finishWriting();
        ::unlink(path.c_str());
    }
    std::string path;
    std::unique_ptr<AssetWriter> writer;
    std::shared_ptr<AssetWriterInput> input = AssetWriterInput::create(MediaType::Audio);
    FormatDescriptionRef format = stereo48k();
};

void appendOneFrameAudio(benchmark::State& state)
{
    AudioWriter w("new");
    const uint8_t frame[4] = {1, 2, 3, 4};
    const size_t size = 4;
    int64_t i = 0;
    for (auto _ : state) {
        std::unique_ptr<BlockBuffer> block;
        BlockBuffer::createWithMemoryBlock(ByteBuffer(frame, 4), 4, &block);
        SampleTimingInfo timing{MediaTime::make(1, 48000), MediaTime::make(i++, 48000), MediaTime::invalid()};
        std::unique_ptr<SampleBuffer> sample;
        SampleBuffer::create(std::move(block), true, w.format, 1, std::span(&timing, 1), std::span(&size, 1), &sample);
        benchmark::DoNotOptimize(w.input->appendSampleBuffer(*sample));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(appendOneFrameAudio);

// The pooled path: one sample buffer refilled in place, range(0) frames at a time, stored
// one by one (a run of 1) or as a run, as the movie pump does with the frames between two
// video frames (1601 or 1602 at 29.97 fps).
void appendPooledAudio(benchmark::State& state)
{
    AudioWriter w("pooled");
    auto sample = SampleBuffer::makeReusable();
    const auto frames = static_cast<size_t>(state.range(0));
    const size_t size = 4;
    int64_t i = 0;
    for (auto _ : state) {
        BlockBuffer* block = sample->mutableDataBuffer();
        uint8_t* bytes = block->prepare(4 * frames);
        bytes[0] = uint8_t(i);
        block->setDataLength(4 * frames);
        SampleTimingInfo timing{MediaTime::make(1, 48000), MediaTime::make(i, 48000), MediaTime::invalid()};
        sample->refill(w.format, int64_t(frames), std::span(&timing, 1), std::span(&size, 1));
        benchmark::DoNotOptimize(frames == 1 ? w.input->appendSampleBuffer(*sample)
                                             : w.input->appendSampleRun(*sample));
        i += int64_t(frames);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(frames));
}
BENCHMARK(appendPooledAudio)->Arg(1)->Arg(1601);

}  // namespace

BENCHMARK_MAIN();
