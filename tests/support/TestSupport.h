// The tools every test program shares: a temporary folder, files, running a program, running
// a case in a fresh process, and reading log entries back.
#pragma once

#include <sys/wait.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace corvina::test {

// A fresh folder under the system's temporary folder, removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// The whole file ("" or nothing when it cannot be read).
std::string readFile(const std::string& path);
std::vector<uint8_t> readBytes(const std::string& path);
// Creates the parent folders; sets the permissions when given.
void writeFile(const std::string& path, const std::string& bytes,
               std::optional<std::filesystem::perms> perms = std::nullopt);
std::vector<std::string> splitLines(const std::string& text);

struct ProcessResult {
    int status = -1;  // exit status, or 128 + signal; -1 when it could not be started
    std::string out;
    std::string err;
};

// Runs a program (found on PATH when argv[0] has no slash) through corvina::Process, with
// extra environment variables added to or replacing the caller's, and input on standard input.
ProcessResult runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
                         const std::string& input = {});

// A log line's text after its "yyyy-MM-dd HH:mm:ss +0000 - " prefix ("" for a shorter line).
std::string entryText(const std::string& line);
// The entries of a log file without their date prefix; a line without one continues the
// entry before it (multi-line messages).
std::vector<std::string> logEntries(const std::string& path);

// A case that needs a process of its own (the log controller exists once per process, and
// privileges dropped cannot be regained) runs its body in a forked child with HOME and
// TQ_LOCAL_ROOT set to home, TQ_CONSOLE_USER empty and standard output captured. Failed
// EXPECT/ASSERT macros in the body, and the Checks it is given, are reported back.
struct Checks {
    std::string failures;
    void expect(bool ok, const std::string& what);
    void equal(const std::string& actual, const std::string& expected, const std::string& what);
};

struct ChildResult {
    int status = -1;       // waitpid status
    std::string failures;  // what the child reported
    std::string out;       // the child's standard output
    bool exitedCleanly() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    bool passed() const { return exitedCleanly() && failures.empty(); }
};

// The child ends with exit() when runExitHandlers is true (the log's shutdown then runs),
// else with _exit().
ChildResult runInChild(const std::string& home, const std::function<void(Checks&)>& body,
                       bool runExitHandlers = false);

}  // namespace corvina::test
