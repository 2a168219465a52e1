#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
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

ShellRun runShell(const std::string& script, Process::Stream out = Process::Stream::Pipe,
                  Process::Stream err = Process::Stream::Pipe)
{
    Process p;
    p.setLaunchPath("/bin/sh");
    p.setArguments({"-c", script});
    p.setStandardOutput(out);
    p.setStandardError(err);
    p.launch();
    ShellRun r;
    p.readToEnd(&r.out, &r.err);
    p.waitUntilExit();
    r.status = p.terminationStatus();
    return r;
}

// Launches the configured process and returns its standard output once it has ended.
std::string outputOf(Process& p)
{
    p.launch();
    Process::Bytes out;
    p.readToEnd(&out, nullptr);
    p.waitUntilExit();
    return text(out);
}

}  // namespace

TEST(ProcessExecutableCheck, RunnableRegularFilesAndPackageFolders)
{
    TempDir tmp;
    writeFile(tmp / "tool", "#!/bin/sh\n", fs::perms::owner_all);
    writeFile(tmp / "plain", "data", fs::perms::owner_read | fs::perms::owner_write);
    fs::create_directory(tmp / "folder");

    EXPECT_TRUE(corvina::isExecutablePath("/bin/sh"));
    EXPECT_TRUE(corvina::isExecutablePath(tmp / "tool"));
    EXPECT_FALSE(corvina::isExecutablePath(tmp / "missing"));
    EXPECT_FALSE(corvina::isExecutablePath(tmp / "folder"));
    EXPECT_FALSE(corvina::isExecutablePath(""));
    if (::geteuid() != 0) {
        EXPECT_FALSE(corvina::isExecutablePath(tmp / "plain"));
    }
    // Package folders are known by their extension, and are not executables.
    for (const char* name : {"Viewer.app", "Kit.framework", "Driver.kext"}) {
        fs::create_directory(tmp / name);
        EXPECT_TRUE(corvina::isPackagePath(tmp / name)) << name;
        EXPECT_TRUE(corvina::isPackagePath(tmp / name + "/")) << name;
        EXPECT_FALSE(corvina::isExecutablePath(tmp / name)) << name;
    }
    // The extension alone does not make a package: a tool file named like one is a tool,
    // and a folder with another extension is just a folder.
    writeFile(tmp / "tool.app", "#!/bin/sh\n", fs::perms::owner_all);
    fs::create_directory(tmp / "Notes.txt");
    fs::create_directory(tmp / "Case.APP");
    EXPECT_FALSE(corvina::isPackagePath(tmp / "tool.app"));
    EXPECT_TRUE(corvina::isExecutablePath(tmp / "tool.app"));
    EXPECT_FALSE(corvina::isPackagePath(tmp / "Notes.txt"));
    EXPECT_FALSE(corvina::isPackagePath(tmp / "Case.APP"));
    EXPECT_FALSE(corvina::isPackagePath(tmp / "missing.app"));
}

TEST(ProcessStreams, CapturesOrDiscardsEachStreamAndReportsTheStatus)
{
    ShellRun r = runShell("printf out; printf err >&2; exit 3");
    EXPECT_EQ(text(r.out), "out");
    EXPECT_EQ(text(r.err), "err");
    EXPECT_EQ(r.status, 3);
    // cat reads the empty input and ends at once; nothing reaches a discarded stream.
    r = runShell("cat; echo gone; echo lost >&2", Process::Stream::Null, Process::Stream::Null);
    EXPECT_TRUE(r.out.empty());
    EXPECT_TRUE(r.err.empty());
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(runShell("cat").out.empty());
    EXPECT_EQ(runShell("exit 255").status, 255);
    EXPECT_EQ(runShell("kill -TERM $$").status, 128 + SIGTERM);
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

TEST(ProcessStreams, FeedsGivenInputThenEndOfFile)
{
    Process p;
    p.setLaunchPath("/bin/cat");
    p.setStandardInputData("secret\n");
    EXPECT_EQ(outputOf(p), "secret\n");
}

TEST(ProcessEnvironment, GivenEnvironmentReplacesTheCallersWhole)
{
    ::setenv("CORVINA_PROCESS_TEST_MARK", "inherited", 1);
    Process p;
    p.setLaunchPath("/usr/bin/env");
    p.setEnvironment(Process::Environment{{"ONLY", "this one"}});
    EXPECT_EQ(outputOf(p), "ONLY=this one\n");
    Process inherit;
    inherit.setLaunchPath("/usr/bin/env");
    EXPECT_NE(outputOf(inherit).find("CORVINA_PROCESS_TEST_MARK=inherited"), std::string::npos);
    ::unsetenv("CORVINA_PROCESS_TEST_MARK");
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
