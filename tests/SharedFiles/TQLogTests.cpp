#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <thread>

#include "Foundation/Exception.h"
#include "Foundation/StringUtils.h"
#include "Foundation/Value.h"
#include "Process/Process.h"
#include "tq/TQException.h"
#include "tq/TQLog.h"
#include "tq/TQLogFile.h"
#include "support/TestSupport.h"

namespace corvina::tq {

using namespace corvina::test;
namespace fs = std::filesystem;

namespace {

std::string logDir(const std::string& home) { return home + "/Library/Logs/Brantwell"; }
std::string logPath(const std::string& home, const std::string& name, int n)
{
    return logDir(home) + "/" + name + "." + std::to_string(n) + ".log";
}

// Makes `home` the process's home and local root; returns it.
std::string useHome(const std::string& home)
{
    setenv("HOME", home.c_str(), 1);
    setenv("TQ_LOCAL_ROOT", home.c_str(), 1);
    return home;
}

// Runs the running test in a child with home, handing it case number `row`; expects a clean exit.
TestRun runChild(const std::string& home, int row = 0)
{
    TestRun run = runTest({}, home, {{"CORVINA_CASE", std::to_string(row)}});
    EXPECT_EQ(run.status, 0) << run.output;
    return run;
}

// The reference escaping: the replacements one after the other over the whole text.
std::string referenceEscape(const std::string& text)
{
    if (text.find('%') == std::string::npos) return text;
    std::string s = text;
    for (const char* c : {" ", ".", "!", ",", "-", ";", ":", "+"})
        s = corvina::replaceAll(s, std::string("%") + c, std::string("%%") + c);
    return corvina::replaceAll(s, "%%%", "%%");
}

}  // namespace

// The one pass does what the eight replacements do in turn, on random texts.
TEST(TQLogEscaping, OnePassAgreesWithSuccessiveReplacements)
{
    EXPECT_EQ(TQLog::escapeTextForLogging("Progress: 50% done"), "Progress: 50%% done");
    const std::string alphabet = "%% .!,-;:+@da";
    unsigned seed = 12345;
    for (int i = 0; i < 20000; ++i) {
        std::string text;
        for (int n = 0; n < 12; ++n) {
            seed = seed * 1103515245u + 12345u;
            text += alphabet[(seed >> 16) % alphabet.size()];
        }
        ASSERT_EQ(TQLog::escapeTextForLogging(text), referenceEscape(text)) << text;
    }
}

// Every subset of .1 to .5: .5 goes and the rest move up, only when a current .1 exists.
TEST(TQLogRotation, AllSubsetsOfExistingFiles)
{
    if (!inChild()) return expectChildPasses();
    const std::string root = childHome();
    for (int mask = 0; mask < 32; ++mask) {
        SCOPED_TRACE("case " + std::to_string(mask));
        const std::string home = useHome(root + "/case" + std::to_string(mask));
        for (int n = 1; n <= 5; ++n)
            if (mask & (1 << (n - 1))) writeFile(logPath(home, "Tool", n), "old" + std::to_string(n) + "\n");
        TQLog::createNewLog("Tool");
        TQLog::finishWriting();
        const bool rotate = mask & 1;
        for (int n = 2; n <= 5; ++n) {
            const int from = rotate ? n - 1 : n;  // the file that should now stand at .n
            const std::string path = logPath(home, "Tool", n);
            if (mask & (1 << (from - 1)))
                EXPECT_EQ(readFile(path), "old" + std::to_string(from) + "\n") << "." << n;
            else
                EXPECT_FALSE(fs::exists(path)) << "." << n;
        }
        EXPECT_EQ(entryText(splitLines(readFile(logPath(home, "Tool", 1))).at(0)).rfind("Log started: ", 0), 0u);
    }
}

// What the log cannot do it says on the console: a file that cannot move up, a folder that
// cannot be made, then each text that finds no file, until printing is off.
TEST(TQLogFailures, ReportedOnTheConsole)
{
    if (inChild()) {
        const std::string home = childHome(), afile = home + "/afile";
        writeFile(logPath(home, "Tool", 1), "one\n");
        writeFile(logPath(home, "Tool", 4), "four\n");
        writeFile(logPath(home, "Tool", 5) + "/keep", "x");
        TQLog::createNewLog("Tool");
        TQLog::finishWriting();
        EXPECT_EQ(readFile(logPath(home, "Tool", 4)), "four\n");
        EXPECT_EQ(readFile(logPath(home, "Tool", 1)), "one\n");
        EXPECT_FALSE(TQLog::sharedController().hasFileHandle());
        writeFile(afile, "not a folder");
        useHome(afile);
        TQLog::createNewLog("Tool");
        TQLog::fastAppendLog("first %d", 1);
        TQLog::fastAppendLog("second");
        TQLog::finishWriting();
        TQLog::sharedController().setNoPrinting(true);
        TQLog::fastAppendLog("silent");
        TQLog::finishWriting();
        EXPECT_FALSE(TQLog::sharedController().hasFileHandle());
        return;
    }
    TempDir dir;
    const std::string home = dir.path();
    EXPECT_EQ(runChild(home).printed,
              "Unable to move file " + logPath(home, "Tool", 4) + " to " + logPath(home, "Tool", 5) + ".\n" +
                  "Unable to create folder " + home + "/afile/Library/Logs/Brantwell.\n" +
                  "Unable to log the following information: first 1\nUnable to open log for output\n"
                  "Unable to log the following information: second\nUnable to open log for output\n");
}

// The header; a second createNewLog rotates the first file and keeps the first name.
TEST(TQLogCreate, HeaderFirstNameWinsAndAvailableLogs)
{
    if (!inChild()) return expectChildPasses();
    const std::string home = childHome();
    TQLog::createNewLog("First");
    TQLog::createNewLog("Second");
    TQLog::finishWriting();
    EXPECT_EQ(TQLog::sharedController().appName(), "First");
    EXPECT_FALSE(fs::exists(logPath(home, "Second", 1)));
    EXPECT_EQ(TQLog::availableLogs(), (std::vector<std::string>{logPath(home, "First", 1), logPath(home, "First", 2)}));
    const std::string date = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000 - )";
    const std::regex header(date + "Log started: " + date.substr(0, date.size() - 3) + "\n(" + date +
                            "Version: .+\n)?" + date + "Path: /.+\n" + date +
                            R"(System: macOS .+, \d+ CPU\(s\), \d+\.\d\d GB RAM\n)" + date +
                            "Running in 64-bit mode\n");
    for (int n : {1, 2}) EXPECT_TRUE(std::regex_match(readFile(logPath(home, "First", n)), header)) << n;
}

// Only the values that mean 1 switch logging off; an unreadable file or a non-dictionary does not.
TEST(TQLogPreferences, DisableLoggingValues)
{
    using corvina::Value;
    const struct {
        const char* name;
        std::optional<Value> value;  // none: key missing
        const char* file;            // the file's text instead of a dictionary
        bool disables;
    } rows[] = {
        {"string 1", Value("1"), nullptr, true},
        {"number 1", Value(1), nullptr, true},
        {"boolean true", Value(true), nullptr, true},
        {"string 0", Value("0"), nullptr, false},
        {"string 1.0", Value("1.0"), nullptr, false},
        {"number 2", Value(2), nullptr, false},
        {"boolean false", Value(false), nullptr, false},
        {"missing key", std::nullopt, nullptr, false},
        {"not a property list", std::nullopt, "this is not a property list", false},
        {"array root", std::nullopt,
         "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>disable-logging</string></array></plist>",
         false},
    };
    if (inChild()) {
        for (size_t i = 0; i < std::size(rows); ++i) {
            const auto& row = rows[i];
            const std::string home = useHome(childHome() + "/row" + std::to_string(i));
            const std::string prefs = home + "/Library/Preferences/com.brantwell.global.plist";
            if (row.file) {
                writeFile(prefs, row.file);
            } else {
                Value::DictionaryType dict{{"other", Value("x")}};
                if (row.value) dict.emplace("disable-logging", *row.value);
                fs::create_directories(home + "/Library/Preferences");
                ASSERT_TRUE(Value(dict).writeToFile(prefs, true));
            }
            std::atomic<bool> disabled{false}, noPrinting{false};
            TQLogFile file(disabled, noPrinting);
            EXPECT_EQ(file.open("Tool"), !row.disables) << row.name;
            EXPECT_EQ(disabled.load(), row.disables) << row.name;
            EXPECT_EQ(fs::exists(logPath(home, "Tool", 1)), !row.disables) << row.name;
        }
        return;
    }
    std::string expected;
    for (const auto& row : rows) expected += row.disables ? "Logging is disabled\n" : "";
    TempDir dir;
    EXPECT_EQ(runChild(dir.path()).printed, expected);
}

// With no log opened, texts go to the current file of the executable's name.
TEST(TQLogWriting, DefaultNameAndReopeningTheCurrentFile)
{
    if (inChild()) {
        const std::string home = childHome();
        TQLog::fastAppendLog("appended");
        TQLog::finishWriting();
        TQLog::createNewLog();
        TQLog::finishWriting();
        EXPECT_THAT(splitLines(readFile(logPath(home, "SharedFilesTests", 2))),
                    ::testing::ElementsAre("earlier", ::testing::ResultOf(entryText, "appended")));
        EXPECT_EQ(logEntries(logPath(home, "SharedFilesTests", 1)).at(0).rfind("Log started: ", 0), 0u);
        return;
    }
    TempDir dir;
    writeFile(logPath(dir.path(), "SharedFilesTests", 1), "earlier\n");
    EXPECT_EQ(runChild(dir.path()).printed, "");
}

// A forked child has an empty queue and its own writer; the queued entry is the parent's, once.
TEST(TQLogFork, ChildLogsOnItsOwnAndLeavesTheParentsEntries)
{
    if (!inChild()) return expectChildPasses();
    const std::string path = logPath(childHome(), "Tool", 1);
    TQLog::createNewLog("Tool");
    TQLog::finishWriting();
    TQLog::suspendWriterForTesting(true);
    TQLog::fastAppendLog("queued before the fork");
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(30);                              // a child waiting for a writer it lacks ends here
        TQLog::suspendWriterForTesting(false);  // the test hook's state came along
        const bool empty = TQLog::sharedController().queuedEntryCount() == 0;
        TQLog::fastAppendLog("in the child");
        TQLog::finishWriting();
        _exit(empty && logEntries(path).back() == "in the child" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    TQLog::suspendWriterForTesting(false);
    TQLog::fastAppendLog("after the fork");
    TQLog::finishWriting();
    const auto entries = logEntries(path);
    EXPECT_EQ(std::ranges::count(entries, "queued before the fork"), 1);
    EXPECT_EQ(entries.back(), "after the fork");
}

TEST(TQLogUncaught, BackgroundExceptionIsTheLastEntry)
{
    const struct {
        const char* name;
        std::function<void()> raise;
        const char* expected;
    } rows[] = {
        {"platform", [] { throw corvina::PlatformException("NSGenericException", "reason with %@ and 5% left"); },
         "reason with %@ and 5% left"},
        {"std", [] { throw std::runtime_error("plain failure"); }, "plain failure"},
        {"other", [] { throw 42; }, "Unknown exception"},
    };
    if (inChild()) {
        TQLog::createNewLog("Tool");
        for (int i = 0; i < 50; ++i) TQLog::fastAppendLog("before %d", i);
        std::thread(rows[childCase()].raise).join();
        return;
    }
    for (int i = 0; i < int(std::size(rows)); ++i) {
        TempDir dir;
        const TestRun run = runTest({}, dir.path(), {{"CORVINA_CASE", std::to_string(i)}});
        EXPECT_EQ(run.status, 128 + SIGABRT) << rows[i].name;
        const auto entries = logEntries(logPath(dir.path(), "Tool", 1));
        ASSERT_GE(entries.size(), 2u) << rows[i].name;
        EXPECT_EQ(entries.back(), rows[i].expected) << rows[i].name;
        EXPECT_EQ(entries[entries.size() - 2], "before 49") << rows[i].name;
    }
}

// As root: the machine-wide folder, made 0755 and never reached through a link; availableLogs
// still looks in the user's.
TEST(TQLogRoot, MachineWideLogFolder)
{
    if (getuid() != 0) GTEST_SKIP() << "needs root";
    if (!inChild()) return expectChildPasses();
    // A link on the way to the folder (as a user could plant one) is not followed.
    const std::string planted = childHome() + "/planted", elsewhere = childHome() + "/elsewhere";
    fs::create_directories(planted);
    fs::create_directories(elsewhere);
    fs::create_directory_symlink(elsewhere, planted + "/Library");
    setenv("TQ_LOCAL_ROOT", planted.c_str(), 1);
    TQLog::createNewLog("Tool");
    TQLog::finishWriting();
    EXPECT_TRUE(fs::is_empty(elsewhere));

    const std::string machine = childHome() + "/machine";
    fs::create_directories(machine);
    setenv("TQ_LOCAL_ROOT", machine.c_str(), 1);
    TQLog::createNewLog("Tool");
    TQLog::createNewLog("Tool");
    TQLog::fastAppendLog("as root");
    TQLog::finishWriting();
    const std::string folder = machine + "/Library/Logs/Brantwell";
    EXPECT_TRUE(fs::exists(folder + "/Tool.1.log") && fs::exists(folder + "/Tool.2.log")) << "rotated there";
    for (const std::string& made : {machine + "/Library", machine + "/Library/Logs", folder}) {
        struct stat st {};
        ASSERT_EQ(::lstat(made.c_str(), &st), 0) << made;
        EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0755) << made;
    }
    EXPECT_FALSE(fs::exists(logDir(childHome())));
    EXPECT_TRUE(TQLog::availableLogs().empty()) << "availableLogs looks in the user folder";
    EXPECT_EQ(logEntries(folder + "/Tool.1.log").back(), "as root");
}

// A link planted at the new, current or oldest name is neither written through nor removed.
TEST(TQLogLinks, PlantedLinksAreNeitherFollowedNorRemoved)
{
    const struct {
        const char* name;
        const char* at;  // the link's file name; {pid} is the child's process id
    } rows[] = {
        {"temporary name", "Tool.1.log.tmp{pid}"}, {"current file", "Tool.1.log"}, {"oldest file", "Tool.5.log"}};
    if (inChild()) {
        const std::string home = childHome(), victim = home + "/victim";
        writeFile(victim, "victim\n");
        writeFile(logPath(home, "Tool", 1), "previous run\n");
        const std::string link =
            logDir(home) + "/" + corvina::replaceAll(rows[childCase()].at, "{pid}", std::to_string(::getpid()));
        if (fs::exists(fs::symlink_status(link))) fs::remove(link);
        fs::create_symlink(victim, link);
        TQLog::createNewLog("Tool");
        TQLog::appendLog("new run");
        TQLog::finishWriting();
        EXPECT_EQ(readFile(victim), "victim\n");
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(logPath(home, "Tool", 1))));
        EXPECT_EQ(logEntries(logPath(home, "Tool", 1)).back(), "new run");
        if (std::string(rows[childCase()].name) == "oldest file") {
            EXPECT_TRUE(fs::is_symlink(link)) << "not this log's to remove";
        }
        return;
    }
    for (int i = 0; i < int(std::size(rows)); ++i) runChild(TempDir().path(), i);
}

// Only "log-level" "verbose" lets sample lines in; each new log reads the level again.
TEST(TQLogPreferences, SampleLinesOnlyWhenVerbose)
{
    using corvina::Value;
    const struct {
        std::optional<Value> level;
        bool written;
        std::optional<Value> before = std::nullopt;  // the level at an earlier log of the run
    } rows[] = {{Value("verbose"), true},
                {Value("Verbose"), true},
                {Value("debug"), false},
                {Value(1), false},
                {std::nullopt, false},
                {Value("verbose"), true, Value("debug")},
                {Value("debug"), false, Value("verbose")}};
    auto setLevel = [](const std::optional<Value>& level) {
        Value::DictionaryType dict;
        if (level) dict.emplace("log-level", *level);
        fs::create_directories(childHome() + "/Library/Preferences");
        ASSERT_TRUE(Value(dict).writeToFile(childHome() + "/Library/Preferences/com.brantwell.global.plist", true));
    };
    auto logSamples = [] {
        TQLog::sampleAppendLog("Requesting next video sample at sample index...");
        const corvina::FormatArg args[] = {1, 2};
        const TQLog::SeriesLine lines[] = {{"Requesting next audio sample at sample index %u,%u...", args, 1}};
        TQLog::sampleAppendLogSeries(2, lines);
    };
    if (inChild()) {
        const auto& row = rows[childCase()];
        if (row.before) {
            setLevel(row.before);
            TQLog::createNewLog("Tool");
            logSamples();
        }
        setLevel(row.level);
        TQLog::createNewLog("Tool");
        logSamples();
        TQLog::appendLog("Summary: done");
        TQLog::finishWriting();
        const auto entries = logEntries(logPath(childHome(), "Tool", 1));
        EXPECT_EQ(std::ranges::count_if(entries, [](const std::string& e) { return e.starts_with("Requesting"); }),
                  row.written ? 3 : 0);
        EXPECT_EQ(entries.back(), "Summary: done");
        return;
    }
    for (int i = 0; i < int(std::size(rows)); ++i) runChild(TempDir().path(), i);
}

// One run of the program for the test below: its whole log, start to summary.
TEST(TQLogStarts, DISABLED_OneRun)
{
    TQLog::createNewLog("Tool");
    TQLog::appendLog("Run %d", childCase());
    TQLog::appendLog("Summary: run %d", childCase());
    TQLog::finishWriting();
}

// Runs starting together take turns at the folder (each seen waiting for the test's lock), so
// every run keeps its whole log; five rounds of four.
TEST(TQLogStarts, RunsStartingTogetherEachKeepTheirWholeLog)
{
    TempDir dir;
    fs::create_directories(logDir(dir.path()));
    const int folder = ::open(logDir(dir.path()).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    constexpr int kRuns = 4;
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        for (int n = 1; n <= 5; ++n) fs::remove(logPath(dir.path(), "Tool", n));
        ASSERT_EQ(::flock(folder, LOCK_EX), 0);
        std::vector<std::unique_ptr<corvina::Process>> runs;
        for (int k = 0; k < kRuns; ++k) {
            auto run = std::make_unique<corvina::Process>();
            run->setLaunchPath("/proc/self/exe");
            run->setArguments(childArguments("TQLogStarts.DISABLED_OneRun"));
            run->setEnvironment(environmentWith(dir.path(), {{"CORVINA_CASE", std::to_string(round * kRuns + k)}}));
            run->setStandardOutput(corvina::Process::Stream::Null);
            run->setStandardError(corvina::Process::Stream::Null);
            run->launch();
            runs.push_back(std::move(run));
        }
        // Each run stops in flock on the folder (or has ended without waiting for it).
        for (auto& run : runs) {
            const std::string syscallFile = "/proc/" + std::to_string(run->processIdentifier()) + "/syscall";
            bool waiting = false;
            while (!waiting && run->isRunning()) {
                waiting = readFile(syscallFile).starts_with(std::to_string(SYS_flock) + " ");
                if (!waiting) std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            EXPECT_TRUE(waiting) << "a run did not wait for the folder's lock";
        }
        ASSERT_EQ(::flock(folder, LOCK_UN), 0);
        std::set<std::string> summaries;
        for (auto& run : runs) run->waitUntilExit();
        for (int n = 1; n <= kRuns; ++n) {
            const auto entries = logEntries(logPath(dir.path(), "Tool", n));
            ASSERT_GE(entries.size(), 3u) << "." << n;  // the header, the run's line, its summary
            EXPECT_TRUE(entries.front().starts_with("Log started: "));
            EXPECT_TRUE(entries.back().starts_with("Summary: run ")) << entries.back();
            EXPECT_EQ(std::ranges::count_if(entries, [](const std::string& e) { return e.starts_with("Summary"); }), 1);
            summaries.insert(entries.back());
        }
        EXPECT_EQ(summaries.size(), size_t(kRuns)) << "each run's log is there once";
    }
    ::close(folder);
}

// With logging switched off, the message is still handed back.
TEST(TQException, LogExceptionWritesTheMessageAsItStands)
{
    const std::string expected =
        "Exception in -[TQTaskEx launchAsyncTask]. NSInvalidArgumentException - path %@ has 5% and %d.";
    if (inChild()) {
        TQLog::createNewLog("Services");
        EXPECT_EQ(
            TQException::logException(corvina::PlatformException("NSInvalidArgumentException", "path %@ has 5% and %d"),
                                      "-[TQTaskEx launchAsyncTask]"),
            expected);
        TQLog::finishWriting();
        const auto log = logEntries(childLogPath());
        if (childCase() == 0) {
            EXPECT_EQ(log.empty() ? "" : log.back(), expected);
        }
        return;
    }
    for (int disabled = 0; disabled < 2; ++disabled) {
        TempDir home;
        if (disabled)
            writeFile(home / "Library/Preferences/com.brantwell.global.plist",
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>disable-logging</key>"
                      "<string>1</string></dict></plist>");
        EXPECT_EQ(runChild(home.path(), disabled).printed,
                  disabled ? "Logging is disabled\n" : TQLog::consoleCopy(expected) + "\n");
    }
}

}  // namespace corvina::tq
