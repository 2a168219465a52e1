// The process-wide log: one plain-text file per program in ~/Library/Logs/Brantwell
// ({appName}.1.log, the four previous runs' files as .2 to .5), restarted at 500000 bytes.
//
//   TQLog::createNewLog("CorvinaAVFHelper");
//   TQLog::appendLog("Video format is %@ %ix%i", name, width, height);
//   TQLog::fastAppendLog("Requesting next audio sample at sample index %u,%u...", a, b);
//
// The log is three parts: this public face (formatting, the waiting rule, the console copy),
// its write queue (TQLogQueue: entries, the writer thread, flushing, shutdown, fork) and its
// file (TQLogFile: folder, rotation, header, the size restart). fastAppendLog hands the
// queue its format and arguments as they are and the writer formats them; the other calls
// format on the caller's thread. Formats go through escapeTextForLogging first, so
// "50% done" is written as it stands.
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

#include "Foundation/Format.h"

class TQLogFile;
class TQLogQueue;

class TQLog {
public:
    // A log format: any string, or a null C string ("none", which logs nothing).
    class Format {
    public:
        Format(const char* s) : valid_(s != nullptr), text_(s ? std::string_view(s) : std::string_view()) {}
        Format(std::string_view s) : valid_(true), text_(s) {}
        Format(const std::string& s) : valid_(true), text_(s) {}
        Format(std::nullptr_t) {}
        explicit operator bool() const { return valid_; }
        std::string_view view() const { return text_; }

    private:
        bool valid_ = false;
        std::string_view text_;
    };

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
        if (fmt && !sharedController().loggingDisabled()) {
            Scratch scratch;
            appendEscaped(scratch.text(), fmt.view(), args...);
            appendFormatted(Mode::Wait, scratch.text());
        }
    }
    template <class... A>
    static void fastAppendLog(Format fmt, const A&... args)
    {
        if (!fmt) return;
        TQLog& log = sharedController();
        if (log.loggingDisabled()) return;
        if constexpr (sizeof...(A) == 0) {
            log.queueFormat(fmt.view(), {});
        } else {
            const corvina::FormatArg list[] = {corvina::FormatArg(args)...};
            log.queueFormat(fmt.view(), std::span<const corvina::FormatArg>(list, sizeof...(A)));
        }
    }
    // One line of a series: a format, its arguments, and the integer argument that counts up
    // by one from each step to the next, if any.
    struct SeriesLine {
        Format format = nullptr;
        std::span<const corvina::FormatArg> args;
        std::optional<size_t> counting;
    };
    // As fastAppendLog of each line in turn, `steps` times over, with the counting arguments
    // one higher at each step. Queued as one entry when every format can be kept and the
    // arguments are numbers or text: for the long runs of lines that differ only by a
    // counter, such as a feeder's lines for each sample of a run.
    static void fastAppendLogSeries(uint64_t steps, std::span<const SeriesLine> lines);
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
        if (fmt && !sharedController().loggingDisabled()) {
            Scratch scratch;
            appendEscaped(scratch.text(), fmt.view(), args...);
            appendFormatted(Mode::Print, scratch.text());
        }
    }
    template <class... A>
    static void appendLogAndDebugPrint(Format fmt, const A&... args)
    {
        if (fmt && !sharedController().loggingDisabled()) {
            Scratch scratch;
            appendEscaped(scratch.text(), fmt.view(), args...);
            appendFormatted(Mode::DebugPrint, scratch.text());
        }
    }
    template <class... A>
    static void debugPrint(Format, const A&...)
    {
    }

    // Finished text (no formatting): logged through appendLog, and printed as the console
    // copy unless noPrinting is set. Used for messages whose percent signs are literal.
    static void appendMessageAndPrint(std::string_view message);

    static std::string escapeTextForLogging(std::string_view text);
    // False when escapeTextForLogging would return the text unchanged.
    static bool needsEscaping(std::string_view text);
    // What appendLogAndPrint prints for a message: "%@" removed, "%" doubled, NULs removed.
    static std::string consoleCopy(std::string_view message);

    // Instance properties.
    std::string appName() const;
    void setAppName(std::optional<std::string> name);
    uint64_t bytesWritten() const;
    uint64_t bytesInQueue() const;
    bool loggingDisabled() const { return loggingDisabled_.load(std::memory_order_relaxed); }
    bool noPrinting() const { return noPrinting_.load(std::memory_order_relaxed); }
    void setNoPrinting(bool value) { noPrinting_.store(value, std::memory_order_relaxed); }
    // Whether the per-sample lines are written; createNewLog sets it from the preferences.
    bool logsSamples() const { return logsSamples_.load(std::memory_order_relaxed); }
    void setLogsSamples(bool value) { logsSamples_.store(value, std::memory_order_relaxed); }
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
    enum class Mode { Wait, Fast, Print, DebugPrint };

    // The formatting buffer of the calling thread, reused from call to call (a fresh one
    // when a description() being formatted logs in turn).
    class Scratch {
    public:
        Scratch() : nested_(depth()++ > 0)
        {
            if (!nested_) pooled().clear();
        }
        ~Scratch()
        {
            --depth();
            if (!nested_ && pooled().capacity() > (1u << 16)) {
                pooled().clear();
                pooled().shrink_to_fit();
            }
        }
        Scratch(const Scratch&) = delete;
        Scratch& operator=(const Scratch&) = delete;
        std::string& text() { return nested_ ? own_ : pooled(); }

    private:
        static int& depth()
        {
            thread_local int d = 0;
            return d;
        }
        static std::string& pooled()
        {
            thread_local std::string s;
            return s;
        }
        bool nested_;
        std::string own_;
    };

    TQLog();
    ~TQLog();
    static TQLog& makeShared();
    static inline std::atomic<TQLog*> shared_{nullptr};

    template <class... A>
    static void appendEscaped(std::string& out, std::string_view fmt, const A&... args)
    {
        if (!needsEscaping(fmt))
            corvina::appendFormat(out, fmt, args...);
        else
            corvina::appendFormat(out, escapeTextForLogging(fmt), args...);
    }
    static void appendFormatted(Mode mode, std::string_view text);
    static bool needsEscapingFrom(std::string_view text, size_t firstPercent);
    static void waitIfShort(std::string_view formatted);
    static bool isShort(std::string_view formatted);
    void queueText(std::string_view text);
    void queueFormat(std::string_view fmt, std::span<const corvina::FormatArg> args);
    void queueSeries(uint64_t steps, std::span<const SeriesLine> lines);
    // The format's number in the queue's table of kept formats (escaped first), if kept.
    static std::optional<uint32_t> internedFormat(std::string_view fmt);
    void createNewLogImpl(std::optional<std::string> name);
    void shutdown();
    static void atforkPrepare();
    static void atforkParent();
    static void atforkChild();

    std::atomic<bool> loggingDisabled_{false};
    std::atomic<bool> noPrinting_{false};
    std::atomic<bool> logsSamples_{false};
    std::unique_ptr<TQLogFile> file_;
    std::unique_ptr<TQLogQueue> queue_;
};
