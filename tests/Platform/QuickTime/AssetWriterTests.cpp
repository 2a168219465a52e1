#include <gtest/gtest.h>

#include "QuickTime/TrackTables.h"
#include "support/WriterSupport.h"

namespace corvina {
namespace {

using namespace test;

// A movie of audio alone (big-endian LtRt in buffers of many frames). Video alone and every
// format beside the other track are the helper's digest table and format sweep.
TEST(AssetWriter, AudioAloneMovie)
{
    TempDir dir;
    const std::string path = dir / "one.mov";
    const auto pcm = randomBytes(66150 * 4, 2);  // 1.5 s
    {
        OpenWriter w(path);
        ASSERT_TRUE(w.writer);
        for (size_t at = 0; at < 66150; at += 441)
            ASSERT_TRUE(w.audio->appendSampleBuffer(*makeSample(
                audioFormat(44100, Layout::LtRt, true), &pcm[at * 4], 441 * 4, 441,
                {{MediaTime::make(1, 44100), MediaTime::make(int64_t(at), 44100), MediaTime::invalid()}}, {4})));
        EXPECT_TRUE(w.writer->finishWriting());
        EXPECT_EQ(w.writer->status(), AssetWriterStatus::Completed);
    }
    const MovieSummary m = checkedSummary(path);
    ASSERT_EQ(m.tracks.size(), 1u);
    EXPECT_EQ(m.tracks[0].handler, fourCC("soun"));
    EXPECT_EQ(m.tracks[0].mediaDuration, 66150u);
    expectToolsAccept(path, true, nullptr, &pcm);
}

// Runs must leave the file that one append per sample leaves: video runs close chunks at
// 1 MiB, audio runs at half a second, and runs end before, on and after those boundaries.
TEST(AssetWriter, RunsOfSamplesWriteWhatSingleAppendsWrite)
{
    AssetWriter::setClock([] { return int64_t(1700000000); });
    TempDir dir;
    auto vf = videoFormat(fourCC("apch"), 1920, 1080);
    auto af = audioFormat(48000, Layout::Stereo, false);
    const auto frames = randomBytes(300000 * 12, 5);
    const auto pcm = randomBytes(4 * 60000, 6);
    const size_t videoRuns[] = {1, 2, 3, 4, 2};                 // 12 frames of 300000 bytes, 4 to a chunk
    const size_t audioRuns[] = {7, 23993, 1, 24000, 11999, 1};  // the last is cut to the 60000 made
    const auto write = [&](const std::string& path, bool runs) {
        OpenWriter w(path);
        ASSERT_TRUE(w.writer);
        const auto append = [runs](AssetWriterInput& input, const std::unique_ptr<SampleBuffer>& s) {
            return runs ? input.appendSampleRun(*s) : input.appendSampleBuffer(*s);
        };
        size_t v = 0, a = 0;
        for (size_t k = 0; k < 6; ++k) {
            if (k < std::size(videoRuns)) {
                for (size_t n = runs ? videoRuns[k] : 1, left = videoRuns[k]; left > 0; left -= n, v += n)
                    EXPECT_TRUE(
                        append(*w.video, makeSample(vf, frames.data() + v * 300000, n * 300000, int64_t(n),
                                                    {{MediaTime::make(1001, 30000),
                                                      MediaTime::make(int64_t(v) * 1001, 30000), MediaTime::invalid()}},
                                                    {300000})));
            }
            const size_t count = std::min(audioRuns[k], pcm.size() / 4 - a);
            for (size_t n = runs ? count : 1, left = count; left > 0; left -= n, a += n)
                EXPECT_TRUE(append(*w.audio, makeSample(af, pcm.data() + a * 4, n * 4, int64_t(n),
                                                        {{MediaTime::make(1, 48000), MediaTime::make(int64_t(a), 48000),
                                                          MediaTime::invalid()}},
                                                        {4})));
        }
        EXPECT_TRUE(w.writer->finishWriting());
    };
    write(dir / "single.mov", false);
    write(dir / "runs.mov", true);
    AssetWriter::setClock(nullptr);
    const auto single = readFile(dir / "single.mov"), runs = readFile(dir / "runs.mov");
    EXPECT_GT(single.size(), 300000u * 12);
    EXPECT_TRUE(single == runs) << "the runs wrote other bytes";
    const MovieSummary m = checkedSummary(dir / "runs.mov");
    ASSERT_EQ(m.tracks.size(), 2u);
    EXPECT_EQ(m.tracks[0].chunkOffsets.size(), 3u);
    EXPECT_EQ(m.tracks[1].chunkOffsets.size(), 3u) << "two whole half-seconds and the rest";
}

TEST(AssetWriter, RefusesWrongMediaAndAppendsOutsideWriting)
{
    TempDir dir;
    OpenWriter w(dir / "refuse.mov");
    ASSERT_TRUE(w.writer);
    auto audioSample =
        oneSample(audioFormat(48000, Layout::Mono, false), {1, 2}, MediaTime::zero(), MediaTime::make(1, 48000));
    EXPECT_FALSE(w.video->appendSampleBuffer(*audioSample)) << "audio on a video track";
    EXPECT_TRUE(w.audio->appendSampleBuffer(*audioSample));
    w.audio->markAsFinished();
    EXPECT_FALSE(w.audio->appendSampleBuffer(*audioSample)) << "after markAsFinished";
    EXPECT_FALSE(w.audio->isReadyForMoreMediaData());
    EXPECT_TRUE(w.writer->finishWriting());
    EXPECT_FALSE(w.video->appendSampleBuffer(
        *oneSample(videoFormat(fourCC("dvc "), 720, 480), {1, 2, 3}, MediaTime::zero(), MediaTime::make(1001, 30000))));
    EXPECT_FALSE(AssetWriterInput::create(MediaType::Video, &w));  // output settings are not supported
}

TEST(AssetWriter, CreateFailsForExistingFileMissingFolderOrUnknownType)
{
    TempDir dir;
    std::string existing = dir / "existing.mov";
    writeFile(existing, "keep me");
    struct Row {
        std::string path;
        std::string type;
    } rows[] = {
        {existing, kFileTypeQuickTimeMovie},
        {dir / "no/such/folder/movie.mov", kFileTypeQuickTimeMovie},
        {dir / "other.mov", "public.mpeg-4"},
    };
    for (const auto& r : rows) {
        auto writer = AssetWriter::create(r.path, r.type);
        ASSERT_FALSE(writer) << r.path;
        EXPECT_FALSE(writer.error().localizedDescription.empty());
        EXPECT_NE(writer.error().code, 0);
    }
    EXPECT_EQ(readFile(existing), "keep me") << "an existing file is never touched";
}

TEST(TrackTables, AnHourOfStereoAudioCostsChunksNotSamples)
{
    qt::TrackTables tables;
    uint64_t offset = 36;
    for (int chunk = 0; chunk < 7200; ++chunk) {  // 0.5 s chunks of one-frame samples
        for (int i = 0; i < 24; ++i) tables.addSamples(1000, 4, 1);
        tables.addChunk(offset, 24000);
        offset += 96000;
    }
    EXPECT_EQ(tables.sampleCount(), 172800000u);
    EXPECT_EQ(tables.mediaDuration(), 172800000u);
    EXPECT_TRUE(tables.sizesConstant());
    EXPECT_EQ(tables.timeToSample().size(), 1u);
    EXPECT_EQ(tables.sampleToChunk().size(), 1u);
    EXPECT_LT(tables.heapBytes(), 200u * 1024);

    qt::TrackTables video;
    video.addSamples(2, 100, 1001);
    video.addSamples(1, 120, 1001);
    EXPECT_FALSE(video.sizesConstant());
    EXPECT_EQ(video.sampleSizes(), (std::vector<uint32_t>{100, 100, 120}));
    video.addChunk(uint64_t(5) << 30, 3);
    EXPECT_TRUE(video.needs64BitOffsets());
}

}  // namespace
}  // namespace corvina
