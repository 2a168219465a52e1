// Runs external command-line tools synchronously: to learn whether they ran, to collect
// what they printed, or to learn their exit status, optionally with a time-out after which
// the tool is sent the terminate signal.
//
// Shorter forms fill the missing arguments with defaults. Time-outs are cut to whole
// seconds (2.9 s becomes 2 s). An instance carries one time-out run at a time; the class
// forms create a fresh instance per call.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Process/Process.h"

class TQTaskEx {
public:
    using Task = std::shared_ptr<corvina::Process>;
    using Arguments = std::vector<std::string>;
    using Environment = std::map<std::string, std::string>;
    using Data = std::vector<uint8_t>;
    using Timeout = std::chrono::duration<double>;

    enum class Encoding { ASCII = 1, UTF8 = 4 };

    TQTaskEx() = default;
    TQTaskEx(const TQTaskEx&) = delete;
    TQTaskEx& operator=(const TQTaskEx&) = delete;

    // --- Output as bytes -------------------------------------------------------------------
    // The tool's standard output when it printed anything, else its standard error, else an
    // empty buffer; none when the tool could not be run. `task` receives the task before it
    // is launched. An environment replaces the caller's whole environment.
    static std::optional<Data> dataFromTask(const std::string& path, const Arguments& args,
                                            Task* task = nullptr,
                                            const std::optional<Environment>& environment = std::nullopt,
                                            bool logOutput = true, bool logError = true);
    static std::optional<Data> dataFromTask(const std::string& path, const Arguments& args, Timeout timeout,
                                            bool logOutput = true, bool logError = true);

    // --- Output as text (empty when the tool could not be run) -------------------------------
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args,
                                                     Task* task = nullptr);
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args,
                                                     Encoding encoding, Task* task = nullptr);
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args,
                                                     Timeout timeout);
    static std::optional<std::string> stringFromTask(const std::string& path, const Arguments& args,
                                                     Encoding encoding, Timeout timeout,
                                                     bool logOutput = true, bool logError = true);

    // --- Success: true when the tool ran, whatever its exit status ---------------------------
    static bool runTask(const std::string& path, const Arguments& args = {}, Task* task = nullptr);
    static void runTask(const std::string& path, const Arguments& args, Timeout timeout);
    // Starts the tool and hands it over without waiting; none when the path is not a tool.
    // Launch failures are thrown as corvina::PlatformException.
    static Task runTaskAndReturn(const std::string& path, const Arguments& args = {});

    // --- Exit status (-1 when the path is not a tool) ----------------------------------------
    static int32_t terminationCodeFromTask(const std::string& path, const Arguments& args = {},
                                           Task* task = nullptr);
    static int32_t terminationCodeFromTask(const std::string& path, const Arguments& args, Timeout timeout);

    // --- Instance forms with a time-out ------------------------------------------------------
    void runTaskWithTimeout(const std::string& path, const Arguments& args, Timeout timeout);
    std::optional<Data> dataFromTaskWithTimeout(const std::string& path, const Arguments& args,
                                                Timeout timeout, bool logOutput = true, bool logError = true);
    int32_t terminationCodeFromTaskWithTimeout(const std::string& path, const Arguments& args,
                                               Timeout timeout);

    // The time-out check: terminates the run in progress, if any, with one log line.
    void timeout();

    Task theTask() const;
    void setTheTask(Task task);

private:
    class TimeoutTimer;
    template <class Run>
    auto runWithTimeout(Timeout timeout, Run&& run);

    mutable std::mutex taskMutex_;
    Task theTask_;
    std::mutex runMutex_;  // one time-out run at a time
};
