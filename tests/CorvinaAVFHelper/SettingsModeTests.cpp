// The -settings mode on ffmpeg's reference movies of every video row: the five keys a job takes.
#include <gtest/gtest.h>

#include "support/HelperRun.h"
#include "support/TestMovies.h"

namespace corvina::helper {

using namespace corvina;
using namespace corvina::test;

namespace {

struct Reference {
    int64_t formatType;
    const char* picture;  // size:rate
    const char* pixelFormat;
    const char* codec;  // the encoder, and its profile (-1: none)
    int profile;
    const char* audio;  // lavfi audio source, or ""
    const char* audioCodec;
    double frameRate;
    int64_t width, height, audioFormat;
};

}  // namespace

TEST(SettingsModeTest, ReferenceMoviesOfEveryRowGiveTheirSettings)
{
    const Reference references[] = {
        {0, "720x480:r=30000/1001", "yuv411p", "dvvideo", -1, "sine=r=48000", "pcm_s16le", 29.97, 720, 480, 2},
        {1, "720x576:r=25", "yuv420p", "dvvideo", -1, "sine=r=44100", "pcm_s16be", 25, 720, 576, 7},
        {2, "720x480:r=30000/1001", "yuv422p", "dvvideo", -1, "", "", 29.97, 720, 480, 0},
        {3, "720x576:r=25", "yuv422p", "dvvideo", -1, "aevalsrc=0|0:s=32000", "pcm_s16be", 25, 720, 576, 10},
        {4, "1280x720:r=25", "yuvj422p", "mjpeg", -1, "sine=r=48000", "pcm_s16le", 25, 1280, 720, 4},
        {10, "960x720:r=60000/1001", "yuv422p", "dvvideo", -1, "", "", 59.94, 1280, 720, 0},
        {11, "1280x1080:r=30000/1001", "yuv422p", "dvvideo", -1, "", "", 29.97, 1920, 1080, 0},
        {12, "1440x1080:r=25", "yuv422p", "dvvideo", -1, "", "", 25, 1920, 1080, 0},
        {30, "128x96:r=24000/1001", "yuv422p10le", "prores_ks", 3, "", "", 23.976, 128, 96, 0},
        {31, "128x96:r=25", "yuv422p10le", "prores_ks", 2, "sine=r=48000", "pcm_s24le", 25, 128, 96, 0},
        {32, "128x96:r=25", "yuv422p10le", "prores_ks", 1, "", "", 25, 128, 96, 0},
        {33, "128x96:r=25", "yuv422p10le", "prores_ks", 0, "", "", 25, 128, 96, 0},
        {34, "128x96:r=25", "yuv444p10le", "prores_ks", 4, "", "", 25, 128, 96, 0},
        {35, "128x96:r=50", "yuv444p10le", "prores_ks", 5, "", "", 50, 128, 96, 0},
    };
    HelperHome home;
    for (const Reference& r : references) {
        SCOPED_TRACE(testing::Message() << "formatType " << r.formatType);
        auto arguments = lavfi(std::string("testsrc=s=") + r.picture + ":d=0.1");
        if (*r.audio) arguments = join({arguments, lavfi(std::string(r.audio) + ":d=0.1"), {"-c:a", r.audioCodec}});
        if (std::string(r.audio).starts_with("sine")) arguments = join({arguments, {"-ac", "2"}});
        arguments = join({arguments, {"-pix_fmt", r.pixelFormat, "-frames:v", "2", "-c:v", r.codec}});
        if (r.profile >= 0) arguments = join({arguments, {"-profile:v", std::to_string(r.profile)}});
        if (r.formatType == 1 || r.formatType == 4) arguments = join({arguments, {"-ac", "1"}});
        const std::string reference = makeTestMovie("ref" + std::to_string(r.formatType) + ".mov", arguments);
        ASSERT_FALSE(reference.empty());

        const ProcessResult run = home.runHelper({"-settings", reference});
        ASSERT_EQ(run.status, 0) << run.err;
        const auto settings = Value::fromPropertyListData(run.out.data(), run.out.size());
        ASSERT_TRUE(settings && settings->asDictionary()) << run.out;
        const Value& s = *settings;
        EXPECT_EQ(s["formatType"].integerValue(), r.formatType);
        EXPECT_NEAR(s["frameRate"].doubleValue(), r.frameRate, 1e-9);
        EXPECT_EQ(s["fWidth"].integerValue(), r.width);
        EXPECT_EQ(s["fHeight"].integerValue(), r.height);
        EXPECT_EQ(s["audioFormat"].integerValue(), r.audioFormat);
        EXPECT_EQ(s.asDictionary()->size(), 5u) << run.out;
    }
}

TEST(SettingsModeTest, UnreadableOrUnrecognisedMoviesFail)
{
    TempDir dir;
    writeFile(dir / "notes.mov", "not a movie");
    const std::string mpeg4 =
        makeTestMovie("settings-mpeg4.mov", join({lavfi("testsrc=s=64x48:r=25:d=0.1"), {"-c:v", "mpeg4"}}));
    const std::string audioOnly = makeTestMovie("settings-audio.wav", lavfi("sine=r=8000:d=0.1"));
    // A movie whose index is missing: cut before its end.
    const auto whole = readBytes(
        makeTestMovie("settings-whole.mov",
                      join({lavfi("testsrc=s=720x576:r=25:d=0.2"), {"-pix_fmt", "yuv420p", "-c:v", "dvvideo"}})));
    const std::string cut = dir / "cut.mov";
    writeFile(cut, std::string(whole.begin(), whole.begin() + long(whole.size() / 2)));
    HelperHome home;
    const std::pair<std::string, const char*> cases[] = {
        {dir / "notes.mov", "Unable to read movie file"},
        {dir / "missing.mov", "Unable to read movie file"},
        {cut, "Unable to read movie file"},
        {mpeg4, "is not a format the helper writes"},
        {audioOnly, "has no video track"},
    };
    for (const auto& [path, message] : cases) {
        const ProcessResult run = home.runHelper({"-settings", path});
        EXPECT_EQ(run.status, 1) << path;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace corvina::helper
