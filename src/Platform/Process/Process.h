// An external process started directly (no shell) with posix_spawn: launch path, arguments,
// an optional environment that replaces the caller's, standard input a pipe (empty, or fed
// with given bytes), standard output and error each a pipe, the null device or inherited.
//
// Captured streams are drained together (poll), so a tool that fills one pipe while the
// other is still open never stalls the reader. terminate() may be called from any thread
// while another thread reads or waits; it never signals a process that was already reaped.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace corvina {

// Folders with these extensions are packages (bundles), never executables.
bool isPackagePath(const std::string& path);
// Exists, is a regular file the caller may execute, and is not a package folder.
bool isExecutablePath(const std::string& path);
// The first executable of that name in the folders of $PATH; none when there is none.
std::optional<std::string> findProgramOnPath(const std::string& name);

class Process {
public:
    enum class Stream { Inherit, Pipe, Null };
    using Environment = std::map<std::string, std::string>;
    using Bytes = std::vector<uint8_t>;

    Process() = default;
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void setLaunchPath(std::string path) { launchPath_ = std::move(path); }
    const std::string& launchPath() const { return launchPath_; }
    void setArguments(std::vector<std::string> args) { arguments_ = std::move(args); }
    const std::vector<std::string>& arguments() const { return arguments_; }
    // None: the tool inherits the caller's environment.
    void setEnvironment(std::optional<Environment> env) { environment_ = std::move(env); }
    // This process's environment, to start a tool with it changed in a few names.
    static Environment currentEnvironment();
    void setStandardOutput(Stream s) { stdout_ = s; }
    void setStandardError(Stream s) { stderr_ = s; }
    // Bytes written to the tool's standard input right after launch; then it is closed.
    void setStandardInputData(std::string data) { stdinData_ = std::move(data); }
    // Standard input is an empty (or fed) pipe by default; Inherit leaves the caller's.
    void setStandardInput(Stream s) { stdin_ = s; }
    // The tool starts a process group of its own (its id is the tool's process id), so that
    // everything it starts can be signalled with it. Such a tool is not in the terminal's
    // foreground group: reading the terminal stops it.
    void setStartsProcessGroup(bool own) { ownGroup_ = own; }

    // Throws PlatformException (invalid argument) when the process cannot be started or
    // was launched already.
    void launch();

    // Collects the captured streams until each reaches end of file. Streams that are not
    // captured leave their buffer untouched. Closes the read ends.
    void readToEnd(Bytes* output, Bytes* error);
    // Closes the read ends without reading.
    void closePipes();

    // Waits for the next bytes of the captured standard output and appends them to chunk.
    // Data: bytes were appended; End: the stream reached end of file (the read end is then
    // closed); Woken: wakeFd became readable first (nothing is read from it).
    enum class ChunkResult { Data, End, Woken };
    ChunkResult readOutputChunk(Bytes& chunk, int wakeFd = -1);

    void waitUntilExit();
    bool isRunning();
    // Sends SIGTERM while the process has not been reaped.
    void terminate();
    // For a tool started in a group of its own: sends the signal to every process of the
    // group (SIGCONT follows SIGTERM, so that stopped members see it). Otherwise as
    // terminate(), with the given signal, to the tool alone.
    void signalProcessGroup(int signal);
    // Whether any process of the tool's own group is still there (the tool itself is reaped
    // when it has exited). False for a tool without a group of its own once it has exited.
    bool processGroupAlive();
    // Exit status, or 128 + signal number for a process ended by a signal; 0 before exit.
    int terminationStatus();
    pid_t processIdentifier() const { return pid_; }

    // For "%@": the launch path.
    std::string description() const { return launchPath_; }

private:
    void reapLocked(int status);

    std::string launchPath_;
    std::vector<std::string> arguments_;
    std::optional<Environment> environment_;
    Stream stdout_ = Stream::Pipe;
    Stream stderr_ = Stream::Pipe;
    Stream stdin_ = Stream::Pipe;
    std::string stdinData_;
    bool ownGroup_ = false;

    // Written once by launch under the lock; read from any thread (processIdentifier).
    std::atomic<pid_t> pid_{-1};
    int outFd_ = -1;
    int errFd_ = -1;
    std::mutex mutex_;
    bool reaped_ = false;
    int status_ = 0;
};

}  // namespace corvina
