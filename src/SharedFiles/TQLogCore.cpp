#include "tq/TQLogCore.h"

#include <link.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <vector>

#include "Dispatch/Dispatch.h"
#include "Foundation/StringUtils.h"
#include "tq/TQLogEntry.h"
#include "tq/TQLogQueue.h"

namespace corvina::tq {

namespace {

constexpr std::string_view kLiteralAfterPercent = " .!,-;:+";

}  // namespace

TQLogCore::TQLogCore(TQLogSink& sink) : queue_(std::make_unique<TQLogQueue>(sink)) {}

TQLogCore::~TQLogCore() = default;

uint64_t TQLogCore::bytesInQueue() const { return queue_->bytesInQueue(); }

size_t TQLogCore::queuedEntryCount() const { return queue_->entryCount(); }

bool TQLogCore::isShutDown() const { return queue_->isShutDown(); }

void TQLogCore::setSuspended(bool suspended) { queue_->setSuspended(suspended); }

// ---- queuing

void TQLogCore::queueText(std::string_view text) { queue_->push(TQLogEntry::text(text)); }

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

std::optional<uint32_t> TQLogCore::internedFormat(std::string_view fmt)
{
    thread_local RecentFormats recent;
    return recent.idFor(fmt, [](std::string_view text) {
        const size_t percent = text.find('%');
        if (percent == std::string_view::npos || !needsEscapingFrom(text, percent)) return TQLogEntry::intern(text);
        return TQLogEntry::intern(escapeTextForLogging(text));
    });
}

void TQLogCore::fastAppendSeries(uint64_t steps, std::span<const SeriesLine> lines)
{
    if (steps == 0 || lines.empty() || loggingDisabled()) return;
    using Kind = corvina::FormatArg::Kind;
    constexpr size_t kMostLines = 16;
    constexpr uint64_t kMostSeriesLines = 1u << 16;
    std::array<TQLogEntry::SeriesLine, kMostLines> queued;
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
            queue_->push(TQLogEntry::series(std::span(queued.data(), count), std::min(mostSteps, steps - from)));
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

void TQLogCore::queueFormat(std::string_view fmt, std::span<const corvina::FormatArg> args)
{
    if (const std::optional<uint32_t> id = internedFormat(fmt)) {
        queue_->push(TQLogEntry::interned(*id, args));
        return;
    }
    const size_t percent = fmt.find('%');
    if (percent == std::string_view::npos) {
        queue_->push(TQLogEntry::text(fmt));  // nothing to format
        return;
    }
    if (!needsEscapingFrom(fmt, percent))
        queue_->push(TQLogEntry::format(fmt, args));
    else
        queue_->push(TQLogEntry::format(escapeTextForLogging(fmt), args));
}

void TQLogCore::appendText(Mode mode, std::string_view text)
{
    switch (mode) {
    case Mode::Fast:
        queueText(text);
        return;
    case Mode::Wait:
        queueText(text);
        waitIfShort(text);
        return;
    case Mode::Print:
    case Mode::DebugPrint: {
        std::string_view message = corvina::trimWhitespaceAndNewlines(text);
        queueText(message);
        waitIfShort(message);
        if (mode == Mode::Print && !noPrinting()) std::puts(consoleCopy(message).c_str());
        return;
    }
    }
}

bool TQLogCore::isShort(std::string_view formatted)
{
    if (formatted.empty() || formatted.size() > 4 * 99) return false;
    const size_t length = corvina::utf16Length(formatted);
    return length >= 1 && length <= 99;
}

// The waiting rule: a short text from a background thread with almost nothing queued
// returns only once it is written.
void TQLogCore::waitIfShort(std::string_view formatted)
{
    if (corvina::isMainThread() || !isShort(formatted)) return;
    if (bytesInQueue() <= 99) finishWriting();
}

std::string TQLogCore::escapeTextForLogging(std::string_view text)
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

bool TQLogCore::needsEscaping(std::string_view text) { return needsEscapingFrom(text, text.find('%')); }

bool TQLogCore::needsEscapingFrom(std::string_view text, size_t firstPercent)
{
    for (size_t at = firstPercent; at != std::string_view::npos; at = text.find('%', at + 1)) {
        if (at + 1 < text.size() && kLiteralAfterPercent.find(text[at + 1]) != std::string_view::npos) return true;
        if (text.compare(at, 3, "%%%") == 0) return true;
    }
    return false;
}

std::string TQLogCore::consoleCopy(std::string_view message)
{
    std::string copy = corvina::replaceAll(corvina::replaceAll(message, "%@", ""), "%", "%%");
    std::erase(copy, '\0');
    return copy;
}

// ---- flushing and shutdown

void TQLogCore::finishWriting()
{
    if (queue_->isWriterThread()) return;
    std::lock_guard<std::mutex> lock(flushMutex_);
    queue_->waitUntilWritten();
}

void TQLogCore::shutdown() { queue_->shutdown(kWrittenAtShutdown); }

void TQLogCore::lockForFork() { queue_->lockForFork(); }

void TQLogCore::unlockInParent() { queue_->unlockInParent(); }

void TQLogCore::resetInChild() { queue_->resetInChild(); }

}  // namespace corvina::tq
