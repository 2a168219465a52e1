// Asset timing, timecode, codec names and waveforms; re-export through the movie writer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <sstream>

#include "Dispatch/Dispatch.h"
#include "Foundation/ByteOrder.h"
#include "support/MovieCheck.h"
#include "support/TestMovies.h"
#include "support/TestSupport.h"
#include "tq/TQAVExport.h"
#include "tq/TQAVFoundation.h"

namespace corvina::tq {

using namespace corvina;
using namespace corvina::test;
using ::testing::HasSubstr;

namespace {

AssetRef movie(const std::string& name, const std::vector<std::string>& arguments)
{
    const std::string path = makeTestMovie(name, arguments);
    EXPECT_FALSE(path.empty()) << name;
    return Asset::assetWithPath(path);
}

}  // namespace

TEST(TQAVFoundationTest, TimingAndStartTimecodeAtCommonRates)
{
    struct Case {
        const char* name;
        const char* rate;
        const char* timecode;  // nullptr: no timecode track
        double fps;
        bool dropFrame;
        const char* start;  // with default start "00:00:00:00"
        const char* atOneSecond;
    };
    // The rates (whole or NTSC, drop frame or not); how containers keep timecode is the asset layer's.
    const Case cases[] = {
        {"t25.mov", "25", nullptr, 25.0, false, "00:00:00:00", "00:00:01:00"},
        {"t2398.mov", "24000/1001", "00:59:59:12", 24000.0 / 1001, false, "00:59:59:12", "01:00:00:12"},
        {"t2997df.mov", "30000/1001", "00:00:59;29", 30000.0 / 1001, true, "00:00:59;29", "00:01:01;01"},
        {"t5994df.mov", "60000/1001", "00:09:59;58", 60000.0 / 1001, true, "00:09:59;58", "00:10:00;58"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> arguments =
            join({lavfi(std::string("testsrc=s=64x48:r=") + c.rate + ":d=0.3"), {"-c:v", "mjpeg"}});
        if (c.timecode) arguments.insert(arguments.end(), {"-timecode", c.timecode});
        const AssetRef asset = movie(c.name, arguments);
        EXPECT_TRUE(TQAVFoundation::isReadable(asset));
        EXPECT_NEAR(TQAVFoundation::fpsForAsset(asset), c.fps, 1e-6);
        EXPECT_EQ(TQAVFoundation::isDropFrame(asset), c.dropFrame);
        EXPECT_EQ(TQAVFoundation::timecodeStartForAsset(asset, std::string("00:00:00:00")), c.start);
        EXPECT_EQ(TQAVFoundation::timecodeAtTime(MediaTime::make(1, 1), asset, std::string("00:00:00:00")),
                  c.atOneSecond);
        EXPECT_NEAR(double(TQAVFoundation::frameDurationForAsset(asset)), std::round(0.3 * c.fps), 1.0);
    }
    // No video: the default rate; no timecode: the default start, even none.
    const AssetRef audioOnly = movie("audio.wav", join({lavfi(constantAudio({5}, 8000, 0.1))}));
    EXPECT_EQ(TQAVFoundation::fpsForAsset(audioOnly), 29.97);
    EXPECT_EQ(TQAVFoundation::timecodeStartForAsset(audioOnly, std::nullopt), std::nullopt);
    EXPECT_EQ(TQAVFoundation::timecodeAtTime(MediaTime::make(-100, 30000), audioOnly), "00:00:00:00");
}

TEST(TQAVFoundationTest, FrameTimesAndTimecodeRecords)
{
    EXPECT_EQ(TQAVFoundation::frameLengthForFPS(29.97), MediaTime::make(1000, 29970));
    EXPECT_EQ(TQAVFoundation::framesAtTime(MediaTime::indefinite(), 25), 0u);
    EXPECT_EQ(TQAVFoundation::framesAtTime(MediaTime::make(1001, 30000), 30000.0 / 1001), 1u);
    EXPECT_EQ(TQAVFoundation::framesAtTime(MediaTime::make(3, 2), 25), 38u);  // 37.5 rounds away from zero
    EXPECT_EQ(TQAVFoundation::timeFromFrameCount(50, 25), MediaTime::make(50000, 25000));
    EXPECT_EQ(TQAVFoundation::frameDurationForAsset(nullptr), 0u);

    FormatDescriptionRef df, ndf24, video;
    FormatDescription::createTimecode(fourCC("tmcd"), MediaTime::make(1001, 30000), 30,
                                      kTimeCodeFlag_DropFrame | kTimeCodeFlag_24HourMax, &df);
    FormatDescription::createTimecode(fourCC("tmcd"), MediaTime::make(1, 25), 25, kTimeCodeFlag_24HourMax, &ndf24);
    FormatDescription::createVideo(fourCC("jpeg"), 64, 48, &video);
    const auto be = corvina::byteSwapped32;
    struct Case {
        const FormatDescription* format;
        uint32_t stored;
        int hours, minutes, seconds, frames;
        uint32_t flags;
    };
    const Case cases[] = {
        {df.get(), be(107892), 1, 0, 0, 0, 1},
        {df.get(), be(1800), 0, 1, 0, 2, 1},
        {ndf24.get(), be(25 * 3600 * 25 + 3), 1, 0, 0, 3, 1},  // 25 hours wrap to 1
        {ndf24.get(), be(uint32_t(-25)), 23, 0, 1, 0, 1},      // negative: 23 - hours
        {video.get(), be(107892), 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        const SMPTETime t = timecodeForFrameNumber32UsingFormatDescription(c.stored, *c.format);
        EXPECT_EQ(std::vector<int>({t.mHours, t.mMinutes, t.mSeconds, t.mFrames}),
                  std::vector<int>({c.hours, c.minutes, c.seconds, c.frames}));
        EXPECT_EQ(t.mFlags, c.flags);
    }
}

TEST(TQAVFoundationTest, Readability)
{
    const std::string playlist =
        makeTestMovie("list.M3U8", join({lavfi("testsrc=s=64x48:r=25:d=0.1"), {"-c:v", "mjpeg", "-f", "mov"}}));
    EXPECT_TRUE(Asset::assetWithPath(playlist)->isReadable());
    EXPECT_FALSE(TQAVFoundation::isReadable(Asset::assetWithPath(playlist)));
    EXPECT_FALSE(TQAVFoundation::isReadable(nullptr));
}

TEST(TQAVFoundationTest, FourCharacterCodesAndCodecNames)
{
    EXPECT_EQ(TQAVFoundation::fourCCString(0x61616320), "aac");
    EXPECT_EQ(TQAVFoundation::fourCCString(fourCC("lpcm")), "lpcm");
    EXPECT_EQ(TQAVFoundation::fourCCString(0x20202020), "");
    EXPECT_EQ(TQAVFoundation::fourCCString(0x09617009), "ap");
    // Unprintable bytes never reach the text raw.
    EXPECT_EQ(TQAVFoundation::fourCCString(0x00616263), "\\x00abc");
    EXPECT_EQ(TQAVFoundation::fourCCString(0x61E95C0A), "a\\xE9\\\\\\x0A");
    EXPECT_EQ(TQAVFoundation::fourCCString(0), "\\x00\\x00\\x00\\x00");

    // One row of each kind of name: more table entries would restate the table.
    const auto picture = lavfi("testsrc=s=64x48:r=30000/1001:d=0.1");
    const auto sound = lavfi(constantAudio({1}, 48000, 0.1));
    struct Case {
        const char* name;
        std::vector<std::string> arguments;
        MediaType type;
        const char* expected;
    } cases[] = {
        {"codecs.mov", join({picture, sound, {"-c:v", "mjpeg", "-c:a", "pcm_s16le", "-timecode", "00:00:00;00"}}),
         MediaType::Video, "Motion JPEG"},
        {"codecs.mov", {}, MediaType::Audio, "Linear PCM"},
        {"codecs.mov", {}, MediaType::Timecode, "Unsupported track type"},
        {"codecs.mp4", join({sound, {"-c:a", "aac"}}), MediaType::Audio, "AAC"},
        {"alac.mov", join({sound, {"-c:a", "alac"}}), MediaType::Audio, "alac"},  // not in the table
        {"avc1.mp4", join({picture, {"-c:v", "libx264", "-pix_fmt", "yuv420p"}}), MediaType::Video, "H.264 (avc1)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const AssetRef asset = movie(c.name, c.arguments);
        const auto tracks = asset->tracksWithMediaType(c.type);
        ASSERT_FALSE(tracks.empty());
        EXPECT_EQ(TQAVFoundation::codecNameForTrack(tracks.front()), c.expected);
    }
    EXPECT_EQ(TQAVFoundation::fourCCForTrack(movie("codecs.mov", {})->tracksWithMediaType(MediaType::Timecode).at(0)),
              fourCC("tmcd"));
    EXPECT_EQ(TQAVFoundation::fourCCForTrack(nullptr), 0u);
}

TEST(TQAVFoundationTest, WaveformLevels)
{
    // Peaks and RMS over all channels, 1.0 full scale, in buckets of rate / 50 frames.
    struct Case {
        const char* name;
        std::vector<int> channels;
        int rate;
        const char* codec;
        size_t levels;
        float peak, rms;
    };
    const Case cases[] = {
        {"w1000.mov", {1000}, 48000, "pcm_s16le", 50, 1000, 1000},
        {"wneg.mov", {-1000}, 48000, "pcm_s16be", 50, 1000, 1000},
        {"wstereo.mov", {1000, -30000}, 44100, "pcm_s16le", 50, 30000, 21225.0f},  // 44100 / 882
        {"wright.mov", {0, 8000}, 32000, "pcm_s16le", 50, 8000, 5656.85f},         // the right channel alone
        {"w6.avi", {-250, 9, 9, 9, 9, 9}, 48000, "pcm_s16le", 50, 250, 102.3f},
        {"wshort.mov", {1000}, 48000, "pcm_s16le", 0, 0, 0},  // less than one bucket
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const AssetRef asset =
            movie(c.name, join({lavfi(constantAudio(c.channels, c.rate, c.levels ? 1.0 : 0.01)), {"-c:a", c.codec}}));
        float maximum = 7;
        const auto peaks = TQAVFoundation::waveformDataForAsset(asset, &maximum);
        const auto levels = TQAVFoundation::waveformLevelsForAsset(asset);
        ASSERT_TRUE(peaks && levels);
        ASSERT_EQ(peaks->size(), c.levels);
        ASSERT_EQ(levels->size(), c.levels);
        for (size_t i = 0; i < c.levels; ++i) {
            ASSERT_EQ((*peaks)[i], c.peak);
            ASSERT_NEAR((*levels)[i].peak * 32768, c.peak, 0.01);
            ASSERT_NEAR((*levels)[i].rms * 32768, c.rms, 0.5);
        }
        EXPECT_EQ(maximum, c.levels ? c.peak : -90.0f);
    }
    // Nothing to read: none, and the caller's maximum stays.
    float maximum = 7;
    EXPECT_FALSE(TQAVFoundation::waveformDataForAsset(
        movie("silent.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.1"), {"-c:v", "mjpeg"}})), &maximum));
    EXPECT_FALSE(TQAVFoundation::waveformDataForAsset(Asset::assetWithPath("/nonexistent/a.mov"), &maximum));
    EXPECT_EQ(maximum, 7);
}

namespace {

// The levels in dBFS that ffmpeg's own statistics give for each bucket of `frames` frames.
std::vector<std::pair<double, double>> astatsPeakAndRms(const std::string& movie, uint32_t frames)
{
    TempDir dir;
    const std::string out = dir / "stats.txt";
    const ProcessResult run = runProgram({"ffmpeg", "-v", "error", "-i", movie, "-map", "0:a", "-af",
                                          "aformat=sample_fmts=s16,asetnsamples=n=" + std::to_string(frames) +
                                              ":p=0,astats=metadata=1:reset=1,ametadata=mode=print:file=" + out,
                                          "-f", "null", "-"});
    EXPECT_EQ(run.status, 0) << run.err;
    std::vector<std::pair<double, double>> levels;
    std::istringstream lines(readFile(out));
    for (std::string line; std::getline(lines, line);) {
        const auto value = [&](const char* key) { return std::stod(line.substr(std::strlen(key))); };
        if (line.rfind("lavfi.astats.Overall.Peak_level=", 0) == 0)
            levels.push_back({value("lavfi.astats.Overall.Peak_level="), 0});
        if (line.rfind("lavfi.astats.Overall.RMS_level=", 0) == 0)
            levels.back().second = value("lavfi.astats.Overall.RMS_level=");
    }
    return levels;
}

}  // namespace

TEST(TQAVFoundationTest, WaveformPictureTool)
{
    const std::string tool = std::string(CORVINA_BINARY_DIR) + "/tools/waveform_png/waveform_png";
    TempDir dir;
    // 1 kHz: quiet (peak 2048), loud, 20 dB below the loud part, then on the right channel only.
    const std::string tone = "sin(2*PI*1000*t)";
    const std::string left = "if(lt(t,1),0.0625,if(lt(t,2),0.9,if(lt(t,3),0.09,0)))*" + tone;
    const std::string right = "if(lt(t,3)," + left + ",0.5*" + tone + ")";
    const std::string withAudio =
        makeTestMovie("picture.mov", join({lavfi("testsrc=s=64x48:r=25:d=4"),
                                           lavfi("aevalsrc=exprs='" + left + "|" + right + "':s=48000:d=4"),
                                           {"-c:v", "mjpeg", "-c:a", "pcm_s16le", "-timecode", "00:59:59:24"}}));
    uint32_t frames = 0;
    ASSERT_TRUE(TQAVFoundation::waveformLevelsForAsset(Asset::assetWithPath(withAudio), &frames));
    const auto expected = astatsPeakAndRms(withAudio, frames);
    ASSERT_EQ(expected.size(), 200u);

    // One bucket a column, on the dBFS axis: -60 dBFS at the middle line, 0 dBFS 49 pixels away.
    const int width = 200, height = 100, middle = height / 2;
    ProcessResult run = runProgram(
        {tool, withAudio, dir / "w.png", "--width", std::to_string(width), "--height", std::to_string(height)});
    ASSERT_EQ(run.status, 0) << run.err;
    const auto streams = ffprobeStreams(dir / "w.png");
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0].at("width"), "200");
    EXPECT_EQ(streams[0].at("height"), "124");  // the picture and the timecode row
    run = runProgram({"ffmpeg", "-v", "error", "-i", dir / "w.png", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    ASSERT_EQ(run.out.size(), size_t(width) * 124 * 3);
    const auto pixel = [&](int x, int y) { return &run.out[(size_t(y) * width + size_t(x)) * 3]; };
    const auto reach = [&](double db) {
        return std::clamp(int(std::lround((db + 60) / 60 * (middle - 1))), 0, middle - 1);
    };
    for (int x = 0; x < width; ++x) {
        SCOPED_TRACE(x);
        int drawn = 0, bright = 0;  // pixels above the middle line: peak (all), RMS (the bright ones)
        for (int y = middle - 1; y >= 0; --y) {
            const char* p = pixel(x, y);
            if (uint8_t(p[0]) == 24 && uint8_t(p[1]) == 24) continue;
            ++drawn;
            bright += uint8_t(p[0]) > 100;
        }
        EXPECT_NEAR(drawn, reach(expected[size_t(x)].first), 1);
        EXPECT_NEAR(bright, reach(expected[size_t(x)].second), 1);
    }
    // The passage 20 dB down still shows, about a third of the scale below the loud one.
    EXPECT_NEAR(reach(expected[120].first), reach(expected[60].first) - 16, 1);

    run = runProgram({tool, makeTestMovie("silent.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.1"), {"-c:v", "mjpeg"}})),
                      dir / "none.png"});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(std::filesystem::exists(dir / "none.png"));
    EXPECT_EQ(runProgram({tool, withAudio}).status, 2);
    EXPECT_EQ(runProgram({tool, withAudio, dir / "x.png", "--scale", "loud"}).status, 2);
}

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
        // Two pumps report, at most once a percentage (give or take a race), up to nearly the end.
        EXPECT_LE(e.recorder.progress.size(), 101u);
        EXPECT_THAT(e.recorder.progress, ::testing::Contains(::testing::Ge(0.9f)));
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
    // One track: rising whole percentages, ending where the last of 5 frames starts (4/5 of 0.5).
    ASSERT_FALSE(progress.empty());
    for (size_t i = 1; i < progress.size(); ++i)
        EXPECT_GT(std::lround(progress[i] * 100), std::lround(progress[i - 1] * 100));
    EXPECT_FLOAT_EQ(progress.back(), 0.4f);

    // Frames that the encoder cannot take as they are fail the export with a reason.
    Export prores(Asset::assetWithPath(input), dir / "prores.mov");
    prores.exporter.videoFourCC = fourCC("apcn");
    ASSERT_TRUE(prores.run());
    EXPECT_TRUE(prores.recorder.failed);
    EXPECT_THAT(prores.why(), HasSubstr("yuv420p"));
    EXPECT_FALSE(std::filesystem::exists(dir / "prores.mov"));
}

// A cancel keeps what was at the output; one on an idle exporter stops no later export.
TEST(TQAVExportTest, CancelActsOnlyOnTheExportInProgress)
{
    // Long enough that a cancel on the first progress report lands before half-way, however late.
    const std::string input = source("long.mov", "testsrc=s=64x48:r=25:d=12", {"-c:v", "mjpeg", "-c:a", "pcm_s16le"},
                                     constantAudio({1}, 48000, 12));
    TempDir dir;
    const std::string output = dir / "out.mov";
    for (bool midway : {false, true}) {
        SCOPED_TRACE(midway ? "midway" : "at once");
        writeFile(output, "precious");
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
        EXPECT_THAT(e.why(), HasSubstr(c.words));
    }
    EXPECT_TRUE(std::filesystem::is_directory(dir.path()) && std::filesystem::is_empty(dir.path()));
}

}  // namespace corvina::tq
