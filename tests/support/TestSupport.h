// The tools every test program shares: a temporary folder, files, running a program, running
// a case in a fresh process, and reading log entries back.
#pragma once

#include <cstdint>
#include <chrono>
#include <filesystem>
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
// size bytes of the seeded generator (seeded/SplitMix64.h).
std::string patternBytes(size_t size, uint64_t seed = 1);
// Writes patternBytes(size, seed) to path; returns path.
std::string makeFile(const std::string& path, size_t size, uint64_t seed = 1);
// -1 when the file does not exist.
int64_t fileSize(const std::string& path);
int64_t mtimeSeconds(const std::string& path);

struct ProcessResult {
    int status = -1;  // exit status, or 128 + signal; -1 when it could not be started
    std::string out;
    std::string err;
};

// Runs a program (found on PATH when argv[0] has no slash) with extra environment variables
// added to or replacing the caller's, and input on standard input.
ProcessResult runProgram(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
                         const std::string& input = {});
// The digest a coreutils tool prints for the file ("md5sum", "sha256sum", ...).
std::string toolDigest(const std::string& tool, const std::string& path);
// An extended attribute's raw bytes as getfattr reads them; empty when it is absent.
std::string getfattr(const std::string& path, const std::string& name);

// A log line's text after its "yyyy-MM-dd HH:mm:ss +0000 - " prefix ("" for a shorter line).
std::string entryText(const std::string& line);
// The entries of a log file without their date prefix; a line without one continues the last.
std::vector<std::string> logEntries(const std::string& path);

// A tmpfs or ramfs on a fresh folder while the object lives; mounted() is false where not allowed.
class ScopedMount {
public:
    explicit ScopedMount(std::string where, const char* type = "tmpfs", const char* options = "size=4m");
    ~ScopedMount();
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;
    bool mounted() const { return mounted_; }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
    bool mounted_ = false;
};
#define MOUNT_OR_SKIP(m) \
    if (!(m).mounted()) GTEST_SKIP() << "cannot mount here"

// Cases in a process of their own: one named test of this program runs again in a fresh copy
// of it, with a private home (HOME and TQ_LOCAL_ROOT), no console user, no display and an
// extra environment (an empty value removes the variable). The child's test is either the
// calling test itself, which starts with
//
//     if (!inChild()) return expectChildPasses();
//
// or a DISABLED_ one, run only when asked for.
struct TestRun {
    int status = -1;      // exit status, or 128 + signal
    std::string output;   // standard output, then standard error
    std::string printed;  // what the test itself printed on standard output
};

std::map<std::string, std::string> environmentWith(const std::string& home,
                                                   const std::map<std::string, std::string>& extra);
std::vector<std::string> childArguments(const std::string& test);
// Runs the test (Suite.Name; the running test when empty) in a child with pipes for its streams.
TestRun runTest(const std::string& test, const std::string& home, const std::map<std::string, std::string>& extra = {});
// The same on a new pseudo-terminal, which becomes the child's controlling terminal. Gives up
// (killing the child) after the time limit.
TestRun runTestOnTerminal(const std::string& test, const std::string& home,
                          const std::map<std::string, std::string>& extra, std::chrono::seconds limit);
bool inChild();
std::string childHome();
// The log a child's "Services" log writes.
std::string childLogPath();
// The CORVINA_CASE a parent handed to its child (-1 without one): the row of a table of cases.
int childCase();
// Runs the running test in a child with a fresh home and expects it to pass.
void expectChildPasses();

// The file's text once it exists, or empty after the limit.
std::string waitForFile(const std::string& path, std::chrono::seconds limit = std::chrono::seconds(10));
// A stand-in program that records its first argument in handed-over.txt beside itself.
void writeRecorder(const std::string& path);

}  // namespace corvina::test
