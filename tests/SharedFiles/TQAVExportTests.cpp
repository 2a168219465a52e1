// Re-export through the movie writer: round trips checked by ffprobe and by decoding, time
// ranges, re-encoding, progress, cancellation and failures, with callbacks on the main queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "Dispatch/Dispatch.h"
#include "TestSupport.h"
#include "MovieCheck.h"
#include "TQAVExport.h"
#include "TestMovies.h"

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
        Recorder recorder;
        TQAVExport exporter;
        exporter.setAsset(Asset::assetWithPath(input));
        exporter.setOutputURL("file://" + output);
        exporter.setDelegate(&recorder);
        exporter.audioRate = c.rate;
        exporter.audioSampleSize = c.bits;
        exporter.audioChannelCount = c.channels;
        exporter.audioLittleEndian = c.littleEndian;
        exporter.audioLayout = c.channels == 2 ? 0x650002u : 0;
        exporter.exportAsset();
        ASSERT_TRUE(recorder.wait());
        ASSERT_TRUE(recorder.finished) << (recorder.error ? recorder.error->description() : "");
        EXPECT_TRUE(recorder.endedOnMainThread);
        EXPECT_FALSE(exporter.cancelled());

        EXPECT_TRUE(checkMovieStructure(output).empty());
        const auto streams = ffprobeStreams(output);
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_EQ(streams[0].at("codec_name"), "mjpeg");
        EXPECT_EQ(streams[1].at("codec_name"), c.codec);
        EXPECT_EQ(streams[1].at("sample_rate"), std::to_string(c.rate));
        EXPECT_EQ(streams[1].at("channels"), std::to_string(c.channels));
        EXPECT_EQ(ffprobePacketCount(output, 0), 10);
        EXPECT_EQ(extractStreamBytes(output, 'v'), extractStreamBytes(input, 'v'));  // passed through unchanged
        std::string diagnostics;
        EXPECT_TRUE(ffmpegDecodesCleanly(output, &diagnostics)) << diagnostics;
        // Two pumps report: at most once a percentage (give or take a race between them), up
        // to nearly the whole export.
        ASSERT_FALSE(recorder.progress.empty());
        EXPECT_LE(recorder.progress.size(), 101u);
        EXPECT_GE(*std::max_element(recorder.progress.begin(), recorder.progress.end()), 0.9f);
    }
}

TEST(TQAVExportTest, TimeRangeReencodingAndVideoOnlyProgress)
{
    const std::string input =
        source("yuv.avi", "testsrc=s=720x576:r=25:d=0.4", {"-c:v", "rawvideo", "-pix_fmt", "yuv420p"});
    ASSERT_FALSE(input.empty());
    TempDir dir;
    const std::string output = dir / "dv.mov";
    Recorder recorder;
    TQAVExport exporter;
    exporter.setAsset(Asset::assetWithPath(input));
    exporter.setOutputURL(output);
    exporter.setDelegate(&recorder);
    exporter.videoFourCC = fourCC("dvcp");
    exporter.timeRange = {MediaTime::make(2, 25), MediaTime::make(5, 25)};
    exporter.exportAsset();
    ASSERT_TRUE(recorder.wait());
    ASSERT_TRUE(recorder.finished) << (recorder.error ? recorder.error->description() : "");
    const auto streams = ffprobeStreams(output);
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0].at("codec_name"), "dvvideo");
    EXPECT_EQ(streams[0].at("codec_tag_string"), "dvcp");
    EXPECT_EQ(ffprobePacketCount(output, 0), 5);
    EXPECT_TRUE(ffmpegDecodesCleanly(output));
    // One track: whole percentages that only rise, and the mean of the two stays at or below
    // half (the last of 5 frames starts at 4/5 of the range).
    ASSERT_FALSE(recorder.progress.empty());
    for (size_t i = 1; i < recorder.progress.size(); ++i)
        EXPECT_GT(std::lround(recorder.progress[i] * 100), std::lround(recorder.progress[i - 1] * 100));
    EXPECT_FLOAT_EQ(recorder.progress.back(), 0.4f);

    // Frames that the encoder cannot take as they are fail the export with a reason.
    Recorder refused;
    TQAVExport prores;
    prores.setAsset(Asset::assetWithPath(input));
    prores.setOutputURL(dir / "prores.mov");
    prores.setDelegate(&refused);
    prores.videoFourCC = fourCC("apcn");
    prores.exportAsset();
    ASSERT_TRUE(refused.wait());
    EXPECT_TRUE(refused.failed);
    ASSERT_TRUE(refused.error);
    EXPECT_NE(refused.error->localizedDescription.find("yuv420p"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir / "prores.mov"));
}

TEST(TQAVExportTest, CancelKeepsWhatWasThere)
{
    const std::string input = source("long.mov", "testsrc=s=64x48:r=25:d=4", {"-c:v", "mjpeg", "-c:a", "pcm_s16le"},
                                     constantAudio({1}, 48000, 4));
    TempDir dir;
    const std::string output = dir / "out.mov";
    for (bool midway : {false, true}) {
        SCOPED_TRACE(midway ? "midway" : "at once");
        {
            std::ofstream(output) << "precious";
        }
        Recorder recorder;
        TQAVExport exporter;
        exporter.setAsset(Asset::assetWithPath(input));
        exporter.setOutputURL(output);
        exporter.setDelegate(&recorder);
        std::atomic<bool> asked{false};
        if (midway)
            recorder.onProgress = [&](TQAVExport& e) {
                if (!asked.exchange(true)) e.cancel();
            };
        exporter.exportAsset();
        if (!midway) exporter.cancel();
        ASSERT_TRUE(recorder.wait());
        EXPECT_TRUE(recorder.finished);
        EXPECT_FALSE(exporter.cancelled());  // cleared by the success path
        if (midway) {
            EXPECT_LT(recorder.progress.back(), 0.5f);
        }
        EXPECT_EQ(readFile(output), "precious");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);  // no partial movie left
    }
}

TEST(TQAVExportTest, FailuresReachTheDelegateOnTheMainQueue)
{
    TempDir dir;
    const std::string mpeg4 = source("mpeg4.mp4", "testsrc=s=64x48:r=25:d=0.2", {"-c:v", "mpeg4"});
    struct Case {
        AssetRef asset;
        std::string output;
        int64_t audioCodec;
        const char* words;
    };
    const Case cases[] = {
        {Asset::assetWithPath(dir / "missing.mov"), dir / "a.mov", 1819304813, "missing.mov"},
        {Asset::assetWithPath(mpeg4), dir / "b.mov", 1819304813, "cannot be copied unchanged"},
        {Asset::assetWithPath(mpeg4), dir.path(), 1819304813, ""},  // a folder is never replaced
        {Asset::assetWithPath(source("aac.mp4", "testsrc=s=64x48:r=25:d=0.2", {"-c:v", "mjpeg", "-c:a", "aac"},
                                     constantAudio({1}, 48000, 0.2))),
         dir / "c.mov", 0x61616320, "linear PCM"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.output);
        Recorder recorder;
        TQAVExport exporter;
        exporter.setAsset(c.asset);
        exporter.setOutputURL(c.output);
        exporter.setDelegate(&recorder);
        exporter.audioCodec = c.audioCodec;
        exporter.exportAsset();
        ASSERT_TRUE(recorder.wait());
        EXPECT_TRUE(recorder.failed);
        EXPECT_TRUE(recorder.endedOnMainThread);
        EXPECT_TRUE(recorder.progress.empty());
        ASSERT_TRUE(recorder.error);
        EXPECT_NE(recorder.error->localizedDescription.find(c.words), std::string::npos)
            << recorder.error->localizedDescription;
    }
    EXPECT_TRUE(std::filesystem::is_directory(dir.path()));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 0);
}
