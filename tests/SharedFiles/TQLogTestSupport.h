// Helpers for the log and path tests: temporary folders, and children that run one case in
// a fresh process (the log's shared controller exists once per process).
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace tqtest {

class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "tqlogtest.XXXXXX").string();
        path_ = mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~TempDir()
    {
        std::error_code ec;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void writeFile(const std::string& path, const std::string& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    for (std::string line; std::getline(ss, line);)
        out.push_back(line);
    return out;
}

// The text of a log line after its "yyyy-MM-dd HH:mm:ss +0000 - " prefix.
inline std::string entryText(const std::string& line) { return line.size() >= 28 ? line.substr(28) : std::string(); }

// Failures collected in a child and handed back to the parent.
struct Checks {
    std::string failures;
    void expect(bool ok, const std::string& what)
    {
        if (!ok)
            failures += what + "\n";
    }
    void equal(const std::string& actual, const std::string& expected, const std::string& what)
    {
        if (actual != expected)
            failures += what + ": expected [" + expected + "] got [" + actual + "]\n";
    }
};

struct ChildResult {
    int status = -1;        // waitpid status
    std::string failures;   // what the child's checks reported
    std::string out;        // the child's standard output
    bool exitedCleanly() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

// Runs body in a forked child with HOME and TQ_LOCAL_ROOT set to home (and
// TQ_CONSOLE_USER empty) and standard output captured. The child ends with exit() when
// runExitHandlers is true (the log's shutdown then runs), else with _exit().
inline ChildResult runInChild(const std::string& home, const std::function<void(Checks&)>& body,
                              bool runExitHandlers = false)
{
    ChildResult result;
    const std::string outPath = home + "/.child-stdout";
    int fds[2];
    if (pipe(fds) != 0)
        return result;
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        alarm(120);
        FILE* out = std::freopen(outPath.c_str(), "w", stdout);
        (void)out;
        setenv("HOME", home.c_str(), 1);
        // The local domain shares the home folder, so that the log folder is the same whether
        // or not the tests run as root.
        setenv("TQ_LOCAL_ROOT", home.c_str(), 1);
        setenv("TQ_CONSOLE_USER", "", 1);
        unsetenv("XDG_CONFIG_HOME");
        unsetenv("XDG_DATA_HOME");
        Checks checks;
        body(checks);
        std::fflush(stdout);
        if (!checks.failures.empty()) {
            ssize_t n = write(fds[1], checks.failures.data(), checks.failures.size());
            (void)n;
        }
        close(fds[1]);
        if (runExitHandlers)
            std::exit(0);
        _exit(0);
    }
    close(fds[1]);
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
        result.failures.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(pid, &result.status, 0);
    result.out = readFile(outPath);
    return result;
}

}  // namespace tqtest
