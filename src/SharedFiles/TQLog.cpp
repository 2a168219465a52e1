#include "TQLog.h"

#include <memory>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>

#include "Dispatch/Dispatch.h"
#include "Foundation/Exception.h"
#include "Foundation/FileHandle.h"
#include "Foundation/ProcessInfo.h"
#include "Foundation/StringUtils.h"
#include "Foundation/Value.h"
#include "TQLocalPaths.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kLogFolder = "/Logs/Brantwell";
constexpr const char* kGlobalPrefs = "com.brantwell.global.plist";
constexpr size_t kWriteChunk = 1 << 20;  // bytes gathered before one write call
constexpr size_t kCoalesceEntries = 64;   // batches this large suggest a steady stream
constexpr auto kCoalescePause = std::chrono::milliseconds(2);
constexpr size_t kKeptCapacity = 16u << 20;  // queue buffer kept between batches

// The class-level lock: creation of the shared controller and flushing.
std::mutex& classMutex()
{
    static std::mutex m;
    return m;
}

std::terminate_handler previousTerminate = nullptr;

[[noreturn]] void onTerminate()
{
    static std::atomic<bool> entered{false};
    if (!entered.exchange(true))
        TQLog::reportUncaughtException(std::current_exception());
    if (previousTerminate)
        previousTerminate();
    std::abort();
}

bool isLoggingDisabledByPreferences()
{
    auto prefs = TQLocalPaths::prefsDirectory(true);
    if (!prefs)
        return false;
    auto plist = corvina::Value::fromPropertyListFile(corvina::appendPathComponent(*prefs, kGlobalPrefs));
    if (!plist || !plist->asDictionary())
        return false;
    const corvina::Value& value = (*plist)["disable-logging"];
    if (const std::string* s = value.asString())
        return *s == "1";
    return value.isNumber() && value.doubleValue() == 1.0;
}

std::optional<std::string> logFolder(bool asRoot)
{
    auto library = TQLocalPaths::libraryDirectory(!asRoot);
    if (!library)
        return std::nullopt;
    return *library + kLogFolder;
}

// Writes an empty file in place of path through a temporary file in the same folder.
bool createEmptyFileAtomically(const std::string& path, std::string& error)
{
    std::string temp = path + ".tmp" + std::to_string(getpid());
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        if (!out) {
            error = std::strerror(errno);
            return false;
        }
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        error = std::strerror(errno);
        std::remove(temp.c_str());
        return false;
    }
    return true;
}

// utf16Length with a shortcut for plain ASCII, eight bytes at a time.
uint64_t utf16LengthFast(std::string_view text)
{
    size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        if (word & 0x8080808080808080ull)
            return corvina::utf16Length(text);
    }
    for (; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) & 0x80)
            return corvina::utf16Length(text);
    }
    return text.size();
}

constexpr std::string_view kLiteralAfterPercent = " .!,-;:+";

}  // namespace

TQLog::TQLog()
{
    std::atexit([] { TQLog::willTerminate(); });
    pthread_atfork(&TQLog::atforkPrepare, &TQLog::atforkParent, &TQLog::atforkChild);
    previousTerminate = std::set_terminate(&onTerminate);
}

TQLog::~TQLog() { shutdown(); }

TQLog& TQLog::sharedController()
{
    static std::once_flag once;
    static TQLog* instance = nullptr;
    std::call_once(once, [] {
        std::lock_guard<std::mutex> lock(classMutex());
        // Never destroyed: other threads may log until the process ends.
        alignas(TQLog) static unsigned char storage[sizeof(TQLog)];
        instance = ::new (static_cast<void*>(storage)) TQLog();
    });
    return *instance;
}

// ---- properties

std::string TQLog::appName() const
{
    std::lock_guard<std::mutex> lock(nameMutex_);
    if (appName_)
        return *appName_;
    return corvina::deletingPathExtension(corvina::processinfo::processName());
}

void TQLog::setAppName(std::optional<std::string> name)
{
    std::lock_guard<std::mutex> lock(nameMutex_);
    appName_ = std::move(name);
}

bool TQLog::hasFileHandle() const
{
    std::lock_guard<std::mutex> lock(fileMutex_);
    return fileHandle_ != nullptr;
}

bool TQLog::hasWriteQueue() const
{
    std::lock_guard<std::mutex> lock(queueMutex_);
    return !shutDown_;
}

size_t TQLog::queuedEntryCount() const
{
    std::lock_guard<std::mutex> lock(queueMutex_);
    return static_cast<size_t>(pushedSeq_ - writtenSeq_);
}

void TQLog::print(std::string_view text) const
{
    if (noPrinting())
        return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

// ---- opening a log

void TQLog::createNewLog(std::optional<std::string> name) { sharedController().createNewLogImpl(std::move(name)); }

std::optional<std::string> TQLog::currentLogPath() const
{
    auto folder = logFolder(getuid() == 0);
    if (!folder)
        return std::nullopt;
    return *folder + corvina::format("/%@.1.log", appName());
}

void TQLog::createNewLogImpl(std::optional<std::string> name)
{
    if (loggingDisabled())
        return;
    // What was queued before a new log is opened belongs to the file it was meant for.
    // (The writer's own restart handles its batch itself; this returns at once there.)
    finishWriting();
    {
        std::unique_lock<std::mutex> fileLock(fileMutex_);
        fileHandle_.reset();

        if (isLoggingDisabledByPreferences()) {
            print("Logging is disabled\n");
            loggingDisabled_.store(true);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(nameMutex_);
            if (name && !appName_)
                appName_ = std::move(name);
        }
        bytesWritten_.store(0);
        const std::string app = appName();
        if (app.empty())
            setAppName("Unknown");
        const std::string base = appName();

        const bool asRoot = getuid() == 0;
        auto folder = logFolder(asRoot);
        if (!folder) {
            print(corvina::format("Unable to create folder %s.\n", "(null)"));
            return;
        }
        std::error_code ec;
        if (!fs::is_directory(*folder, ec)) {
            fs::create_directories(*folder, ec);
            if (!fs::is_directory(*folder, ec)) {
                print(corvina::format("Unable to create folder %s.\n", *folder));
                return;
            }
        }
        auto numbered = [&](long n) { return *folder + corvina::format("/%@.%li.log", base, n); };
        const std::string current = numbered(1);
        if (fs::exists(fs::symlink_status(current, ec))) {
            const std::string oldest = numbered(5);
            std::remove(oldest.c_str());
            for (long n = 4; n >= 1; --n) {
                const std::string from = numbered(n);
                if (!fs::exists(fs::symlink_status(from, ec)))
                    continue;
                const std::string to = numbered(n + 1);
                // A move never replaces an existing item.
                if (fs::exists(fs::symlink_status(to, ec)) || std::rename(from.c_str(), to.c_str()) != 0) {
                    print(corvina::format("Unable to move file %s to %s.\n", from, to));
                    return;
                }
            }
        }
        std::string error;
        if (!createEmptyFileAtomically(current, error)) {
            print(corvina::format("Unable to create log file %s - %s\n", current, error));
            return;
        }
        fileHandle_ = corvina::FileHandle::forUpdatingAtPath(current);
        if (!fileHandle_)
            return;
    }

    fastAppendLog("Log started: %@\n", corvina::currentDateDescription());
    if (auto version = corvina::processinfo::version())
        fastAppendLog("Version: %@\n", *version);
    if (std::string exe = corvina::processinfo::executablePath(); !exe.empty())
        fastAppendLog("Path: %@\n", exe);
    appendLog("System: macOS %@, %li CPU(s), %0.2f GB RAM\n", corvina::processinfo::operatingSystemVersionString(),
              static_cast<long>(corvina::processinfo::processorCount()),
              static_cast<double>(corvina::processinfo::physicalMemory()) / 1024.0 / 1024.0 / 1024.0);
    fastAppendLog("Running in 64-bit mode\n");
}

std::vector<std::string> TQLog::availableLogs()
{
    std::vector<std::string> logs;
    auto folder = logFolder(false);
    if (!folder)
        return logs;
    const std::string app = sharedController().appName();
    std::error_code ec;
    for (long n = 1; n <= 5; ++n) {
        std::string path = corvina::format("%@/%@.%li.log", *folder, app, n);
        if (fs::exists(path, ec))
            logs.push_back(std::move(path));
    }
    return logs;
}

// ---- queuing

void TQLog::appendTextToLog(std::string_view text) { queueText(text); }

void TQLog::queueText(std::string_view text)
{
    std::string_view trimmed = corvina::trimWhitespaceAndNewlines(text);
    if (trimmed.empty())
        return;
    const uint64_t length16 = utf16LengthFast(trimmed);
    if (isWriterThread()) {
        // The writer restarting the log: these go before the rest of its batch.
        bytesInQueue_.fetch_add(length16);
        writerLocal_.push(trimmed, length16);
        return;
    }
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        if (shutDown_)
            return;
        startWriterLocked();
        bytesInQueue_.fetch_add(length16);
        wake = pending_.empty() && writerIdle_;
        pending_.push(trimmed, length16);
        ++pushedSeq_;
    }
    if (wake)
        queueCv_.notify_one();
}

void TQLog::appendFormatted(Mode mode, std::string_view text)
{
    TQLog& log = sharedController();
    switch (mode) {
    case Mode::Fast:
        log.queueText(text);
        return;
    case Mode::Wait:
        log.queueText(text);
        waitIfShort(text);
        return;
    case Mode::Print:
    case Mode::DebugPrint: {
        std::string_view message = corvina::trimWhitespaceAndNewlines(text);
        log.queueText(message);
        waitIfShort(message);
        if (mode == Mode::Print && !log.noPrinting())
            std::puts(consoleCopy(message).c_str());
        return;
    }
    }
}

void TQLog::appendMessageAndPrint(std::string_view message)
{
    if (sharedController().loggingDisabled())
        return;
    appendFormatted(Mode::Print, message);
}

bool TQLog::isShort(std::string_view formatted)
{
    if (formatted.empty() || formatted.size() > 4 * 99)
        return false;
    const size_t length = corvina::utf16Length(formatted);
    return length >= 1 && length <= 99;
}

// The waiting rule: a short text from a background thread with almost nothing queued
// returns only once it is written.
void TQLog::waitIfShort(std::string_view formatted)
{
    if (corvina::isMainThread() || !isShort(formatted))
        return;
    if (sharedController().bytesInQueue() <= 99)
        finishWriting();
}

std::string TQLog::escapeTextForLogging(std::string_view text)
{
    if (!needsEscaping(text))
        return std::string(text);
    // A "%" followed by one of these is doubled (one pass does what the eight successive
    // replacements do: each only inserts a "%" before a "%" it matched).
    static constexpr std::string_view kLiteralAfter = kLiteralAfterPercent;
    std::string out;
    out.reserve(text.size() + 8);
    for (size_t i = 0; i < text.size(); ++i) {
        out += text[i];
        if (text[i] == '%' && i + 1 < text.size() && kLiteralAfter.find(text[i + 1]) != std::string_view::npos)
            out += '%';
    }
    if (out.find("%%%") != std::string::npos)
        out = corvina::replaceAll(out, "%%%", "%%");
    return out;
}

bool TQLog::needsEscaping(std::string_view text)
{
    for (size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
        if (at + 1 < text.size() && kLiteralAfterPercent.find(text[at + 1]) != std::string_view::npos)
            return true;
        if (text.compare(at, 3, "%%%") == 0)
            return true;
    }
    return false;
}

std::string TQLog::consoleCopy(std::string_view message)
{
    std::string copy = corvina::replaceAll(corvina::replaceAll(message, "%@", ""), "%", "%%");
    std::erase(copy, '\0');
    return copy;
}

// ---- the writer

bool TQLog::isWriterThread() const { return writerId_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

void TQLog::startWriterLocked()
{
    // A fork()ed child clears writerRunning_ (atforkChild), so no pid check is needed here.
    if (writerRunning_)
        return;
    if (pthread_create(&writerThread_, nullptr, &TQLog::writerMain, this) != 0)
        return;
    writerRunning_ = true;
    writerPid_ = getpid();
}

void* TQLog::writerMain(void* self)
{
    static_cast<TQLog*>(self)->writerLoop();
    return nullptr;
}

void TQLog::writerLoop()
{
    writerId_.store(std::this_thread::get_id());
    EntryList batch;
    std::unique_lock<std::mutex> lock(queueMutex_);
    for (;;) {
        writerIdle_ = true;
        queueCv_.wait(lock, [&] { return (stop_ && pending_.empty()) || (!pending_.empty() && (!suspended_ || stop_)); });
        writerIdle_ = false;
        if (pending_.empty())
            break;
        batch.swap(pending_);
        const uint64_t last = pushedSeq_;
        takenSeq_ = last;
        lock.unlock();
        writeBatch(batch);
        const bool small = batch.size() < kCoalesceEntries;
        batch.clear();
        if (batch.bytes.capacity() > kKeptCapacity) {
            batch.bytes.shrink_to_fit();
            batch.spans.shrink_to_fit();
        }
        lock.lock();
        writtenSeq_ = last;
        doneCv_.notify_all();
        // Under a steady stream, pause briefly so that the next batch is a large one: one
        // write call and no wake-ups for thousands of lines. Anyone waiting for the writer
        // (finishWriting, shutdown) cuts the pause short.
        if (!small)
            queueCv_.wait_for(lock, kCoalescePause, [&] { return stop_ || flushWaiters_ > 0; });
    }
    writerId_.store(std::thread::id());
}

void TQLog::writeBatch(EntryList& batch)
{
    std::unique_lock<std::mutex> fileLock(fileMutex_);
    std::string buffer;
    uint64_t handled16 = 0;
    std::string_view date;
    unsigned dateAge = 0;

    auto flush = [&] {
        if (!buffer.empty() && fileHandle_) {
            try {
                fileHandle_->writeData(buffer);
            } catch (const corvina::PlatformException& e) {
                print(corvina::format("Exception writing to log: %s\n", e.reason()));
            }
        }
        buffer.clear();
        bytesInQueue_.fetch_sub(handled16);
        handled16 = 0;
    };

    auto handle = [&](std::string_view text, uint64_t length16) {
        handled16 += length16;
        if (loggingDisabled())
            return;
        if (!fileHandle_) {
            auto path = currentLogPath();
            if (path)
                fileHandle_ = corvina::FileHandle::forUpdatingAtPath(*path);
            if (!fileHandle_) {
                print(corvina::format("Unable to log the following information: %s\n", text));
                print("Unable to open log for output\n");
                return;
            }
            try {
                fileHandle_->seekToEndOfFile();
            } catch (const corvina::PlatformException&) {
            }
        }
        // The clock is read every few entries: a batch covers a few milliseconds at most.
        if (dateAge++ % 64 == 0)
            date = dateFormatter_.now();
        const size_t before = buffer.size();
        buffer.append(date).append(" - ").append(text).push_back('\n');
        const uint64_t total = bytesWritten_.fetch_add(buffer.size() - before) + (buffer.size() - before);
        if (total >= kSizeLimit) {
            // The entry that crossed the limit ends the old file; the new one starts with its
            // header and the truncation line, then whatever was queued after the entry.
            flush();
            fileLock.unlock();
            finishWriting();
            createNewLogImpl(appName());
            appendLog("Log truncated at 500KB");
            fileLock.lock();
        } else if (buffer.size() >= kWriteChunk) {
            flush();
        }
    };

    size_t next = 0, offset = 0;
    for (;;) {
        if (!writerLocal_.empty()) {
            EntryList local;
            local.swap(writerLocal_);
            size_t at = 0;
            for (const auto& span : local.spans) {
                handle(std::string_view(local.bytes).substr(at, span.size), span.length16);
                at += span.size;
            }
            continue;
        }
        if (next >= batch.spans.size())
            break;
        const auto& span = batch.spans[next++];
        handle(std::string_view(batch.bytes).substr(offset, span.size), span.length16);
        offset += span.size;
    }
    flush();
}

void TQLog::finishWriting()
{
    TQLog& log = sharedController();
    if (log.isWriterThread())
        return;
    std::lock_guard<std::mutex> classLock(classMutex());
    std::unique_lock<std::mutex> lock(log.queueMutex_);
    if (log.shutDown_)
        return;
    const uint64_t target = log.pushedSeq_;
    if (log.writtenSeq_ >= target)
        return;
    log.startWriterLocked();
    ++log.flushWaiters_;
    log.queueCv_.notify_all();
    log.doneCv_.wait(lock, [&] { return log.writtenSeq_ >= target || log.shutDown_; });
    --log.flushWaiters_;
}

void TQLog::suspendWriterForTesting(bool suspended)
{
    TQLog& log = sharedController();
    {
        std::lock_guard<std::mutex> lock(log.queueMutex_);
        log.suspended_ = suspended;
    }
    log.queueCv_.notify_all();
}

// ---- shutdown

void TQLog::willTerminate()
{
    sharedController().shutdown();
}

void TQLog::shutdown()
{
    {
        std::unique_lock<std::mutex> lock(queueMutex_);
        if (shutDown_)
            return;
        suspended_ = false;
        if (pushedSeq_ - writtenSeq_ > 10) {
            // Too much left: what the writer has not started is never written.
            bytesInQueue_.fetch_sub(pending_.total16());
            pending_.clear();
            pushedSeq_ = takenSeq_;
        }
    }
    queueCv_.notify_all();
    finishWriting();
    bool join = false;
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        shutDown_ = true;
        stop_ = true;
        join = writerRunning_ && writerPid_ == getpid() && !isWriterThread();
        writerRunning_ = false;
    }
    queueCv_.notify_all();
    doneCv_.notify_all();
    if (join)
        pthread_join(writerThread_, nullptr);
    setAppName(std::nullopt);
    std::lock_guard<std::mutex> fileLock(fileMutex_);
    fileHandle_.reset();
}

// ---- fork: the child has no writer thread; it starts one when it next needs it

void TQLog::atforkPrepare()
{
    TQLog& log = sharedController();
    log.fileMutex_.lock();
    log.queueMutex_.lock();
    log.nameMutex_.lock();
}

void TQLog::atforkParent()
{
    TQLog& log = sharedController();
    log.nameMutex_.unlock();
    log.queueMutex_.unlock();
    log.fileMutex_.unlock();
}

void TQLog::atforkChild()
{
    TQLog& log = sharedController();
    log.writerRunning_ = false;
    log.writerId_.store(std::thread::id());
    // The batch the parent's writer holds is the parent's to write.
    log.writtenSeq_ = log.takenSeq_;
    // The parent's writer may have been waiting on these: their state names a thread the
    // child does not have, and signalling them could block for ever. Start them afresh.
    std::construct_at(&log.queueCv_);
    std::construct_at(&log.doneCv_);
    log.bytesInQueue_.store(log.pending_.total16());
    log.nameMutex_.unlock();
    log.queueMutex_.unlock();
    log.fileMutex_.unlock();
}

// ---- uncaught exceptions

void TQLog::reportUncaughtException(std::exception_ptr exception)
{
    if (!exception)
        return;
    std::string reason;
    try {
        std::rethrow_exception(exception);
    } catch (const corvina::PlatformException& e) {
        reason = e.reason();
    } catch (const std::exception& e) {
        reason = e.what();
    } catch (...) {
        reason = "Unknown exception";
    }
    appendMessageAndPrint(reason);
    finishWriting();
}
