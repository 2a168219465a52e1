// The real helper against hostile documents, files, destinations, a full disk and stop
// signals. Every case checks the status, the line that says why, and that every input and
// every other file is byte-identical afterwards.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include "HelperRun.h"
#include "MovieCheck.h"
#include "SampleBuffer/FormatDescription.h"

using namespace corvina;
using namespace corvina::test;
namespace fs = std::filesystem;

namespace {

Value withKey(const Value& settings, const std::string& key, Value value)
{
    Value::DictionaryType d = *settings.asDictionary();
    if (value.isNone()) d.erase(key);
    else d[key] = std::move(value);
    return Value(std::move(d));
}

// Everything below the folders: regular files by content, other things by kind.
using Snapshot = std::map<std::string, std::string>;
Snapshot snapshot(std::initializer_list<std::string> roots)
{
    Snapshot out;
    for (const auto& root : roots) {
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(root, ec); it != fs::recursive_directory_iterator(); ++it) {
            const auto& path = it->path();
            if (path.string().find("/Library/Logs") != std::string::npos) continue;
            const auto status = fs::symlink_status(path);
            if (fs::is_regular_file(status)) out[path] = readTextFile(path);
            else if (fs::is_symlink(status)) out[path] = "link to " + fs::read_symlink(path).string();
            else out[path] = "kind " + std::to_string(static_cast<int>(status.type()));
        }
    }
    return out;
}

bool logHas(const HelperHome& home, const std::string& text)
{
    const auto entries = home.logEntries();
    return std::any_of(entries.begin(), entries.end(), [&](const auto& e) { return e.find(text) != std::string::npos; });
}

std::string lastEntry(const HelperHome& home)
{
    const auto entries = home.logEntries();
    return entries.empty() ? std::string() : entries.back();
}

// A helper process started in the background.
struct Running {
    pid_t pid = -1;
    int wait()
    {
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

Running startHelper(const HelperHome& home)
{
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e; ++e) {
        const std::string entry(*e);
        merged[entry.substr(0, entry.find('='))] = entry.substr(std::min(entry.size(), entry.find('=') + 1));
    }
    for (const auto& [k, v] : home.environment()) merged[k] = v;
    std::vector<std::string> envStrings;
    for (const auto& [k, v] : merged) envStrings.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
    std::string program = helperPath();
    char* argv[] = {program.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    Running run;
    ::posix_spawn(&run.pid, argv[0], &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return run;
}

// Waits for the run's temporary movie file beside `movie`; false when the run ended first.
bool waitForTemporaryFile(const std::string& movie, pid_t pid)
{
    const std::string prefix = fs::path(movie).filename().string() + ".incomplete-";
    for (int i = 0; i < 60000; ++i) {
        for (const auto& entry : fs::directory_iterator(fs::path(movie).parent_path()))
            if (entry.path().filename().string().rfind(prefix, 0) == 0) return true;
        siginfo_t info{};
        if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

std::vector<std::string> leftovers(const std::string& folder)
{
    std::vector<std::string> out;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.find(".incomplete-") != std::string::npos || name.ends_with(".lock")) out.push_back(name);
    }
    return out;
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
        { std::ofstream(movie) << "the previous movie"; }
        doc = withKey(*made, "destFilename", movie);
    }
    // Runs the document; the run must fail with `line` and leave every file as it was.
    void expectRefused(const Value& document, const std::string& line, const std::string& extraRoot = {})
    {
        ASSERT_TRUE(home.writeSettings(document));
        const Snapshot before = extraRoot.empty() ? snapshot({job.path(), home.path()})
                                                  : snapshot({job.path(), home.path(), extraRoot});
        const ProcessResult run = home.runHelper();
        EXPECT_EQ(run.status, 1) << run.err;
        EXPECT_TRUE(logHas(home, line)) << "missing: " << line << "\nlast: " << lastEntry(home);
        const Snapshot after = extraRoot.empty() ? snapshot({job.path(), home.path()})
                                                 : snapshot({job.path(), home.path(), extraRoot});
        for (const auto& [path, content] : after)
            EXPECT_EQ(before.count(path) ? before.at(path) : "(absent)", content) << path;
        for (const auto& [path, content] : before) EXPECT_TRUE(after.count(path)) << path << " is gone";
        EXPECT_EQ(lastEntry(home).rfind("Summary: status 1", 0), 0u) << lastEntry(home);
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
    fs::create_directories(job / "project/footage");
    { std::ofstream(job / "project/footage/clip.dv") << "footage"; }
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
        {job / "no-such-folder/movie.mov", "does not exist"},
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
        EXPECT_EQ(leftovers(job.path()), std::vector<std::string>{});
    }
}

TEST_F(HostileRun, FifosAndFoldersAreRefusedWithoutHanging)
{
    makeJob();
    ASSERT_EQ(::mkfifo((job / "video.fifo").c_str(), 0644), 0);
    expectRefused(withKey(doc, "tmpFilename", job / "video.fifo"), "It is a FIFO, not a regular file.");
    expectRefused(withKey(doc, "tmpAudioFilename", job / "video.fifo"), "It is a FIFO, not a regular file.");
    expectRefused(withKey(doc, "tmpAudioFilename", job.path()), "Is a directory");

    // The settings document itself.
    for (const bool fifo : {true, false}) {
        fs::remove(home.replaySettingsPath());
        if (fifo) ASSERT_EQ(::mkfifo(home.replaySettingsPath().c_str(), 0644), 0);
        else fs::create_directory(home.replaySettingsPath());
        const ProcessResult run = home.runHelper();
        EXPECT_EQ(run.status, 1);
        const auto at = run.err.find("Unable to open settings dictionary");
        ASSERT_NE(at, std::string::npos) << run.err;
        const std::string cause = fifo ? "It is a FIFO" : "Is a directory";
        EXPECT_NE(run.err.find("Cannot read the settings document " + home.replaySettingsPath() + ": " + cause, at),
                  std::string::npos)
            << run.err;
        fs::remove(home.replaySettingsPath());
    }
}

TEST_F(HostileRun, SettingsDocumentsInOtherFormsAndDepths)
{
    makeJob({"--video", "0", "--audio", "0", "--seconds", "0.1"});
    // UTF-16 XML with a byte-order mark is read like UTF-8.
    const std::string xml = doc.toXMLPropertyList();
    std::string utf16 = "\xFF\xFE";
    for (const char c : xml) utf16 += std::string{c, '\0'};
    { std::ofstream(home.replaySettingsPath(), std::ios::binary) << utf16; }
    const ProcessResult run = home.runHelper();
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(checkMovieStructure(movie), std::vector<std::string>{});
    EXPECT_EQ(readTextFile(home.replaySettingsPath()), utf16) << "the document was rewritten";

    // Deep binary nesting, a root that is no dictionary, a truncated document.
    std::string deep = "bplist00";
    const uint32_t levels = 100000;
    std::vector<uint32_t> offsets;
    for (uint32_t i = 0; i < levels; ++i) {
        offsets.push_back(static_cast<uint32_t>(deep.size()));
        deep += i + 1 < levels ? std::string("\xA1") + std::string{0, char((i + 1) >> 16), char((i + 1) >> 8), char(i + 1)}
                               : std::string("\xA0");
    }
    const auto tableAt = static_cast<uint64_t>(deep.size());
    for (uint32_t o : offsets) deep += std::string{char(o >> 24), char(o >> 16), char(o >> 8), char(o)};
    std::string trailer(32, '\0');
    trailer[6] = 4;
    trailer[7] = 4;
    for (int i = 0; i < 8; ++i) {
        trailer[8 + i] = char(uint64_t(levels) >> (56 - 8 * i));
        trailer[24 + i] = char(tableAt >> (56 - 8 * i));
    }
    deep += trailer;
    const struct {
        std::string bytes, cause;
    } cases[] = {
        {deep, "nests too deeply"},
        {Value(Value::ArrayType{Value(1)}).toXMLPropertyList(), "its root is an array, not a dictionary"},
        {xml.substr(0, xml.size() / 2), "isn't in the correct format"},
    };
    for (const auto& c : cases) {
        { std::ofstream(home.replaySettingsPath(), std::ios::binary | std::ios::trunc) << c.bytes; }
        const ProcessResult bad = home.runHelper();
        EXPECT_EQ(bad.status, 1);
        EXPECT_NE(bad.err.find("Unable to open settings dictionary"), std::string::npos);
        EXPECT_NE(bad.err.find(home.replaySettingsPath() + ": "), std::string::npos) << bad.err;
        EXPECT_NE(bad.err.find(c.cause), std::string::npos) << bad.err;
    }
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
    { std::ofstream(job / "movie.mov.incomplete-4242", std::ios::binary) << partial << "half a movie"; }
    { std::ofstream(job / "movie.mov.incomplete-4343"); }
    { std::ofstream(job / "movie.mov.incomplete-77") << "a user's notes"; }
    { std::ofstream(job / "movie.mov.incomplete-x1", std::ios::binary) << partial; }
    ASSERT_TRUE(home.writeSettings(doc));
    ASSERT_EQ(home.runHelper().status, 0);
    EXPECT_TRUE(logHas(home, "Removed 2 temporary file(s) that an interrupted run left for " + movie));
    std::vector<std::string> left = leftovers(job.path());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"movie.mov.incomplete-77", "movie.mov.incomplete-x1"}));
    EXPECT_EQ(checkMovieStructure(movie), std::vector<std::string>{});
}

TEST_F(HostileRun, StopSignalsRemoveTheUnfinishedMovie)
{
    makeJob({"--video", "0", "--audio", "2", "--seconds", "10", "--no-junk", "--distinct-frames", "1"});
    const struct {
        int number;
        const char* name;
    } signals[] = {{SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"}, {SIGHUP, "SIGHUP"}};
    for (const auto& sig : signals) {
        SCOPED_TRACE(sig.name);
        HelperHome own;
        ASSERT_TRUE(own.writeSettings(doc));
        const Snapshot before = snapshot({job.path()});
        Running run = startHelper(own);
        ASSERT_TRUE(waitForTemporaryFile(movie, run.pid)) << "the run ended before writing";
        ::kill(run.pid, sig.number);
        EXPECT_EQ(run.wait(), 1);
        EXPECT_TRUE(snapshot({job.path()}) == before) << "a file changed or was left behind";
        EXPECT_TRUE(logHas(own, std::string("Stopped by ") + sig.name)) << lastEntry(own);
    }
}

TEST_F(HostileRun, AFullDiskLeavesThePreviousMovie)
{
    TempDir mountPoint;
    if (::mount("tmpfs", mountPoint.path().c_str(), "tmpfs", 0, "size=8m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here";
    struct Unmount {
        std::string path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{mountPoint.path()};
    makeJob({"--video", "0", "--audio", "2", "--seconds", "4", "--no-junk"});
    const std::string target = mountPoint / "movie.mov";
    { std::ofstream(target) << "the previous movie"; }

    // Too little room is seen before anything is written.
    expectRefused(withKey(doc, "destFilename", target), "Error: not enough free space for " + target + ": the movie needs ",
                  mountPoint.path());

    // Room at the start that runs out while writing.
    Value::ArrayType half = *doc["offsetArray"].asArray();
    half.resize(half.size() / 2);
    const Value fits = withKey(withKey(withKey(doc, "destFilename", target), "offsetArray", Value(half)),
                               "audioFormat", Value());
    ASSERT_TRUE(home.writeSettings(fits));
    Running run = startHelper(home);
    ASSERT_TRUE(waitForTemporaryFile(target, run.pid));
    ::kill(run.pid, SIGSTOP);
    {
        std::ofstream filler(mountPoint / "filler", std::ios::binary);
        const std::string block(1 << 16, 'x');
        while (filler.write(block.data(), block.size())) {
        }
    }
    ::kill(run.pid, SIGCONT);
    EXPECT_EQ(run.wait(), 1);
    fs::remove(mountPoint / "filler");
    EXPECT_EQ(readTextFile(target), "the previous movie");
    EXPECT_EQ(leftovers(mountPoint.path()), std::vector<std::string>{});
    EXPECT_TRUE(logHas(home, "No space left on device")) << lastEntry(home);
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
    const std::string summary = lastEntry(home);
    const size_t frames = doc["offsetArray"].count();
    for (const std::string& part :
         {std::string("Summary: status 0 after "), "settings document: " + home.replaySettingsPath(),
          "video: ProRes 422 320x240 (apcn); entries read " + std::to_string(frames) + " of " + std::to_string(frames),
          std::string("audio: 16-bit Linear PCM 48KHz Stereo Little Endian; entries read"),
          "movie: " + movie + " (" + std::to_string(fs::file_size(movie)) + " bytes)"})
        EXPECT_NE(summary.find(part), std::string::npos) << part << "\n" << summary;
}

}  // namespace
