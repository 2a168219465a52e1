// The log's file: the log folder, the rotation of {appName}.1.log to .5.log, the creation of
// a new file and its header, and the writing of entries with their date prefix, restarting
// the file when it reaches the size limit. TQLog owns one; its writer thread alone writes.
#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/Date.h"

namespace corvina {
class FileHandle;
}

// Texts waiting to be written, already trimmed and never empty: views of texts held
// elsewhere (they must outlive the list), texts formatted into the list's own buffer, or
// deferred texts whose size is known and whose bytes are made only when they are needed
// (materialize), so that texts a batch rotates out of the kept files are never made.
class TQLogTexts {
public:
    // Makes a deferred text: appends it to out, trimmed, from what `source` points at (part
    // tells which of the texts a source stands for is meant).
    using Maker = void (*)(const char* source, uint64_t part, std::string& out);

    void pushView(std::string_view text) { slots_.push_back({text.data(), text.size(), 0}); }
    void push(std::string_view text)
    {
        const size_t start = bytes_.size();
        bytes_.append(text);
        commit(start);
    }
    // A text of `size` bytes (never 0) that maker(source, part, ...) makes later.
    void pushDeferred(const char* source, size_t size, Maker maker, uint64_t part = 0)
    {
        assert(part < kDeferred);
        maker_ = maker;
        slots_.push_back({source, size, kDeferred | part});
        ++deferred_;
    }
    // Room for one more text written straight into the buffer: append to buffer(), then
    // commit(start) with the size buffer() had before (an empty result is dropped).
    std::string& buffer() { return bytes_; }
    void commit(size_t start)
    {
        if (bytes_.size() > start) slots_.push_back({nullptr, bytes_.size() - start, start});
    }
    size_t size() const { return slots_.size(); }
    bool empty() const { return slots_.empty(); }
    size_t sizeAt(size_t i) const { return slots_[i].size; }
    // Makes the deferred texts from index `from` on; only those may be read afterwards.
    void materialize(size_t from);
    std::string_view operator[](size_t i) const
    {
        const Slot& slot = slots_[i];
        assert(!(slot.offset & kDeferred));
        return std::string_view(slot.data ? slot.data : bytes_.data() + slot.offset, slot.size);
    }
    void clear()
    {
        bytes_.clear();
        slots_.clear();
        deferred_ = 0;
    }
    // Gives back memory once a burst has passed.
    void trim(size_t keepBytes);

private:
    static constexpr uint64_t kDeferred = uint64_t(1) << 63;  // the rest of the offset: the part
    struct Slot {
        const char* data;  // a view's text, a deferred text's source; none: at offset in bytes_
        size_t size;
        uint64_t offset;  // with kDeferred set: not made yet
    };
    std::string bytes_;
    std::vector<Slot> slots_;
    size_t deferred_ = 0;
    Maker maker_ = nullptr;
};

class TQLogFile {
public:
    static constexpr uint64_t kSizeLimit = 500000;
    static constexpr long kKeptFiles = 5;

    // disabled is set when the global preferences turn logging off; noPrinting silences the
    // failure messages on standard output.
    TQLogFile(std::atomic<bool>& disabled, const std::atomic<bool>& noPrinting);
    ~TQLogFile();
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
    void write(TQLogTexts& texts);

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
