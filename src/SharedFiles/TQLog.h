// The process-wide log: one plain-text file per program in ~/Library/Logs/Brantwell
// ({appName}.1.log, the four previous runs' files as .2 to .5), restarted at 500000 bytes.
//
//   TQLog::createNewLog("CorvinaAVFHelper");
//   TQLog::appendLog("Video format is %@ %ix%i", name, width, height);
//   TQLog::fastAppendLog("Requesting next audio sample at sample index %u,%u...", a, b);
//
// The log is one TQLogCore (formatting, the waiting rule, the console copy, the write queue
// and its writer) whose sink is its file (TQLogFile: folder, rotation, header, the size
// restart); this class makes the one instance, opens its files and handles the process's
// exit, fork and uncaught exceptions. fastAppendLog hands the queue its format and arguments
// as they are and the writer formats them; the other calls format on the caller's thread.
// Formats go through escapeTextForLogging first, so "50% done" is written as it stands.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tq/TQLogCore.h"

namespace corvina::tq {

class TQLogFile;
class TQLogSink;

class TQLog {
public:
    using Format = TQLogCore::Format;
    using SeriesLine = TQLogCore::SeriesLine;

    static constexpr uint64_t kSizeLimit = 500000;

    // The one instance, created on the first call. Not copyable: hold a reference. Inline,
    // as every log call starts here, thousands of times a second on the sample path.
    static TQLog& sharedController()
    {
        TQLog* made = shared_.load(std::memory_order_acquire);
        return made ? *made : makeShared();
    }
    TQLog(const TQLog&) = delete;
    TQLog& operator=(const TQLog&) = delete;

    static void createNewLog(std::optional<std::string> name);
    static void createNewLog() { createNewLog(std::nullopt); }
    // Paths of the existing {appName}.{1..5}.log files of the user log folder, in order.
    static std::vector<std::string> availableLogs();
    // Blocks until everything queued before the call is written; at once on the writer.
    static void finishWriting();
    // Shutdown: with at most 10 entries queued they are written, with more the unstarted
    // ones are dropped; afterwards the log takes no more entries. Runs at normal exit.
    static void willTerminate();

    template <class... A>
    static void appendLog(Format fmt, const A&... args)
    {
        sharedController().core_.append(TQLogCore::Mode::Wait, fmt, args...);
    }
    template <class... A>
    static void fastAppendLog(Format fmt, const A&... args)
    {
        sharedController().core_.fastAppend(fmt, args...);
    }
    // As fastAppendLog of each line in turn, `steps` times over, with the counting arguments
    // one higher at each step. Queued as one entry when every format can be kept and the
    // arguments are numbers or text: for the long runs of lines that differ only by a
    // counter, such as a feeder's lines for each sample of a run.
    static void fastAppendLogSeries(uint64_t steps, std::span<const SeriesLine> lines)
    {
        sharedController().core_.fastAppendSeries(steps, lines);
    }
    // The per-sample lines (a feeder's "Requesting next ... sample" lines, thousands a second):
    // fastAppendLog and fastAppendLogSeries when the global preferences set "log-level" to
    // "verbose", nothing otherwise. Kept out by default so that one job's samples do not
    // rotate the earlier runs' logs out of the five kept files.
    template <class... A>
    static void sampleAppendLog(Format fmt, const A&... args)
    {
        if (sharedController().logsSamples()) fastAppendLog(fmt, args...);
    }
    static void sampleAppendLogSeries(uint64_t steps, std::span<const SeriesLine> lines)
    {
        if (sharedController().logsSamples()) fastAppendLogSeries(steps, lines);
    }
    template <class... A>
    static void appendLogAndPrint(Format fmt, const A&... args)
    {
        sharedController().core_.append(TQLogCore::Mode::Print, fmt, args...);
    }
    template <class... A>
    static void appendLogAndDebugPrint(Format fmt, const A&... args)
    {
        sharedController().core_.append(TQLogCore::Mode::DebugPrint, fmt, args...);
    }
    template <class... A>
    static void debugPrint(Format, const A&...)
    {
    }

    // Finished text (no formatting): logged through appendLog, and printed as the console
    // copy unless noPrinting is set. Used for messages whose percent signs are literal.
    static void appendMessageAndPrint(std::string_view message);

    static std::string escapeTextForLogging(std::string_view text) { return TQLogCore::escapeTextForLogging(text); }
    // False when escapeTextForLogging would return the text unchanged.
    static bool needsEscaping(std::string_view text) { return TQLogCore::needsEscaping(text); }
    // What appendLogAndPrint prints for a message: "%@" removed, "%" doubled, NULs removed.
    static std::string consoleCopy(std::string_view message) { return TQLogCore::consoleCopy(message); }

    // Instance properties.
    std::string appName() const;
    void setAppName(std::optional<std::string> name);
    uint64_t bytesWritten() const;
    uint64_t bytesInQueue() const;
    bool loggingDisabled() const { return core_.loggingDisabled(); }
    bool noPrinting() const { return core_.noPrinting(); }
    void setNoPrinting(bool value) { core_.setNoPrinting(value); }
    // Whether the per-sample lines are written; createNewLog sets it from the preferences.
    bool logsSamples() const { return core_.logsSamples(); }
    void setLogsSamples(bool value) { core_.setLogsSamples(value); }
    bool hasFileHandle() const;
    bool hasWriteQueue() const;
    // Entries queued and not yet written.
    size_t queuedEntryCount() const;

    // Queues one text for the writer (trimmed; empty texts are dropped).
    void appendTextToLog(std::string_view text);

    // Test hook: while suspended the writer takes nothing from the queue.
    static void suspendWriterForTesting(bool suspended);
    // Test hooks: turns the writer's skipping of files a batch rotates out on or off, and
    // counts the batches that took it.
    static void setBatchShortcutForTesting(bool on);
    static uint64_t batchShortcutsForTesting();
    // Test hook: the uncaught-exception handler's work without ending the process.
    static void reportUncaughtException(std::exception_ptr exception);

private:
    TQLog();
    ~TQLog();
    static TQLog& makeShared();
    static inline std::atomic<TQLog*> shared_{nullptr};

    void createNewLogImpl(std::optional<std::string> name);
    void shutdown();
    static void atforkPrepare();
    static void atforkParent();
    static void atforkChild();

    // The core's sink: hands batches to the file, made once the core is (the file reports to
    // the core's flags).
    std::unique_ptr<TQLogSink> sink_;
    TQLogCore core_;
    std::unique_ptr<TQLogFile> file_;
};

}  // namespace corvina::tq
