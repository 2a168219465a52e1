// A log: formatting, the waiting rule and the console copy on the callers' side, a write
// queue with its writer thread (TQLogQueue), and a sink the writer hands its texts to. The
// process's log (TQLog) is one of these with the log file as its sink; tests and benchmarks
// make their own with a memory sink.
//
//   TQLogMemorySink sink;
//   TQLogCore log(sink);
//   log.fastAppend("Requesting next audio sample at sample index %u,%u...", a, b);
//   log.finishWriting();
//
// fastAppend hands the queue its format and arguments as they are and the writer formats
// them; the other calls format on the caller's thread. Formats go through
// escapeTextForLogging first, so "50% done" is written as it stands.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Foundation/Format.h"

namespace corvina::tq {

class TQLogQueue;
class TQLogSink;

class TQLogCore {
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

    // One line of a series: a format, its arguments, and the integer argument that counts up
    // by one from each step to the next, if any.
    struct SeriesLine {
        Format format = nullptr;
        std::span<const corvina::FormatArg> args;
        std::optional<size_t> counting;
    };

    // How a formatted text is logged. Wait: queued, then the waiting rule (a short text from a
    // background thread with almost nothing queued returns once it is written). Print and
    // DebugPrint: trimmed, queued, the waiting rule; Print also prints the console copy
    // unless noPrinting is set. Fast: queued.
    enum class Mode { Wait, Fast, Print, DebugPrint };

    // Entries that shutdown() still writes; with more queued, those not yet taken are dropped.
    static constexpr size_t kWrittenAtShutdown = 10;

    // The writer hands every batch to sink, which must outlive the log.
    explicit TQLogCore(TQLogSink& sink);
    // Writes everything queued, then stops the writer.
    ~TQLogCore();
    TQLogCore(const TQLogCore&) = delete;
    TQLogCore& operator=(const TQLogCore&) = delete;

    template <class... A>
    void append(Mode mode, Format fmt, const A&... args)
    {
        if (fmt && !loggingDisabled()) {
            Scratch scratch;
            appendEscaped(scratch.text(), fmt.view(), args...);
            appendText(mode, scratch.text());
        }
    }
    // A finished text (no formatting: its percent signs are literal).
    void appendText(Mode mode, std::string_view text);

    template <class... A>
    void fastAppend(Format fmt, const A&... args)
    {
        if (!fmt || loggingDisabled()) return;
        if constexpr (sizeof...(A) == 0) {
            queueFormat(fmt.view(), {});
        } else {
            const corvina::FormatArg list[] = {corvina::FormatArg(args)...};
            queueFormat(fmt.view(), std::span<const corvina::FormatArg>(list, sizeof...(A)));
        }
    }
    // As fastAppend of each line in turn, `steps` times over, with the counting arguments one
    // higher at each step. Queued as one entry when every format can be kept and the
    // arguments are numbers or text.
    void fastAppendSeries(uint64_t steps, std::span<const SeriesLine> lines);

    // Blocks until everything queued before the call is written; at once on the writer.
    void finishWriting();
    // With at most kWrittenAtShutdown entries queued they are written, with more the
    // unstarted ones are dropped; afterwards the log takes no more entries.
    void shutdown();
    bool isShutDown() const;

    static std::string escapeTextForLogging(std::string_view text);
    // False when escapeTextForLogging would return the text unchanged.
    static bool needsEscaping(std::string_view text);
    // What the printing calls print for a message: "%@" removed, "%" doubled, NULs removed.
    static std::string consoleCopy(std::string_view message);

    // Total length of what waits: texts in UTF-16 code units, formats by their length.
    uint64_t bytesInQueue() const;
    // Entries queued and not yet written.
    size_t queuedEntryCount() const;
    bool loggingDisabled() const { return loggingDisabled_.load(std::memory_order_relaxed); }
    // Set by the sink when the preferences turn logging off: no more entries are taken.
    std::atomic<bool>& loggingDisabledFlag() { return loggingDisabled_; }
    bool noPrinting() const { return noPrinting_.load(std::memory_order_relaxed); }
    void setNoPrinting(bool value) { noPrinting_.store(value, std::memory_order_relaxed); }
    const std::atomic<bool>& noPrintingFlag() const { return noPrinting_; }
    // Whether the per-sample lines are written.
    bool logsSamples() const { return logsSamples_.load(std::memory_order_relaxed); }
    void setLogsSamples(bool value) { logsSamples_.store(value, std::memory_order_relaxed); }

    // While suspended the writer takes nothing from the queue (callers still wait when it is full).
    void setSuspended(bool suspended);

    // Around fork(): the child starts with an empty queue and no writer; what was queued
    // before is the parent's to write.
    void lockForFork();
    void unlockInParent();
    void resetInChild();

private:
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

    template <class... A>
    static void appendEscaped(std::string& out, std::string_view fmt, const A&... args)
    {
        if (!needsEscaping(fmt))
            corvina::appendFormat(out, fmt, args...);
        else
            corvina::appendFormat(out, escapeTextForLogging(fmt), args...);
    }
    static bool needsEscapingFrom(std::string_view text, size_t firstPercent);
    static bool isShort(std::string_view formatted);
    void waitIfShort(std::string_view formatted);
    void queueText(std::string_view text);
    void queueFormat(std::string_view fmt, std::span<const corvina::FormatArg> args);
    // The format's number in the table of kept formats (escaped first), if kept.
    static std::optional<uint32_t> internedFormat(std::string_view fmt);

    std::atomic<bool> loggingDisabled_{false};
    std::atomic<bool> noPrinting_{false};
    std::atomic<bool> logsSamples_{false};
    std::mutex flushMutex_;  // one flush at a time
    std::unique_ptr<TQLogQueue> queue_;
};

}  // namespace corvina::tq
