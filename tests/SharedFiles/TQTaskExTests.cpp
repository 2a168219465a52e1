// Tools run to their end, in the background, and under time-outs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "tq/TQLog.h"
#include "tq/TQTaskEx.h"

namespace fs = std::filesystem;

namespace corvina::tq {

using namespace corvina::test;

namespace {

std::string asText(const std::optional<TQTaskEx::Data>& data)
{
    return data ? std::string(data->begin(), data->end()) : std::string("<none>");
}

// Collects the chunks of one background run, with what came along with each.
class Chunks {
public:
    TQTaskEx::ChunkHandler handler()
    {
        return [this](const TQTaskEx::Data& chunk, TQTaskEx& task, const std::any& object) {
            std::lock_guard lock(mutex_);
            chunks_.emplace_back(chunk.begin(), chunk.end());
            objects_.push_back(object.has_value() ? std::any_cast<std::string>(object) : "<none>");
            allFrom_ = chunks_.size() == 1 || allFrom_ == &task ? &task : nullptr;
            onReader_ = onReader_ && std::this_thread::get_id() != caller_;
            if (!acknowledge_.empty()) writeFile(acknowledge_ + "/" + std::to_string(chunks_.size()), "");
            cv_.notify_all();
        };
    }
    // Until the end chunk (or, with first, any chunk) arrived; false after 30 s.
    bool wait(bool first = false)
    {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(30),
                            [&] { return !chunks_.empty() && (first || chunks_.back().empty()); });
    }
    std::vector<std::string> chunks()
    {
        std::lock_guard lock(mutex_);
        return chunks_;
    }
    std::vector<std::string> objects_;
    std::string acknowledge_;      // a folder that receives a file named after each chunk's number
    TQTaskEx* allFrom_ = nullptr;  // the instance every chunk named, null if they differ
    bool onReader_ = true;

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> chunks_;
    std::thread::id caller_ = std::this_thread::get_id();
};

size_t openDescriptors()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

// True once the condition holds; false when it still does not after 30 s.
template <class Condition>
bool eventually(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// True once the process is gone (reaped), not merely a zombie.
bool gone(pid_t pid)
{
    return eventually([pid] { return !fs::exists("/proc/" + std::to_string(pid)); });
}

std::string joined(const std::vector<std::string>& chunks)
{
    std::string all;
    for (const auto& c : chunks) all += c;
    return all;
}

}  // namespace

TEST(TQTaskExData, ReturnsOutputElseErrorElseAnEmptyBuffer)
{
    TQTaskEx::Task task;
    EXPECT_EQ(asText(TQTaskEx::dataFromTask("/usr/bin/env", {}, &task, TQTaskEx::Environment{{"LANG", "C"}})),
              "LANG=C\n");
    ASSERT_NE(task, nullptr) << "the task is handed out";
    EXPECT_EQ(task->launchPath(), "/usr/bin/env");
    EXPECT_EQ(asText(TQTaskEx::dataFromTask("/bin/sh", {"-c", "printf out; printf err >&2"})), "out");
    EXPECT_EQ(asText(TQTaskEx::dataFromTask("/bin/sh", {"-c", "printf 'only error' >&2; exit 2"})), "only error");
    EXPECT_EQ(asText(TQTaskEx::dataFromTask("/bin/true", {})), "") << "a silent tool gives an empty buffer, not none";
    // Error not captured: it goes to the null device and cannot stand in for the output.
    EXPECT_EQ(asText(TQTaskEx::dataFromTask("/bin/sh", {"-c", "echo lost >&2"}, nullptr, std::nullopt, true, false)),
              "");
}

// Every form applies the platform's executable check, package folders included.
TEST(TQTaskExData, ToolsThatCannotRunGiveNoneMinusOneOrFalse)
{
    TempDir scratch;
    fs::create_directories(scratch / "Player.app");
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
    fs::create_directories(bundle);
    TQLog::createNewLog("Services");
    TQLog::sharedController().setNoPrinting(true);
    EXPECT_EQ(TQTaskEx::terminationCodeFromTask(bundle), -1);
    EXPECT_FALSE(TQTaskEx::runTask("relative-tool"));
    TQTaskEx task;
    Chunks chunks;
    task.asyncDataFromTask("/nonexistent/tool", {}, chunks.handler());
    EXPECT_TRUE(eventually([&] { return task.theTask() == nullptr; }));
    TQLog::finishWriting();
    const auto log = logEntries(childLogPath());
    EXPECT_EQ(std::ranges::count(log, "Error: " + bundle + " is not executable"), 1);
    EXPECT_THAT(log, testing::Contains(testing::StartsWith("Exception running task relative-tool: ")));
    EXPECT_EQ(std::ranges::count(log, "Unable to launch async task - task does not exist or is not executable"), 1);
    EXPECT_TRUE(chunks.chunks().empty()) << "a background run that never started delivers nothing";
}

TEST(TQTaskExTimeoutConcurrency, TerminatesTheToolAfterWholeSecondsAndLogsOnce)
{
    if (!inChild()) return expectChildPasses();
    TQLog::createNewLog("Services");
    TQLog::sharedController().setNoPrinting(true);
    // 2.9 s counts as 2 s; the main thread is blocked reading when the time-out ends the tool.
    const auto data =
        TQTaskEx::dataFromTask("/bin/sh", {"-c", "echo begun; exec sleep 10"}, std::chrono::duration<double>(2.9));
    EXPECT_EQ(asText(data), "begun\n") << "what was collected before the termination";
    TQLog::finishWriting();
    EXPECT_EQ(std::ranges::count(logEntries(childLogPath()), "Task /bin/sh timed out. Terminating..."), 1);
}

TEST(TQTaskExTimeoutConcurrency, EndsTheToolsWholeGroupWithinTheGracePeriod)
{
    // A time-out ends the tool's whole group, killing what ignores the terminate signal.
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
        fs::remove(pidFile);
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
        std::string stat;
        EXPECT_TRUE(eventually([&] {
            stat = readFile("/proc/" + pid + "/stat");
            const auto close = stat.rfind(')');
            return stat.empty() || (close != std::string::npos && stat.substr(close + 2, 1) == "Z");
        })) << stat;
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

TEST(TQTaskExAsyncConcurrency, ChunksInOrderThenOneEmptyChunk)
{
    // Each line is written only once the one before it has been delivered, so every line is
    // a chunk of its own however slowly the reader runs.
    TempDir acknowledged;
    TQTaskEx task;
    Chunks chunks;
    chunks.acknowledge_ = acknowledged.path();
    const std::string script =
        "echo one; until [ -e \"$0/1\" ]; do sleep 0.01; done; echo two; "
        "until [ -e \"$0/2\" ]; do sleep 0.01; done; echo three";
    task.asyncDataFromTask("/bin/sh", {"-c", script, acknowledged.path()}, chunks.handler(),
                           std::string("client object"));
    ASSERT_TRUE(chunks.wait());
    EXPECT_EQ(chunks.chunks(), (std::vector<std::string>{"one\n", "two\n", "three\n", ""}));
    for (const auto& o : chunks.objects_) EXPECT_EQ(o, "client object");
    EXPECT_EQ(chunks.allFrom_, &task);
    EXPECT_TRUE(chunks.onReader_);
    // After the end the run is over and nothing of the client is kept.
    EXPECT_TRUE(eventually([&] { return task.theTask() == nullptr; }));
    EXPECT_FALSE(task.object().has_value());
    EXPECT_FALSE(task.chunkHandler());

    // A silent tool gives the end alone; no object comes along as none.
    Chunks silent;
    task.asyncDataFromTask("/bin/true", {}, silent.handler());
    ASSERT_TRUE(silent.wait());
    EXPECT_EQ(silent.chunks(), std::vector<std::string>{""});
    EXPECT_EQ(silent.objects_, std::vector<std::string>{"<none>"});
}

TEST(TQTaskExAsyncConcurrency, FloodOnBothStreamsArrivesWhole)
{
    // Standard error goes to the null device; the 1 MB on it must not stall the output.
    TQTaskEx task;
    Chunks chunks;
    task.asyncDataFromTask("/bin/sh",
                           {"-c",
                            "head -c 1048576 /dev/zero >&2; head -c 1048576 /dev/zero | tr '\\0' o; "
                            "head -c 1048576 /dev/zero >&2"},
                           chunks.handler(), {}, TQTaskEx::Environment{{"PATH", "/usr/bin:/bin"}});
    ASSERT_TRUE(chunks.wait());
    const std::string all = joined(chunks.chunks());
    EXPECT_EQ(all.size(), 1048576u);
    EXPECT_EQ(all.find_first_not_of('o'), std::string::npos);
}

TEST(TQTaskExAsyncConcurrency, TerminationMidStreamStopsEverything)
{
    for (int round = 0; round < 5; ++round) {
        TQTaskEx task;
        Chunks chunks;
        task.asyncDataFromTask("/usr/bin/yes", {"flood"}, chunks.handler());
        ASSERT_TRUE(chunks.wait(true));
        pid_t pid = -1;
        if (const auto running = task.theTask()) pid = running->processIdentifier();
        ASSERT_GT(pid, 0);
        std::thread other([&] { task.terminateAsyncTask(); });
        other.join();
        const size_t seen = chunks.chunks().size();
        EXPECT_EQ(task.theTask(), nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(chunks.chunks().size(), seen) << "no chunk after the termination, not even the end";
        EXPECT_TRUE(gone(pid)) << "terminated and reaped";
    }
}

TEST(TQTaskExAsyncConcurrency, InstanceGoingAwayEndsItsRun)
{
    pid_t pid = -1;
    {
        TQTaskEx task;
        Chunks chunks;
        task.asyncDataFromTask("/bin/sleep", {"30"}, chunks.handler());
        eventually([&] {
            if (auto t = task.theTask()) pid = t->processIdentifier();
            return pid > 0;
        });
    }
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(gone(pid));
}

TEST(TQTaskExAsyncConcurrency, NoDescriptorIsLeftBehind)
{
    const size_t before = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        TQTaskEx task;
        Chunks chunks;
        task.asyncDataFromTask("/bin/echo", {"x"}, chunks.handler());
        ASSERT_TRUE(chunks.wait());
        TQTaskEx stopped;
        Chunks none;
        stopped.asyncDataFromTask("/bin/sleep", {"30"}, none.handler());
        stopped.terminateAsyncTask();
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(TQTaskExAsyncConcurrency, HandlerCanEndItsOwnRunAndStartAnother)
{
    TQTaskEx task;
    Chunks second;
    std::atomic<int> firstCalls{0};
    task.asyncDataFromTask("/usr/bin/yes", {}, [&](const TQTaskEx::Data&, TQTaskEx& self, const std::any&) {
        if (firstCalls++ == 0) self.asyncDataFromTask("/bin/echo", {"second"}, second.handler());
    });
    ASSERT_TRUE(second.wait());
    EXPECT_EQ(joined(second.chunks()), "second\n");
    EXPECT_EQ(firstCalls, 1) << "the first run ended when the second began";
}

TEST(TQTaskExTimeoutConcurrency, ShortTimeoutsAlwaysTerminate)
{
    // Under a second the timer may expire before the launch; each run is ended by its own timer.
    for (double seconds : {0.0, 0.3}) {
        TQTaskEx runner;
        for (int i = 0; i < 15; ++i) {
            EXPECT_EQ(runner.terminationCodeFromTaskWithTimeout("/bin/sleep", {"10"}, TQTaskEx::Timeout(seconds)),
                      128 + SIGTERM)
                << seconds << " s, run " << i;
            const auto data = TQTaskEx::dataFromTask("/bin/sh", {"-c", "exec sleep 10"}, TQTaskEx::Timeout(seconds));
            ASSERT_TRUE(data.has_value());
            EXPECT_TRUE(data->empty());
        }
    }
}

}  // namespace corvina::tq
