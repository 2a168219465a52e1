// Building blocks for movie-writer tests: format descriptions of every supported kind, sample
// buffers made from synthetic bytes and a started writer.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/MovieCheck.h"
#include "support/TestSupport.h"
#include "QuickTime/AssetWriter.h"

namespace corvina::test {

enum class Layout { Mono, Stereo, LtRt };

inline FormatDescriptionRef videoFormat(FourCharCode codec, int32_t w, int32_t h)
{
    FormatDescriptionRef f;
    EXPECT_EQ(FormatDescription::createVideo(codec, w, h, &f), kNoErr);
    return f;
}

inline FormatDescriptionRef audioFormat(uint32_t rate, Layout layout, bool bigEndian)
{
    uint32_t channels = layout == Layout::Mono ? 1 : 2;
    AudioStreamBasicDescription a{
        double(rate), kAudioFormatLinearPCM, bigEndian ? 14u : 12u, 2 * channels, 1, 2 * channels, channels, 16, 0};
    AudioChannelLayout l;
    if (layout == Layout::Stereo) l.mChannelLayoutTag = kAudioChannelLayoutTag_Stereo;
    if (layout == Layout::Mono) l.mChannelLayoutTag = kAudioChannelLayoutTag_Mono;
    if (layout == Layout::LtRt)
        l.mChannelDescriptions = {AudioChannelDescription{kAudioChannelLabel_Mono, 0, {}},
                                  AudioChannelDescription{kAudioChannelLabel_Mono, 0, {}}};
    FormatDescriptionRef f;
    EXPECT_EQ(FormatDescription::createAudio(a, &l, AudioChannelLayout::byteSize(l.mChannelDescriptions.size()), &f),
              kNoErr);
    return f;
}

inline std::vector<uint8_t> randomBytes(size_t n, uint32_t seed)
{
    const std::string bytes = patternBytes(n, seed);
    return {bytes.begin(), bytes.end()};
}

inline std::unique_ptr<SampleBuffer> makeSample(const FormatDescriptionRef& format, const uint8_t* bytes, size_t length,
                                                int64_t numSamples, std::vector<SampleTimingInfo> timing,
                                                std::vector<size_t> sizes)
{
    std::unique_ptr<BlockBuffer> block;
    EXPECT_EQ(BlockBuffer::createWithMemoryBlock(ByteBuffer(bytes, length), length, &block), kNoErr);
    std::unique_ptr<SampleBuffer> s;
    EXPECT_EQ(SampleBuffer::create(std::move(block), true, format, numSamples, timing, sizes, &s), kNoErr);
    return s;
}

inline std::unique_ptr<SampleBuffer> oneSample(const FormatDescriptionRef& format, const std::vector<uint8_t>& bytes,
                                               MediaTime pts, MediaTime duration)
{
    return makeSample(format, bytes.data(), bytes.size(), 1, {{duration, pts, MediaTime::invalid()}}, {bytes.size()});
}

// The movie's summary; each structural problem found fails the test.
inline MovieSummary checkedSummary(const std::string& path)
{
    MovieSummary m;
    EXPECT_EQ(checkMovieStructure(path, &m), std::vector<std::string>{}) << path;
    return m;
}

// A QuickTime writer with a video and, when withAudio, an audio input, started.
struct OpenWriter {
    std::unique_ptr<AssetWriter> writer;
    std::shared_ptr<AssetWriterInput> video = AssetWriterInput::create(MediaType::Video);
    std::shared_ptr<AssetWriterInput> audio = AssetWriterInput::create(MediaType::Audio);

    explicit OpenWriter(const std::string& path, bool withAudio = true, bool startSession = true)
    {
        auto created = AssetWriter::create(path, kFileTypeQuickTimeMovie);
        EXPECT_TRUE(created) << (created ? "" : created.error().localizedDescription);
        if (!created) return;
        writer = std::move(*created);
        EXPECT_TRUE(writer->canAddInput(*video));
        writer->addInput(video);
        if (withAudio) writer->addInput(audio);
        EXPECT_TRUE(writer->startWriting());
        if (startSession) writer->startSessionAtSourceTime(MediaTime::zero());
    }
};

}  // namespace corvina::test
