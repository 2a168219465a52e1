// Re-export through the movie writer: round trips checked by ffprobe and by decoding, time
// ranges, re-encoding, progress, cancellation and failures, with callbacks on the main queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "Dispatch/Dispatch.h"
#include "support/TestSupport.h"
#include "support/MovieCheck.h"
#include "tq/TQAVExport.h"
#include "support/TestMovies.h"

namespace corvina::tq {

using namespace corvina;
using namespace corvina::test;

namespace {

// Records the callbacks and the threads they came on. Progress comes from both pumps' queues.
struct Recorder : TQAVExportDelegate {
    std::mutex mutex;
    std::vector<float> progress;
    std::atomic<bool> ended{false};
    bool finished = false, failed = false, endedOnMainThread = false;
    std::optional<Error> error;
    std::function<void(TQAVExport&)> onProgress;

    void avExportProgress(TQAVExport& exporter, float p) override
    {
        {
            std::lock_guard lock(mutex);
            progress.push_back(p);
        }
        if (onProgress) onProgress(exporter);
    }
    void avExportFinished(TQAVExport&) override { end(true, std::nullopt); }
    void avExportFailed(TQAVExport&, const std::optional<Error>& e) override { end(false, e); }
    void end(bool ok, const std::optional<Error>& e)
    {
        finished = ok;
        failed = !ok;
        error = e;
        endedOnMainThread = isMainThread();
        ended = true;
        notifyMainThreadWaiters();
    }
    // Runs the main queue until the export has ended.
    bool wait()
    {
        return runMainQueueUntil([this] { return ended.load(); },
                                 std::chrono::steady_clock::now() + std::chrono::seconds(60));
    }
};

// One export and its recorder, with the asset and the output set.
struct Export {
    Recorder recorder;
    TQAVExport exporter;
    Export(const AssetRef& asset, const std::string& output)
    {
        exporter.setAsset(asset);
        exporter.setOutputURL(output);
        exporter.setDelegate(&recorder);
    }
    bool run()
    {
        exporter.exportAsset();
        return recorder.wait();
    }
    std::string why() const { return recorder.error ? recorder.error->localizedDescription : ""; }
};

std::string source(const std::string& name, const std::string& pictures, const std::vector<std::string>& codecs,
                   const std::string& audio = "")
{
    std::vector<std::string> arguments = lavfi(pictures);
    if (!audio.empty()) arguments = join({arguments, lavfi(audio)});
    return makeTestMovie(name, join({arguments, codecs}));
}

}  // namespace

TEST(TQAVExportTest, RoundTripKeepsVideoAndConvertsAudio)
{
    const std::string input = source("src.mov", "testsrc=s=64x48:r=25:d=0.4", {"-c:v", "mjpeg", "-c:a", "pcm_s16le"},
                                     constantAudio({4000, -4000}, 48000, 0.4));
    ASSERT_FALSE(input.empty());
    TempDir dir;
    struct Case {
        uint64_t rate, bits, channels;
        bool littleEndian;
        const char* codec;
    };
    const Case cases[] = {
        {48000, 16, 2, true, "pcm_s16le"},
        {44100, 24, 1, false, "pcm_s24be"},
        {32000, 16, 6, false, "pcm_s16be"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.codec);
        const std::string output = dir / (std::string(c.codec) + ".mov");
        Export e(Asset::assetWithPath(input), "file://" + output);
        e.exporter.audioRate = c.rate;
        e.exporter.audioSampleSize = c.bits;
        e.exporter.audioChannelCount = c.channels;
        e.exporter.audioLittleEndian = c.littleEndian;
        e.exporter.audioLayout = c.channels == 2 ? 0x650002u : 0;
        ASSERT_TRUE(e.run());
        ASSERT_TRUE(e.recorder.finished) << e.why();
        EXPECT_TRUE(e.recorder.endedOnMainThread);
        EXPECT_FALSE(e.exporter.cancelled());
        const auto& progress = e.recorder.progress;

        EXPECT_TRUE(checkMovieStructure(output).empty());
        const auto streams = ffprobeStreams(output);
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_EQ(streams[0].at("codec_name"), "mjpeg");
        EXPECT_EQ(streams[1].at("codec_name"), c.codec);
        EXPECT_EQ(streams[1].at("sample_rate"), std::to_string(c.rate));
        EXPECT_EQ(streams[1].at("channels"), std::to_string(c.channels));
        EXPECT_EQ(streams[0].at("nb_read_packets"), "10");
        const auto video = extractStreamBytes(input, 'v');  // passed through unchanged
        expectToolsAccept(output, true, &video);
        // Two pumps report: at most once a percentage (give or take a race between them), up
        // to nearly the whole export.
        ASSERT_FALSE(progress.empty());
        EXPECT_LE(progress.size(), 101u);
        EXPECT_GE(*std::max_element(progress.begin(), progress.end()), 0.9f);
    }
}

TEST(TQAVExportTest, TimeRangeReencodingAndVideoOnlyProgress)
{
    const std::string input =
        source("yuv.avi", "testsrc=s=720x576:r=25:d=0.4", {"-c:v", "rawvideo", "-pix_fmt", "yuv420p"});
    ASSERT_FALSE(input.empty());
    TempDir dir;
    const std::string output = dir / "dv.mov";
    Export e(Asset::assetWithPath(input), output);
    e.exporter.videoFourCC = fourCC("dvcp");
    e.exporter.timeRange = {MediaTime::make(2, 25), MediaTime::make(5, 25)};
    ASSERT_TRUE(e.run());
    ASSERT_TRUE(e.recorder.finished) << e.why();
    const auto& progress = e.recorder.progress;
    const auto streams = ffprobeStreams(output);
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0].at("codec_name"), "dvvideo");
    EXPECT_EQ(streams[0].at("codec_tag_string"), "dvcp");
    EXPECT_EQ(streams[0].at("nb_read_packets"), "5");
    expectToolsAccept(output, true);
    // One track: whole percentages that only rise, and the mean of the two stays at or below
    // half (the last of 5 frames starts at 4/5 of the range).
    ASSERT_FALSE(progress.empty());
    for (size_t i = 1; i < progress.size(); ++i)
        EXPECT_GT(std::lround(progress[i] * 100), std::lround(progress[i - 1] * 100));
    EXPECT_FLOAT_EQ(progress.back(), 0.4f);

    // Frames that the encoder cannot take as they are fail the export with a reason.
    Export prores(Asset::assetWithPath(input), dir / "prores.mov");
    prores.exporter.videoFourCC = fourCC("apcn");
    ASSERT_TRUE(prores.run());
    EXPECT_TRUE(prores.recorder.failed);
    EXPECT_NE(prores.why().find("yuv420p"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir / "prores.mov"));
}

// A cancel during an export keeps what was at the output; one on an idle exporter, before
// the first export or after a finished one, stops nothing, so the export after it runs to
// its end.
TEST(TQAVExportTest, CancelActsOnlyOnTheExportInProgress)
{
    // Long enough that a cancel on the first progress report lands well before half-way,
    // however late a loaded machine lets it act.
    const std::string input = source("long.mov", "testsrc=s=64x48:r=25:d=12", {"-c:v", "mjpeg", "-c:a", "pcm_s16le"},
                                     constantAudio({1}, 48000, 12));
    TempDir dir;
    const std::string output = dir / "out.mov";
    for (bool midway : {false, true}) {
        SCOPED_TRACE(midway ? "midway" : "at once");
        {
            std::ofstream(output) << "precious";
        }
        Export e(Asset::assetWithPath(input), output);
        std::atomic<bool> asked{false};
        if (midway)
            e.recorder.onProgress = [&](TQAVExport& exporter) {
                if (!asked.exchange(true)) exporter.cancel();
            };
        e.exporter.exportAsset();
        if (!midway) e.exporter.cancel();
        ASSERT_TRUE(e.recorder.wait());
        EXPECT_TRUE(e.recorder.finished);
        EXPECT_FALSE(e.exporter.cancelled());  // cleared by the success path
        if (midway) {
            EXPECT_LT(e.recorder.progress.back(), 0.5f);
        }
        EXPECT_EQ(readFile(output), "precious");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);  // no partial movie left
    }

    const std::string shortInput = source("idle.mov", "testsrc=s=64x48:r=25:d=0.4",
                                          {"-c:v", "mjpeg", "-c:a", "pcm_s16le"}, constantAudio({100}, 48000, 0.4));
    Export idle(Asset::assetWithPath(shortInput), dir / "idle0.mov");
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        idle.recorder.ended = false;
        idle.exporter.cancel();  // before the first export, then after the finished one
        idle.exporter.setOutputURL(dir / ("idle" + std::to_string(round) + ".mov"));
        ASSERT_TRUE(idle.run());
        EXPECT_TRUE(idle.recorder.finished) << idle.why();
        EXPECT_TRUE(std::filesystem::exists(dir / ("idle" + std::to_string(round) + ".mov")));
    }
}

TEST(TQAVExportTest, FailuresReachTheDelegateOnTheMainQueue)
{
    TempDir dir;
    TempDir sources;
    const std::string mpeg4 = source("mpeg4.mp4", "testsrc=s=64x48:r=25:d=0.2", {"-c:v", "mpeg4"});
    const std::string pal =
        source("pal.avi", "testsrc=s=720x576:r=25:d=0.2", {"-c:v", "rawvideo", "-pix_fmt", "yuv420p"});
    // A movie cut short: its sample tables (at the front) promise more than the file holds.
    const std::string whole =
        source("whole.mov", "testsrc=s=64x48:r=25:d=1",
               {"-c:v", "mjpeg", "-c:a", "pcm_s16le", "-movflags", "faststart"}, constantAudio({1000}, 48000, 1));
    const std::string cut = sources / "cut.mov";
    writeFile(cut, readFile(whole).substr(0, std::filesystem::file_size(whole) * 6 / 10));
    struct Case {
        AssetRef asset;
        std::string output;
        int64_t audioCodec;
        uint32_t videoFourCC;
        const char* words;
        bool beforeAnySample;
    };
    const Case cases[] = {
        {Asset::assetWithPath(dir / "missing.mov"), dir / "a.mov", 1819304813, 0, "missing.mov", true},
        {Asset::assetWithPath(mpeg4), dir / "b.mov", 1819304813, 0, "cannot be copied unchanged", true},
        {Asset::assetWithPath(mpeg4), dir.path(), 1819304813, 0, "", true},  // a folder is never replaced
        {Asset::assetWithPath(source("aac.mp4", "testsrc=s=64x48:r=25:d=0.2", {"-c:v", "mjpeg", "-c:a", "aac"},
                                     constantAudio({1}, 48000, 0.2))),
         dir / "c.mov", 0x61616320, 0, "linear PCM", true},
        // PAL frames make 'dvcp', never the NTSC 'dvc ' asked for.
        {Asset::assetWithPath(pal), dir / "d.mov", 1819304813, fourCC("dvc "), "not the requested 'dvc '", false},
        {Asset::assetWithPath(cut), dir / "e.mov", 1819304813, 0, "cut.mov", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.output);
        Export e(c.asset, c.output);
        e.exporter.audioCodec = c.audioCodec;
        e.exporter.videoFourCC = c.videoFourCC;
        ASSERT_TRUE(e.run());
        EXPECT_TRUE(e.recorder.failed);
        EXPECT_TRUE(e.recorder.endedOnMainThread);
        if (c.beforeAnySample) {
            EXPECT_TRUE(e.recorder.progress.empty());
        }
        ASSERT_TRUE(e.recorder.error);
        EXPECT_NE(e.why().find(c.words), std::string::npos) << e.why();
    }
    EXPECT_TRUE(std::filesystem::is_directory(dir.path()));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 0);
}

}  // namespace corvina::tq
