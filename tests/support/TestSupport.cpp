#include "TestSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "Process/Process.h"

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

std::string onPath(const std::string& name)
{
    if (name.find('/') != std::string::npos) return name;
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (isExecutablePath(folder + "/" + name)) return folder + "/" + name;
    return name;
}

}  // namespace

ProcessResult runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                         const std::string& input)
{
    ProcessResult result;
    if (argv.empty()) return result;
    Process::Environment merged;
    for (char** e = environ; *e; ++e) {
        const std::string entry(*e);
        const auto eq = entry.find('=');
        if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [key, value] : env) merged[key] = value;
    Process process;
    process.setLaunchPath(onPath(argv[0]));
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
    for (const auto& line : splitLines(readFile(path))) {
        if (line.size() >= 28 && line.compare(25, 3, " - ") == 0) {
            entries.push_back(entryText(line));
        } else if (!entries.empty()) {
            entries.back() += "\n" + line;
        }
    }
    return entries;
}

void Checks::expect(bool ok, const std::string& what)
{
    if (!ok) failures += what + "\n";
}

void Checks::equal(const std::string& actual, const std::string& expected, const std::string& what)
{
    if (actual != expected) failures += what + ": expected [" + expected + "] got [" + actual + "]\n";
}

ChildResult runInChild(const std::string& home, const std::function<void(Checks&)>& body, bool runExitHandlers)
{
    ChildResult result;
    const std::string outPath = home + "/.child-stdout";
    int fds[2];
    if (::pipe(fds) != 0) return result;
    std::fflush(stdout);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        ::alarm(120);
        if (!std::freopen(outPath.c_str(), "w", stdout)) ::_exit(3);
        ::setenv("HOME", home.c_str(), 1);
        // The local domain shares the home folder, so that the log folder is the same whether
        // or not the tests run as root.
        ::setenv("TQ_LOCAL_ROOT", home.c_str(), 1);
        ::setenv("TQ_CONSOLE_USER", "", 1);
        ::unsetenv("XDG_CONFIG_HOME");
        ::unsetenv("XDG_DATA_HOME");
        Checks checks;
        {
            ::testing::TestPartResultArray parts;
            ::testing::ScopedFakeTestPartResultReporter reporter(
                ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &parts);
            body(checks);
            for (int i = 0; i < parts.size(); ++i) {
                const auto& part = parts.GetTestPartResult(i);
                if (!part.failed()) continue;
                checks.failures += std::string(part.file_name() ? part.file_name() : "?") + ":" +
                                   std::to_string(part.line_number()) + ": " + part.message() + "\n";
            }
        }
        std::fflush(stdout);
        for (size_t done = 0; done < checks.failures.size();) {
            const ssize_t n = ::write(fds[1], checks.failures.data() + done, checks.failures.size() - done);
            if (n <= 0) break;
            done += size_t(n);
        }
        ::close(fds[1]);
        if (runExitHandlers) std::exit(0);
        ::_exit(0);
    }
    ::close(fds[1]);
    char buffer[4096];
    for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) result.failures.append(buffer, size_t(n));
    ::close(fds[0]);
    ::waitpid(pid, &result.status, 0);
    result.out = readFile(outPath);
    return result;
}

}  // namespace corvina::test
