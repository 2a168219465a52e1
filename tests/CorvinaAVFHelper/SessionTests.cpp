// The helper run end to end, as the main application runs it: a settings document at the
// replay path, the real executable, and the written movie checked by tools nobody here wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "HelperRun.h"
#include "MovieCheck.h"
#include "SampleBuffer/FormatDescription.h"

using namespace corvina;
using namespace corvina::test;

namespace {

std::vector<std::string> logFrom(const std::vector<std::string>& entries, const std::string& first)
{
    auto it = std::find(entries.begin(), entries.end(), first);
    return {it, entries.end()};
}

// Entries other than the feeders' per-sample lines and the header of each restarted file.
std::vector<std::string> sessionLines(const std::vector<std::string>& entries)
{
    static const char* const skipped[] = {
        "Requesting next", "number of audio samples", "Log started: ",          "Version: ", "Path: ",
        "System: ",        "Running in 64-bit mode",  "Log truncated at 500KB", "Summary: "};
    std::vector<std::string> out;
    for (const auto& e : entries) {
        bool skip = false;
        for (const char* prefix : skipped) skip = skip || e.rfind(prefix, 0) == 0;
        if (!skip) out.push_back(e);
    }
    return out;
}

Value withKey(const Value& settings, const std::string& key, Value value)
{
    Value::DictionaryType d = *settings.asDictionary();
    if (value.isNone()) {
        d.erase(key);
    } else {
        d[key] = std::move(value);
    }
    return Value(std::move(d));
}

// One generated job assembled in a home of its own, for the tests that walk a format table.
struct AssembledJob {
    HelperHome home;
    TempDir dir;
    Value doc;
    std::string movie;
    ProcessResult run;

    // False when the tool could not make the job or the document could not be written.
    bool assemble(const std::vector<std::string>& options)
    {
        auto made = makeSampleJob(dir.path(), options);
        if (!made) return false;
        movie = dir / "movie.mov";
        doc = withKey(*made, "destFilename", movie);
        if (!home.writeSettings(doc)) return false;
        run = home.runHelper();
        return true;
    }
};

class HelperSession : public ::testing::Test {
protected:
    // A generated job assembled through the replay path; returns the movie path.
    std::string assemble(const std::vector<std::string>& options, ProcessResult* run = nullptr)
    {
        auto made = makeSampleJob(job.path(), options);
        EXPECT_TRUE(made) << "make_sample_job failed";
        if (!made) return {};
        settings = *made;
        movie = job / "movie.mov";
        settings = withKey(settings, "destFilename", movie);
        EXPECT_TRUE(home.writeSettings(settings));
        const ProcessResult result = home.runHelper();
        if (run) *run = result;
        return movie;
    }
    HelperHome home;
    TempDir job;
    Value settings;
    std::string movie;
};

struct VideoRow {
    int formatType;
    const char* tag;
    int width, height;  // the sample description's frame size
    int codedWidth;     // what the decoder reports (DVCPRO HD is stored at a smaller raster)
    const char* timeBase;
    bool decodable;
};

const VideoRow kVideoRows[] = {
    {0, "dvc ", 720, 480, 720, "1/30000", true},     {1, "dvcp", 720, 576, 720, "1/25000", true},
    {2, "dv5n", 720, 480, 720, "1/30000", true},     {3, "dv5p", 720, 576, 720, "1/25000", true},
    {4, "jpeg", 720, 576, 720, "1/25000", true},     {10, "dvhp", 1280, 720, 960, "1/60000", true},
    {11, "dvh6", 1920, 1080, 1280, "1/30000", true}, {12, "dvh5", 1920, 1080, 1440, "1/25000", true},
    {20, "icod", 320, 240, 320, "1/30000", false},   {30, "apch", 320, 240, 320, "1/30000", true},
    {31, "apcn", 320, 240, 320, "1/30000", true},    {32, "apcs", 320, 240, 320, "1/30000", true},
    {33, "apco", 320, 240, 320, "1/30000", true},    {34, "ap4h", 320, 240, 320, "1/30000", true},
    {35, "ap4x", 320, 240, 320, "1/30000", true},
};

TEST_F(HelperSession, EveryVideoFormatMakesAMovieThatToolsAccept)
{
    for (const auto& row : kVideoRows) {
        SCOPED_TRACE(row.formatType);
        AssembledJob job;
        ASSERT_TRUE(job.assemble({"--video", std::to_string(row.formatType), "--audio", "2", "--seconds", "0.3",
                                  "--width", "320", "--height", "240"}));
        ASSERT_EQ(job.run.status, 0) << job.run.err;
        const std::string& path = job.movie;
        const Value& doc = job.doc;

        MovieSummary summary;
        EXPECT_EQ(checkMovieStructure(path, &summary), std::vector<std::string>{});
        const MovieTrack* stored = summary.track(fourCC("vide"));
        ASSERT_NE(stored, nullptr);
        EXPECT_EQ(stored->sampleWidth, row.width);
        EXPECT_EQ(stored->sampleHeight, row.height);
        const auto streams = ffprobeStreams(path);
        ASSERT_EQ(streams.size(), 2u);
        const auto& video = streams[0];
        EXPECT_EQ(video.at("codec_type"), "video");
        EXPECT_EQ(video.at("codec_tag_string"), row.tag);
        EXPECT_EQ(video.at("width"), std::to_string(row.codedWidth));
        EXPECT_EQ(video.at("time_base"), row.timeBase);
        const size_t frames = doc["offsetArray"].count();
        EXPECT_EQ(video.at("nb_frames"), std::to_string(frames));
        EXPECT_EQ(ffprobePacketCount(path, 0), static_cast<long long>(frames));
        EXPECT_TRUE(extractStreamBytes(path, 'v') == expectedVideoBytes(doc)) << "video essence differs";
        EXPECT_TRUE(extractStreamBytes(path, 'a') == expectedAudioBytes(doc, 4)) << "audio essence differs";
        if (row.decodable) {
            std::string errors;
            EXPECT_TRUE(ffmpegDecodesCleanly(path, &errors)) << errors;
        }
        EXPECT_TRUE(mediainfoAccepts(path));
    }
}

struct AudioRow {
    int audioFormat;
    const char* codec;
    int rate;
    int channels;
    const char* layout;  // as ffprobe names it; empty when it names none
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

TEST_F(HelperSession, EveryAudioFormatIsStoredSampleForSample)
{
    for (const auto& row : kAudioRows) {
        SCOPED_TRACE(row.audioFormat);
        AssembledJob job;
        ASSERT_TRUE(job.assemble({"--video", "0", "--audio", std::to_string(row.audioFormat), "--seconds", "0.25"}));
        ASSERT_EQ(job.run.status, 0) << job.run.err;
        const std::string& path = job.movie;
        const Value& doc = job.doc;

        EXPECT_EQ(checkMovieStructure(path), std::vector<std::string>{});
        const auto streams = ffprobeStreams(path);
        ASSERT_EQ(streams.size(), 2u);
        const auto& audio = streams[1];
        EXPECT_EQ(audio.at("codec_type"), "audio");
        EXPECT_EQ(audio.at("codec_name"), row.codec);
        EXPECT_EQ(audio.at("sample_rate"), std::to_string(row.rate));
        EXPECT_EQ(audio.at("channels"), std::to_string(row.channels));
        EXPECT_EQ(audio.at("sample_fmt"), "s16");
        if (*row.layout) {
            EXPECT_EQ(audio.at("channel_layout"), row.layout);
        }
        const auto expected = expectedAudioBytes(doc, static_cast<uint64_t>(row.bytesPerFrame));
        EXPECT_EQ(audio.at("time_base"), "1/" + std::to_string(row.rate));
        EXPECT_EQ(audio.at("duration_ts"), std::to_string(expected.size() / static_cast<size_t>(row.bytesPerFrame)));
        EXPECT_TRUE(extractStreamBytes(path, 'a') == expected) << "audio essence differs";
        std::string errors;
        EXPECT_TRUE(ffmpegDecodesCleanly(path, &errors)) << errors;
    }
}

TEST_F(HelperSession, AMovieWithoutAudioHasOnlyItsVideoTrack)
{
    ProcessResult run;
    const std::string path = assemble({"--video", "1", "--audio", "0", "--seconds", "0.5"}, &run);
    ASSERT_EQ(run.status, 0) << run.err;
    const auto streams = ffprobeStreams(path);
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0].at("codec_tag_string"), "dvcp");
    EXPECT_TRUE(extractStreamBytes(path, 'v') == expectedVideoBytes(settings));
    const auto lines = sessionLines(home.logEntries());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "No audio"), lines.end());
}

TEST_F(HelperSession, ASuccessfulRunLogsEveryStageInOrder)
{
    ProcessResult run;
    assemble({"--video", "31", "--audio", "3", "--seconds", "0.1", "--width", "1920", "--height", "1080",
              "--distinct-frames", "1"},
             &run);
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<std::string> expected = {
        "Preparing QuickTime movie...",
        "Audio format is 16-bit Linear PCM 44.1KHz Mono Little Endian",
        "Video format is ProRes 422 1920x1080",
        "Video format: apcn",
        "1",
        "2",
        "3",
        "4",
        "added video input",
        "5",
        "6",
        "added audio input",
        "7",
        "8",
        "9",
        "10",
        "11",
        "12",
        "13",
        "14",
        "15",
        "17",
        "File created successfully",
    };
    const auto lines = sessionLines(logFrom(home.logEntries(), "Preparing QuickTime movie..."));
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + static_cast<long>(expected.size())), expected);
    // The completion report and the closing line follow, in either order with each other.
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Finished writing movie."), lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Removing temp data files..."), lines.end());
    // One request line per video entry plus the one that finds the end.
    const auto entries = home.logEntries();
    const auto requests = std::count(entries.begin(), entries.end(), "Requesting next video sample at sample index...");
    EXPECT_EQ(static_cast<size_t>(requests), settings["offsetArray"].count() + 1);
}

TEST_F(HelperSession, UnreadableSettingsEndWithStatusOne)
{
    // No document at all.
    ProcessResult run = home.runHelper();
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("Unable to open settings dictionary"), std::string::npos);

    // Not a property list, a truncated one, and one whose root is an array.
    const std::string xml = Value(Value::DictionaryType{{"formatType", 1}}).toXMLPropertyList();
    for (const std::string& text : {std::string("this is no property list"), xml.substr(0, xml.size() / 2),
                                    Value(Value::ArrayType{Value(1)}).toXMLPropertyList()}) {
        writeFile(home.replaySettingsPath(), text);
        run = home.runHelper();
        EXPECT_EQ(run.status, 1);
        EXPECT_NE(run.err.find("Unable to open settings dictionary"), std::string::npos);
    }
}

TEST_F(HelperSession, AnUnreadableAudioFileStopsBeforeAnyWriting)
{
    auto made = makeSampleJob(job.path(), {"--video", "0", "--audio", "2", "--seconds", "0.1"});
    ASSERT_TRUE(made);
    const std::string missing = job / "no-such-audio.raw";
    Value doc = withKey(withKey(*made, "destFilename", job / "movie.mov"), "tmpAudioFilename", missing);
    ASSERT_TRUE(home.writeSettings(doc));
    const ProcessResult run = home.runHelper();
    EXPECT_EQ(run.status, 1);
    const auto lines = sessionLines(logFrom(home.logEntries(), "Video format: dvc"));
    const std::vector<std::string> expected = {
        "Video format: dvc",
        "1",
        "2",
        "3",
        "4",
        "added video input",
        "5",
        "6",
        "added audio input",
        "7",
        "8",
        "Error creating audio read handle for " + missing,
        "Error: cannot read the audio data file " + missing + ": No such file or directory",
        "Removing temp data files..."};
    EXPECT_EQ(lines, expected);
    EXPECT_FALSE(std::filesystem::exists(job / "movie.mov"));
}

TEST_F(HelperSession, ADestinationInAMissingFolderIsRefusedBeforeTheWriter)
{
    auto made = makeSampleJob(job.path(), {"--video", "0", "--audio", "2", "--seconds", "0.1"});
    ASSERT_TRUE(made);
    const std::string dest = job / "missing-folder/movie.mov";
    ASSERT_TRUE(home.writeSettings(withKey(*made, "destFilename", dest)));
    const ProcessResult run = home.runHelper();
    EXPECT_EQ(run.status, 1);
    const auto lines = sessionLines(logFrom(home.logEntries(), "1"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].rfind("Error: destination " + dest + " refused: its folder ", 0), 0u) << lines[1];
    EXPECT_EQ(lines[2], "Removing temp data files...");
}

TEST_F(HelperSession, AnExistingDestinationIsReplaced)
{
    auto made = makeSampleJob(job.path(), {"--video", "0", "--audio", "0", "--seconds", "0.1"});
    ASSERT_TRUE(made);
    const std::string path = job / "movie.mov";
    writeFile(path, "an old movie");
    ASSERT_TRUE(home.writeSettings(withKey(*made, "destFilename", path)));
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_EQ(checkMovieStructure(path), std::vector<std::string>{});
    EXPECT_EQ(ffprobePacketCount(path, 0), static_cast<long long>((*made)["offsetArray"].count()));
}

TEST_F(HelperSession, DocumentsTheSessionRefuses)
{
    auto made = makeSampleJob(job.path(), {"--video", "0", "--audio", "2", "--seconds", "0.1"});
    ASSERT_TRUE(made);
    const Value base = withKey(*made, "destFilename", job / "movie.mov");
    struct Case {
        const char* name;
        Value doc;
        const char* line;
    } cases[] = {
        {"unknown format", withKey(base, "formatType", Value(36)),
         "Unknown video format. This movie is an unknown video format. Please report this error to Brantwell."},
        {"negative format", withKey(base, "formatType", Value(-1)),
         "Unknown video format. This movie is an unknown video format. Please report this error to Brantwell."},
        {"no frame rate", withKey(base, "frameRate", Value()), "Error: frame rate 0.000 is not usable."},
        {"negative frame rate", withKey(base, "frameRate", Value(-25.0)), "Error: frame rate -25.000 is not usable."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HelperHome caseHome;
        ASSERT_TRUE(caseHome.writeSettings(c.doc));
        const ProcessResult run = caseHome.runHelper();
        EXPECT_EQ(run.status, 1);
        const auto lines = sessionLines(caseHome.logEntries());
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines.back(), "Removing temp data files...");
        const bool found =
            std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(c.line, 0) == 0; });
        EXPECT_TRUE(found) << c.line;
        EXPECT_FALSE(std::filesystem::exists(job / "movie.mov"));
    }
}

TEST_F(HelperSession, EntriesPastTheEndOfTheDataKeepWhatCameBefore)
{
    auto made = makeSampleJob(job.path(), {"--video", "0", "--audio", "2", "--seconds", "0.3"});
    ASSERT_TRUE(made);
    const std::string path = job / "movie.mov";
    Value::ArrayType entries = *(*made)["offsetArray"].asArray();
    ASSERT_GE(entries.size(), 5u);
    const size_t keep = 4;
    entries[keep] = Value(Value::DictionaryType{{"offset", uint64_t(1) << 40}, {"length", 144000}});
    const Value doc = withKey(withKey(*made, "destFilename", path), "offsetArray", Value(entries));
    ASSERT_TRUE(home.writeSettings(doc));
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_EQ(ffprobePacketCount(path, 0), static_cast<long long>(keep));
    EXPECT_EQ(checkMovieStructure(path), std::vector<std::string>{});
    const auto entriesLogged = home.logEntries();
    EXPECT_NE(std::find(entriesLogged.begin(), entriesLogged.end(), "Error allocating video block buffer"),
              entriesLogged.end());
}

TEST_F(HelperSession, TheReplayCopyAssemblesTheSameMovieAgain)
{
    ProcessResult run;
    const std::string path = assemble({"--video", "0", "--audio", "2", "--seconds", "0.2"}, &run);
    ASSERT_EQ(run.status, 0);
    const auto first = extractStreamBytes(path, 'v');
    ASSERT_FALSE(first.empty());
    std::filesystem::remove(path);
    // Started again without a new document, the helper reads the copy it left behind.
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_TRUE(extractStreamBytes(path, 'v') == first);
}

}  // namespace
