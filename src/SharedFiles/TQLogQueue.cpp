#include "TQLogQueue.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <vector>

#include "Foundation/StringUtils.h"

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
constexpr size_t kStackEntry = 320;
// Batches at least this large (bytes of entries) leave plain formats to be made on demand.
constexpr size_t kDeferredBatch = 256 << 10;

constexpr size_t kCoalesceEntries = 64;  // batches this large suggest a steady stream
constexpr auto kCoalescePause = std::chrono::milliseconds(2);
constexpr size_t kReserved = TQLogQueue::kCapacity + (64 << 10);
constexpr size_t kKeptCapacity = 2 * TQLogQueue::kCapacity;  // buffer kept between batches

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

// An entry being built: on the stack when small.
class EntryBuffer {
public:
    explicit EntryBuffer(size_t size)
    {
        if (size > sizeof stack_) {
            heap_ = std::make_unique<char[]>(size);
            data_ = heap_.get();
        }
    }
    char* data() { return data_; }

private:
    char stack_[kStackEntry];
    std::unique_ptr<char[]> heap_;
    char* data_ = stack_;
};

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

// What a series' entries weigh against the queue's bound beyond their own bytes: about what
// the lines would take queued one by one.
constexpr uint64_t kSeriesLineWeight = 32;

}  // namespace

TQLogQueue::TQLogQueue(Sink sink) : sink_(std::move(sink)) {}

std::optional<uint32_t> TQLogQueue::intern(std::string_view format) { return FormatTable::shared().intern(format); }

TQLogQueue::~TQLogQueue() { shutdown(std::numeric_limits<size_t>::max()); }

// ---- callers

void TQLogQueue::pushText(std::string_view text)
{
    const std::string_view trimmed = corvina::trimWhitespaceAndNewlines(text);
    if (trimmed.empty()) return;
    const uint64_t length16 = utf16LengthFast(trimmed);
    const size_t size = kTextHead + trimmed.size();
    EntryBuffer entry(size);
    char* at = put(entry.data(), static_cast<uint64_t>(size));
    at = put(at, kTextEntry);
    at = put(at, length16);
    std::memcpy(at, trimmed.data(), trimmed.size());
    push(std::string_view(entry.data(), size), length16);
}

void TQLogQueue::pushFormat(std::string_view format, std::span<const FormatArg> args)
{
    if (args.size() > 255 || format.size() > std::numeric_limits<uint32_t>::max()) {
        pushText(corvina::formatv(format, args));
        return;
    }
    pushEntry(kFormatEntry, format, 0, format.size(), args);
}

void TQLogQueue::pushInterned(uint32_t id, std::span<const FormatArg> args)
{
    const InternedFormat& interned = FormatTable::shared()[id];
    if (args.size() > 255) {
        pushText(corvina::formatv(interned.text, args));
        return;
    }
    pushEntry(kInternedEntry, {}, id, interned.length16, args);
}

void TQLogQueue::pushEntry(uint8_t kind, std::string_view format, uint32_t id, uint64_t length16,
                           std::span<const FormatArg> args)
{
    size_t size = kFormatHead + format.size();
    bool objects = false;
    for (const FormatArg& arg : args) {
        if (arg.kind() == Kind::Object)
            objects = true;
        else
            size += encodedSize(arg);
    }
    // Objects describe themselves before anything is queued (a description may log too).
    std::string described;
    std::vector<size_t> describedEnds;
    if (objects) {
        for (const FormatArg& arg : args) {
            if (arg.kind() == Kind::Object) {
                arg.appendDescription(described);
                describedEnds.push_back(described.size());
            }
        }
        size += 13 * describedEnds.size() + described.size();
    }
    if (described.size() > std::numeric_limits<uint32_t>::max()) {
        pushText(corvina::formatv(kind == kInternedEntry ? FormatTable::shared()[id].text : format, args));
        return;
    }

    // Written straight into the queue, under its lock: the entry is not copied on the way.
    pushWith(size, length16, [&](char* start) {
        char* at = put(start, static_cast<uint64_t>(size));
        at = put(at, kind);
        at = put(at, static_cast<uint8_t>(args.size()));
        at = kind == kInternedEntry ? put(at, id) : putBytes(at, format);
        size_t object = 0;
        for (const FormatArg& arg : args) {
            if (arg.kind() != Kind::Object) {
                at = putArg(at, arg);
                continue;
            }
            const size_t begin = object == 0 ? 0 : describedEnds[object - 1];
            const size_t end = describedEnds[object++];
            at = put(put(at, kObject), reinterpret_cast<uint64_t>(arg.pointer()));
            at = putBytes(at, std::string_view(described).substr(begin, end - begin));
        }
    });
}

void TQLogQueue::pushSeries(std::span<const SeriesLine> lines, uint64_t steps)
{
    if (steps == 0 || lines.empty()) return;
    size_t size = kSeriesHead;
    uint64_t length16 = 0;
    for (const SeriesLine& line : lines) {
        size += kSeriesLineHead;
        for (const FormatArg& arg : line.args) size += encodedSize(arg);
        length16 += FormatTable::shared()[line.id].length16;
    }
    pushWith(
        size, length16 * steps,
        [&](char* start) {
            char* at = put(start, static_cast<uint64_t>(size));
            at = put(at, kSeriesEntry);
            at = put(at, steps);
            at = put(at, static_cast<uint8_t>(lines.size()));
            for (const SeriesLine& line : lines) {
                at = put(at, static_cast<uint8_t>(line.args.size()));
                at = put(at, line.id);
                at = put(at, line.counting.value_or(kNotCounting));
                for (const FormatArg& arg : line.args) at = putArg(at, arg);
            }
        },
        steps * lines.size());
}

void TQLogQueue::push(std::string_view entry, uint64_t length16)
{
    pushWith(entry.size(), length16, [entry](char* at) { std::memcpy(at, entry.data(), entry.size()); });
}

template <class Fill>
void TQLogQueue::pushWith(size_t size, uint64_t length16, const Fill& fill, uint64_t entries)
{
    bool wake = false;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (shutDown_) return;
        startWriterLocked();
        // Full: wait for the writer to take what is there (never on the writer itself).
        const auto full = [this] { return pending_.size() + seriesWeight_ >= kCapacity; };
        if (full() && writerRunning_ && !isWriterThread()) {
            ++roomWaiters_;
            queueCv_.notify_one();
            roomCv_.wait(lock, [&] { return !full() || shutDown_; });
            --roomWaiters_;
            if (shutDown_) return;
        }
        bytesInQueue_.fetch_add(length16, std::memory_order_relaxed);
        wake = pending_.empty() && writerIdle_;
        const size_t at = pending_.size();
        pending_.resize(at + size);
        fill(pending_.data() + at);
        pushedSeq_ += entries;
        seriesWeight_ += (entries - 1) * kSeriesLineWeight;
    }
    if (wake) queueCv_.notify_one();
}

// ---- the writer

void TQLogQueue::startWriterLocked()
{
    // A fork()ed child clears writerRunning_ (resetInChild), so no pid check is needed here.
    if (writerRunning_) return;
    if (pthread_create(&writerThread_, nullptr, &TQLogQueue::writerMain, this) != 0) return;
    writerRunning_ = true;
    writerPid_ = getpid();
}

void* TQLogQueue::writerMain(void* self)
{
    static_cast<TQLogQueue*>(self)->writerLoop();
    return nullptr;
}

void TQLogQueue::writerLoop()
{
    writerId_.store(std::this_thread::get_id());
    // Both buffers are made large enough for a full queue at once: growing them entry by
    // entry would copy what they hold over and over.
    TQLogEntryBytes batch;
    batch.reserve(kReserved);
    TQLogTexts texts;
    std::unique_lock<std::mutex> lock(mutex_);
    pending_.reserve(kReserved);
    for (;;) {
        writerIdle_ = true;
        queueCv_.wait(lock,
                      [&] { return (stop_ && pending_.empty()) || (!pending_.empty() && (!suspended_ || stop_)); });
        writerIdle_ = false;
        if (pending_.empty()) break;
        batch.swap(pending_);
        seriesWeight_ = 0;
        const uint64_t last = pushedSeq_;
        const size_t entries = static_cast<size_t>(last - takenSeq_);
        takenSeq_ = last;
        const bool room = roomWaiters_ > 0;
        lock.unlock();
        if (room) roomCv_.notify_all();

        const uint64_t handled16 = unpack(std::string_view(batch.data(), batch.size()), entries, texts);
        if (!texts.empty()) sink_(texts);
        bytesInQueue_.fetch_sub(handled16, std::memory_order_relaxed);
        texts.clear();
        batch.clear();
        if (batch.capacity() > kKeptCapacity) batch.shrink_to_fit();
        texts.trim(kKeptCapacity);

        lock.lock();
        writtenSeq_ = last;
        if (flushWaiters_ > 0) doneCv_.notify_all();
        // Under a steady stream, pause briefly so that the next batch is a large one: one
        // write call and no wake-ups for thousands of lines. Anyone waiting for the writer
        // (a flush, a full queue, shutdown) cuts the pause short.
        if (entries >= kCoalesceEntries)
            queueCv_.wait_for(lock, kCoalescePause, [&] { return stop_ || flushWaiters_ > 0 || roomWaiters_ > 0; });
    }
    writerId_.store(std::thread::id());
}

namespace {

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

uint64_t TQLogQueue::unpack(std::string_view entries, uint64_t count, TQLogTexts& texts)
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

uint64_t TQLogQueue::totalLength16(std::string_view entries)
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

// ---- flushing, state, shutdown

void TQLogQueue::waitUntilWritten()
{
    if (isWriterThread()) return;
    std::unique_lock<std::mutex> lock(mutex_);
    if (shutDown_) return;
    const uint64_t target = pushedSeq_;
    if (writtenSeq_ >= target) return;
    startWriterLocked();
    ++flushWaiters_;
    queueCv_.notify_all();
    doneCv_.wait(lock, [&] { return writtenSeq_ >= target || shutDown_; });
    --flushWaiters_;
}

bool TQLogQueue::isShutDown() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return shutDown_;
}

size_t TQLogQueue::entryCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(pushedSeq_ - writtenSeq_);
}

size_t TQLogQueue::queuedBytes() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return pending_.size();
}

void TQLogQueue::setSuspended(bool suspended)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        suspended_ = suspended;
    }
    queueCv_.notify_all();
}

void TQLogQueue::shutdown(size_t keepAtMost)
{
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (shutDown_) return;
        suspended_ = false;
        if (pushedSeq_ - writtenSeq_ > keepAtMost) {
            // Too much left: what the writer has not taken is never written.
            bytesInQueue_.fetch_sub(totalLength16(std::string_view(pending_.data(), pending_.size())));
            pending_.clear();
            seriesWeight_ = 0;
            pushedSeq_ = takenSeq_;
        }
    }
    queueCv_.notify_all();
    roomCv_.notify_all();
    waitUntilWritten();
    bool join = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        shutDown_ = true;
        stop_ = true;
        join = writerRunning_ && writerPid_ == getpid() && !isWriterThread();
        writerRunning_ = false;
    }
    queueCv_.notify_all();
    doneCv_.notify_all();
    roomCv_.notify_all();
    if (join) pthread_join(writerThread_, nullptr);
}

// ---- fork

void TQLogQueue::lockForFork()
{
    FormatTable::shared().mutex().lock();
    mutex_.lock();
}

void TQLogQueue::unlockInParent()
{
    mutex_.unlock();
    FormatTable::shared().mutex().unlock();
}

void TQLogQueue::resetInChild()
{
    writerRunning_ = false;
    writerIdle_ = false;
    writerId_.store(std::thread::id());
    pending_.clear();
    seriesWeight_ = 0;
    pushedSeq_ = takenSeq_ = writtenSeq_ = 0;
    flushWaiters_ = roomWaiters_ = 0;
    bytesInQueue_.store(0);
    // Threads of the parent may have been waiting on these: their state names threads the
    // child does not have, and signalling them could block for ever. Start them afresh.
    std::construct_at(&queueCv_);
    std::construct_at(&doneCv_);
    std::construct_at(&roomCv_);
    mutex_.unlock();
    FormatTable::shared().mutex().unlock();
}
