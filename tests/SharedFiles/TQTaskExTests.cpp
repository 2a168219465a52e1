#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>

#include "support/TestSupport.h"
#include "tq/TQLog.h"
#include "tq/TQTaskEx.h"

namespace corvina::tq {

using namespace corvina::test;

namespace {

std::string asText(const std::optional<TQTaskEx::Data>& data)
{
    return data ? std::string(data->begin(), data->end()) : std::string("<none>");
}

}  // namespace

TEST(TQTaskExData, ReturnsOutputElseErrorElseAnEmptyBuffer)
{
    EXPECT_EQ(asText(TQTaskEx::dataFromTask("/bin/sh", {"-c", "printf out; printf err >&2"})), "out");
    EXPECT_EQ(asText(TQTaskEx::dataFromTask("/bin/sh", {"-c", "printf 'only error' >&2; exit 2"})), "only error");
    const auto nothing = TQTaskEx::dataFromTask("/bin/true", {});
    ASSERT_TRUE(nothing.has_value()) << "a silent tool gives an empty buffer, not none";
    EXPECT_TRUE(nothing->empty());
    // Error not captured: it goes to the null device and cannot stand in for the output.
    const auto discarded =
        TQTaskEx::dataFromTask("/bin/sh", {"-c", "echo lost >&2"}, nullptr, std::nullopt, true, false);
    ASSERT_TRUE(discarded.has_value());
    EXPECT_TRUE(discarded->empty());
}

TEST(TQTaskExData, EnvironmentReplacesTheCallersAndTaskIsHandedOut)
{
    TQTaskEx::Task task;
    const auto data = TQTaskEx::dataFromTask("/usr/bin/env", {}, &task, TQTaskEx::Environment{{"LANG", "C"}});
    EXPECT_EQ(asText(data), "LANG=C\n");
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->launchPath(), "/usr/bin/env");
}

// What may run is the platform's executable check; here only that every form applies it,
// package folders included.
TEST(TQTaskExData, ToolsThatCannotRunGiveNoneMinusOneOrFalse)
{
    TempDir scratch;
    std::filesystem::create_directories(scratch / "Player.app");
    for (const std::string& tool : {scratch / "missing", scratch / "Player.app", std::string()}) {
        EXPECT_FALSE(TQTaskEx::dataFromTask(tool, {}).has_value()) << tool;
        EXPECT_EQ(TQTaskEx::terminationCodeFromTask(tool), -1) << tool;
        EXPECT_EQ(TQTaskEx::runTaskAndReturn(tool), nullptr) << tool;
        EXPECT_FALSE(TQTaskEx::runTask(tool)) << tool;
    }
    EXPECT_EQ(TQTaskEx::terminationCodeFromTask("/bin/sh", {"-c", "exit 7"}), 7);
    EXPECT_TRUE(TQTaskEx::runTask("/bin/false")) << "runTask succeeds whatever the exit status";
    // A relative path is not checked first; its launch fails and is reported as false.
    EXPECT_FALSE(TQTaskEx::runTask("no-such-tool-here"));
}

TEST(TQTaskExString, DecodesOrGivesEmptyForToolsThatCannotRun)
{
    EXPECT_EQ(TQTaskEx::stringFromTask("/bin/echo", {"hello"}), "hello\n");
    EXPECT_EQ(TQTaskEx::stringFromTask("/nonexistent/tool", {}), "");
    // Bytes outside ASCII do not decode in the default encoding, but do as UTF-8.
    EXPECT_EQ(TQTaskEx::stringFromTask("/bin/printf", {"caf\\303\\251"}), std::nullopt);
    EXPECT_EQ(TQTaskEx::stringFromTask("/bin/printf", {"caf\\303\\251"}, TQTaskEx::Encoding::UTF8), "caf\xC3\xA9");
    EXPECT_EQ(TQTaskEx::stringFromTask("/bin/printf", {"\\377"}, TQTaskEx::Encoding::UTF8), std::nullopt);
}

TEST(TQTaskExLog, FailuresAreLoggedInTheirOwnWords)
{
    if (!inChild()) return expectChildPasses();
    const std::string bundle = childHome() + "/Tools/Editor.app";
    std::filesystem::create_directories(bundle);
    TQLog::createNewLog("Services");
    TQLog::sharedController().setNoPrinting(true);
    EXPECT_EQ(TQTaskEx::terminationCodeFromTask(bundle), -1);
    EXPECT_FALSE(TQTaskEx::runTask("relative-tool"));
    TQLog::finishWriting();
    const auto log = logEntries(childLogPath());
    EXPECT_EQ(std::ranges::count(log, "Error: " + bundle + " is not executable"), 1);
    EXPECT_THAT(log, testing::Contains(testing::StartsWith("Exception running task relative-tool: ")));
}

TEST(TQTaskExTimeoutConcurrency, TerminatesTheToolAfterWholeSecondsAndLogsOnce)
{
    if (!inChild()) return expectChildPasses();
    TQLog::createNewLog("Services");
    TQLog::sharedController().setNoPrinting(true);
    // 2.9 s counts as 2 s; the tool would sleep 10 s. The caller (the main thread) is
    // blocked reading the tool's output when the time-out ends it.
    const auto data =
        TQTaskEx::dataFromTask("/bin/sh", {"-c", "echo begun; exec sleep 10"}, std::chrono::duration<double>(2.9));
    EXPECT_EQ(asText(data), "begun\n") << "what was collected before the termination";
    TQLog::finishWriting();
    EXPECT_EQ(std::ranges::count(logEntries(childLogPath()), "Task /bin/sh timed out. Terminating..."), 1);
}

TEST(TQTaskExTimeoutConcurrency, EndsTheToolsWholeGroupWithinTheGracePeriod)
{
    // Each tool leaves work to a process of its own; a time-out of 1 s must end that process
    // as well, killing it after the grace period when it ignores the terminate signal.
    using Clock = std::chrono::steady_clock;
    // The tools would run for a minute; the bound leaves a slow machine ample time for the
    // time-out, the grace period and the shell's start, and still tells an ended group from
    // one left to run.
    const double latest = 1.0 + double(TQTaskEx::kTerminationGrace.count()) + 20.0;
    struct Case {
        const char* script;
        int form;  // 0 data, 1 success, 2 exit status
        double atLeast;
    } cases[] = {
        {"sleep 60; echo late", 0, 0.9},
        {"sleep 60 & echo $!; wait", 0, 0.9},
        {"(trap '' TERM; exec sleep 60) & echo $!", 0, 2.9},  // the tool itself is long gone
        {"trap '' TERM; sleep 60", 1, 2.9},
        {"sleep 60 & echo $! > \"$0\"; wait", 2, 0.9},
    };
    TempDir dir;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.script);
        const std::string pidFile = dir / "pid";
        std::filesystem::remove(pidFile);
        const TQTaskEx::Arguments args = {"-c", c.script, pidFile};
        const TQTaskEx::Timeout timeout(1.0);
        const auto start = Clock::now();
        std::string printed;
        if (c.form == 0) printed = asText(TQTaskEx::dataFromTask("/bin/sh", args, timeout));
        if (c.form == 1) TQTaskEx::runTask("/bin/sh", args, timeout);
        if (c.form == 2) {
            EXPECT_NE(TQTaskEx::terminationCodeFromTask("/bin/sh", args, timeout), 0);
        }
        const double took = std::chrono::duration<double>(Clock::now() - start).count();
        EXPECT_GE(took, c.atLeast);
        EXPECT_LT(took, latest);
        EXPECT_EQ(printed.find("late"), std::string::npos);
        // The grandchild is gone (or a zombie waiting for whoever adopted it).
        if (c.form == 2) printed = readFile(pidFile);
        const std::string pid = printed.substr(0, printed.find('\n'));
        if (pid.empty()) continue;
        // A SIGKILL is sent by then; on a loaded machine the process may take a while to die.
        const auto gone = [&](std::string* stat) {
            *stat = readFile("/proc/" + pid + "/stat");
            const auto close = stat->rfind(')');
            return stat->empty() || (close != std::string::npos && stat->substr(close + 2, 1) == "Z");
        };
        std::string stat;
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        while (!gone(&stat) && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_TRUE(gone(&stat)) << stat;
    }
}

TEST(TQTaskExTimeoutConcurrency, EarlierRunsTimerNeverReachesALaterRun)
{
    TQTaskEx runner;
    runner.runTaskWithTimeout("/bin/true", {}, std::chrono::seconds(1));
    EXPECT_EQ(runner.theTask(), nullptr);
    // This run outlasts the first run's time-out; only its own (longer) one applies.
    EXPECT_EQ(
        runner.terminationCodeFromTaskWithTimeout("/bin/sh", {"-c", "sleep 1.5; exit 4"}, std::chrono::seconds(30)), 4);
    EXPECT_EQ(runner.theTask(), nullptr);
    runner.timeout();  // nothing in progress: nothing happens
}

}  // namespace corvina::tq
