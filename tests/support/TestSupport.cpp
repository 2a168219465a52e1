#include "support/TestSupport.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "Process/Process.h"
#include "support/seeded/SplitMix64.h"

extern char** environ;

namespace corvina::test {

namespace fs = std::filesystem;

TempDir::TempDir()
{
    std::string pattern = (fs::temp_directory_path() / "corvina-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) std::abort();
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<uint8_t> readBytes(const std::string& path)
{
    const std::string text = readFile(path);
    return {text.begin(), text.end()};
}

void writeFile(const std::string& path, const std::string& bytes, std::optional<fs::perms> perms)
{
    std::error_code ignored;
    fs::create_directories(fs::path(path).parent_path(), ignored);
    std::ofstream(path, std::ios::binary) << bytes;
    if (perms) fs::permissions(path, *perms);
}

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

namespace {

std::map<std::string, std::string> currentEnvironment()
{
    std::map<std::string, std::string> env;
    for (char** e = environ; e && *e; ++e) {
        const std::string entry(*e);
        const auto eq = entry.find('=');
        if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    return env;
}

}  // namespace

ProcessResult runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                         const std::string& input)
{
    ProcessResult result;
    if (argv.empty()) return result;
    Process::Environment merged = currentEnvironment();
    for (const auto& [key, value] : env) merged[key] = value;
    Process process;
    process.setLaunchPath(argv[0].find('/') == std::string::npos ? findProgramOnPath(argv[0]).value_or(argv[0])
                                                                 : argv[0]);
    process.setArguments({argv.begin() + 1, argv.end()});
    process.setEnvironment(std::move(merged));
    process.setStandardInputData(input);
    try {
        process.launch();
    } catch (const std::exception& e) {
        result.err = e.what();
        return result;
    }
    Process::Bytes out, err;
    process.readToEnd(&out, &err);
    process.waitUntilExit();
    result.status = process.terminationStatus();
    result.out.assign(out.begin(), out.end());
    result.err.assign(err.begin(), err.end());
    return result;
}

std::string entryText(const std::string& line)
{
    // "yyyy-MM-dd HH:mm:ss +0000 - text"
    return line.size() >= 28 && line.compare(25, 3, " - ") == 0 ? line.substr(28) : std::string();
}

std::vector<std::string> logEntries(const std::string& path)
{
    std::vector<std::string> entries;
    for (const auto& line : splitLines(readFile(path)))
        if (line.size() >= 28 && line.compare(25, 3, " - ") == 0)
            entries.push_back(entryText(line));
        else if (!entries.empty())
            entries.back() += "\n" + line;
    return entries;
}

std::string patternBytes(size_t size, uint64_t seed)
{
    std::string out(size, '\0');
    SplitMix64(seed).fill(reinterpret_cast<uint8_t*>(out.data()), size);
    return out;
}

std::string makeFile(const std::string& path, size_t size, uint64_t seed)
{
    writeFile(path, patternBytes(size, seed));
    return path;
}

int64_t fileSize(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

int64_t mtimeSeconds(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_mtim.tv_sec) : -1;
}

std::string toolDigest(const std::string& tool, const std::string& path)
{
    const std::string line = runProgram({tool, path}).out;
    return line.substr(0, line.find(' '));
}

std::string getfattr(const std::string& path, const std::string& name)
{
    return runProgram({"getfattr", "--only-values", "-n", name, path}).out;
}

ScopedMount::ScopedMount(std::string where, const char* type, const char* options) : path_(std::move(where))
{
    fs::create_directories(path_);
    mounted_ = ::mount(type, path_.c_str(), type, 0, options) == 0;
}

ScopedMount::~ScopedMount()
{
    if (mounted_) ::umount2(path_.c_str(), MNT_DETACH);
}

std::map<std::string, std::string> environmentWith(const std::string& home,
                                                   const std::map<std::string, std::string>& extra)
{
    std::map<std::string, std::string> env = currentEnvironment();
    for (const char* name : {"GTEST_OUTPUT", "DISPLAY", "WAYLAND_DISPLAY", "XDG_CONFIG_HOME", "XDG_DATA_HOME"})
        env.erase(name);
    env["HOME"] = home;
    // The local domain shares the home folder, so that the log folder is the same whether or
    // not the tests run as root.
    env["TQ_LOCAL_ROOT"] = home;
    env["TQ_CONSOLE_USER"] = "";
    env["CORVINA_SERVICES_CHILD"] = "1";
    for (const auto& [k, v] : extra)
        if (v.empty())
            env.erase(k);
        else
            env[k] = v;
    return env;
}

namespace {

std::string runningTest()
{
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return info ? std::string(info->test_suite_name()) + "." + info->name() : std::string();
}

// The lines the test printed between gtest's own "[ RUN ]" and result lines.
std::string printedByTest(const std::string& out)
{
    std::string printed;
    bool inside = false;
    for (const auto& line : splitLines(out))
        if (line.rfind("[ RUN      ]", 0) == 0)
            inside = true;
        else if (line.rfind("[       OK ]", 0) == 0 || line.rfind("[  FAILED  ]", 0) == 0 ||
                 line.rfind("[  SKIPPED ]", 0) == 0)
            inside = false;
        else if (inside)
            printed += line + "\n";
    return printed;
}

}  // namespace

std::vector<std::string> childArguments(const std::string& test)
{
    return {"--gtest_also_run_disabled_tests", "--gtest_filter=" + (test.empty() ? runningTest() : test)};
}

TestRun runTest(const std::string& test, const std::string& home, const std::map<std::string, std::string>& extra)
{
    Process child;
    child.setLaunchPath("/proc/self/exe");
    child.setArguments(childArguments(test));
    child.setEnvironment(environmentWith(home, extra));
    child.launch();
    Process::Bytes out, err;
    child.readToEnd(&out, &err);
    child.waitUntilExit();
    const std::string text(out.begin(), out.end());
    return {child.terminationStatus(), text + std::string(err.begin(), err.end()), printedByTest(text)};
}

TestRun runTestOnTerminal(const std::string& test, const std::string& home,
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
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
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

bool inChild()
{
    const char* v = std::getenv("CORVINA_SERVICES_CHILD");
    return v && *v;
}

std::string childHome()
{
    const char* h = std::getenv("HOME");
    return h ? h : "";
}

std::string childLogPath() { return childHome() + "/Library/Logs/Brantwell/Services.1.log"; }

int childCase()
{
    const char* v = std::getenv("CORVINA_CASE");
    return v && *v ? std::atoi(v) : -1;
}

void expectChildPasses()
{
    TempDir home;
    const TestRun run = runTest({}, home.path());
    EXPECT_EQ(run.status, 0) << run.output;
}

std::string waitForFile(const std::string& path, std::chrono::seconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!fs::exists(path) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return readFile(path);
}

void writeRecorder(const std::string& path)
{
    // Written aside and renamed, so that a waitForFile never sees the file empty.
    writeFile(path,
              "#!/bin/sh\nd=$(dirname \"$0\")\nprintf '%s\\n' \"$1\" > \"$d/.handed-over\" && mv \"$d/.handed-over\" "
              "\"$d/handed-over.txt\"\n",
              fs::perms::owner_all);
}

}  // namespace corvina::test
