// The real helper against hostile documents, files, destinations, a full disk and stop signals.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <thread>

#include "Foundation/UserIdentity.h"
#include "support/HelperRun.h"
#include "support/MovieCheck.h"
#include "SampleBuffer/FormatDescription.h"

namespace corvina::helper {

using namespace corvina;
using namespace corvina::test;
namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

// Everything below the folders: regular files by owner, mode and content, other things by kind.
// The program's own log and launch record (and the folders that hold them) change on every run.
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot(std::initializer_list<std::string> roots)
{
    Snapshot out;
    for (const auto& root : roots) {
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(root, ec); !root.empty() && it != fs::end(it); ++it) {
            const std::string path = it->path();
            if (path.find("/Library/Logs") != std::string::npos || path.ends_with("/Library/Preferences") ||
                path.find("/Library/Preferences/CorvinaAVFHelper.plist") != std::string::npos)
                continue;
            struct stat info {};
            ::lstat(path.c_str(), &info);
            if (S_ISREG(info.st_mode))
                out[path] = std::to_string(info.st_uid) + " " + std::to_string(info.st_mode) + " " + readFile(path);
            else
                out[path] = S_ISLNK(info.st_mode) ? "link to " + fs::read_symlink(path).string()
                                                  : "mode " + std::to_string(info.st_mode);
        }
    }
    return out;
}

// The paths added, changed or gone (these with a leading "-") between two snapshots.
std::string changes(const Snapshot& before, const Snapshot& after)
{
    std::string changed;
    for (const auto& [path, what] : after)
        if (!before.count(path) || before.at(path) != what) changed += " " + path;
    for (const auto& [path, what] : before)
        if (!after.count(path)) changed += " -" + path;
    return changed;
}

// Runs `then` once the helper's temporary file shows in `folder` and prints the helper's status;
// a run that ends before that is started again after `reset`, so no timing is assumed.
ProcessResult runUntilInterrupted(const HelperHome& home, const std::string& folder, const std::string& then,
                                  const std::function<void()>& reset)
{
    const std::string script = "'" + helperPath() + "' & pid=$!; until ls '" + folder +
                               "' | grep -q incomplete-; do case $(cut -d' ' -f3 /proc/$pid/stat 2>/dev/null) in "
                               "Z|'') wait $pid; echo missed; exit 0;; esac; sleep 0.001; done; " +
                               then + "; wait $pid; echo $?";
    ProcessResult run;
    for (int attempt = 0; attempt < 20; ++attempt, reset()) {
        run = runProgram({"/bin/sh", "-c", script}, home.environment());
        if (run.out != "missed\n") break;
    }
    return run;
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
    // Runs the document (the helper started by `launcher`, when given); the run must fail
    // with `line` and leave every file as it was.
    void expectRefused(const Value& document, const std::string& line, const std::string& extraRoot = {},
                       std::vector<std::string> launcher = {})
    {
        ASSERT_TRUE(home.writeSettings(document));
        if (user) {
            ASSERT_EQ(::chown(home.replaySettingsPath().c_str(), user->uid, user->gid), 0);
        }
        const Snapshot before = snapshot({job.path(), home.path(), extraRoot});
        launcher.push_back(helperPath());
        const ProcessResult run = runProgram(launcher, environment());
        EXPECT_EQ(run.status, 1) << run.err;
        EXPECT_THAT(home.logEntries(), Contains(HasSubstr(line)));
        EXPECT_EQ(changes(before, snapshot({job.path(), home.path(), extraRoot})), "");
        EXPECT_THAT(home.logEntries().back(), StartsWith("Summary: status 1"));
    }
    std::map<std::string, std::string> environment() const
    {
        auto env = home.environment();
        if (user) env["TQ_CONSOLE_USER"] = user->name;
        return env;
    }
    HelperHome home;
    TempDir job;
    std::string movie;
    Value doc;
    std::optional<UserIdentity> user;  // the console user a root run acts for
};

// Destinations that would destroy data, data that is no file, jobs that give no playable movie.
TEST_F(HostileRun, RefusedJobsKeepThePreviousMovie)
{
    makeJob();
    const std::string video = doc["tmpFilename"].stringValue();
    const std::string audio = doc["tmpAudioFilename"].stringValue();
    writeFile(job / "project/footage/clip.dv", "footage");
    ASSERT_EQ(::mkfifo((job / "fifo.mov").c_str(), 0644), 0);
    fs::create_symlink(video, job / "link.mov");
    fs::create_symlink(job / "nowhere", job / "dangling.mov");
    ASSERT_EQ(::link(audio.c_str(), (job / "hardlink.mov").c_str()), 0);
    const auto dest = [&](const std::string& path) { return withKey(doc, "destFilename", path); };
    Value::ArrayType beyond = *doc["offsetArray"].asArray();
    for (auto& entry : beyond) entry = Value(Value::DictionaryType{{"offset", int64_t(1) << 40}, {"length", 100}});
    Value::ArrayType huge = *doc["offsetArray"].asArray();
    huge[0] = withKey(huge[0], "frameCount", Value(int64_t(1) << 62));
    huge[1] = withKey(huge[1], "frameCount", Value(int64_t(1) << 62));
    const Value noAudio = withKey(doc, "audioFormat", Value());
    const Value sizeless = withKey(withKey(doc, "fWidth", Value()), "fHeight", Value());
    const std::pair<Value, std::string> cases[] = {
        {dest(job / "project"), "it is an existing folder"},
        {dest(job.path() + "/."), "it is an existing folder"},
        {dest(job / "project/"), "it names a folder"},
        {dest(video), "it is the same file as the video data file"},
        {dest(audio), "it is the same file as the audio data file"},
        {dest(job / "hardlink.mov"), "it is the same file as the audio data file"},
        {dest(job / "link.mov"), "it is the same file as the video data file"},
        {dest(home.replaySettingsPath()), "it is the same file as the settings document"},
        {dest(job / "no-such-folder/movie.mov"), "refused: its folder " + job / "no-such-folder" + " does not exist"},
        {dest(job / "fifo.mov"), "it is a FIFO"},
        {dest(job / "dangling.mov"), "symbolic link to nothing"},
        {dest(""), "names no destination"},
        {withKey(doc, "tmpFilename", job / "fifo.mov"), "It is a FIFO, not a regular file."},
        {withKey(doc, "tmpAudioFilename", job / "fifo.mov"), "It is a FIFO, not a regular file."},
        {withKey(doc, "tmpAudioFilename", job.path()), "Is a directory"},
        {withKey(doc, "formatType", Value(36)), "Error: unknown video format 36"},
        {withKey(doc, "formatType", Value(-1)),
         "Unknown video format. This movie is an unknown video format. Please report this error to Brantwell."},
        {withKey(doc, "frameRate", Value()), "Error: frame rate 0.000 is not usable"},
        {withKey(doc, "frameRate", Value(INFINITY)), "Error: frame rate inf is not usable"},
        {withKey(doc, "frameRate", Value(1e9)), "Error: frame rate 1000000000.000 is not usable"},
        {withKey(doc, "frameRate", Value(0.5)), "Error: frame rate 0.500 is not usable"},
        {withKey(doc, "frameRate", Value(NAN)), "is not usable"},
        {withKey(doc, "offsetArray", Value(huge)), "a track holds at most 4294967295"},
        {withKey(withKey(doc, "offsetArray", Value()), "audioOffsetArray", Value::ArrayType{}),
         "the movie would have no track"},
        {withKey(noAudio, "offsetArray", Value::ArrayType{}), "the movie would have no track"},
        {withKey(noAudio, "offsetArray", Value(beyond)), "no sample could be read"},
        {withKey(sizeless, "formatType", Value(20)), "the frame size of this AIC movie is unknown"},
        {withKey(sizeless, "formatType", Value(31)), "the frame size of this ProRes 422 movie"},
        {withKey(withKey(doc, "formatType", Value(31)), "fWidth", Value(40000)),
         "the frame size of this ProRes 422 movie"},
    };
    for (const auto& [document, line] : cases) {
        SCOPED_TRACE(testing::Message() << "row " << &document - &cases[0].first << ": " << line);
        expectRefused(document, line);
    }
}

// An impossible range mid-table ends its track or is refused; three runs each, as a wild read faults only at times.
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
        for (const auto& range : ranges) {
            SCOPED_TRACE(std::string(key) + ", " + range.name);
            Value::ArrayType entries = *doc[key].asArray();
            Value& middle = entries[entries.size() / 2];
            if (range.offset) middle = withKey(middle, "offset", range.offset);
            if (range.length) middle = withKey(middle, "length", range.length);
            const std::string& line = key[0] == 'a' ? range.audioLine : range.videoLine;
            ASSERT_TRUE(home.writeSettings(withKey(doc, key, Value(entries))));
            for (int attempt = 0; attempt < 3; ++attempt) {
                const ProcessResult run = home.runHelper();
                EXPECT_EQ(run.status, line == tooMany ? 1 : 0) << run.err;
                EXPECT_THAT(home.logEntries().back(), AllOf(StartsWith("Summary: status "), HasSubstr(line)));
                if (run.status == 0) {
                    EXPECT_THAT(checkMovieStructure(movie), IsEmpty());
                }
                // A video entry with no byte in the file says so before the track ends.
                if (key[0] == 'o' && range.offset) {
                    EXPECT_THAT(home.logEntries(), Contains(HasSubstr("Error allocating video block buffer")));
                }
            }
        }
    }
}

TEST_F(HostileRun, UnreadableSettingsDocuments)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "0.1"});
    // Each refusal names the path and the cause on a second line.
    const std::string xml = doc.toXMLPropertyList();
    const std::string garbled = "The data couldn't be read because it isn't in the correct format.";
    const struct {
        std::string bytes, cause;  // "fifo"/"folder": no file but that; "missing": nothing
    } cases[] = {{"fifo", "It is a FIFO"},
                 {"folder", "Is a directory"},
                 {"missing", "No such file or directory"},
                 {"this is no property list", garbled},
                 {Value(Value::ArrayType{Value(1)}).toXMLPropertyList(), "its root is an array, not a dictionary"},
                 {xml.substr(0, xml.size() / 2), garbled},
                 {"bplist00 but nothing after", garbled}};
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
        EXPECT_THAT(run.err, AllOf(HasSubstr("Unable to open settings dictionary\n"),
                                   HasSubstr("Cannot read the settings document " + path + ": " + c.cause)));
    }

    // UTF-16 XML reads like UTF-8, and the document is not rewritten.
    std::string utf16 = "\xFF\xFE";
    for (const char c : withKey(doc, "audioFormat", Value()).toXMLPropertyList()) utf16 += std::string{c, '\0'};
    fs::remove_all(path);
    writeFile(path, utf16);
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_THAT(checkMovieStructure(movie), IsEmpty());
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

    // Killed runs' files (the writer's headers under a temporary name) go. Look-alikes stay:
    // a user's file, an empty one, one with another name, one of the job's inputs, and a lock
    // file this program did not make.
    const std::string partial(
        "\0\0\0\x14"
        "ftypqt  \x20\x05\x03\0qt  \0\0\0\x08wide",
        28);
    std::string markedAudio = readFile(doc["tmpAudioFilename"].stringValue());
    markedAudio.replace(0, partial.size(), partial);
    const std::pair<std::string, std::string> planted[] = {{"movie.mov.incomplete-4242", partial + "half a movie"},
                                                           {"movie.mov.incomplete-4545-2", partial},
                                                           {"movie.mov.incomplete-4343", ""},
                                                           {"movie.mov.incomplete-77", "a user's notes"},
                                                           {"movie.mov.incomplete-x1", partial},
                                                           {"movie.mov.incomplete-4646", markedAudio},
                                                           {".movie.mov.lock", "a user's notes"}};
    for (const auto& [name, bytes] : planted) writeFile(job / name, bytes);
    ASSERT_TRUE(home.writeSettings(withKey(doc, "tmpAudioFilename", job / "movie.mov.incomplete-4646")));
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_THAT(home.logEntries(),
                Contains(HasSubstr("Removed 2 temporary file(s) that an interrupted run left for " + movie)));
    for (const auto& [name, bytes] : planted) {
        const bool killedRuns = name.ends_with("4242") || name.ends_with("4545-2");
        EXPECT_EQ(fs::exists(job / name), !killedRuns) << name;
        if (!killedRuns) {
            EXPECT_EQ(readFile(job / name), bytes) << name;
        }
    }
    EXPECT_THAT(checkMovieStructure(movie), IsEmpty());
}

TEST_F(HostileRun, StopSignalsAndAFullDiskRemoveTheUnfinishedMovie)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "10", "--no-junk", "--distinct-frames", "1"});
    for (const char* name : {"TERM", "INT", "HUP"}) {
        SCOPED_TRACE(name);
        HelperHome own;
        ASSERT_TRUE(own.writeSettings(doc));
        const Snapshot before = snapshot({job.path()});
        const ProcessResult run = runUntilInterrupted(own, job.path(), std::string("kill -") + name + " $pid",
                                                      [&] { writeFile(movie, "the previous movie"); });
        EXPECT_EQ(run.out, "1\n");
        EXPECT_EQ(changes(before, snapshot({job.path()})), "");
        EXPECT_THAT(own.logEntries(), Contains(HasSubstr(std::string("Stopped by SIG") + name)));
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
    // ...and room that runs out while writing ends the run too. A loaded machine may let a run
    // finish before the disk fills: such a run must leave a whole movie, and one of a few must
    // meet the full disk.
    bool filled = false;
    for (int attempt = 0; attempt < 5 && !filled; ++attempt) {
        writeFile(target, "the previous movie");
        ASSERT_TRUE(home.writeSettings(withKey(doc, "destFilename", target)));
        const ProcessResult run = runUntilInterrupted(
            home, disk.path(),
            "kill -STOP $pid; dd if=/dev/zero of='" + disk.path() + "/filler' bs=64k 2>/dev/null; kill -CONT $pid",
            [&] { writeFile(target, "the previous movie"); });
        fs::remove(disk / "filler");
        filled = run.out != "0\n";
        if (!filled) {
            EXPECT_EQ(checkMovieStructure(target), std::vector<std::string>{});
            continue;
        }
        EXPECT_EQ(run.out, "1\n");
        EXPECT_TRUE(readFile(target) == "the previous movie") << "the previous movie was replaced";
        EXPECT_EQ(std::distance(fs::directory_iterator(disk.path()), fs::directory_iterator()), 1);
        EXPECT_THAT(home.logEntries(), Contains(HasSubstr("No space left on device")));
    }
    EXPECT_TRUE(filled) << "no run met the full disk";

    // A file size limit below the movie's size ends the run the same way.
    expectRefused(doc, "File too large", {}, {"prlimit", "--fsize=4000000"});
}

// The data files are read, not mapped: one cut short while the run reads it ends its track there.
TEST_F(HostileRun, DataCutShortWhileTheRunReadsIt)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "60", "--no-junk"});
    const std::string video = doc["tmpFilename"].stringValue();
    const std::string bytes = readFile(video);
    ASSERT_TRUE(home.writeSettings(doc));
    // A loaded machine may let the run read everything before the cut: every run must end
    // well, and one of a few must meet the cut.
    const auto restore = [&] {
        writeFile(video, bytes);
        writeFile(movie, "the previous movie");
    };
    bool cut = false;
    for (int attempt = 0; attempt < 5 && !cut; ++attempt, restore()) {
        const ProcessResult run = runUntilInterrupted(
            home, job.path(), "kill -STOP $pid; truncate -s 0 '" + video + "'; kill -CONT $pid", restore);
        EXPECT_EQ(run.out, "0\n");
        const std::string summary = home.logEntries().back();
        EXPECT_THAT(summary, StartsWith("Summary: status 0"));
        EXPECT_THAT(checkMovieStructure(movie), IsEmpty());
        cut = summary.find("track ended early") != std::string::npos;
    }
    EXPECT_TRUE(cut) << "no run met the cut";
}

// The helper as root for a scratch console user: no more than the user could do, and all it makes is the user's.
class RootRun : public HostileRun {
protected:
    void SetUp() override
    {
        if (::getuid() != 0) GTEST_SKIP() << "the helper runs as root for a scratch user only when the tests are root";
        name_ = "corvt" + std::to_string(::getpid());
        // Another program may hold the user database for a moment.
        ProcessResult made;
        for (int attempt = 0; attempt < 40 && made.status != 0; ++attempt) {
            if (attempt) std::this_thread::sleep_for(std::chrono::milliseconds(250));
            made = runProgram({"useradd", "--no-create-home", "--home-dir", home.path(), "--shell", "/usr/sbin/nologin",
                               "--user-group", name_});
        }
        ASSERT_EQ(made.status, 0) << made.err;
        created_ = true;
        user = UserIdentity::forName(name_);
        ASSERT_TRUE(user);
        makeJob();
        ASSERT_EQ(runProgram({"chown", "-R", name_ + ":", home.path(), job.path()}).status, 0);
        // Root's things: a readable folder with a copy of the password file and root-only copies
        // of the job's data, and a root-only folder.
        ASSERT_EQ(::chmod(vault.path().c_str(), 0755), 0);
        writeFile(open + "/passwd", readFile("/etc/passwd"), fs::perms(0644));
        writeFile(open + "/video.dv", readFile(doc["tmpFilename"].stringValue()), fs::perms(0600));
        writeFile(open + "/audio.pcm", readFile(doc["tmpAudioFilename"].stringValue()), fs::perms(0600));
        writeFile(closed + "/passwd", readFile("/etc/passwd"), fs::perms(0644));
        fs::permissions(open, fs::perms(0755));
        fs::permissions(closed, fs::perms(0700));
    }
    void TearDown() override
    {
        for (int attempt = 0; created_ && attempt < 40; ++attempt) {
            if (runProgram({"userdel", name_}).status == 0) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
    }
    TempDir vault;
    const std::string open = vault / "open";
    const std::string closed = vault / "closed";
    std::string name_;
    bool created_ = false;
};

TEST_F(RootRun, NothingBeyondTheUsersOwnRights)
{
    fs::create_directory_symlink(closed, home.path() + "/Movies");
    const std::string movies = home.path() + "/Movies";
    const struct {
        const char *name, *key;
        std::string value, line;
    } cases[] = {
        {"a root-owned file", "destFilename", open + "/passwd",
         "Error: cannot write in the folder of " + open + "/passwd: Permission denied."},
        {"a root-only folder", "destFilename", closed + "/movie.mov",
         "its folder " + closed + " cannot be opened (Permission denied)."},
        {"~/Movies links to a root-only folder", "destFilename", movies + "/movie.mov",
         "its folder " + movies + " cannot be opened (Permission denied)."},
        {"root-only video data", "tmpFilename", open + "/video.dv",
         "Error: cannot read the video data file " + open + "/video.dv: Permission denied"},
        {"root-only audio data", "tmpAudioFilename", open + "/audio.pcm",
         "Error: cannot read the audio data file " + open + "/audio.pcm: Permission denied"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expectRefused(withKey(doc, c.key, c.value), c.line, vault.path());
    }
    // A link at the lock's name is never followed.
    fs::create_symlink(open + "/passwd", job / ".movie.mov.lock");
    expectRefused(doc, "Error: cannot lock " + movie + ": " + job / ".movie.mov.lock" + " is a symbolic link.",
                  vault.path());
    fs::remove(job / ".movie.mov.lock");

    // A settings document only root may read is not read.
    ASSERT_TRUE(home.writeSettings(doc));
    ASSERT_EQ(::chmod(home.replaySettingsPath().c_str(), 0600), 0);
    const ProcessResult run = runProgram({helperPath()}, environment());
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err,
                HasSubstr("Cannot read the settings document " + home.replaySettingsPath() + ": Permission denied"));
    EXPECT_THAT(home.logEntries().back(), StartsWith("Summary: status 1"));
}

TEST_F(RootRun, NamesPlantedAtTheTemporaryNameAreLeftAlone)
{
    // The run's own temporary name (it is the shell's pid, which exec keeps) holds a link to a
    // root-owned file, or one of the job's inputs: the run passes over the name and writes the
    // movie as the user.
    const std::string audio = doc["tmpAudioFilename"].stringValue();
    const std::string replay = home.replaySettingsPath();
    const struct {
        const char* name;
        std::string plant;
        Value doc;
    } cases[] = {
        {"a link to a root-owned file", "ln -s '" + open + "/passwd' \"$at\"", doc},
        {"the audio data file",
         "cp '" + audio + "' \"$at\" && chown " + name_ + ": \"$at\" && sed -i \"s|@AUDIO@|$at|\" '" + replay + "'",
         withKey(doc, "tmpAudioFilename", "@AUDIO@")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(home.writeSettings(c.doc));
        const Snapshot before = snapshot({vault.path()});
        const std::string script = "at='" + job / "movie.mov.incomplete-" + "'$$; " + c.plant + " && chown " + name_ +
                                   ": '" + replay + "' && exec '" + helperPath() + "'";
        const ProcessResult run = runProgram({"/bin/sh", "-c", script}, environment());
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_THAT(home.logEntries().back(), StartsWith("Summary: status 0"));
        EXPECT_EQ(changes(before, snapshot({vault.path()})), "");
        struct stat info {};
        ASSERT_EQ(::stat(movie.c_str(), &info), 0);
        EXPECT_EQ(info.st_uid, user->uid);
        EXPECT_THAT(checkMovieStructure(movie), IsEmpty());
        ASSERT_EQ(::stat(replay.c_str(), &info), 0);
        EXPECT_EQ(info.st_uid, user->uid);
        // What was planted is still there, as it was; nothing of the run's own is left.
        std::string left;
        for (const auto& entry : fs::directory_iterator(job.path())) {
            const std::string file = entry.path().filename();
            if (file.starts_with("movie.mov.") || file.starts_with(".movie")) left += (left.empty() ? "" : " ") + file;
        }
        ASSERT_TRUE(left.starts_with("movie.mov.incomplete-") && left.find(' ') == std::string::npos) << left;
        const std::string at = job / left;
        if (fs::is_symlink(at))
            EXPECT_EQ(fs::read_symlink(at), open + "/passwd");
        else
            EXPECT_EQ(readFile(at), readFile(audio));
        fs::remove(at);
    }
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
        EXPECT_THAT(run.out + run.err,
                    HasSubstr(std::string(argument) == "--version" ? "CorvinaAVFHelper 1." : "Usage:"));
    }
    EXPECT_FALSE(fs::exists(home.logPath())) << "a log was started";
    EXPECT_EQ(changes(before, snapshot({job.path()})), "");

    ASSERT_EQ(home.runHelper().status, 0);
    MovieSummary stored;
    EXPECT_THAT(checkMovieStructure(movie, &stored), IsEmpty());
    ASSERT_NE(stored.track(fourCC("vide")), nullptr);
    EXPECT_EQ(stored.track(fourCC("vide"))->sampleWidth, 320);
    EXPECT_EQ(stored.track(fourCC("vide"))->sampleHeight, 240);
    EXPECT_THAT(home.logEntries(), Contains(HasSubstr("Frame size 320x240 read from the first frame")));
    EXPECT_THAT(home.logEntries(), Not(Contains(HasSubstr("Unable to unlock"))));
    const std::string frames = std::to_string(doc["offsetArray"].count());
    EXPECT_THAT(
        home.logEntries().back(),
        AllOf(StartsWith("Summary: status 0 after "), HasSubstr("settings document: " + home.replaySettingsPath()),
              HasSubstr("video: ProRes 422 320x240 (apcn); entries read " + frames + " of " + frames),
              HasSubstr("audio: 16-bit Linear PCM 48KHz Stereo Little Endian; entries read"),
              HasSubstr("movie: " + movie + " (" + std::to_string(fs::file_size(movie)) + " bytes)")));
}

}  // namespace

}  // namespace corvina::helper
