// Runs external command-line tools synchronously: to learn whether they ran, to collect
// what they printed, or to learn their exit status, optionally with a time-out after which
// the tool is sent the terminate signal. An instance can also run one tool in the background
// and hand its standard output to a chunk handler as it arrives, then one empty chunk.
//
// Shorter forms fill the missing arguments with defaults. Time-outs are cut to whole
// seconds (2.9 s becomes 2 s). A run with a time-out starts its tool in a process group of
// its own; when the time-out expires the whole group is sent the terminate signal, and
// whatever of it is left after kTerminationGrace is killed, so such a run returns within
// its time-out and the grace period (even when the time-out (0 s) expires before the tool
// was launched) and leaves nothing of the tool behind. Its tool must not need the terminal:
// outside the terminal's foreground group, reading it stops the tool until the time-out. An instance
// carries one time-out run at a time; the class forms create a fresh instance per call.
#pragma once

#include <any>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/Notification.h"
#include "Process/Process.h"

namespace corvina::tq {

class TQTaskEx {
public:
    using Task = std::shared_ptr<corvina::Process>;
    using Arguments = std::vector<std::string>;
    using Environment = std::map<std::string, std::string>;
    using Data = std::vector<uint8_t>;
    using Timeout = std::chrono::duration<double>;

    enum class Encoding { ASCII = 1, UTF8 = 4 };

    // How long a timed-out tool's group has to end after the terminate signal.
    static constexpr std::chrono::seconds kTerminationGrace{2};

    // The chunk message: a chunk of standard output (empty for the end of output), the
    // instance running the tool, and the client's object (empty when none was given).
    using ChunkHandler = std::function<void(const Data& chunk, TQTaskEx& task, const std::any& object)>;

    // The name of the record that carries each chunk from the reader to asyncTaskReturnData.
    static constexpr const char* kAsyncTaskDataNotification = "TQAsyncTaskDataNotification";

    TQTaskEx();
    // Ends a background run (without the end-of-output message) and waits for its reader.
    ~TQTaskEx();
    TQTaskEx(const TQTaskEx&) = delete;
    TQTaskEx& operator=(const TQTaskEx&) = delete;

    // --- Output as bytes -------------------------------------------------------------------
    // The tool's standard output when it printed anything, else its standard error, else an
    // empty buffer; none when the tool could not be run. `task` receives the task before it
    // is launched. An environment replaces the caller's whole environment.
    static std::optional<Data> dataFromTask(const std::string& path, const Arguments& args, Task* task = nullptr,
                                            const std::optional<Environment>& environment = std::nullopt,
                                            bool logOutput = true, bool logError = true);
    static std::optional<Data> dataFromTask(const std::string& path, const Arguments& args, Timeout timeout,
                                            bool logOutput = true, bool logError = true);

    // --- Output as text (empty when the tool could not be run) -------------------------------
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args,
                                                     Task* task = nullptr);
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args, Encoding encoding,
                                                     Task* task = nullptr);
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args, Timeout timeout);
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args, Encoding encoding,
                                                     Timeout timeout, bool logOutput = true, bool logError = true);

    // --- Success: true when the tool ran, whatever its exit status ---------------------------
    static bool runTask(const std::string& path, const Arguments& args = {}, Task* task = nullptr);
    static void runTask(const std::string& path, const Arguments& args, Timeout timeout);
    // Starts the tool and hands it over without waiting; none when the path is not a tool.
    // Launch failures are thrown as corvina::PlatformException.
    static Task runTaskAndReturn(const std::string& path, const Arguments& args = {});

    // --- Exit status (-1 when the path is not a tool) ----------------------------------------
    static int32_t terminationCodeFromTask(const std::string& path, const Arguments& args = {}, Task* task = nullptr);
    static int32_t terminationCodeFromTask(const std::string& path, const Arguments& args, Timeout timeout);

    // --- Instance forms with a time-out ------------------------------------------------------
    void runTaskWithTimeout(const std::string& path, const Arguments& args, Timeout timeout);
    std::optional<Data> dataFromTaskWithTimeout(const std::string& path, const Arguments& args, Timeout timeout,
                                                bool logOutput = true, bool logError = true);
    int32_t terminationCodeFromTaskWithTimeout(const std::string& path, const Arguments& args, Timeout timeout);

    // The time-out check: marks the time-out of the run in progress as expired and
    // terminates its tool's process group, with one log line. A tool launched after the expiry is terminated
    // as soon as it is launched.
    void timeout();

    // --- Background runs -----------------------------------------------------------------------
    // Starts the tool on a reader thread and returns at once. Its standard output goes to the
    // handler chunk by chunk, in order, on the reader thread, then one empty chunk; standard
    // error goes to the null device, standard input is the caller's. A null handler drops the
    // chunks; the run still ends. A run in progress on this instance is terminated first.
    void asyncDataFromTask(const std::string& path, const Arguments& args, ChunkHandler handler, std::any object = {},
                           const std::optional<Environment>& environment = std::nullopt);
    // Delivers one chunk (the record's data item); an empty one ends the run.
    void asyncTaskReturnData(const corvina::Notification& notification);
    // Ends the background run at once, from any thread: no chunk arrives afterwards.
    void terminateAsyncTask();
    void terminateTask() { terminateAsyncTask(); }

    Task theTask() const;
    void setTheTask(Task task);
    ChunkHandler chunkHandler() const;
    void setChunkHandler(ChunkHandler handler);
    std::any object() const;
    void setObject(std::any object);

private:
    class TimeoutTimer;
    struct AsyncRun;
    template <class Run>
    auto runWithTimeout(Timeout timeout, Run&& run);
    // Called by the time-out forms once their tool is launched.
    void taskLaunched();
    void terminateIfExpiredLocked();
    // The task of the run in progress once the time-out has terminated it; else none.
    Task firedTask() const;
    // The reader thread's body.
    void launchAsyncTask(std::shared_ptr<AsyncRun> run);
    void deliver(Data chunk);
    // Ends one run: its reader stops, its tool is terminated, and, when it is still the
    // instance's run, the handler, object and task are cleared.
    void endRun(const std::shared_ptr<AsyncRun>& run);

    mutable std::mutex taskMutex_;
    Task theTask_;
    bool timeoutExpired_ = false;
    bool timeoutFired_ = false;
    std::mutex runMutex_;  // one time-out run at a time

    ChunkHandler handler_;
    std::any object_;
    std::shared_ptr<AsyncRun> asyncRun_;
    std::thread reader_;
    std::mutex readerMutex_;              // starting and joining the reader
    std::recursive_mutex deliveryMutex_;  // held while a chunk is handed to the handler
};

}  // namespace corvina::tq
