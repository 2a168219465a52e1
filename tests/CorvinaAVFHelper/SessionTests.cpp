// The real helper on a document at the replay path, its movie checked by independent tools.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "support/HelperRun.h"
#include "support/MovieCheck.h"
#include "SampleBuffer/FormatDescription.h"

namespace corvina::helper {

using namespace corvina;
using namespace corvina::test;

namespace {

// The entries from `first` on, less the feeders' per-sample lines and each restarted file's header.
std::vector<std::string> sessionLines(const std::vector<std::string>& entries, const std::string& first)
{
    static const char* const skipped[] = {
        "Requesting next", "number of audio samples", "Log started: ",          "Version: ", "Path: ",
        "System: ",        "Running in 64-bit mode",  "Log truncated at 500KB", "Summary: "};
    std::vector<std::string> out;
    for (auto e = std::find(entries.begin(), entries.end(), first); e != entries.end(); ++e)
        if (std::none_of(std::begin(skipped), std::end(skipped), [&](const char* p) { return e->rfind(p, 0) == 0; }))
            out.push_back(*e);
    return out;
}

bool contains(const std::vector<std::string>& lines, const std::string& line)
{
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// One generated job in a home of its own: prepare() makes it, run() assembles it through the replay path.
struct AssembledJob {
    HelperHome home;
    TempDir dir;
    Value doc;
    std::string movie = dir / "movie.mov";
    ProcessResult run;

    bool prepare(const std::vector<std::string>& options)
    {
        auto made = makeSampleJob(dir.path(), options);
        if (made) doc = withKey(*made, "destFilename", movie);
        return bool(made);
    }
    bool runHelper()
    {
        if (!home.writeSettings(doc)) return false;
        run = home.runHelper();
        return true;
    }
};

struct VideoRow {
    int formatType;
    const char* tag;
    int width, height;  // the sample description's frame size
    const char* timeBase;
    bool decodable;
};

const VideoRow kVideoRows[] = {
    {0, "dvc ", 720, 480, "1/30000", true},    {1, "dvcp", 720, 576, "1/25000", true},
    {2, "dv5n", 720, 480, "1/30000", true},    {3, "dv5p", 720, 576, "1/25000", true},
    {4, "jpeg", 320, 240, "1/25000", true},    {10, "dvhp", 1280, 720, "1/60000", true},
    {11, "dvh6", 1920, 1080, "1/30000", true}, {12, "dvh5", 1920, 1080, "1/25000", true},
    {20, "icod", 320, 240, "1/30000", false},  {30, "apch", 320, 240, "1/30000", true},
    {31, "apcn", 320, 240, "1/30000", true},   {32, "apcs", 320, 240, "1/30000", true},
    {33, "apco", 320, 240, "1/30000", true},   {34, "ap4h", 320, 240, "1/30000", true},
    {35, "ap4x", 320, 240, "1/30000", true},
};

struct AudioRow {
    int audioFormat;
    const char* codec;
    int rate;
    int channels;
    const char* layout;  // as ffprobe names it; empty for LtRt, two channels described as mono
    int bytesPerFrame;
};

const AudioRow kAudioRows[] = {
    {1, "pcm_s16le", 44100, 2, "stereo", 4}, {2, "pcm_s16le", 48000, 2, "stereo", 4},
    {3, "pcm_s16le", 44100, 1, "mono", 2},   {4, "pcm_s16le", 48000, 1, "mono", 2},
    {5, "pcm_s16be", 44100, 2, "stereo", 4}, {6, "pcm_s16be", 48000, 2, "stereo", 4},
    {7, "pcm_s16be", 44100, 1, "mono", 2},   {8, "pcm_s16be", 48000, 1, "mono", 2},
    {9, "pcm_s16le", 32000, 2, "stereo", 4}, {10, "pcm_s16be", 32000, 2, "stereo", 4},
    {11, "pcm_s16le", 32000, 1, "mono", 2},  {12, "pcm_s16be", 32000, 1, "mono", 2},
    {13, "pcm_s16le", 48000, 2, "", 4},      {14, "pcm_s16be", 48000, 2, "", 4},
    {15, "pcm_s16le", 44100, 2, "", 4},      {16, "pcm_s16be", 44100, 2, "", 4},
    {17, "pcm_s16le", 32000, 2, "", 4},      {18, "pcm_s16be", 32000, 2, "", 4},
};

// Every video and every audio format in one sweep: run i pairs audio format i with video
// format i, the video formats starting over once they run out.
TEST(HelperSession, EveryFormatMakesAMovieThatToolsAcceptWithItsEssence)
{
    for (size_t i = 0; i < std::size(kAudioRows); ++i) {
        const VideoRow& v = kVideoRows[i % std::size(kVideoRows)];
        const AudioRow& a = kAudioRows[i];
        SCOPED_TRACE(testing::Message() << "video format " << v.formatType << ", audio format " << a.audioFormat);
        AssembledJob job;
        ASSERT_TRUE(job.prepare({"--video", std::to_string(v.formatType), "--audio", std::to_string(a.audioFormat),
                                 "--seconds", "0.3", "--width", "320", "--height", "240"}));
        // Motion JPEG frames tell their own size; a document without one still makes a movie.
        if (v.formatType == 4) job.doc = withKey(withKey(job.doc, "fWidth", Value()), "fHeight", Value());
        ASSERT_TRUE(job.runHelper());
        ASSERT_EQ(job.run.status, 0) << job.run.err;

        MovieSummary summary;
        EXPECT_EQ(checkMovieStructure(job.movie, &summary), std::vector<std::string>{});
        const MovieTrack* picture = summary.track(fourCC("vide"));
        const MovieTrack* sound = summary.track(fourCC("soun"));
        ASSERT_TRUE(picture && sound);
        EXPECT_EQ(picture->sampleWidth, v.width);
        EXPECT_EQ(picture->sampleHeight, v.height);
        EXPECT_EQ(sound->bytesPerFrame, uint32_t(a.bytesPerFrame));
        const bool ltrt = !*a.layout;
        EXPECT_EQ(sound->layoutTag, ltrt              ? kAudioChannelLayoutTag_UseChannelDescriptions
                                    : a.channels == 2 ? kAudioChannelLayoutTag_Stereo
                                                      : kAudioChannelLayoutTag_Mono);
        EXPECT_EQ(sound->channelLabels,
                  ltrt ? std::vector<uint32_t>(2, kAudioChannelLabel_Mono) : std::vector<uint32_t>{});

        const auto streams = ffprobeStreams(job.movie);
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_EQ(streams[0].at("codec_tag_string"), v.tag);
        EXPECT_EQ(streams[0].at("time_base"), v.timeBase);
        EXPECT_EQ(streams[0].at("nb_read_packets"), std::to_string(job.doc["offsetArray"].count()));
        EXPECT_EQ(streams[1].at("codec_name"), a.codec);
        EXPECT_EQ(streams[1].at("sample_rate"), std::to_string(a.rate));
        EXPECT_EQ(streams[1].at("channels"), std::to_string(a.channels));
        if (!ltrt) {
            EXPECT_EQ(streams[1].at("channel_layout"), a.layout);
        }
        const auto video = expectedVideoBytes(job.doc);
        const auto audio = expectedAudioBytes(job.doc, uint64_t(a.bytesPerFrame));
        expectToolsAccept(job.movie, v.decodable, &video, &audio);
    }
}

TEST(HelperSession, ASuccessfulRunLogsEveryStageInOrder)
{
    AssembledJob job;
    // The per-sample lines are counted below: the verbose log level lets them in.
    writeFile(job.home.path() + "/Library/Preferences/com.brantwell.global.plist",
              Value(Value::DictionaryType{{"log-level", Value("verbose")}}).toXMLPropertyList());
    ASSERT_TRUE(job.prepare({"--video", "31", "--audio", "3", "--seconds", "0.1", "--width", "1920", "--height", "1080",
                             "--distinct-frames", "1"}));
    ASSERT_TRUE(job.runHelper());
    ASSERT_EQ(job.run.status, 0) << job.run.err;
    const auto expected = splitLines(
        "Preparing QuickTime movie...\nAudio format is 16-bit Linear PCM 44.1KHz Mono Little Endian\n"
        "Video format is ProRes 422 1920x1080\nVideo format: apcn\n1\n2\n3\n4\nadded video input\n5\n6\n"
        "added audio input\n7\n8\n9\n10\n11\n12\n13\n14\n15\n17\nFile created successfully");
    const auto entries = job.home.logEntries();
    const auto lines = sessionLines(entries, "Preparing QuickTime movie...");
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + static_cast<long>(expected.size())), expected);
    // The completion report and the closing line follow, in either order with each other.
    EXPECT_TRUE(contains(lines, "Finished writing movie.") && contains(lines, "Removing temp data files..."));
    // One request line per video entry plus the one that finds the end.
    const auto requests = std::count(entries.begin(), entries.end(), "Requesting next video sample at sample index...");
    EXPECT_EQ(static_cast<size_t>(requests), job.doc["offsetArray"].count() + 1);
}

TEST(HelperSession, AnUnreadableAudioFileStopsBeforeAnyWriting)
{
    AssembledJob job;
    ASSERT_TRUE(job.prepare({"--video", "0", "--audio", "2", "--seconds", "0.1"}));
    const std::string missing = job.dir / "no-such-audio.raw";
    job.doc = withKey(job.doc, "tmpAudioFilename", missing);
    ASSERT_TRUE(job.runHelper());
    EXPECT_EQ(job.run.status, 1);
    const auto expected = splitLines(
        "Video format: dvc\n1\n2\n3\n4\nadded video input\n5\n6\nadded audio input\n7\n8\n"
        "Error creating audio read handle for " +
        missing + "\nError: cannot read the audio data file " + missing +
        ": No such file or directory\nRemoving temp data files...");
    EXPECT_EQ(sessionLines(job.home.logEntries(), "Video format: dvc"), expected);
    EXPECT_FALSE(std::filesystem::exists(job.movie));
}

// A movie without audio; run again without a new document, the helper reads its replay copy.
TEST(HelperSession, AMovieWithoutAudioIsMadeAgainFromTheReplayCopy)
{
    AssembledJob job;
    ASSERT_TRUE(job.prepare({"--video", "1", "--audio", "0", "--seconds", "0.5"}));
    ASSERT_TRUE(job.runHelper());
    ASSERT_EQ(job.run.status, 0) << job.run.err;
    EXPECT_EQ(ffprobeStreams(job.movie).size(), 1u);
    const auto video = expectedVideoBytes(job.doc);
    expectToolsAccept(job.movie, true, &video);
    EXPECT_TRUE(contains(job.home.logEntries(), "No audio"));
    std::filesystem::remove(job.movie);
    ASSERT_EQ(job.home.runHelper().status, 0);
    EXPECT_TRUE(extractStreamBytes(job.movie, 'v') == video);
}

}  // namespace

}  // namespace corvina::helper
