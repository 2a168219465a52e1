// Running one named test of this program again in a fresh copy of it, with a private home, an
// extra environment, and optionally on a pseudo-terminal: for cases that crash for real,
// need a controlling terminal, or run as a whole gtest program in the child. The child's test
// is usually a DISABLED_ one, run only when asked for. (Cases that only need a process of
// their own use runInChild in TestSupport.h.)
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Process/Process.h"
#include "TestSupport.h"

extern char** environ;

namespace corvina::test {

struct TestRun {
    int status = -1;  // exit status, or 128 + signal
    std::string output;
};

inline std::map<std::string, std::string> environmentWith(const std::string& home,
                                                          const std::map<std::string, std::string>& extra)
{
    std::map<std::string, std::string> env;
    for (char** e = environ; e && *e; ++e) {
        const std::string entry = *e;
        const auto eq = entry.find('=');
        if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    env.erase("GTEST_OUTPUT");
    env.erase("DISPLAY");
    env.erase("WAYLAND_DISPLAY");
    env["HOME"] = home;
    env["TQ_LOCAL_ROOT"] = home;
    env["TQ_CONSOLE_USER"] = "";
    env["CORVINA_SERVICES_CHILD"] = "1";
    for (const auto& [k, v] : extra) {
        if (v.empty()) {
            env.erase(k);
        } else {
            env[k] = v;
        }
    }
    return env;
}

inline std::vector<std::string> childArguments(const std::string& test)
{
    return {"--gtest_also_run_disabled_tests", "--gtest_filter=" + test};
}

// Runs the test (Suite.Name) in a child with pipes for its streams. An extra value that is
// empty removes the variable.
inline TestRun runTest(const std::string& test, const std::string& home,
                      const std::map<std::string, std::string>& extra = {})
{
    corvina::Process child;
    child.setLaunchPath("/proc/self/exe");
    child.setArguments(childArguments(test));
    child.setEnvironment(environmentWith(home, extra));
    child.launch();
    corvina::Process::Bytes out, err;
    child.readToEnd(&out, &err);
    child.waitUntilExit();
    return {child.terminationStatus(), std::string(out.begin(), out.end()) + std::string(err.begin(), err.end())};
}

// The same on a new pseudo-terminal, which becomes the child's controlling terminal. Gives up
// (killing the child) after the time limit.
inline TestRun runTestOnTerminal(const std::string& test, const std::string& home,
                                const std::map<std::string, std::string>& extra, std::chrono::seconds limit)
{
    std::vector<std::string> args = {"/proc/self/exe"};
    for (auto& a : childArguments(test)) args.push_back(a);
    std::vector<std::string> envStrings;
    for (const auto& [k, v] : environmentWith(home, extra)) envStrings.push_back(k + "=" + v);
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    TestRun result;
    if (pid < 0) return result;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            ::kill(pid, SIGKILL);
            result.output += "\n[gave up waiting for the child]";
            break;
        }
        pollfd fd{master, POLLIN, 0};
        if (::poll(&fd, 1, static_cast<int>(left.count())) <= 0) continue;
        const ssize_t n = ::read(master, buffer, sizeof buffer);
        if (n <= 0) break;  // the child closed the terminal
        result.output.append(buffer, static_cast<size_t>(n));
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::close(master);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

// The file's text once it exists, or empty after the limit.
inline std::string waitForFile(const std::string& path, std::chrono::seconds limit = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!std::filesystem::exists(path) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return readFile(path);
}

// A stand-in program that records its first argument in handed-over.txt beside itself.
inline void writeRecorder(const std::string& path)
{
    writeFile(path, "#!/bin/sh\nprintf '%s\\n' \"$1\" > \"$(dirname \"$0\")/handed-over.txt\"\n",
              std::filesystem::perms::owner_all);
}

// A test that needs a process of its own starts with
//
//     if (!inChild()) return expectChildPasses();
//
// and the rest of it runs in a fresh copy of the program whose HOME is a private folder.
inline bool inChild()
{
    const char* v = std::getenv("CORVINA_SERVICES_CHILD");
    return v && *v;
}

inline std::string childHome()
{
    const char* h = std::getenv("HOME");
    return h ? h : "";
}

// The log a child's "Services" log writes.
inline std::string childLogPath() { return childHome() + "/Library/Logs/Brantwell/Services.1.log"; }

inline void expectChildPasses()
{
    TempDir home;
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const TestRun run = runTest(std::string(info->test_suite_name()) + "." + info->name(), home.path());
    EXPECT_EQ(run.status, 0) << run.output;
}

}  // namespace corvina::test
