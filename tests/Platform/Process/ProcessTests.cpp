#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/Exception.h"
#include "Process/Process.h"
#include "support/TestSupport.h"

namespace fs = std::filesystem;
using corvina::Process;
using namespace corvina::test;

namespace {

std::string text(const Process::Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

struct ShellRun {
    Process::Bytes out;
    Process::Bytes err;
    int status = -1;
};

// Runs the script with /bin/sh, set up further by `configure` when given.
ShellRun runShell(const std::string& script, const std::function<void(Process&)>& configure = {})
{
    Process p;
    p.setLaunchPath("/bin/sh");
    p.setArguments({"-c", script});
    if (configure) configure(p);
    p.launch();
    ShellRun r;
    p.readToEnd(&r.out, &r.err);
    p.waitUntilExit();
    r.status = p.terminationStatus();
    return r;
}

}  // namespace

TEST(ProcessExecutableCheck, RunnableRegularFilesAndPackageFolders)
{
    TempDir tmp;
    writeFile(tmp / "tool", "#!/bin/sh\n", fs::perms::owner_all);
    writeFile(tmp / "tool.app", "#!/bin/sh\n", fs::perms::owner_all);
    writeFile(tmp / "plain", "data", fs::perms::owner_read | fs::perms::owner_write);
    for (const char* name : {"folder", "Viewer.app", "Kit.framework", "Driver.kext", "Notes.txt", "Case.APP"})
        fs::create_directory(tmp / name);
    // Package folders are known by their extension and are not executables; the extension alone
    // does not make a package (a tool named like one, another extension, another case).
    const struct {
        std::string path;
        bool executable, package;
    } rows[] = {
        {"/bin/sh", true, false},
        {tmp / "tool", true, false},
        {tmp / "missing", false, false},
        {tmp / "folder", false, false},
        {"", false, false},
        {tmp / "plain", false, false},
        {tmp / "Viewer.app", false, true},
        {tmp / "Viewer.app/", false, true},
        {tmp / "Kit.framework", false, true},
        {tmp / "Driver.kext", false, true},
        {tmp / "tool.app", true, false},
        {tmp / "Notes.txt", false, false},
        {tmp / "Case.APP", false, false},
        {tmp / "missing.app", false, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(corvina::isExecutablePath(row.path), row.executable) << row.path;
        EXPECT_EQ(corvina::isPackagePath(row.path), row.package) << row.path;
    }
}

TEST(ProcessStreams, CapturesDiscardsFeedsAndReportsTheStatus)
{
    ::setenv("CORVINA_PROCESS_TEST_MARK", "inherited", 1);
    const auto discard = [](Process& p) {
        p.setStandardOutput(Process::Stream::Null);
        p.setStandardError(Process::Stream::Null);
    };
    const auto feed = [](Process& p) { p.setStandardInputData("secret\n"); };
    // A given environment replaces the caller's whole.
    const auto only = [](Process& p) { p.setEnvironment(Process::Environment{{"ONLY", "this one"}}); };
    const struct {
        const char* script;
        std::function<void(Process&)> configure;
        const char* out;
        const char* err;
        int status;
    } rows[] = {
        {"printf out; printf err >&2; exit 3", {}, "out", "err", 3},
        // cat reads the empty input and ends at once; nothing reaches a discarded stream.
        {"cat; echo gone; echo lost >&2", discard, "", "", 0},
        {"cat", {}, "", "", 0},
        {"cat", feed, "secret\n", "", 0},
        {"exit 255", {}, "", "", 255},
        {"kill -TERM $$", {}, "", "", 128 + SIGTERM},
        {"printf %s \"$CORVINA_PROCESS_TEST_MARK\"", {}, "inherited", "", 0},
        {"printf %s \"$ONLY|$CORVINA_PROCESS_TEST_MARK\"", only, "this one|", "", 0},
    };
    for (const auto& row : rows) {
        const ShellRun r = runShell(row.script, row.configure);
        EXPECT_EQ(text(r.out), row.out) << row.script;
        EXPECT_EQ(text(r.err), row.err) << row.script;
        EXPECT_EQ(r.status, row.status) << row.script;
    }
    ::unsetenv("CORVINA_PROCESS_TEST_MARK");
}

TEST(ProcessStreams, DrainsBothStreamsWhileEitherFills)
{
    // The tool fills standard error before it writes anything to standard output: a reader
    // that waited on output alone would never see either end.
    const ShellRun r = runShell("head -c 1048576 /dev/zero >&2; head -c 1048576 /dev/zero | tr '\\0' x");
    ASSERT_EQ(r.out.size(), 1048576u);
    EXPECT_EQ(r.err.size(), 1048576u);
    EXPECT_EQ(r.out.front(), 'x');
    EXPECT_EQ(r.out.back(), 'x');
}

TEST(ProcessLifecycle, LaunchFailuresArePlatformExceptions)
{
    TempDir tmp;
    writeFile(tmp / "plain", "data", fs::perms::owner_read);
    for (const std::string& path : {tmp / "missing", tmp / "plain", std::string()}) {
        Process p;
        p.setLaunchPath(path);  // even root cannot execute a file without any execute bit
        EXPECT_THROW(p.launch(), corvina::PlatformException) << path;
        EXPECT_FALSE(p.isRunning());
        p.waitUntilExit();  // nothing to wait for
        p.terminate();      // nothing to signal
    }
    Process twice;
    twice.setLaunchPath("/bin/true");
    twice.launch();
    EXPECT_THROW(twice.launch(), corvina::PlatformException);
    twice.waitUntilExit();
}

TEST(ProcessConcurrency, TerminateFromAnotherThreadEndsABlockedReader)
{
    Process p;
    p.setLaunchPath("/bin/sh");
    p.setArguments({"-c", "exec sleep 30"});
    p.launch();
    std::thread killer([&] {
        while (!p.isRunning()) std::this_thread::yield();
        p.terminate();
    });
    Process::Bytes out;
    p.readToEnd(&out, nullptr);
    p.waitUntilExit();
    killer.join();
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(p.isRunning());
    EXPECT_EQ(p.terminationStatus(), 128 + SIGTERM);
    p.terminate();  // already reaped: must not signal anything
}

TEST(ProcessConcurrency, ParallelRunsKeepTheirOwnStreams)
{
    // Pipes are close-on-exec: a tool started on one thread never holds another run's pipe
    // open, so every reader sees its own end of file.
    constexpr int kThreads = 4;
    constexpr int kRuns = 10;
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &mismatches] {
            for (int i = 0; i < kRuns; ++i) {
                const std::string word = "run-" + std::to_string(t) + "-" + std::to_string(i);
                const ShellRun r = runShell("printf " + word + "; printf " + word + " >&2");
                if (text(r.out) != word || text(r.err) != word || r.status != 0) ++mismatches;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
}
