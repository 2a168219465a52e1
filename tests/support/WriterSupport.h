// Building blocks for movie-writer tests: format descriptions of every supported kind, sample
// buffers made from synthetic bytes, a started writer, and how a movie's chunks take turns.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "Foundation/ByteOrder.h"
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

// Interleaved 16-bit PCM of a tone, in the format's byte order.
inline std::vector<uint8_t> pcmTone(size_t frames, uint32_t channels, bool bigEndian, uint32_t rate,
                                    size_t startFrame = 0)
{
    std::vector<uint8_t> v(frames * channels * 2);
    for (size_t i = 0; i < frames; ++i) {
        for (uint32_t c = 0; c < channels; ++c) {
            double t = double(startFrame + i) / rate;
            auto s = int16_t(std::lround(12000 * std::sin(2 * M_PI * (440.0 + 220 * c) * t)));
            corvina::storePCM16(&v[(i * channels + c) * 2], s, bigEndian);
        }
    }
    return v;
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

// The chunks of every track in file order, one letter a track ('v' for the first); the
// longest run of one track's chunks in a row goes to longestRun.
inline std::string chunkOrder(const MovieSummary& m, int* longestRun)
{
    std::vector<std::pair<uint64_t, char>> chunks;
    for (size_t k = 0; k < m.tracks.size(); ++k)
        for (uint64_t o : m.tracks[k].chunkOffsets) chunks.emplace_back(o, k ? 'a' : 'v');
    std::sort(chunks.begin(), chunks.end());
    std::string order;
    int run = 0;
    *longestRun = 0;
    for (const auto& c : chunks) {
        run = !order.empty() && order.back() == c.second ? run + 1 : 1;
        *longestRun = std::max(*longestRun, run);
        order += c.second;
    }
    return order;
}

}  // namespace corvina::test
