#include "TQLog.h"

#include <link.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "Dispatch/Dispatch.h"
#include "Foundation/Date.h"
#include "Foundation/Exception.h"
#include "Foundation/StringUtils.h"
#include "TQLogFile.h"
#include "TQLogQueue.h"

namespace {

// Entries that shutdown still writes; with more queued, those not yet taken are dropped.
constexpr size_t kWrittenAtShutdown = 10;

constexpr std::string_view kLiteralAfterPercent = " .!,-;:+";

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
    if (!entered.exchange(true)) TQLog::reportUncaughtException(std::current_exception());
    if (previousTerminate) previousTerminate();
    std::abort();
}

}  // namespace

TQLog::TQLog()
    : file_(std::make_unique<TQLogFile>(loggingDisabled_, noPrinting_)),
      queue_(std::make_unique<TQLogQueue>([file = file_.get()](TQLogTexts& texts) { file->write(texts); }))
{
    std::atexit([] { TQLog::willTerminate(); });
    pthread_atfork(&TQLog::atforkPrepare, &TQLog::atforkParent, &TQLog::atforkChild);
    previousTerminate = std::set_terminate(&onTerminate);
}

TQLog::~TQLog() { shutdown(); }

TQLog& TQLog::makeShared()
{
    static std::once_flag once;
    std::call_once(once, [] {
        std::lock_guard<std::mutex> lock(classMutex());
        // Never destroyed: other threads may log until the process ends.
        alignas(TQLog) static unsigned char storage[sizeof(TQLog)];
        shared_.store(::new (static_cast<void*>(storage)) TQLog(), std::memory_order_release);
    });
    return *shared_.load(std::memory_order_acquire);
}

// ---- properties

std::string TQLog::appName() const { return file_->appName(); }

void TQLog::setAppName(std::optional<std::string> name) { file_->setAppName(std::move(name)); }

uint64_t TQLog::bytesWritten() const { return file_->bytesWritten(); }

uint64_t TQLog::bytesInQueue() const { return queue_->bytesInQueue(); }

bool TQLog::hasFileHandle() const { return file_->isOpen(); }

bool TQLog::hasWriteQueue() const { return !queue_->isShutDown(); }

size_t TQLog::queuedEntryCount() const { return queue_->entryCount(); }

// ---- opening a log

void TQLog::createNewLog(std::optional<std::string> name) { sharedController().createNewLogImpl(std::move(name)); }

void TQLog::createNewLogImpl(std::optional<std::string> name)
{
    if (loggingDisabled()) return;
    // What was queued before a new log is opened belongs to the file it was meant for.
    finishWriting();
    if (!file_->open(std::move(name))) return;
    setLogsSamples(TQLogFile::preferencesAskForSamples());
    for (const TQLogFile::HeaderLine& line : file_->header(corvina::currentDateDescription()))
        appendFormatted(line.waits ? Mode::Wait : Mode::Fast, line.text);
}

std::vector<std::string> TQLog::availableLogs() { return TQLogFile::availableLogs(sharedController().appName()); }

// ---- queuing

void TQLog::appendTextToLog(std::string_view text) { queueText(text); }

void TQLog::queueText(std::string_view text) { queue_->pushText(text); }

namespace {

// The read-only segments of the program itself: a literal there never changes, so a format
// found at the same address and length is the same format.
class ProgramConstants {
public:
    static const ProgramConstants& shared()
    {
        static const ProgramConstants constants;
        return constants;
    }
    bool holds(const char* data, size_t size) const
    {
        const auto at = reinterpret_cast<uintptr_t>(data);
        for (size_t i = 0; i < count_; ++i)
            if (at >= ranges_[i].first && at + size <= ranges_[i].second) return true;
        return false;
    }

private:
    ProgramConstants()
    {
        dl_iterate_phdr(
            [](dl_phdr_info* info, size_t, void* self) {
                auto& me = *static_cast<ProgramConstants*>(self);
                for (ElfW(Half) i = 0; i < info->dlpi_phnum && me.count_ < me.ranges_.size(); ++i) {
                    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
                    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
                    const uintptr_t start = info->dlpi_addr + segment.p_vaddr;
                    me.ranges_[me.count_++] = {start, start + segment.p_memsz};
                }
                return 1;  // the first object is the program; libraries may be unloaded
            },
            this);
    }
    std::array<std::pair<uintptr_t, uintptr_t>, 8> ranges_{};
    size_t count_ = 0;
};

// The formats this thread queued last and their numbers in the queue's table: a format seen
// again costs a comparison of its text, not a search for what needs escaping. Only the
// program's own literals are known by their address alone: any other buffer may have been
// reused for another format, so its text is compared.
class RecentFormats {
public:
    template <class Intern>
    std::optional<uint32_t> idFor(std::string_view fmt, Intern intern)
    {
        const bool constant = ProgramConstants::shared().holds(fmt.data(), fmt.size());
        for (const Recent& r : recent_)
            if (r.data == fmt.data() && r.text.size() == fmt.size() && (constant || r.text == fmt)) return r.id;
        Recent& r = recent_[next_++ % recent_.size()];
        r.data = fmt.data();
        r.text.assign(fmt);
        r.id = intern(fmt);
        return r.id;
    }

private:
    struct Recent {
        const char* data = nullptr;
        std::string text;
        std::optional<uint32_t> id;
    };
    std::array<Recent, 8> recent_;
    size_t next_ = 0;
};

}  // namespace

std::optional<uint32_t> TQLog::internedFormat(std::string_view fmt)
{
    thread_local RecentFormats recent;
    return recent.idFor(fmt, [](std::string_view text) {
        const size_t percent = text.find('%');
        if (percent == std::string_view::npos || !needsEscapingFrom(text, percent)) return TQLogQueue::intern(text);
        return TQLogQueue::intern(escapeTextForLogging(text));
    });
}

void TQLog::fastAppendLogSeries(uint64_t steps, std::span<const SeriesLine> lines)
{
    if (steps == 0 || lines.empty()) return;
    TQLog& log = sharedController();
    if (!log.loggingDisabled()) log.queueSeries(steps, lines);
}

void TQLog::queueSeries(uint64_t steps, std::span<const SeriesLine> lines)
{
    using Kind = corvina::FormatArg::Kind;
    constexpr size_t kMostLines = 16;
    constexpr uint64_t kMostSeriesLines = 1u << 16;
    std::array<TQLogQueue::SeriesLine, kMostLines> queued;
    size_t count = 0;
    bool whole = lines.size() <= kMostLines;
    for (size_t l = 0; whole && l < lines.size(); ++l) {
        const SeriesLine& line = lines[l];
        if (!line.format) continue;  // a null format logs nothing
        const std::optional<uint32_t> id = internedFormat(line.format.view());
        whole = id && line.args.size() < 255 &&
                std::ranges::none_of(line.args, [](const auto& arg) { return arg.kind() == Kind::Object; });
        if (line.counting) {
            const size_t c = *line.counting;
            whole = whole && c < line.args.size() &&
                    (line.args[c].kind() == Kind::Signed || line.args[c].kind() == Kind::Unsigned);
        }
        if (whole)
            queued[count++] = {*id, line.args, line.counting ? std::optional<uint8_t>(*line.counting) : std::nullopt};
    }
    if (whole) {
        // In pieces of a bounded number of lines, so that the writer never takes a series
        // larger than a queue of single lines would be; each piece's counters go on from
        // where the previous piece's ended.
        const uint64_t mostSteps = std::max<uint64_t>(1, kMostSeriesLines / std::max<size_t>(count, 1));
        std::array<std::vector<corvina::FormatArg>, kMostLines> moved;
        for (size_t l = 0; l < count && steps > mostSteps; ++l) {
            moved[l].assign(queued[l].args.begin(), queued[l].args.end());
            queued[l].args = moved[l];
        }
        for (uint64_t from = 0; from < steps; from += mostSteps) {
            for (size_t l = 0; from > 0 && l < count; ++l)
                if (const auto c = queued[l].counting) moved[l][*c] = moved[l][*c].plus(mostSteps);
            queue_->pushSeries(std::span(queued.data(), count), std::min(mostSteps, steps - from));
        }
        return;
    }
    // Otherwise line by line, as the calls the series stands for.
    std::vector<corvina::FormatArg> args;
    for (uint64_t s = 0; s < steps; ++s) {
        for (const SeriesLine& line : lines) {
            if (!line.format) continue;
            args.assign(line.args.begin(), line.args.end());
            if (line.counting && *line.counting < args.size()) args[*line.counting] = args[*line.counting].plus(s);
            queueFormat(line.format.view(), args);
        }
    }
}

void TQLog::queueFormat(std::string_view fmt, std::span<const corvina::FormatArg> args)
{
    if (const std::optional<uint32_t> id = internedFormat(fmt)) {
        queue_->pushInterned(*id, args);
        return;
    }
    const size_t percent = fmt.find('%');
    if (percent == std::string_view::npos) {
        queue_->pushText(fmt);  // nothing to format
        return;
    }
    if (!needsEscapingFrom(fmt, percent))
        queue_->pushFormat(fmt, args);
    else
        queue_->pushFormat(escapeTextForLogging(fmt), args);
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
        if (mode == Mode::Print && !log.noPrinting()) std::puts(consoleCopy(message).c_str());
        return;
    }
    }
}

void TQLog::appendMessageAndPrint(std::string_view message)
{
    if (sharedController().loggingDisabled()) return;
    appendFormatted(Mode::Print, message);
}

bool TQLog::isShort(std::string_view formatted)
{
    if (formatted.empty() || formatted.size() > 4 * 99) return false;
    const size_t length = corvina::utf16Length(formatted);
    return length >= 1 && length <= 99;
}

// The waiting rule: a short text from a background thread with almost nothing queued
// returns only once it is written.
void TQLog::waitIfShort(std::string_view formatted)
{
    if (corvina::isMainThread() || !isShort(formatted)) return;
    if (sharedController().bytesInQueue() <= 99) finishWriting();
}

std::string TQLog::escapeTextForLogging(std::string_view text)
{
    if (!needsEscaping(text)) return std::string(text);
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
    if (out.find("%%%") != std::string::npos) out = corvina::replaceAll(out, "%%%", "%%");
    return out;
}

bool TQLog::needsEscaping(std::string_view text) { return needsEscapingFrom(text, text.find('%')); }

bool TQLog::needsEscapingFrom(std::string_view text, size_t firstPercent)
{
    for (size_t at = firstPercent; at != std::string_view::npos; at = text.find('%', at + 1)) {
        if (at + 1 < text.size() && kLiteralAfterPercent.find(text[at + 1]) != std::string_view::npos) return true;
        if (text.compare(at, 3, "%%%") == 0) return true;
    }
    return false;
}

std::string TQLog::consoleCopy(std::string_view message)
{
    std::string copy = corvina::replaceAll(corvina::replaceAll(message, "%@", ""), "%", "%%");
    std::erase(copy, '\0');
    return copy;
}

// ---- flushing and shutdown

void TQLog::finishWriting()
{
    TQLog& log = sharedController();
    if (log.queue_->isWriterThread()) return;
    std::lock_guard<std::mutex> classLock(classMutex());
    log.queue_->waitUntilWritten();
}

void TQLog::suspendWriterForTesting(bool suspended) { sharedController().queue_->setSuspended(suspended); }

void TQLog::setBatchShortcutForTesting(bool on) { sharedController().file_->setBatchShortcut(on); }

uint64_t TQLog::batchShortcutsForTesting() { return sharedController().file_->shortcutsTaken(); }

void TQLog::willTerminate() { sharedController().shutdown(); }

void TQLog::shutdown()
{
    queue_->shutdown(kWrittenAtShutdown);
    setAppName(std::nullopt);
    file_->close();
}

// ---- fork: the child has no writer thread; it starts one when it next needs it

void TQLog::atforkPrepare()
{
    TQLog& log = sharedController();
    log.file_->lockForFork();
    log.queue_->lockForFork();
}

void TQLog::atforkParent()
{
    TQLog& log = sharedController();
    log.queue_->unlockInParent();
    log.file_->unlockAfterFork();
}

void TQLog::atforkChild()
{
    TQLog& log = sharedController();
    log.queue_->resetInChild();
    log.file_->unlockAfterFork();
}

// ---- uncaught exceptions

void TQLog::reportUncaughtException(std::exception_ptr exception)
{
    if (!exception) return;
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
