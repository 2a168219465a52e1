#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "Foundation/Exception.h"
#include "Foundation/StringUtils.h"
#include "Foundation/Value.h"
#include "TQLog.h"
#include "TestSupport.h"

using namespace corvina::test;
namespace fs = std::filesystem;

namespace {

std::string logDir(const std::string& home) { return home + "/Library/Logs/Brantwell"; }
std::string logPath(const std::string& home, const std::string& name, int n)
{
    return logDir(home) + "/" + name + "." + std::to_string(n) + ".log";
}

void expectChildOk(const ChildResult& r)
{
    EXPECT_TRUE(r.exitedCleanly()) << "child status " << r.status;
    EXPECT_EQ(r.failures, "");
}

// The reference escaping: the replacements one after the other over the whole text.
std::string referenceEscape(const std::string& text)
{
    if (text.find('%') == std::string::npos)
        return text;
    std::string s = text;
    for (const char* c : {" ", ".", "!", ",", "-", ";", ":", "+"})
        s = corvina::replaceAll(s, std::string("%") + c, std::string("%%") + c);
    return corvina::replaceAll(s, "%%%", "%%");
}

}  // namespace

TEST(TQLogEscaping, TableOfFormats)
{
    const struct {
        const char* in;
        const char* out;
    } rows[] = {
        {"no percent", "no percent"},
        {"Progress: 50% done", "Progress: 50%% done"},
        {"Copied %@ (100% done)", "Copied %@ (100%% done)"},
        {"%.1f", "%%.1f"},
        {"%0.2f GB", "%0.2f GB"},
        {"%5.1f", "%5.1f"},
        {"a%!b%,c%-d%;e%:f%+g", "a%%!b%%,c%%-d%%;e%%:f%%+g"},
        {"already %% done", "already %% done"},
        {"100%", "100%"},
        {"%d items", "%d items"},
        {"%% ", "%% "},
        {"%%%", "%%"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(TQLog::escapeTextForLogging(row.in), row.out) << row.in;
        EXPECT_EQ(TQLog::escapeTextForLogging(row.in), referenceEscape(row.in)) << row.in;
    }
}

TEST(TQLogEscaping, AgreesWithSuccessiveReplacementsOnRandomTexts)
{
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

TEST(TQLogEscaping, ConsoleCopy)
{
    const struct {
        std::string in;
        std::string out;
    } rows[] = {
        {"Done: 100% ok", "Done: 100%% ok"},
        {"left %@ here", "left  here"},
        {std::string("nul\0byte", 8), "nulbyte"},
        {"", ""},
        {"%%", "%%%%"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(TQLog::consoleCopy(row.in), row.out) << row.in;
}

// Every subset of existing .1 to .5 files: .5 goes, the rest shift up by one, all only
// when a current .1 exists.
TEST(TQLogRotation, AllSubsetsOfExistingFiles)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        for (int mask = 0; mask < 32; ++mask) {
            const std::string home = dir.path() + "/case" + std::to_string(mask);
            setenv("HOME", home.c_str(), 1);
            setenv("TQ_LOCAL_ROOT", home.c_str(), 1);
            for (int n = 1; n <= 5; ++n) {
                if (mask & (1 << (n - 1)))
                    writeFile(logPath(home, "Tool", n), "old" + std::to_string(n) + "\n");
            }
            TQLog::createNewLog("Tool");
            TQLog::finishWriting();
            const bool rotate = mask & 1;
            for (int n = 2; n <= 5; ++n) {
                std::string expected;  // "" = missing
                if (rotate) {
                    if (mask & (1 << (n - 2)))
                        expected = "old" + std::to_string(n - 1) + "\n";
                } else if (mask & (1 << (n - 1))) {
                    expected = "old" + std::to_string(n) + "\n";
                }
                const std::string path = logPath(home, "Tool", n);
                const std::string what = "case " + std::to_string(mask) + " file ." + std::to_string(n);
                if (expected.empty())
                    c.expect(!fs::exists(path), what + " should be missing");
                else
                    c.equal(readFile(path), expected, what);
            }
            auto current = splitLines(readFile(logPath(home, "Tool", 1)));
            c.expect(!current.empty() && entryText(current[0]).rfind("Log started: ", 0) == 0,
                     "case " + std::to_string(mask) + " new .1 starts with the header");
        }
    });
    expectChildOk(r);
}

TEST(TQLogRotation, FailedMoveIsReportedAndStops)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        const std::string home = dir.path();
        writeFile(logPath(home, "Tool", 1), "one\n");
        writeFile(logPath(home, "Tool", 4), "four\n");
        // A non-empty folder in place of .5 can neither be removed nor replaced.
        writeFile(logPath(home, "Tool", 5) + "/keep", "x");
        TQLog::createNewLog("Tool");
        TQLog::finishWriting();
        c.equal(readFile(logPath(home, "Tool", 4)), "four\n", ".4 untouched");
        c.equal(readFile(logPath(home, "Tool", 1)), "one\n", ".1 untouched");
        c.expect(!TQLog::sharedController().hasFileHandle(), "no open log");
    });
    expectChildOk(r);
    const std::string four = logPath(dir.path(), "Tool", 4), five = logPath(dir.path(), "Tool", 5);
    EXPECT_NE(r.out.find("Unable to move file " + four + " to " + five + ".\n"), std::string::npos) << r.out;
}

TEST(TQLogCreate, FolderThatCannotBeCreatedIsReported)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        const std::string home = dir.path() + "/afile";
        writeFile(home, "not a folder");
        setenv("HOME", home.c_str(), 1);
        setenv("TQ_LOCAL_ROOT", home.c_str(), 1);
        TQLog::createNewLog("Tool");
        c.expect(!TQLog::sharedController().hasFileHandle(), "no open log");
    });
    expectChildOk(r);
    EXPECT_EQ(r.out, "Unable to create folder " + dir.path() + "/afile/Library/Logs/Brantwell.\n");
}

TEST(TQLogCreate, HeaderFirstNameWinsAndAvailableLogs)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("First");
        TQLog::createNewLog("Second");
        TQLog::finishWriting();
        c.equal(TQLog::sharedController().appName(), "First", "first name kept");
        c.expect(!fs::exists(logPath(dir.path(), "Second", 1)), "no log under the second name");
        c.expect(entryText(splitLines(readFile(logPath(dir.path(), "First", 2)))[0]).rfind("Log started", 0) == 0,
                 "the first header stays in the first file");
        auto logs = TQLog::availableLogs();
        c.expect(logs == std::vector<std::string>{logPath(dir.path(), "First", 1), logPath(dir.path(), "First", 2)},
                 "available logs .1 and .2");
        auto ls = splitLines(readFile(logPath(dir.path(), "First", 1)));
        std::vector<std::string> texts;
        for (const auto& l : ls)
            texts.push_back(entryText(l));
        c.expect(texts.size() >= 4, "header lines");
        if (texts.size() >= 4) {
            c.expect(texts[0].rfind("Log started: ", 0) == 0 && texts[0].size() == 13 + 25, texts[0]);
            c.expect(ls[0].substr(25, 3) == " - ", "date prefix then \" - \"");
            c.expect(texts.back() == "Running in 64-bit mode", texts.back());
            bool system = false, path = false;
            for (const auto& t : texts) {
                system |= t.rfind("System: macOS ", 0) == 0 && t.find(" CPU(s), ") != std::string::npos &&
                          t.size() > 7 && t.substr(t.size() - 7) == " GB RAM";
                path |= t.rfind("Path: /", 0) == 0;
            }
            c.expect(system, "System line");
            c.expect(path, "Path line");
        }
    });
    expectChildOk(r);
}

TEST(TQLogCreate, DefaultNameIsTheExecutableName)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog();
        TQLog::finishWriting();
        c.expect(fs::exists(logPath(dir.path(), "SharedFilesTests", 1)), "SharedFilesTests.1.log");
    });
    expectChildOk(r);
}

TEST(TQLogPreferences, DisableLoggingValues)
{
    using corvina::Value;
    const struct {
        const char* name;
        std::optional<Value> value;  // none: key missing
        bool disables;
    } rows[] = {
        {"string 1", Value("1"), true},
        {"number 1", Value(1), true},
        {"real 1.0", Value(1.0), true},
        {"boolean true", Value(true), true},
        {"string 0", Value("0"), false},
        {"string true", Value("true"), false},
        {"string 1.0", Value("1.0"), false},
        {"number 0", Value(0), false},
        {"number 2", Value(2), false},
        {"boolean false", Value(false), false},
        {"missing key", std::nullopt, false},
    };
    for (const auto& row : rows) {
        TempDir dir;
        Value::DictionaryType dict{{"other", Value("x")}};
        if (row.value)
            dict.emplace("disable-logging", *row.value);
        fs::create_directories(dir.path() + "/Library/Preferences");
        ASSERT_TRUE(Value(dict).writeToFile(dir.path() + "/Library/Preferences/com.brantwell.global.plist", true));
        auto r = runInChild(dir.path(), [&](Checks& c) {
            TQLog::createNewLog("Tool");
            TQLog::appendLogAndPrint("after %d", 1);
            TQLog::createNewLog("Tool");
            TQLog::finishWriting();
            c.equal(TQLog::sharedController().loggingDisabled() ? "disabled" : "enabled",
                    row.disables ? "disabled" : "enabled", row.name);
        });
        expectChildOk(r);
        EXPECT_EQ(fs::exists(logPath(dir.path(), "Tool", 1)), !row.disables) << row.name;
        EXPECT_EQ(r.out, row.disables ? "Logging is disabled\n" : "after 1\n") << row.name;
    }
}

TEST(TQLogPreferences, MalformedOrWrongRootTypeLeavesLoggingOn)
{
    const char* files[] = {
        "this is not a property list",
        "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>disable-logging</string></array></plist>",
        "<?xml version=\"1.0\"?><plist version=\"1.0\"><string>1</string></plist>",
        "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>disable-logging</key>",
        "",
    };
    for (const char* text : files) {
        TempDir dir;
        writeFile(dir.path() + "/Library/Preferences/com.brantwell.global.plist", text);
        auto r = runInChild(dir.path(), [&](Checks& c) {
            TQLog::createNewLog("Tool");
            TQLog::finishWriting();
            c.expect(!TQLog::sharedController().loggingDisabled(), std::string("enabled for: ") + text);
        });
        expectChildOk(r);
        EXPECT_TRUE(fs::exists(logPath(dir.path(), "Tool", 1))) << text;
    }
}

TEST(TQLogWriting, TextsAsWritten)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        TQLog::finishWriting();
        auto& log = TQLog::sharedController();
        const uint64_t before = log.bytesWritten();
        TQLog::appendLog("");
        TQLog::appendLog(" \n\t ");
        TQLog::appendLog(nullptr);
        TQLog::finishWriting();
        c.expect(log.bytesWritten() == before && log.bytesInQueue() == 0, "blank texts change nothing");

        TQLog::appendLog("Progress: 50% done");
        TQLog::appendLog("Copied %@ (100% done)", std::string("clip.mov"));
        TQLog::appendLog("%.1f", 2.5);
        TQLog::appendLog("%0.2f GB", 1.5);
        TQLog::fastAppendLog("  two leading blanks\n");
        TQLog::appendLog("line one\nline two");
        TQLog::appendLogAndDebugPrint("debug %d%%", 7);
        TQLog::debugPrint("never %d", 1);
        TQLog::appendLogAndPrint("Done: 100% ok");
        TQLog::appendLogAndPrint("");
        TQLog::appendLogAndPrint("%@ and %d", std::string("50%"), 3);
        TQLog::finishWriting();
        c.expect(log.bytesInQueue() == 0, "queue empty");

        auto ls = splitLines(readFile(logPath(dir.path(), "Tool", 1)));
        std::vector<std::string> tail;
        for (size_t i = 0; i < ls.size(); ++i)
            if (entryText(ls[i]).rfind("Running in 64-bit mode", 0) == 0)
                tail.assign(ls.begin() + static_cast<long>(i) + 1, ls.end());
        const std::vector<std::string> expected = {
            "Progress: 50% done", "Copied clip.mov (100% done)", "%.1f", "1.50 GB", "two leading blanks",
            "line one", "line two", "debug 7%", "Done: 100% ok", "50% and 3",
        };
        c.expect(tail.size() == expected.size(), "entry count " + std::to_string(tail.size()));
        for (size_t i = 0; i < tail.size() && i < expected.size(); ++i) {
            // The second line of a multi-line text carries no date.
            std::string text = expected[i] == "line two" ? tail[i] : entryText(tail[i]);
            c.equal(text, expected[i], "entry " + std::to_string(i));
        }
        const uint64_t size = fs::file_size(logPath(dir.path(), "Tool", 1));
        c.expect(size == log.bytesWritten(), "bytesWritten matches the file size");
    });
    expectChildOk(r);
    EXPECT_EQ(r.out, "Done: 100%% ok\n\n50%% and 3\n");
}

namespace {
struct Clip {
    std::string description() const { return " clip 7% "; }
};
}  // namespace

// fastAppendLog hands its format and arguments to the writer to format; each row must come
// out as appendLog, which formats on the caller's thread, writes it.
TEST(TQLogWriting, FormatsOnTheWriterAsOnTheCaller)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        const Clip clip;
        const char* none = nullptr;
        const std::string text = "  padded\n";
        int count = 0;
        auto both = [&](auto... args) {
            TQLog::appendLog(args...);
            TQLog::fastAppendLog(args...);
            count += 2;
        };
        both("index %u,%u...", 7u, 4294967295u);
        both("%d %i %ld %lld %x %X %o", -5, 42, -1L, 1LL << 40, 255, 255u, 8);
        both("%@ / %s / %@", clip, none, text);
        both("%5.1f|%0.2f|%e|%g|%@|%@", 2.25, 1.0 / 3, 12345.678, 0.0001, 29.97f, 29.97);
        both("%c%c %p %@", 'a', static_cast<unsigned char>('b'), static_cast<const void*>(&clip), nullptr);
        both("%2$@ then %1$@", std::string("one"), std::string("two"));
        both("Progress: 50% done %d", 3);
        both("%@", std::string(" \t "));  // nothing left after trimming
        both("%-6d|%06.1f|%*d", 12, 3.14159, 4, 9);
        TQLog::finishWriting();
        auto ls = splitLines(readFile(logPath(dir.path(), "Tool", 1)));
        std::vector<std::string> texts;
        for (size_t i = ls.size() >= 16 ? ls.size() - 16 : 0; i < ls.size(); ++i)
            texts.push_back(entryText(ls[i]));
        c.expect(texts.size() == 16 && count == 18, "entries " + std::to_string(texts.size()));
        for (size_t i = 0; i + 1 < texts.size(); i += 2)
            c.equal(texts[i + 1], texts[i], "row " + std::to_string(i / 2));
        c.expect(texts.size() == 16 && texts[0] == "index 7,4294967295...", texts.empty() ? "" : texts[0]);
        c.expect(texts.size() == 16 && texts[4] == "clip 7%  / (null) /   padded", texts.size() > 4 ? texts[4] : "");
    });
    expectChildOk(r);
}

TEST(TQLogWriting, NothingWhenDisabled)
{
    TempDir dir;
    writeFile(dir.path() + "/Library/Preferences/com.brantwell.global.plist",
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>disable-logging</key>"
                      "<true/></dict></plist>");
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        TQLog::appendLogAndPrint("must not print %d", 1);
        TQLog::appendLog("must not write");
        TQLog::finishWriting();
        c.expect(TQLog::sharedController().bytesInQueue() == 0, "nothing queued");
    });
    expectChildOk(r);
    EXPECT_EQ(r.out, "Logging is disabled\n");
    EXPECT_FALSE(fs::exists(logDir(dir.path())));
}

TEST(TQLogWriting, MissingLogFileIsReportedPerText)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks&) {
        TQLog::fastAppendLog("first %d", 1);
        TQLog::fastAppendLog("second");
        TQLog::finishWriting();
        TQLog::sharedController().setNoPrinting(true);
        TQLog::fastAppendLog("silent");
        TQLog::finishWriting();
    });
    expectChildOk(r);
    EXPECT_EQ(r.out,
              "Unable to log the following information: first 1\nUnable to open log for output\n"
              "Unable to log the following information: second\nUnable to open log for output\n");
}

TEST(TQLogWriting, ReopensAnExistingFileWhenNoneIsOpen)
{
    TempDir dir;
    writeFile(logPath(dir.path(), "SharedFilesTests", 1), "earlier\n");
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::fastAppendLog("appended");
        TQLog::finishWriting();
        auto ls = splitLines(readFile(logPath(dir.path(), "SharedFilesTests", 1)));
        c.expect(ls.size() == 2 && ls[0] == "earlier" && entryText(ls[1]) == "appended", "appended at the end");
    });
    expectChildOk(r);
    EXPECT_EQ(r.out, "");
}

// A file at 499,990 bytes that receives a 40-byte entry ends with it at 500,030 bytes.
TEST(TQLogWriting, RestartAtTheSizeLimit)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        TQLog::finishWriting();
        auto& log = TQLog::sharedController();
        // Fill to exactly 499,990 bytes; each entry is its text plus 29 bytes.
        uint64_t remaining = 499990 - log.bytesWritten();
        while (remaining > 0) {
            uint64_t entry = remaining >= 1029 + 40 ? 1029 : remaining;
            TQLog::fastAppendLog(std::string(entry - 29, 'f'));
            remaining -= entry;
        }
        TQLog::finishWriting();
        c.expect(log.bytesWritten() == 499990, "filled to 499990: " + std::to_string(log.bytesWritten()));
        TQLog::fastAppendLog("crosses-it!");  // 11 characters + 29 = 40 bytes
        TQLog::fastAppendLog("after");
        TQLog::finishWriting();
        const std::string old = readFile(logPath(dir.path(), "Tool", 2));
        c.expect(old.size() == 500030, "old file size " + std::to_string(old.size()));
        auto oldLines = splitLines(old);
        c.expect(!oldLines.empty() && entryText(oldLines.back()) == "crosses-it!", "crossing entry ends the old file");
        auto ls = splitLines(readFile(logPath(dir.path(), "Tool", 1)));
        std::vector<std::string> texts;
        for (const auto& l : ls)
            texts.push_back(entryText(l));
        c.expect(!texts.empty() && texts[0].rfind("Log started: ", 0) == 0, "new file starts with the header");
        c.expect(texts.size() >= 2 && texts[texts.size() - 2] == "Log truncated at 500KB", "truncation line");
        c.expect(!texts.empty() && texts.back() == "after", "queued entry follows in the new file");
    });
    expectChildOk(r);
}

TEST(TQLogWaiting, MainThreadNeverWaitsBackgroundShortTextDoes)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        TQLog::finishWriting();
        TQLog::suspendWriterForTesting(true);
        // On the main thread: returns at once although the writer takes nothing.
        TQLog::appendLog("main %d", 1);
        // A long text from a background thread does not wait either.
        std::thread([] { TQLog::appendLog("%@", std::string(100, 'x')); }).join();
        c.expect(TQLog::sharedController().queuedEntryCount() == 2, "both queued");
        TQLog::suspendWriterForTesting(false);
        TQLog::finishWriting();

        TQLog::suspendWriterForTesting(true);
        std::atomic<bool> returned{false};
        std::thread t([&] {
            TQLog::appendLog("ten chars!");
            returned = true;
        });
        while (TQLog::sharedController().queuedEntryCount() == 0)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        c.expect(!returned, "background appendLog waits for the writer");
        TQLog::suspendWriterForTesting(false);
        t.join();
        auto ls = splitLines(readFile(logPath(dir.path(), "Tool", 1)));
        c.expect(!ls.empty() && entryText(ls.back()) == "ten chars!", "written before appendLog returned");
    });
    expectChildOk(r);
}

class TQLogShutdown : public ::testing::TestWithParam<int> {};

TEST_P(TQLogShutdown, TenQueuedAreWrittenElevenAreNot)
{
    const int queued = GetParam();
    TempDir dir;
    auto r = runInChild(
        dir.path(),
        [&](Checks&) {
            TQLog::createNewLog("Tool");
            TQLog::finishWriting();
            TQLog::suspendWriterForTesting(true);
            for (int i = 0; i < queued; ++i)
                TQLog::fastAppendLog("queued %d", i);
        },
        true);
    expectChildOk(r);
    const std::string text = readFile(logPath(dir.path(), "Tool", 1));
    int found = 0;
    for (const auto& l : splitLines(text))
        found += entryText(l).rfind("queued ", 0) == 0;
    EXPECT_EQ(found, queued <= 10 ? queued : 0);
}

INSTANTIATE_TEST_SUITE_P(Counts, TQLogShutdown, ::testing::Values(0, 1, 10, 11, 50));

TEST(TQLogShutdown, LinesAfterShutdownAreDropped)
{
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        TQLog::createNewLog("Tool");
        TQLog::willTerminate();
        TQLog::appendLog("late");
        TQLog::finishWriting();
        c.expect(!TQLog::sharedController().hasWriteQueue(), "no write queue");
        c.expect(!TQLog::sharedController().hasFileHandle(), "no file handle");
        c.expect(readFile(logPath(dir.path(), "Tool", 1)).find("late") == std::string::npos, "late dropped");
    });
    expectChildOk(r);
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
    for (const auto& row : rows) {
        TempDir dir;
        auto r = runInChild(dir.path(), [&](Checks&) {
            TQLog::createNewLog("Tool");
            for (int i = 0; i < 50; ++i)
                TQLog::fastAppendLog("before %d", i);
            std::thread(row.raise).join();
        });
        EXPECT_TRUE(WIFSIGNALED(r.status) && WTERMSIG(r.status) == SIGABRT) << row.name << " status " << r.status;
        auto ls = splitLines(readFile(logPath(dir.path(), "Tool", 1)));
        ASSERT_FALSE(ls.empty()) << row.name;
        EXPECT_EQ(entryText(ls.back()), row.expected) << row.name;
        EXPECT_EQ(entryText(ls[ls.size() - 2]), "before 49") << row.name;
    }
}

// As root the log lives in the machine-wide library, rotated there; availableLogs still
// looks in the user's folder.
TEST(TQLogRoot, MachineWideLogFolder)
{
    if (getuid() != 0)
        GTEST_SKIP() << "needs root";
    TempDir dir;
    auto r = runInChild(dir.path(), [&](Checks& c) {
        const std::string machine = dir.path() + "/machine";
        fs::create_directories(machine);
        setenv("TQ_LOCAL_ROOT", machine.c_str(), 1);
        TQLog::createNewLog("Tool");
        TQLog::createNewLog("Tool");
        TQLog::fastAppendLog("as root");
        TQLog::finishWriting();
        const std::string folder = machine + "/Library/Logs/Brantwell";
        c.expect(fs::exists(folder + "/Tool.1.log") && fs::exists(folder + "/Tool.2.log"), "rotated in the machine folder");
        c.expect(!fs::exists(logDir(dir.path())), "user log folder untouched");
        c.expect(TQLog::availableLogs().empty(), "availableLogs looks in the user folder");
        auto ls = splitLines(readFile(folder + "/Tool.1.log"));
        c.expect(!ls.empty() && entryText(ls.back()) == "as root", "entry written");
    });
    expectChildOk(r);
}
