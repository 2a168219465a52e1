// The real helper against hostile documents, files, destinations, a full disk and stop
// signals. Every case checks the status, the line that says why, and that every input and
// every other file is byte-identical afterwards.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "HelperRun.h"
#include "MovieCheck.h"
#include "SampleBuffer/FormatDescription.h"

using namespace corvina;
using namespace corvina::test;
namespace fs = std::filesystem;

namespace {

// Everything below the folders: regular files by content, other things by kind.
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot(std::initializer_list<std::string> roots)
{
    Snapshot out;
    for (const auto& root : roots) {
        std::error_code ec;
        if (root.empty()) continue;
        for (auto it = fs::recursive_directory_iterator(root, ec); it != fs::recursive_directory_iterator(); ++it) {
            const auto& path = it->path();
            // The program's own log and launch record (and the folder that holds it) change on
            // every run.
            const std::string text = path.string();
            if (text.find("/Library/Logs") != std::string::npos) continue;
            if (text.ends_with("/Library/Preferences") ||
                text.find("/Library/Preferences/CorvinaAVFHelper.plist") != std::string::npos)
                continue;
            const auto status = fs::symlink_status(path);
            if (fs::is_regular_file(status))
                out[path] = readFile(path);
            else if (fs::is_symlink(status))
                out[path] = "link to " + fs::read_symlink(path).string();
            else
                out[path] = "kind " + std::to_string(static_cast<int>(status.type()));
        }
    }
    return out;
}

bool logHas(const HelperHome& home, const std::string& text)
{
    const auto entries = home.logEntries();
    return std::any_of(entries.begin(), entries.end(),
                       [&](const auto& e) { return e.find(text) != std::string::npos; });
}

// Starts the helper in the background, waits for its temporary movie file in `folder`, then
// runs `then` (with $pid) and prints the helper's exit status.
ProcessResult runInterrupted(const HelperHome& home, const std::string& folder, const std::string& then)
{
    const std::string script = "'" + helperPath() + "' & pid=$!; n=0; until ls '" + folder +
                               "' | grep -q incomplete- || [ $n -gt 30000 ]; do n=$((n+1)); sleep 0.001; done; " +
                               then + "; wait $pid; echo $?";
    return runProgram({"/bin/sh", "-c", script}, home.environment());
}

class HostileRun : public ::testing::Test {
protected:
    // A small job with an old movie at its destination.
    void makeJob(const std::vector<std::string>& options = {"--video", "1", "--audio", "2", "--seconds", "0.2"})
    {
        auto made = makeSampleJob(job.path(), options);
        ASSERT_TRUE(made);
        // The log's folders exist from the start, so that only what a run must not touch is compared.
        fs::create_directories(home.path() + "/root/Library/Logs/Brantwell");
        fs::create_directories(home.path() + "/Library/Logs/Brantwell");
        movie = job / "movie.mov";
        writeFile(movie, "the previous movie");
        doc = withKey(*made, "destFilename", movie);
    }
    // Runs the document; the run must fail with `line` and leave every file as it was.
    void expectRefused(const Value& document, const std::string& line, const std::string& extraRoot = {})
    {
        ASSERT_TRUE(home.writeSettings(document));
        const Snapshot before = snapshot({job.path(), home.path(), extraRoot});
        const ProcessResult run = home.runHelper();
        EXPECT_EQ(run.status, 1) << run.err;
        EXPECT_TRUE(logHas(home, line)) << "missing: " << line;
        const Snapshot after = snapshot({job.path(), home.path(), extraRoot});
        std::string changed;
        for (const auto& [path, what] : after)
            if (!before.count(path) || before.at(path) != what) changed += " " + path;
        for (const auto& [path, what] : before)
            if (!after.count(path)) changed += " -" + path;
        EXPECT_TRUE(changed.empty()) << "changed:" << changed;
        EXPECT_EQ(home.logEntries().back().rfind("Summary: status 1", 0), 0u) << home.logEntries().back();
    }
    HelperHome home;
    TempDir job;
    std::string movie;
    Value doc;
};

TEST_F(HostileRun, DestinationsThatWouldDestroyDataAreRefused)
{
    makeJob();
    const std::string video = doc["tmpFilename"].stringValue();
    const std::string audio = doc["tmpAudioFilename"].stringValue();
    writeFile(job / "project/footage/clip.dv", "footage");
    ASSERT_EQ(::mkfifo((job / "fifo.mov").c_str(), 0644), 0);
    fs::create_symlink(video, job / "link.mov");
    fs::create_symlink(job / "nowhere", job / "dangling.mov");
    ASSERT_EQ(::link(audio.c_str(), (job / "hardlink.mov").c_str()), 0);
    const struct {
        std::string dest, line;
    } cases[] = {
        {job / "project", "it is an existing folder"},
        {job.path() + "/.", "it is an existing folder"},
        {job / "project/", "it names a folder"},
        {video, "it is the same file as the video data file"},
        {audio, "it is the same file as the audio data file"},
        {job / "hardlink.mov", "it is the same file as the audio data file"},
        {job / "link.mov", "it is the same file as the video data file"},
        {home.replaySettingsPath(), "it is the same file as the settings document"},
        {job / "no-such-folder/movie.mov", "refused: its folder " + job / "no-such-folder" + " does not exist"},
        {job / "fifo.mov", "it is a FIFO"},
        {job / "dangling.mov", "symbolic link to nothing"},
        {"", "names no destination"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dest);
        expectRefused(withKey(doc, "destFilename", c.dest), c.line);
    }
}

TEST_F(HostileRun, JobsThatWouldGiveNoPlayableMovieKeepThePreviousOne)
{
    makeJob();
    Value::ArrayType beyond = *doc["offsetArray"].asArray();
    for (auto& entry : beyond) entry = Value(Value::DictionaryType{{"offset", int64_t(1) << 40}, {"length", 100}});
    Value::ArrayType huge = *doc["offsetArray"].asArray();
    huge[0] = withKey(huge[0], "frameCount", Value(int64_t(1) << 62));
    huge[1] = withKey(huge[1], "frameCount", Value(int64_t(1) << 62));
    const Value noAudio = withKey(doc, "audioFormat", Value());
    const Value sizeless = withKey(withKey(doc, "fWidth", Value()), "fHeight", Value());
    const struct {
        const char* name;
        Value doc;
        std::string line;
    } cases[] = {
        {"unknown format", withKey(doc, "formatType", Value(36)), "Error: unknown video format 36"},
        {"negative format", withKey(doc, "formatType", Value(-1)),
         "Unknown video format. This movie is an unknown video format. Please report this error to Brantwell."},
        {"no frame rate", withKey(doc, "frameRate", Value()), "Error: frame rate 0.000 is not usable"},
        {"infinite rate", withKey(doc, "frameRate", Value(INFINITY)), "Error: frame rate inf is not usable"},
        {"huge rate", withKey(doc, "frameRate", Value(1e9)), "Error: frame rate 1000000000.000 is not usable"},
        {"slow rate", withKey(doc, "frameRate", Value(0.5)), "Error: frame rate 0.500 is not usable"},
        {"nan rate", withKey(doc, "frameRate", Value(NAN)), "is not usable"},
        {"overflowing frame counts", withKey(doc, "offsetArray", Value(huge)), "a track holds at most 4294967295"},
        {"no entries", withKey(withKey(doc, "offsetArray", Value()), "audioOffsetArray", Value::ArrayType{}),
         "the movie would have no track"},
        {"no entries, no audio", withKey(noAudio, "offsetArray", Value::ArrayType{}), "the movie would have no track"},
        {"nothing readable", withKey(noAudio, "offsetArray", Value(beyond)), "no sample could be read"},
        {"AIC without size", withKey(sizeless, "formatType", Value(20)), "the frame size of this AIC movie is unknown"},
        {"ProRes without size", withKey(sizeless, "formatType", Value(31)), "the frame size of this ProRes 422 movie"},
        {"ProRes with 40000", withKey(withKey(doc, "formatType", Value(31)), "fWidth", Value(40000)),
         "the frame size of this ProRes 422 movie"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expectRefused(c.doc, c.line);
    }
}

// An impossible offset or length in the middle of a table ends that track there, every time,
// or is refused before anything is written: the reads around it never leave their buffers
// (the address build runs this too, and each case runs three times, since a wild read may
// fault only now and then).
TEST_F(HostileRun, ImpossibleRangesInTheMiddleOfATable)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "1"});
    const std::string endsEarly = "track ended early: entry ";
    const std::string tooMany = "a track holds at most 4294967295 frames";
    const struct {
        const char* name;
        Value offset, length;  // none: the entry's own
        std::string audioLine, videoLine;
    } ranges[] = {
        {"offset -1", Value(-1), Value(), endsEarly, endsEarly},
        {"offset -2^63", Value(INT64_MIN), Value(), endsEarly, endsEarly},
        {"offset 2^63-1", Value(INT64_MAX), Value(), endsEarly, endsEarly},
        {"offset 2^64-1", Value(UINT64_MAX), Value(), endsEarly, endsEarly},
        {"offset 2^63-4, length 8", Value(INT64_MAX - 3), Value(8), endsEarly, endsEarly},
        {"offset+length past 2^64", Value(uint64_t(1) << 63), Value(UINT64_MAX), tooMany, endsEarly},
        {"length 2^64-1", Value(), Value(UINT64_MAX), tooMany, endsEarly},
    };
    for (const char* key : {"audioOffsetArray", "offsetArray"}) {
        const bool audio = key[0] == 'a';
        for (const auto& range : ranges) {
            SCOPED_TRACE(std::string(key) + ", " + range.name);
            Value::ArrayType entries = *doc[key].asArray();
            Value& middle = entries[entries.size() / 2];
            if (range.offset) middle = withKey(middle, "offset", range.offset);
            if (range.length) middle = withKey(middle, "length", range.length);
            const std::string& line = audio ? range.audioLine : range.videoLine;
            ASSERT_TRUE(home.writeSettings(withKey(doc, key, Value(entries))));
            for (int attempt = 0; attempt < 3; ++attempt) {
                const ProcessResult run = home.runHelper();
                const std::string summary = home.logEntries().back();
                EXPECT_EQ(run.status, line == tooMany ? 1 : 0) << run.err;
                EXPECT_EQ(summary.rfind("Summary: status ", 0), 0u) << summary;
                EXPECT_NE(summary.find(line), std::string::npos) << summary;
                if (run.status == 0) {
                    EXPECT_EQ(checkMovieStructure(movie), std::vector<std::string>{});
                }
            }
        }
    }
}

TEST_F(HostileRun, FifosFoldersAndUnreadableDocuments)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "0.1"});
    ASSERT_EQ(::mkfifo((job / "data.fifo").c_str(), 0644), 0);
    expectRefused(withKey(doc, "tmpFilename", job / "data.fifo"), "It is a FIFO, not a regular file.");
    expectRefused(withKey(doc, "tmpAudioFilename", job / "data.fifo"), "It is a FIFO, not a regular file.");
    expectRefused(withKey(doc, "tmpAudioFilename", job.path()), "Is a directory");

    // The settings document: each refusal names the path and the cause on a second line.
    const std::string xml = doc.toXMLPropertyList();
    const struct {
        std::string bytes, cause;  // "fifo"/"folder": no file but that; "missing": nothing
    } cases[] = {{"fifo", "It is a FIFO"},
                 {"folder", "Is a directory"},
                 {"missing", "No such file or directory"},
                 {"this is no property list", "The data couldn't be read because it isn't in the correct format."},
                 {Value(Value::ArrayType{Value(1)}).toXMLPropertyList(), "its root is an array, not a dictionary"},
                 {xml.substr(0, xml.size() / 2), "The data couldn't be read because it isn't in the correct format."}};
    const std::string path = home.replaySettingsPath();
    for (const auto& c : cases) {
        fs::remove_all(path);
        if (c.bytes == "fifo")
            ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);
        else if (c.bytes == "folder")
            fs::create_directory(path);
        else if (c.bytes != "missing")
            writeFile(path, c.bytes);
        const ProcessResult run = home.runHelper();
        EXPECT_EQ(run.status, 1);
        EXPECT_NE(run.err.find("Unable to open settings dictionary\n"), std::string::npos) << run.err;
        EXPECT_NE(run.err.find("Cannot read the settings document " + path + ": " + c.cause), std::string::npos)
            << run.err;
    }

    // UTF-16 XML reads like UTF-8, and the document is not rewritten.
    std::string utf16 = "\xFF\xFE";
    for (const char c : withKey(doc, "audioFormat", Value()).toXMLPropertyList()) utf16 += std::string{c, '\0'};
    fs::remove_all(path);
    writeFile(path, utf16);
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_EQ(checkMovieStructure(movie), std::vector<std::string>{});
    EXPECT_EQ(readFile(path), utf16);
}

TEST_F(HostileRun, AnotherRunsLockAndStaleTemporaryFiles)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "0.1"});
    // A run holding the destination's lock makes this one stop at once.
    const int lock = ::open((job / ".movie.mov.lock").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    expectRefused(doc, "another run is writing " + movie);
    ::close(lock);

    // Killed runs' files go; a user's look-alikes stay.
    std::string partial(28, '\0');
    partial.replace(4, 8, "ftypqt  ");
    partial.replace(20, 8, std::string("\0\0\0\x08wide", 8));
    writeFile(job / "movie.mov.incomplete-4242", partial + "half a movie");
    writeFile(job / "movie.mov.incomplete-4343", "");
    writeFile(job / "movie.mov.incomplete-77", "a user's notes");
    writeFile(job / "movie.mov.incomplete-x1", partial);
    ASSERT_TRUE(home.writeSettings(doc));
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_TRUE(logHas(home, "Removed 2 temporary file(s) that an interrupted run left for " + movie));
    for (const char* name : {"movie.mov.incomplete-4242", "movie.mov.incomplete-4343", ".movie.mov.lock"})
        EXPECT_FALSE(fs::exists(job / name)) << name;
    EXPECT_TRUE(fs::exists(job / "movie.mov.incomplete-77") && fs::exists(job / "movie.mov.incomplete-x1"));
    EXPECT_EQ(checkMovieStructure(movie), std::vector<std::string>{});
}

TEST_F(HostileRun, StopSignalsAndAFullDiskRemoveTheUnfinishedMovie)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "10", "--no-junk", "--distinct-frames", "1"});
    for (const char* name : {"TERM", "INT", "HUP"}) {
        SCOPED_TRACE(name);
        HelperHome own;
        ASSERT_TRUE(own.writeSettings(doc));
        const Snapshot before = snapshot({job.path()});
        const ProcessResult run = runInterrupted(own, job.path(), std::string("kill -") + name + " $pid");
        EXPECT_EQ(run.out, "1\n");
        EXPECT_TRUE(snapshot({job.path()}) == before) << "a file changed or was left behind";
        EXPECT_TRUE(logHas(own, std::string("Stopped by SIG") + name));
    }

    TempDir mountPoint;
    ScopedMount disk(mountPoint / "disk", "tmpfs", "size=64m");
    MOUNT_OR_SKIP(disk);
    const std::string target = disk / "movie.mov";
    writeFile(target, "the previous movie");
    // Too little room is seen before anything is written...
    writeFile(disk / "filler", std::string(40 << 20, '\0'));
    expectRefused(withKey(doc, "destFilename", target),
                  "Error: not enough free space for " + target + ": the movie needs ", disk.path());
    fs::remove(disk / "filler");
    // ...and room that runs out while writing ends the run too. The whole job, audio and its
    // log lines included, takes long enough to be caught while it writes.
    ASSERT_TRUE(home.writeSettings(withKey(doc, "destFilename", target)));
    const ProcessResult run = runInterrupted(
        home, disk.path(),
        "kill -STOP $pid; dd if=/dev/zero of='" + disk.path() + "/filler' bs=64k 2>/dev/null; kill -CONT $pid");
    EXPECT_EQ(run.out, "1\n");
    fs::remove(disk / "filler");
    EXPECT_EQ(readFile(target), "the previous movie");
    EXPECT_EQ(std::distance(fs::directory_iterator(disk.path()), fs::directory_iterator()), 1);
    EXPECT_TRUE(logHas(home, "No space left on device"));
}

TEST_F(HostileRun, HelpVersionAndTheSummary)
{
    makeJob({"--video", "31", "--audio", "2", "--seconds", "0.2", "--width", "320", "--height", "240"});
    // Without fWidth/fHeight the frame size comes from the first ProRes frame.
    ASSERT_TRUE(home.writeSettings(withKey(withKey(doc, "fWidth", Value()), "fHeight", Value())));
    const Snapshot before = snapshot({job.path()});
    for (const char* argument : {"--help", "--version", "--bogus"}) {
        const ProcessResult run = home.runHelper({argument});
        EXPECT_EQ(run.status, std::string(argument) == "--bogus" ? 1 : 0);
        EXPECT_NE((run.out + run.err).find(std::string(argument) == "--version" ? "CorvinaAVFHelper 1." : "Usage:"),
                  std::string::npos);
    }
    EXPECT_FALSE(fs::exists(home.logPath())) << "a log was started";
    EXPECT_TRUE(snapshot({job.path()}) == before);

    ASSERT_EQ(home.runHelper().status, 0);
    MovieSummary stored;
    EXPECT_EQ(checkMovieStructure(movie, &stored), std::vector<std::string>{});
    ASSERT_NE(stored.track(fourCC("vide")), nullptr);
    EXPECT_EQ(stored.track(fourCC("vide"))->sampleWidth, 320);
    EXPECT_EQ(stored.track(fourCC("vide"))->sampleHeight, 240);
    EXPECT_TRUE(logHas(home, "Frame size 320x240 read from the first frame"));
    EXPECT_FALSE(logHas(home, "Unable to unlock"));
    const std::string summary = home.logEntries().back();
    const size_t frames = doc["offsetArray"].count();
    for (const std::string& part :
         {std::string("Summary: status 0 after "), "settings document: " + home.replaySettingsPath(),
          "video: ProRes 422 320x240 (apcn); entries read " + std::to_string(frames) + " of " + std::to_string(frames),
          std::string("audio: 16-bit Linear PCM 48KHz Stereo Little Endian; entries read"),
          "movie: " + movie + " (" + std::to_string(fs::file_size(movie)) + " bytes)"})
        EXPECT_NE(summary.find(part), std::string::npos) << part << "\n" << summary;
}

}  // namespace
