// The sample-job tool is run as a process; its files are then read back the way the helper
// will read them: settings through the property-list value type, frames decoded with
// libavcodec, audio runs reassembled into the tone.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixdesc.h>
}

#include "Foundation/Value.h"
#include "HelperRun.h"

namespace {

using corvina::Value;
using namespace corvina::test;
namespace fs = std::filesystem;

struct Range {
    uint64_t offset;
    uint64_t length;
};

// The entries of one offset array; every entry must carry integer offset and length.
std::vector<Range> rangesOf(const Value& array)
{
    std::vector<Range> ranges;
    EXPECT_EQ(array.type(), Value::Type::Array);
    for (size_t i = 0; i < array.count(); ++i) {
        const Value& entry = array[i];
        EXPECT_EQ(entry["offset"].type(), Value::Type::Integer) << "entry " << i;
        EXPECT_EQ(entry["length"].type(), Value::Type::Integer) << "entry " << i;
        ranges.push_back({entry["offset"].unsignedLongLongValue(), entry["length"].unsignedLongLongValue()});
    }
    return ranges;
}

// Ranges in order, not overlapping, inside a file of `size` bytes.
void expectOrderedInside(const std::vector<Range>& ranges, size_t size)
{
    uint64_t end = 0;
    for (size_t i = 0; i < ranges.size(); ++i) {
        EXPECT_GE(ranges[i].offset, end) << "range " << i << " overlaps the one before";
        EXPECT_GT(ranges[i].length, 0u) << "range " << i;
        end = ranges[i].offset + ranges[i].length;
        EXPECT_LE(end, size) << "range " << i << " leaves the file";
    }
}

struct Job {
    Value settings;
    std::vector<uint8_t> video;
    std::vector<uint8_t> audio;
    std::vector<Range> frames;
    std::vector<Range> runs;
};

// Runs the tool into `dir` and reads everything it wrote.
std::optional<Job> makeJob(const TempDir& dir, std::vector<std::string> args)
{
    args.insert(args.begin(), {sampleJobToolPath(), "--out", dir.path()});
    const ProcessResult run = runProgram(args);
    const int status = run.status;
    EXPECT_EQ(status, 0) << run.err;
    if (status != 0) return std::nullopt;
    auto settings = Value::fromPropertyListFile(dir / "settings.plist");
    EXPECT_TRUE(settings.has_value());
    if (!settings) return std::nullopt;
    Job job{*settings, readBytes(dir / "video.raw"), readBytes(dir / "audio.raw"), {}, {}};
    job.frames = rangesOf(job.settings["offsetArray"]);
    job.runs = rangesOf(job.settings["audioOffsetArray"]);
    return job;
}

std::vector<uint8_t> bytesOf(const std::vector<uint8_t>& file, const Range& r)
{
    return {file.begin() + static_cast<std::ptrdiff_t>(r.offset),
            file.begin() + static_cast<std::ptrdiff_t>(r.offset + r.length)};
}

struct Decoded {
    int width;
    int height;
    AVPixelFormat format;
};

// Decodes one frame with libavcodec's decoder for `id` (and the container's four-character
// code, where the decoder wants one); nullopt when it is not a frame.
std::optional<Decoded> decodeFrame(AVCodecID id, const std::vector<uint8_t>& bytes, unsigned tag = 0)
{
    struct ContextDeleter {
        void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
    };
    struct FrameDeleter {
        void operator()(AVFrame* f) const { av_frame_free(&f); }
    };
    struct PacketDeleter {
        void operator()(AVPacket* p) const { av_packet_free(&p); }
    };
    const AVCodec* codec = avcodec_find_decoder(id);
    if (!codec) return std::nullopt;
    std::unique_ptr<AVCodecContext, ContextDeleter> ctx(avcodec_alloc_context3(codec));
    std::unique_ptr<AVFrame, FrameDeleter> frame(av_frame_alloc());
    std::unique_ptr<AVPacket, PacketDeleter> packet(av_packet_alloc());
    if (ctx) ctx->codec_tag = tag;
    if (!ctx || !frame || !packet || avcodec_open2(ctx.get(), codec, nullptr) < 0) return std::nullopt;
    if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0) return std::nullopt;
    std::copy(bytes.begin(), bytes.end(), packet->data);
    if (avcodec_send_packet(ctx.get(), packet.get()) < 0) return std::nullopt;
    avcodec_send_packet(ctx.get(), nullptr);
    if (avcodec_receive_frame(ctx.get(), frame.get()) < 0) return std::nullopt;
    return Decoded{frame->width, frame->height, static_cast<AVPixelFormat>(frame->format)};
}

// ---------------------------------------------------------------------------------------

TEST(SampleJob, DvNtscJobHasTheSettingsKeysAndDecodableFrames)
{
    TempDir dir;
    auto job = makeJob(dir, {"--video", "0", "--audio", "2", "--seconds", "0.2"});
    ASSERT_TRUE(job);
    const Value& s = job->settings;
    EXPECT_EQ(s["tmpFilename"].stringValue(), fs::absolute(dir / "video.raw").string());
    EXPECT_EQ(s["tmpAudioFilename"].stringValue(), fs::absolute(dir / "audio.raw").string());
    EXPECT_EQ(s["destFilename"].stringValue(), fs::absolute(dir / "movie.mov").string());
    EXPECT_EQ(s["formatType"].type(), Value::Type::Integer);
    EXPECT_EQ(s["formatType"].integerValue(), 0);
    EXPECT_EQ(s["frameRate"].type(), Value::Type::Real);
    EXPECT_FLOAT_EQ(s["frameRate"].floatValue(), 29.97f);
    EXPECT_EQ(s["audioFormat"].type(), Value::Type::Integer);
    EXPECT_EQ(s["audioFormat"].integerValue(), 2);
    EXPECT_EQ(s["fWidth"].shortValue(), 720);
    EXPECT_EQ(s["fHeight"].shortValue(), 480);

    ASSERT_EQ(job->frames.size(), 6u);  // round(0.2 x 29.97)
    for (size_t i = 0; i < job->frames.size(); ++i) EXPECT_EQ(s["offsetArray"][i]["frameCount"].integerValue(), 1);
    expectOrderedInside(job->frames, job->video.size());
    expectOrderedInside(job->runs, job->audio.size());
    for (size_t i : {size_t{0}, job->frames.size() - 1}) {
        EXPECT_EQ(job->frames[i].length, 120000u);  // a DV NTSC frame
        auto picture = decodeFrame(AV_CODEC_ID_DVVIDEO, bytesOf(job->video, job->frames[i]));
        ASSERT_TRUE(picture) << "frame " << i;
        EXPECT_EQ(picture->width, 720);
        EXPECT_EQ(picture->height, 480);
        EXPECT_EQ(picture->format, AV_PIX_FMT_YUV411P);
    }
}

struct ProResCase {
    const char* code;
    unsigned tag;
    int log2ChromaWidth;  // 1 for 4:2:2, 0 for 4:4:4
};

class SampleJobProRes : public ::testing::TestWithParam<ProResCase> {};

TEST_P(SampleJobProRes, FramesDecodeAtTheRequestedSize)
{
    TempDir dir;
    auto job = makeJob(
        dir, {"--video", GetParam().code, "--audio", "0", "--seconds", "0.2", "--width", "320", "--height", "240"});
    ASSERT_TRUE(job);
    EXPECT_EQ(job->settings["fWidth"].shortValue(), 320);
    EXPECT_EQ(job->settings["fHeight"].shortValue(), 240);
    ASSERT_EQ(job->frames.size(), 6u);
    expectOrderedInside(job->frames, job->video.size());
    EXPECT_NE(bytesOf(job->video, job->frames[0]), bytesOf(job->video, job->frames[1])) << "pictures should move";
    auto picture = decodeFrame(AV_CODEC_ID_PRORES, bytesOf(job->video, job->frames[2]), GetParam().tag);
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->width, 320);
    EXPECT_EQ(picture->height, 240);
    // The decoder may hand 4444 pictures back at 12 bits; the sampling is what matters.
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(picture->format);
    ASSERT_NE(desc, nullptr);
    EXPECT_EQ(desc->log2_chroma_w, GetParam().log2ChromaWidth);
    EXPECT_EQ(desc->log2_chroma_h, 0);
    EXPECT_GE(desc->comp[0].depth, 10);
    // No audio: an empty run table, but a file the helper can open.
    EXPECT_EQ(job->runs.size(), 0u);
    EXPECT_TRUE(fs::is_regular_file(dir / "audio.raw"));
}

INSTANTIATE_TEST_SUITE_P(Profiles, SampleJobProRes,
                         ::testing::Values(ProResCase{"30", MKTAG('a', 'p', 'c', 'h'), 1},
                                           ProResCase{"33", MKTAG('a', 'p', 'c', 'o'), 1},
                                           ProResCase{"35", MKTAG('a', 'p', '4', 'x'), 0}));

TEST(SampleJob, OtherVideoRowsCarryTheirCodecsAndSizes)
{
    struct Row {
        const char* code;
        AVCodecID codec;          // AV_CODEC_ID_NONE: random bytes
        int width, height;        // decoded (coded) size
        int docWidth, docHeight;  // size in the document
    };
    for (const Row& row :
         {Row{"10", AV_CODEC_ID_DVVIDEO, 960, 720, 1280, 720}, Row{"4", AV_CODEC_ID_MJPEG, 720, 576, 720, 576},
          Row{"20", AV_CODEC_ID_NONE, 0, 0, 640, 360}}) {
        SCOPED_TRACE(row.code);
        TempDir dir;
        auto job = makeJob(dir, {"--video", row.code, "--seconds", "0.1", "--width", "640", "--height", "360"});
        ASSERT_TRUE(job);
        EXPECT_EQ(job->settings["fWidth"].shortValue(), row.docWidth);
        EXPECT_EQ(job->settings["fHeight"].shortValue(), row.docHeight);
        ASSERT_FALSE(job->frames.empty());
        expectOrderedInside(job->frames, job->video.size());
        if (row.codec == AV_CODEC_ID_NONE) {
            for (const Range& r : job->frames) {
                EXPECT_GE(r.length, 20u * 1024);
                EXPECT_LE(r.length, 60u * 1024);
            }
            continue;
        }
        auto picture = decodeFrame(row.codec, bytesOf(job->video, job->frames.back()));
        ASSERT_TRUE(picture);
        EXPECT_EQ(picture->width, row.width);
        EXPECT_EQ(picture->height, row.height);
    }
}

// The runs, put together frame by frame (whole frames only), must give the tone of every
// channel without a gap or a doubled frame, in the row's byte order.
void expectContinuousTone(const Job& job, int channels, bool bigEndian, int rate, int64_t expectedFrames)
{
    const size_t bytesPerFrame = 2 * static_cast<size_t>(channels);
    int64_t frame = 0;
    int mismatches = 0;
    for (const Range& r : job.runs) {
        const uint8_t* p = job.audio.data() + r.offset;
        for (uint64_t i = 0; i < r.length / bytesPerFrame; ++i, ++frame) {
            for (int c = 0; c < channels; ++c, p += 2) {
                const auto u = static_cast<uint16_t>(bigEndian ? (p[0] << 8) | p[1] : (p[1] << 8) | p[0]);
                const double hz = 440.0 * (c + 2) / 2;
                const double expected =
                    0.5 * 32767 * std::sin(2 * std::numbers::pi * hz * static_cast<double>(frame) / rate);
                if (std::abs(static_cast<int16_t>(u) - expected) > 1.5 && mismatches++ < 3)
                    ADD_FAILURE() << "frame " << frame << " channel " << c << ": " << static_cast<int16_t>(u) << " vs "
                                  << expected;
            }
        }
    }
    EXPECT_EQ(frame, expectedFrames);
}

TEST(SampleJob, AudioRowsGiveTheToneInRunsOfWholeFrames)
{
    struct Row {
        const char* code;
        int channels;
        bool bigEndian;
        int rate;
    };
    for (const Row& row : {Row{"1", 2, false, 44100}, Row{"8", 1, true, 48000}, Row{"12", 1, true, 32000},
                           Row{"14", 2, true, 48000}, Row{"17", 2, false, 32000}}) {
        SCOPED_TRACE(row.code);
        TempDir dir;
        auto job =
            makeJob(dir, {"--video", "20", "--audio", row.code, "--seconds", "0.3", "--width", "64", "--height", "64"});
        ASSERT_TRUE(job);
        EXPECT_EQ(job->settings["audioFormat"].integerValue(), std::atoi(row.code));
        expectOrderedInside(job->runs, job->audio.size());
        EXPECT_GT(job->runs.size(), 1u) << "the audio should come in several runs";
        for (const Range& r : job->runs) EXPECT_EQ(r.length % (2 * row.channels), 0u);
        expectContinuousTone(*job, row.channels, row.bigEndian, row.rate, std::llround(0.3 * row.rate));
    }
}

TEST(SampleJob, OddRunBytesAreNotCountedAsAudio)
{
    for (const char* code : {"3", "15"}) {
        SCOPED_TRACE(code);
        const int channels = std::string(code) == "3" ? 1 : 2;
        TempDir dir;
        auto job =
            makeJob(dir, {"--video", "20", "--audio", code, "--seconds", "0.5", "--odd-run-bytes", "--seed", "7"});
        ASSERT_TRUE(job);
        int partial = 0;
        for (const Range& r : job->runs) partial += r.length % (2 * channels) != 0;
        EXPECT_GT(partial, 0) << "some runs should end in part of a frame";
        expectContinuousTone(*job, channels, false, 44100, std::llround(0.5 * 44100));
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
    EXPECT_TRUE(first->video == second->video);
    EXPECT_TRUE(first->audio == second->audio);
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
    EXPECT_TRUE(bytesOf(packed->video, packed->frames[0]) == bytesOf(packed->video, packed->frames[4]));
    EXPECT_FALSE(bytesOf(packed->video, packed->frames[0]) == bytesOf(packed->video, packed->frames[1]));
}

TEST(SampleJob, FrameRateOptionSetsTheDocumentRateAndFrameCount)
{
    TempDir dir;
    auto job =
        makeJob(dir, {"--video", "20", "--frame-rate", "50", "--seconds", "0.2", "--width", "64", "--height", "64"});
    ASSERT_TRUE(job);
    EXPECT_FLOAT_EQ(job->settings["frameRate"].floatValue(), 50.0f);
    EXPECT_EQ(job->frames.size(), 10u);
}

TEST(SampleJob, BadArgumentsAreRefused)
{
    TempDir dir;
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"--out", dir.path(), "--video", "abc"},
        {"--out", dir.path(), "--seconds", "-1"},
        {"--out", dir.path(), "--width", "0"},
        {"--out", dir.path(), "--distinct-frames", "0"},
        {"--out", dir.path(), "--frame-rate", "nan"},
        {"--out", dir.path(), "--seed"},
        {"--out", dir.path(), "--bogus"},
    };
    for (auto args : cases) {
        args.insert(args.begin(), sampleJobToolPath());
        EXPECT_EQ(runProgram(args).status, 2) << (args.size() > 3 ? args[3] : "no --out");
    }
    EXPECT_FALSE(fs::exists(dir / "settings.plist"));
}

}  // namespace
