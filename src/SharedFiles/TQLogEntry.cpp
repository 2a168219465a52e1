#include "tq/TQLogEntry.h"

#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Foundation/StringUtils.h"
#include "tq/TQLogSink.h"

namespace corvina::tq {

namespace {

using corvina::FormatArg;
using Kind = FormatArg::Kind;

// Entries back to back. Every entry starts with its size (8 bytes) and its kind (1 byte):
//   text:     length in UTF-16 code units (8), the trimmed text
//   format:   argument count (1), format length (4), the format, then per argument a tag
//             (1) and its value: 8 bytes for numbers and pointers, 1 for a character, length
//             (4) and bytes for a string, pointer (8), length (4) and bytes for an object.
//   interned: argument count (1), the format's number (4), the arguments as for a format.
//   series:   steps (8), line count (1), then per line: argument count (1), the format's
//             number (4), the counting argument's index (1, kNotCounting for none), the
//             arguments as for a format.
enum : uint8_t { kTextEntry = 0, kFormatEntry = 1, kInternedEntry = 2, kSeriesEntry = 3 };
constexpr uint8_t kNotCounting = 0xFF;
constexpr size_t kSeriesHead = 8 + 1 + 8 + 1;
constexpr size_t kSeriesLineHead = 1 + 4 + 1;
enum : uint8_t { kNone, kSigned, kUnsigned, kDouble, kFloat, kChar, kString, kPointer, kObject };
constexpr size_t kTextHead = 8 + 1 + 8;
constexpr size_t kFormatHead = 8 + 1 + 1 + 4;  // an interned entry's head too
// Batches at least this large (bytes of entries) leave plain formats to be made on demand.
constexpr size_t kDeferredBatch = 256 << 10;

template <class T>
char* put(char* at, T value)
{
    std::memcpy(at, &value, sizeof value);
    return at + sizeof value;
}

char* putBytes(char* at, std::string_view bytes)
{
    at = put(at, static_cast<uint32_t>(bytes.size()));
    std::memcpy(at, bytes.data(), bytes.size());
    return at + bytes.size();
}

template <class T>
T get(const char*& at)
{
    T value;
    std::memcpy(&value, at, sizeof value);
    at += sizeof value;
    return value;
}

std::string_view getBytes(const char*& at)
{
    const uint32_t size = get<uint32_t>(at);
    std::string_view bytes(at, size);
    at += size;
    return bytes;
}

// utf16Length with a shortcut for plain ASCII, eight bytes at a time.
uint64_t utf16LengthFast(std::string_view text)
{
    size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        if (word & 0x8080808080808080ull) return corvina::utf16Length(text);
    }
    for (; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) & 0x80) return corvina::utf16Length(text);
    }
    return text.size();
}

// The process's interned formats. Slots are filled once, under the lock, before the number
// is handed out; the queue's own lock orders that before any reading of the slot.
struct InternedFormat {
    std::string text;
    uint64_t length16 = 0;  // what an entry of it counts in bytesInQueue
    std::optional<corvina::PlainFormatPlan> plan;
};

class FormatTable {
public:
    static constexpr size_t kCapacity = 1024;
    static constexpr size_t kLongest = 512;

    static FormatTable& shared()
    {
        // Never destroyed: the writer may read it while the process exits.
        static FormatTable* table = new FormatTable();  // NOLINT: lives as long as the process
        return *table;
    }
    std::optional<uint32_t> intern(std::string_view format)
    {
        if (format.size() > kLongest) return std::nullopt;
        std::lock_guard<std::mutex> lock(mutex_);
        if (const auto known = ids_.find(format); known != ids_.end()) return known->second;
        if (count_ == kCapacity) return std::nullopt;
        auto made = std::make_unique<InternedFormat>();
        if (format.find('%') == std::string_view::npos) {
            made->text = corvina::trimWhitespaceAndNewlines(format);
            made->length16 = utf16LengthFast(made->text);
        } else {
            made->text = format;
            made->length16 = format.size();
        }
        made->plan = corvina::PlainFormatPlan::make(made->text);
        const auto id = static_cast<uint32_t>(count_);
        slots_[count_++] = std::move(made);
        ids_.emplace(std::string(format), id);
        return id;
    }
    const InternedFormat& operator[](uint32_t id) const { return *slots_[id]; }
    std::mutex& mutex() { return mutex_; }

private:
    std::mutex mutex_;
    std::unique_ptr<InternedFormat> slots_[kCapacity];
    size_t count_ = 0;
    std::map<std::string, uint32_t, std::less<>> ids_;
};

// The bytes an argument other than an object takes in an entry.
size_t encodedSize(const FormatArg& arg)
{
    switch (arg.kind()) {
    case Kind::None:
        return 1;
    case Kind::Char:
        return 2;
    case Kind::String:
        return 5 + arg.stringView().size();
    default:
        return 9;
    }
}

// Writes an argument other than an object.
char* putArg(char* at, const FormatArg& arg)
{
    switch (arg.kind()) {
    case Kind::Signed:
        return put(put(at, kSigned), arg.asSigned());
    case Kind::Unsigned:
        return put(put(at, kUnsigned), arg.asUnsigned());
    case Kind::Double:
        return put(put(at, arg.isSingle() ? kFloat : kDouble), arg.asDouble());
    case Kind::Char:
        return put(put(at, kChar), static_cast<uint8_t>(arg.asSigned()));
    case Kind::String:
        return putBytes(put(at, kString), arg.stringView());
    case Kind::Pointer:
        return put(put(at, kPointer), reinterpret_cast<uint64_t>(arg.pointer()));
    default:
        return put(at, kNone);
    }
}

// A format entry's arguments, read back from the queue (the entry's format has been read)
// into `args`.
void readArgsInto(const char*& at, uint8_t count, std::vector<FormatArg>& args)
{
    args.clear();
    for (uint8_t i = 0; i < count; ++i) {
        switch (get<uint8_t>(at)) {
        case kSigned:
            args.emplace_back(get<int64_t>(at));
            break;
        case kUnsigned:
            args.emplace_back(get<uint64_t>(at));
            break;
        case kDouble:
            args.emplace_back(get<double>(at));
            break;
        case kFloat:
            args.emplace_back(static_cast<float>(get<double>(at)));
            break;
        case kChar:
            args.emplace_back(static_cast<char>(get<uint8_t>(at)));
            break;
        case kString:
            args.emplace_back(getBytes(at));
            break;
        case kPointer:
            args.emplace_back(reinterpret_cast<const void*>(get<uint64_t>(at)));
            break;
        case kObject: {
            const auto object = reinterpret_cast<const void*>(get<uint64_t>(at));
            args.push_back(FormatArg::describedObject(object, getBytes(at)));
            break;
        }
        default:
            args.emplace_back();
            break;
        }
    }
}

// The same into a list the thread keeps from entry to entry.
std::span<const FormatArg> readArgs(const char*& at, uint8_t count)
{
    thread_local std::vector<FormatArg> args;
    readArgsInto(at, count, args);
    return args;
}

// The lines of a series entry, read once (the entry's kind has been read).
struct SeriesLines {
    struct Line {
        const InternedFormat* format;
        std::vector<FormatArg> args;
        uint8_t counting;
        FormatArg first;  // the counting argument at step 0
    };
    uint64_t steps = 0;
    size_t count = 0;
    std::vector<Line> lines;  // kept from series to series: only ever grows

    void read(const char*& at)
    {
        steps = get<uint64_t>(at);
        count = get<uint8_t>(at);
        if (lines.size() < count) lines.resize(count);
        for (size_t l = 0; l < count; ++l) {
            Line& line = lines[l];
            const uint8_t argCount = get<uint8_t>(at);
            line.format = &FormatTable::shared()[get<uint32_t>(at)];
            line.counting = get<uint8_t>(at);
            readArgsInto(at, argCount, line.args);
            if (line.counting < line.args.size()) line.first = line.args[line.counting];
        }
    }
    // Line l's arguments at step s (its counter set in place).
    std::span<const FormatArg> argsAt(size_t l, uint64_t s)
    {
        Line& line = lines[l];
        if (line.counting < line.args.size()) line.args[line.counting] = line.first.plus(s);
        return line.args;
    }
    // What one step's lines count in bytesInQueue.
    uint64_t stepLength16() const
    {
        uint64_t total = 0;
        for (size_t l = 0; l < count; ++l) total += lines[l].format->length16;
        return total;
    }
};

// Appends the formatted text, trimmed in place.
void appendTrimmed(std::string& out, std::string_view format, std::span<const FormatArg> args)
{
    const size_t start = out.size();
    corvina::appendFormatv(out, format, args);
    const std::string_view all(out.data() + start, out.size() - start);
    const std::string_view kept = corvina::trimWhitespaceAndNewlines(all);
    const size_t lead = static_cast<size_t>(kept.data() - all.data());
    if (lead > 0 && !kept.empty()) std::memmove(out.data() + start, kept.data(), kept.size());
    out.resize(start + kept.size());
}

// A format entry's or an interned entry's format (the entry's count has been read).
std::string_view formatOf(uint8_t kind, const char*& at)
{
    return kind == kInternedEntry ? std::string_view(FormatTable::shared()[get<uint32_t>(at)].text) : getBytes(at);
}

// Formats the entry whose kind byte `at` points at, appending the text trimmed; of a series,
// the line `part` counts to, step by step.
void makeText(const char* at, uint64_t part, std::string& out)
{
    const uint8_t kind = get<uint8_t>(at);
    if (kind == kSeriesEntry) {
        thread_local SeriesLines series;
        series.read(at);
        const size_t l = static_cast<size_t>(part % series.count);
        appendTrimmed(out, series.lines[l].format->text, series.argsAt(l, part / series.count));
        return;
    }
    const uint8_t count = get<uint8_t>(at);
    const std::string_view format = formatOf(kind, at);
    appendTrimmed(out, format, readArgs(at, count));
}

uint64_t unpackSeries(const char* entry, bool defer, TQLogTexts& texts);

}  // namespace

// ---- callers

std::optional<uint32_t> TQLogEntry::intern(std::string_view format) { return FormatTable::shared().intern(format); }

void TQLogEntry::lockTable() { FormatTable::shared().mutex().lock(); }

void TQLogEntry::unlockTable() { FormatTable::shared().mutex().unlock(); }

TQLogEntry TQLogEntry::text(std::string_view text)
{
    TQLogEntry entry;
    entry.kind_ = kTextEntry;
    entry.text_ = corvina::trimWhitespaceAndNewlines(text);
    if (entry.text_.empty()) return entry;
    entry.length16_ = utf16LengthFast(entry.text_);
    entry.size_ = kTextHead + entry.text_.size();
    return entry;
}

TQLogEntry TQLogEntry::formatted(std::string made)
{
    TQLogEntry entry = text(made);
    if (!entry.empty()) {
        entry.extra_ = std::make_unique<Extra>();
        entry.extra_->owned = entry.text_;
    }
    return entry;
}

TQLogEntry TQLogEntry::format(std::string_view format, std::span<const FormatArg> args)
{
    if (args.size() > 255 || format.size() > std::numeric_limits<uint32_t>::max())
        return formatted(corvina::formatv(format, args));
    TQLogEntry entry;
    entry.kind_ = kFormatEntry;
    entry.text_ = format;
    entry.length16_ = format.size();
    entry.size_ = kFormatHead + format.size();
    if (!entry.takeArgs(args)) return formatted(corvina::formatv(format, args));
    return entry;
}

TQLogEntry TQLogEntry::interned(uint32_t id, std::span<const FormatArg> args)
{
    const InternedFormat& format = FormatTable::shared()[id];
    if (args.size() > 255) return formatted(corvina::formatv(format.text, args));
    TQLogEntry entry;
    entry.kind_ = kInternedEntry;
    entry.id_ = id;
    entry.length16_ = format.length16;
    entry.size_ = kFormatHead;
    if (!entry.takeArgs(args)) return formatted(corvina::formatv(format.text, args));
    return entry;
}

TQLogEntry TQLogEntry::series(std::span<const SeriesLine> lines, uint64_t steps)
{
    TQLogEntry entry;
    if (steps == 0 || lines.empty()) return entry;
    entry.kind_ = kSeriesEntry;
    entry.series_ = lines;
    entry.steps_ = steps;
    entry.lines_ = steps * lines.size();
    size_t size = kSeriesHead;
    uint64_t length16 = 0;
    for (const SeriesLine& line : lines) {
        size += kSeriesLineHead;
        for (const FormatArg& arg : line.args) size += encodedSize(arg);
        length16 += FormatTable::shared()[line.id].length16;
    }
    entry.size_ = size;
    entry.length16_ = length16 * steps;
    return entry;
}

bool TQLogEntry::takeArgs(std::span<const FormatArg> args)
{
    args_ = args;
    for (const FormatArg& arg : args) {
        if (arg.kind() != Kind::Object) {
            size_ += encodedSize(arg);
            continue;
        }
        // Objects describe themselves now, before the queue is locked (a description may log too).
        if (!extra_) extra_ = std::make_unique<Extra>();
        arg.appendDescription(extra_->described);
        extra_->describedEnds.push_back(extra_->described.size());
        size_ += 13;
    }
    if (!extra_) return true;
    size_ += extra_->described.size();
    return extra_->described.size() <= std::numeric_limits<uint32_t>::max();
}

void TQLogEntry::encode(char* start) const
{
    char* at = put(start, static_cast<uint64_t>(size_));
    at = put(at, kind_);
    switch (kind_) {
    case kTextEntry: {
        const std::string_view text = textView();
        at = put(at, length16_);
        std::memcpy(at, text.data(), text.size());
        return;
    }
    case kSeriesEntry:
        at = put(at, steps_);
        at = put(at, static_cast<uint8_t>(series_.size()));
        for (const SeriesLine& line : series_) {
            at = put(at, static_cast<uint8_t>(line.args.size()));
            at = put(at, line.id);
            at = put(at, line.counting.value_or(kNotCounting));
            for (const FormatArg& arg : line.args) at = putArg(at, arg);
        }
        return;
    default:
        break;
    }
    at = put(at, static_cast<uint8_t>(args_.size()));
    at = kind_ == kInternedEntry ? put(at, id_) : putBytes(at, text_);
    size_t object = 0;
    for (const FormatArg& arg : args_) {
        if (arg.kind() != Kind::Object) {
            at = putArg(at, arg);
            continue;
        }
        const size_t begin = object == 0 ? 0 : extra_->describedEnds[object - 1];
        const size_t end = extra_->describedEnds[object++];
        at = put(put(at, kObject), reinterpret_cast<uint64_t>(arg.pointer()));
        at = putBytes(at, std::string_view(extra_->described).substr(begin, end - begin));
    }
}

// ---- the writer

uint64_t TQLogEntry::unpack(std::string_view entries, uint64_t count, TQLogTexts& texts)
{
    // In a large batch a plain format's text is only measured here: the file makes the texts
    // that outlive the batch's rotations, and a long burst rotates most of them out.
    const bool defer = entries.size() >= kDeferredBatch || count >= kDeferredBatch / kSeriesLineWeight;
    uint64_t handled16 = 0;
    const char* at = entries.data();
    const char* const end = entries.data() + entries.size();
    while (at < end) {
        const char* const entry = at;
        const uint64_t size = get<uint64_t>(at);
        const uint8_t kind = get<uint8_t>(at);
        if (kind == kTextEntry) {
            handled16 += get<uint64_t>(at);
            texts.pushView(std::string_view(at, static_cast<size_t>(entry + size - at)));
            at = entry + size;
            continue;
        }
        if (kind == kSeriesEntry) {
            handled16 += unpackSeries(entry, defer, texts);
            at = entry + size;
            continue;
        }
        const uint8_t argCount = get<uint8_t>(at);
        const InternedFormat* interned = kind == kInternedEntry ? &FormatTable::shared()[get<uint32_t>(at)] : nullptr;
        const std::string_view format = interned ? std::string_view(interned->text) : getBytes(at);
        handled16 += interned ? interned->length16 : format.size();
        const std::span<const FormatArg> args = readArgs(at, argCount);
        if (defer) {
            // Deferred only when trimming cannot change the text.
            const auto measured = !interned        ? corvina::measurePlainFormat(format, args)
                                  : interned->plan ? interned->plan->measure(args)
                                                   : std::nullopt;
            if (measured && measured->visibleEnds) {
                texts.pushDeferred(entry + 8, measured->length, &makeText);
                at = entry + size;
                continue;
            }
        }
        const size_t start = texts.buffer().size();
        appendTrimmed(texts.buffer(), format, args);
        texts.commit(start);
        at = entry + size;
    }
    return handled16;
}

namespace {

// A series' lines in order, each measured and left to be made later when it may be, made
// now otherwise; what they count in bytesInQueue.
uint64_t unpackSeries(const char* entry, bool defer, TQLogTexts& texts)
{
    thread_local SeriesLines series;
    const char* at = entry + 9;
    series.read(at);
    const size_t count = series.count;
    for (uint64_t s = 0; s < series.steps; ++s) {
        for (size_t l = 0; l < count; ++l) {
            const InternedFormat& format = *series.lines[l].format;
            const std::span<const FormatArg> args = series.argsAt(l, s);
            if (defer && format.plan) {
                const auto measured = format.plan->measure(args);
                if (measured && measured->visibleEnds) {
                    texts.pushDeferred(entry + 8, measured->length, &makeText, s * count + l);
                    continue;
                }
            }
            const size_t start = texts.buffer().size();
            appendTrimmed(texts.buffer(), format.text, args);
            texts.commit(start);
        }
    }
    return series.stepLength16() * series.steps;
}

}  // namespace

uint64_t TQLogEntry::totalLength16(std::string_view entries)
{
    uint64_t total = 0;
    for (const char* at = entries.data(); at < entries.data() + entries.size();) {
        const char* const entry = at;
        const uint64_t size = get<uint64_t>(at);
        const uint8_t kind = get<uint8_t>(at);
        if (kind == kTextEntry) {
            total += get<uint64_t>(at);
        } else if (kind == kInternedEntry) {
            get<uint8_t>(at);
            total += FormatTable::shared()[get<uint32_t>(at)].length16;
        } else if (kind == kSeriesEntry) {
            SeriesLines series;
            series.read(at);
            total += series.stepLength16() * series.steps;
        } else {
            get<uint8_t>(at);
            total += getBytes(at).size();
        }
        at = entry + size;
    }
    return total;
}

}  // namespace corvina::tq
