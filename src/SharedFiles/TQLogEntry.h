// How the log's queue holds an entry: a finished text, or a format with its arguments packed
// by value (to be formatted later, on the writer), or a series of such lines. Callers make a
// TQLogEntry on their own thread (objects are described then) and the queue writes it, under
// its lock, straight into its buffer with encode(); the writer reads a batch of entries back
// into texts with unpack().
//
// Frequently queued formats are kept once for the process (intern) and entries carry their
// number: the caller copies only the arguments, and the writer has each format's plan ready.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/Format.h"

namespace corvina::tq {

class TQLogTexts;

class TQLogEntry {
public:
    // One line of a series: an interned format, its arguments (numbers, characters, strings
    // and pointers: objects are described when they are logged one by one), and the integer
    // argument that counts up by one from each step to the next, if any.
    struct SeriesLine {
        uint32_t id = 0;
        std::span<const corvina::FormatArg> args;
        std::optional<uint8_t> counting;
    };
    // What a series weighs against the queue's bound per line beyond its own bytes: about
    // what the line would take queued alone.
    static constexpr uint64_t kSeriesLineWeight = 32;

    // A text, trimmed here; empty() when nothing is left.
    static TQLogEntry text(std::string_view text);
    // A format (already escaped) and its arguments. Objects are described now; everything
    // else is copied when the entry is encoded. Counts as the format's length in bytesInQueue.
    static TQLogEntry format(std::string_view format, std::span<const corvina::FormatArg> args);
    // The same with a format kept by intern().
    static TQLogEntry interned(uint32_t id, std::span<const corvina::FormatArg> args);
    // As each of the lines in turn, `steps` times over, with the counting arguments one higher
    // at each step. At most 255 lines.
    static TQLogEntry series(std::span<const SeriesLine> lines, uint64_t steps);

    // The format's number in the process's table of kept formats. Takes the text as format()
    // would (one without conversions stands for itself, trimmed as text() trims); none once
    // the table is full or for a text too long to keep.
    static std::optional<uint32_t> intern(std::string_view format);

    bool empty() const { return size_ == 0; }
    // Bytes it takes in the queue.
    size_t size() const { return size_; }
    // What it counts in bytesInQueue: texts by their UTF-16 length, formats by their length.
    uint64_t length16() const { return length16_; }
    // The lines it stands for.
    uint64_t lines() const { return lines_; }
    // Writes the entry's size() bytes.
    void encode(char* at) const;

    // The writer's side: turns `count` entries back to back into texts, in order, formatted
    // and trimmed (in a large batch, plain formats are only measured and made on demand);
    // returns what they counted in bytesInQueue.
    static uint64_t unpack(std::string_view entries, uint64_t count, TQLogTexts& texts);
    // What entries back to back count in bytesInQueue, without unpacking them.
    static uint64_t totalLength16(std::string_view entries);

    // Around fork(): the table of kept formats is locked before and unlocked in both processes.
    static void lockTable();
    static void unlockTable();

private:
    TQLogEntry() = default;
    static TQLogEntry formatted(std::string made);
    // Counts the arguments' bytes and describes the objects; false when the descriptions
    // are too long for an entry.
    bool takeArgs(std::span<const corvina::FormatArg> args);
    std::string_view textView() const { return extra_ && !extra_->owned.empty() ? extra_->owned : text_; }

    uint8_t kind_ = 0;
    size_t size_ = 0;
    uint64_t length16_ = 0;
    uint64_t lines_ = 1;
    std::string_view text_;  // a text's trimmed text, a format's format
    uint32_t id_ = 0;
    std::span<const corvina::FormatArg> args_;
    std::span<const SeriesLine> series_;
    uint64_t steps_ = 0;
    // Made only for the entries that need it: most carry numbers and strings only.
    struct Extra {
        std::string owned;      // a text formatted here instead of queued as a format
        std::string described;  // the objects' descriptions back to back
        std::vector<size_t> describedEnds;
    };
    std::unique_ptr<Extra> extra_;
};

}  // namespace corvina::tq
