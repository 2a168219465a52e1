// The sample-job tool as a process: its document, frames decoded with libavcodec, audio runs as the tone.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numbers>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixdesc.h>
}

#include "Foundation/ByteOrder.h"
#include "Foundation/Value.h"
#include "support/HelperRun.h"
#include "support/TestMovies.h"

namespace {

using corvina::Value;
using namespace corvina::test;
namespace fs = std::filesystem;

struct Range {
    uint64_t offset;
    uint64_t length;
};

// An offset array's entries, which must be integers, in order, not overlapping, inside `size` bytes.
std::vector<Range> orderedRangesOf(const Value& array, size_t size)
{
    std::vector<Range> ranges;
    EXPECT_EQ(array.type(), Value::Type::Array);
    for (size_t i = 0; i < array.count(); ++i) {
        EXPECT_EQ(array[i]["offset"].type(), Value::Type::Integer) << "entry " << i;
        EXPECT_EQ(array[i]["length"].type(), Value::Type::Integer) << "entry " << i;
        const Range r{array[i]["offset"].unsignedLongLongValue(), array[i]["length"].unsignedLongLongValue()};
        EXPECT_GE(r.offset, i ? ranges.back().offset + ranges.back().length : 0) << "range " << i << " overlaps";
        EXPECT_GT(r.length, 0u) << "range " << i;
        EXPECT_LE(r.offset + r.length, size) << "range " << i << " leaves the file";
        ranges.push_back(r);
    }
    return ranges;
}

struct Job {
    Value settings;
    std::vector<uint8_t> video, audio;
    std::vector<Range> frames, runs;

    std::vector<uint8_t> frame(size_t i) const
    {
        return {video.begin() + std::ptrdiff_t(frames[i].offset),
                video.begin() + std::ptrdiff_t(frames[i].offset + frames[i].length)};
    }
};

// Runs the tool into `dir` and reads everything it wrote.
std::optional<Job> makeJob(const TempDir& dir, const std::vector<std::string>& args)
{
    const ProcessResult run = runProgram(join({{sampleJobToolPath(), "--out", dir.path()}, args}));
    EXPECT_EQ(run.status, 0) << run.err;
    auto settings = Value::fromPropertyListFile(dir / "settings.plist");
    if (run.status != 0 || !settings) return std::nullopt;
    Job job{*settings, readBytes(dir / "video.raw"), readBytes(dir / "audio.raw"), {}, {}};
    job.frames = orderedRangesOf(job.settings["offsetArray"], job.video.size());
    job.runs = orderedRangesOf(job.settings["audioOffsetArray"], job.audio.size());
    return job;
}

struct Decoded {
    int width = 0;
    int height = 0;
    const AVPixFmtDescriptor* format = nullptr;
};

// One frame decoded by libavcodec (`tag`: the container's code, where the decoder wants one).
std::optional<Decoded> decodeFrame(AVCodecID id, const std::vector<uint8_t>& bytes, unsigned tag)
{
    const AVCodec* codec = avcodec_find_decoder(id);
    AVCodecContext* ctx = codec ? avcodec_alloc_context3(codec) : nullptr;
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    std::optional<Decoded> decoded;
    if (ctx && frame && packet) ctx->codec_tag = tag;
    if (ctx && frame && packet && avcodec_open2(ctx, codec, nullptr) >= 0 &&
        av_new_packet(packet, static_cast<int>(bytes.size())) >= 0) {
        std::copy(bytes.begin(), bytes.end(), packet->data);
        if (avcodec_send_packet(ctx, packet) >= 0 && avcodec_send_packet(ctx, nullptr) >= 0 &&
            avcodec_receive_frame(ctx, frame) >= 0)
            decoded = Decoded{frame->width, frame->height, av_pix_fmt_desc_get(AVPixelFormat(frame->format))};
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&ctx);
    return decoded;
}

TEST(SampleJob, VideoRowsWriteTheDocumentAndDecodableFrames)
{
    // Every row asks for 320 x 240; rows of a fixed size keep theirs in the document.
    struct Row {
        std::vector<std::string> options;
        AVCodecID codec;          // AV_CODEC_ID_NONE: random bytes
        unsigned tag;             // what the container would name ProRes frames
        int docWidth, docHeight;  // size in the document
        int width, height;        // decoded (coded) size
        int chromaShift, depth;   // horizontal chroma subsampling, least bits per sample
        size_t frames;
        float rate;
    };
    const Row rows[] = {
        {{"0", "--audio", "2"}, AV_CODEC_ID_DVVIDEO, 0, 720, 480, 720, 480, 2, 8, 6, 29.97f},  // 4:1:1
        {{"30"}, AV_CODEC_ID_PRORES, MKTAG('a', 'p', 'c', 'h'), 320, 240, 320, 240, 1, 10, 6, 29.97f},
        {{"33"}, AV_CODEC_ID_PRORES, MKTAG('a', 'p', 'c', 'o'), 320, 240, 320, 240, 1, 10, 6, 29.97f},
        // The decoder may hand 4444 pictures back at 12 bits; the sampling is what matters.
        {{"35"}, AV_CODEC_ID_PRORES, MKTAG('a', 'p', '4', 'x'), 320, 240, 320, 240, 0, 10, 6, 29.97f},
        // DVCPRO HD is stored subsampled: the document names the picture size.
        {{"10"}, AV_CODEC_ID_DVVIDEO, 0, 1280, 720, 960, 720, 1, 8, 12, 59.94f},
        {{"4"}, AV_CODEC_ID_MJPEG, 0, 320, 240, 320, 240, 1, 8, 5, 25.0f},
        {{"20"}, AV_CODEC_ID_NONE, 0, 320, 240, 0, 0, 0, 0, 6, 29.97f},
        {{"20", "--frame-rate", "50"}, AV_CODEC_ID_NONE, 0, 320, 240, 0, 0, 0, 0, 10, 50.0f},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        TempDir dir;
        auto job =
            makeJob(dir, join({{"--seconds", "0.2", "--width", "320", "--height", "240", "--video"}, row.options}));
        ASSERT_TRUE(job);
        const Value& s = job->settings;
        EXPECT_FLOAT_EQ(s["frameRate"].floatValue(), row.rate);
        EXPECT_EQ(s["fWidth"].shortValue(), row.docWidth);
        EXPECT_EQ(s["fHeight"].shortValue(), row.docHeight);
        ASSERT_EQ(job->frames.size(), row.frames);  // round(0.2 x rate)
        for (size_t i = 0; i < row.frames; ++i) EXPECT_EQ(s["offsetArray"][i]["frameCount"].integerValue(), 1);
        EXPECT_NE(job->frame(0), job->frame(1)) << "pictures should move";
        // No audio: an empty run table, but a file the helper can open.
        if (row.options.size() == 1) {
            EXPECT_TRUE(job->runs.empty() && fs::is_regular_file(dir / "audio.raw"));
        }
        for (size_t i : {size_t{0}, row.frames - 1}) {
            if (row.codec == AV_CODEC_ID_NONE) {
                EXPECT_TRUE(job->frames[i].length >= 20u * 1024 && job->frames[i].length <= 60u * 1024);
                continue;
            }
            auto picture = decodeFrame(row.codec, job->frame(i), row.tag);
            ASSERT_TRUE(picture && picture->format) << "frame " << i;
            EXPECT_EQ(picture->width, row.width);
            EXPECT_EQ(picture->height, row.height);
            EXPECT_EQ(picture->format->log2_chroma_w, row.chromaShift);
            EXPECT_EQ(picture->format->log2_chroma_h, 0);
            EXPECT_GE(picture->format->comp[0].depth, row.depth);
        }
    }
}

// Whole frames of the runs give each channel's tone in the row's byte order, no gap, no frame twice.
TEST(SampleJob, AudioRowsGiveTheToneInRunsOfWholeFrames)
{
    struct Row {
        const char* code;
        int channels;
        bool bigEndian;
        int rate;
        bool oddRunBytes;
    };
    for (const Row& row :
         {Row{"1", 2, false, 44100, false}, Row{"8", 1, true, 48000, false}, Row{"12", 1, true, 32000, false},
          Row{"14", 2, true, 48000, false}, Row{"17", 2, false, 32000, false}, Row{"3", 1, false, 44100, true},
          Row{"15", 2, false, 44100, true}}) {
        SCOPED_TRACE(row.code);
        TempDir dir;
        const double seconds = row.oddRunBytes ? 0.5 : 0.3;
        auto job = makeJob(dir, join({{"--video", "20", "--audio", row.code, "--seconds", std::to_string(seconds)},
                                      row.oddRunBytes ? std::vector<std::string>{"--odd-run-bytes", "--seed", "7"}
                                                      : std::vector<std::string>{}}));
        ASSERT_TRUE(job);
        EXPECT_EQ(job->settings["audioFormat"].integerValue(), std::atoi(row.code));
        EXPECT_GT(job->runs.size(), 1u) << "the audio should come in several runs";
        const size_t bytesPerFrame = 2 * static_cast<size_t>(row.channels);
        int partial = 0;
        for (const Range& r : job->runs) partial += r.length % bytesPerFrame != 0;
        EXPECT_EQ(partial > 0, row.oddRunBytes);
        int64_t frame = 0;
        int mismatches = 0;
        for (const Range& r : job->runs) {
            const uint8_t* p = job->audio.data() + r.offset;
            for (uint64_t i = 0; i < r.length / bytesPerFrame; ++i, ++frame) {
                for (int c = 0; c < row.channels; ++c, p += 2) {
                    const int16_t u = corvina::loadPCM16(p, row.bigEndian);
                    const double hz = 440.0 * (c + 2) / 2;
                    const double expected =
                        0.5 * 32767 * std::sin(2 * std::numbers::pi * hz * static_cast<double>(frame) / row.rate);
                    if (std::abs(u - expected) > 1.5 && mismatches++ < 3)
                        ADD_FAILURE() << "frame " << frame << " channel " << c << ": " << u << " vs " << expected;
                }
            }
        }
        EXPECT_EQ(frame, std::llround(seconds * row.rate));
    }
}

TEST(SampleJob, SeedReproducesTheFilesAndNoJunkPacksThem)
{
    TempDir a, b, c;
    const std::vector<std::string> args = {"--video", "1", "--audio", "6", "--seconds", "0.2", "--seed", "42"};
    auto first = makeJob(a, args);
    auto second = makeJob(b, args);
    auto packed = makeJob(
        c, {"--video", "1", "--audio", "6", "--seconds", "0.2", "--seed", "43", "--no-junk", "--distinct-frames", "2"});
    ASSERT_TRUE(first && second && packed);
    EXPECT_TRUE(first->video == second->video && first->audio == second->audio);
    EXPECT_EQ(first->settings["offsetArray"], second->settings["offsetArray"]);
    EXPECT_EQ(first->settings["audioOffsetArray"], second->settings["audioOffsetArray"]);
    EXPECT_FALSE(first->audio == packed->audio) << "another seed, other runs";

    // Without junk the pieces follow each other from the first byte to the last.
    for (const auto* ranges : {&packed->frames, &packed->runs}) {
        uint64_t end = 0;
        for (const Range& r : *ranges) {
            EXPECT_EQ(r.offset, end);
            end = r.offset + r.length;
        }
    }
    EXPECT_EQ(packed->frames.back().offset + packed->frames.back().length, packed->video.size());
    // Two distinct pictures, repeated: 0 2 4 are the same bytes, 0 and 1 are not.
    ASSERT_EQ(packed->frames.size(), 5u);
    EXPECT_TRUE(packed->frame(0) == packed->frame(4));
    EXPECT_FALSE(packed->frame(0) == packed->frame(1));
}

TEST(SampleJob, BadArgumentsAreRefused)
{
    TempDir dir;
    EXPECT_EQ(runProgram({sampleJobToolPath()}).status, 2) << "no --out";
    const std::vector<std::string> cases[] = {
        {"--video", "abc"},      {"--seconds", "-1"}, {"--width", "0"}, {"--distinct-frames", "0"},
        {"--frame-rate", "nan"}, {"--seed"},          {"--bogus"}};
    for (const auto& args : cases)
        EXPECT_EQ(runProgram(join({{sampleJobToolPath(), "--out", dir.path()}, args})).status, 2) << args[0];
    EXPECT_FALSE(fs::exists(dir / "settings.plist"));
}

}  // namespace
