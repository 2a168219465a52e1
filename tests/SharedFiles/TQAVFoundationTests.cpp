// Asset timing, timecode tracks, codec names and waveforms, on movies made by ffmpeg.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "TestSupport.h"
#include "MovieCheck.h"
#include "TQAVFoundation.h"
#include "TestMovies.h"

using namespace corvina;
using namespace corvina::test;

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
    // How each container keeps its timecode is the asset layer's business (its own tests); here
    // the rates: whole or NTSC, drop frame or not.
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
        const uint64_t frames = TQAVFoundation::frameDurationForAsset(asset);
        EXPECT_NEAR(double(frames), std::round(0.3 * c.fps), 1.0);
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
    EXPECT_EQ(TQAVFoundation::frameLengthForFPS(23.976).timescale, 23976);
    EXPECT_EQ(TQAVFoundation::frameLengthForFPS(25).timescale, 25000);
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
    const auto be = [](uint32_t n) {
        return (n & 0xFF) << 24 | ((n >> 8) & 0xFF) << 16 | ((n >> 16) & 0xFF) << 8 | n >> 24;
    };
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
    const std::string path = makeTestMovie("r.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.1"), {"-c:v", "mjpeg"}}));
    EXPECT_TRUE(TQAVFoundation::isReadable(Asset::assetWithPath(path)));
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

    const AssetRef asset =
        movie("codecs.mov", join({lavfi("testsrc=s=64x48:r=30000/1001:d=0.1"),
                                  lavfi(constantAudio({1}, 48000, 0.1)),
                                  {"-c:v", "mjpeg", "-c:a", "pcm_s16le", "-timecode", "00:00:00;00"}}));
    const AssetRef aac = movie("codecs.mp4", join({lavfi(constantAudio({1}, 48000, 0.1)), {"-c:a", "aac"}}));
    const auto first = [](const AssetRef& a, MediaType t) { return a->tracksWithMediaType(t).at(0); };
    EXPECT_EQ(TQAVFoundation::codecNameForTrack(first(asset, MediaType::Video)), "Motion JPEG");
    EXPECT_EQ(TQAVFoundation::codecNameForTrack(first(asset, MediaType::Audio)), "Linear PCM");
    EXPECT_EQ(TQAVFoundation::codecNameForTrack(first(asset, MediaType::Timecode)), "Unsupported track type");
    EXPECT_EQ(TQAVFoundation::fourCCForTrack(first(asset, MediaType::Timecode)), fourCC("tmcd"));
    EXPECT_EQ(TQAVFoundation::codecNameForTrack(first(aac, MediaType::Audio)), "AAC");
    EXPECT_EQ(TQAVFoundation::fourCCForTrack(nullptr), 0u);
}

TEST(TQAVFoundationTest, WaveformLevels)
{
    struct Case {
        const char* name;
        std::vector<int> channels;
        int rate;
        const char* codec;
        size_t levels;
        float level;
    };
    const Case cases[] = {
        {"w1000.mov", {1000}, 48000, "pcm_s16le", 49, 1000},  // 48000 / 961, the last 911 dropped
        {"wneg.mov", {-1000}, 48000, "pcm_s16be", 49, 1000},
        {"wstereo.mov", {1000, -30000}, 44100, "pcm_s16le", 49, 1000},  // 44100 / 883
        {"w6.avi", {-250, 9, 9, 9, 9, 9}, 48000, "pcm_s16le", 49, 250},
        {"wshort.mov", {1000}, 48000, "pcm_s16le", 0, 0},  // less than one bucket
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const double seconds = c.levels ? 1.0 : 0.01;
        const AssetRef asset =
            movie(c.name, join({lavfi(constantAudio(c.channels, c.rate, seconds)), {"-c:a", c.codec}}));
        float maximum = 7;
        const auto levels = TQAVFoundation::waveformDataForAsset(asset, &maximum);
        ASSERT_TRUE(levels);
        EXPECT_EQ(levels->size(), c.levels);
        for (float level : *levels) ASSERT_EQ(level, c.level);
        EXPECT_EQ(maximum, c.levels ? c.level : -90.0f);
    }
    // Nothing to read: none, and the caller's maximum stays.
    float maximum = 7;
    EXPECT_FALSE(TQAVFoundation::waveformDataForAsset(
        movie("silent.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.1"), {"-c:v", "mjpeg"}})), &maximum));
    EXPECT_FALSE(TQAVFoundation::waveformDataForAsset(Asset::assetWithPath("/nonexistent/a.mov"), &maximum));
    EXPECT_EQ(maximum, 7);
}

TEST(TQAVFoundationTest, WaveformPictureTool)
{
    const std::string tool = std::string(CORVINA_BINARY_DIR) + "/tools/waveform_png/waveform_png";
    TempDir dir;
    const std::string withAudio =
        makeTestMovie("picture.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.5"),
                                           lavfi(constantAudio({3000}, 48000, 0.5)),
                                           {"-c:v", "mjpeg", "-c:a", "pcm_s16le", "-timecode", "00:59:59:24"}}));
    ProcessResult run = runProgram({tool, withAudio, dir / "w.png", "--width", "300", "--height", "100"});
    ASSERT_EQ(run.status, 0) << run.err;
    const auto png = readBytes(dir / "w.png");
    ASSERT_GT(png.size(), 8u);
    EXPECT_EQ(std::vector<uint8_t>(png.begin(), png.begin() + 8),
              std::vector<uint8_t>({0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}));
    const auto streams = ffprobeStreams(dir / "w.png");
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0].at("width"), "300");
    EXPECT_EQ(streams[0].at("height"), "124");  // the picture and the timecode row

    run = runProgram({tool, makeTestMovie("silent.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.1"), {"-c:v", "mjpeg"}})),
                      dir / "none.png"});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(std::filesystem::exists(dir / "none.png"));
    EXPECT_EQ(runProgram({tool, withAudio}).status, 2);
}
