// The log's file: the log folder, the rotation of {appName}.1.log to .5.log, the creation of
// a new file and its header, and the writing of entries with their date prefix, restarting
// the file when it reaches the size limit. TQLog owns one as its core's sink; the writer
// thread alone writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/Date.h"
#include "tq/TQLogSink.h"

namespace corvina {
class FileHandle;
}

namespace corvina::tq {

class TQLogFile : public TQLogSink {
public:
    static constexpr uint64_t kSizeLimit = 500000;
    static constexpr long kKeptFiles = 5;

    // disabled is set when the global preferences turn logging off; noPrinting silences the
    // failure messages on standard output.
    TQLogFile(std::atomic<bool>& disabled, const std::atomic<bool>& noPrinting);
    ~TQLogFile() override;
    TQLogFile(const TQLogFile&) = delete;
    TQLogFile& operator=(const TQLogFile&) = delete;

    // The base name of the files; the executable's name when none is stored.
    std::string appName() const;
    void setAppName(std::optional<std::string> name);
    uint64_t bytesWritten() const { return bytesWritten_.load(std::memory_order_relaxed); }
    bool isOpen() const;

    // Starts a new current file: preference check, name, folder, rotation, an empty file and
    // its write handle. True when a file is open; its header is then the caller's to queue.
    bool open(std::optional<std::string> name);
    void close();

    // The header lines of a new file started at date, in order. waits marks the one that is
    // logged through the waiting call.
    struct HeaderLine {
        std::string text;
        bool waits = false;
    };
    std::vector<HeaderLine> header(std::string_view date) const;

    // Writes each text as "{date} - {text}\n", one write call per file; a file that reaches
    // the size limit ends with the entry that crossed it and the next starts with its header
    // and "Log truncated at 500KB". Texts that arrive with no file open reopen the current
    // file, or are reported and dropped. Writer thread only.
    void write(TQLogTexts& texts) override;

    // When a batch crosses so many restarts that its first files would be rotated out of the
    // kept ones before it ends, those files are skipped: neither formatted nor written. On by
    // default; the files left on disk are the same either way.
    void setBatchShortcut(bool on) { shortcut_.store(on, std::memory_order_relaxed); }
    uint64_t shortcutsTaken() const { return shortcutsTaken_.load(std::memory_order_relaxed); }

    // True when the global preferences set "log-level" to "verbose" (any case): the per-sample
    // lines are then written.
    static bool preferencesAskForSamples();

    // Paths of the existing {appName}.{1..5}.log in the user log folder, in order.
    static std::vector<std::string> availableLogs(const std::string& appName);

    // Around fork(): the file's locks are taken before and released in both processes.
    void lockForFork();
    void unlockAfterFork();

private:
    size_t firstKeptText(const TQLogTexts& texts, uint64_t written, size_t prefixSize);
    bool startFile(std::optional<std::string> name, bool clearAll);
    void print(std::string_view text) const;

    std::atomic<bool>& disabled_;
    const std::atomic<bool>& noPrinting_;

    mutable std::mutex mutex_;  // the handle and the files on disk
    std::unique_ptr<corvina::FileHandle> handle_;
    std::atomic<uint64_t> bytesWritten_{0};
    std::atomic<bool> shortcut_{true};
    std::atomic<uint64_t> shortcutsTaken_{0};
    corvina::CachedDateFormatter dates_;  // writer only
    std::string out_;                     // the current file's pending bytes, writer only

    mutable std::mutex nameMutex_;
    std::optional<std::string> appName_;
};

}  // namespace corvina::tq
