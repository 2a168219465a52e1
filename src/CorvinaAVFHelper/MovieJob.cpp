#include "helper/MovieJob.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "Foundation/LargeBuffer.h"
#include "Foundation/PropertyListStream.h"

namespace corvina::helper {

using namespace corvina;

namespace {

MediaEntry entryFrom(const Value& entry)
{
    return {entry["offset"].unsignedLongLongValue(), entry["length"].unsignedLongLongValue(),
            entry["frameCount"].integerValue()};
}

// The scalar fields of the job, from a dictionary that may lack the two entry arrays.
void readScalars(const Value& settings, MovieJob& job)
{
    job.tmpFilename = settings["tmpFilename"].stringValue();
    job.tmpAudioFilename = settings["tmpAudioFilename"].stringValue();
    job.destFilename = settings["destFilename"].stringValue();
    job.formatType = settings["formatType"].integerValue();
    job.audioFormat = settings["audioFormat"].integerValue();
    job.frameRate = settings["frameRate"].floatValue();
    job.fWidth = settings["fWidth"].shortValue();
    job.fHeight = settings["fHeight"].shortValue();
}

// Sets the field an entry key names; other keys are passed over.
void setEntryField(MediaEntry& entry, std::string_view key, const Value& value)
{
    if (key == "offset")
        entry.offset = value.unsignedLongLongValue();
    else if (key == "length")
        entry.length = value.unsignedLongLongValue();
    else if (key == "frameCount")
        entry.frameCount = value.integerValue();
}

// After this many entries the table is sized for the rest of the document.
constexpr size_t kSizingEntries = 64;

// Sizes the table once its first entries show how long an entry is written: enough room for
// the rest of the document spelled the same way, so that a long table is not copied as it
// grows. Only the room used is ever touched, and the room asked for never exceeds the bytes of
// the document left to read (an entry is written in more than 24 bytes).
void reserveFor(MediaEntryTable& table, const PropertyListStream& stream, size_t arrayStart)
{
    const size_t perEntry = std::max<size_t>((stream.bytesRead() - arrayStart) / table.size(), sizeof(MediaEntry));
    const size_t capacity = table.size() + stream.bytesLeft() / perEntry + 16;
    if (capacity <= table.capacity()) return;
    table.reserve(capacity);
    adviseHugePages(table.data() + table.size(), (table.capacity() - table.size()) * sizeof(MediaEntry));
}

// An entry array, one entry at a time straight into the table. A value that is no array gives
// no entries, as the accessors of a non-array give none.
bool readEntries(PropertyListStream& stream, MediaEntryTable& table)
{
    if (!stream.enterArray()) {
        Value ignored;
        return stream.readValue(ignored);
    }
    const size_t arrayStart = stream.bytesRead();
    std::string key;
    for (;;) {
        if (table.size() == kSizingEntries) reserveFor(table, stream, arrayStart);
        const auto item = stream.nextItem();
        if (item != PropertyListStream::Step::Next) return item == PropertyListStream::Step::End;
        if (!stream.enterDictionary()) {
            Value value;
            if (!stream.readValue(value)) return false;
            table.push_back(entryFrom(value));
            continue;
        }
        MediaEntry entry;
        for (;;) {
            std::string_view plainKey;
            uint64_t number = 0;
            const auto plain = stream.nextPlainField(plainKey, number);
            if (plain == PropertyListStream::PlainField::End) break;
            if (plain == PropertyListStream::PlainField::Field) {
                // What the accessors make of a non-negative integer.
                if (plainKey == "offset")
                    entry.offset = number;
                else if (plainKey == "length")
                    entry.length = number;
                else if (plainKey == "frameCount")
                    entry.frameCount = static_cast<int64_t>(number);
                continue;
            }
            const auto field = stream.nextKey(key);
            if (field == PropertyListStream::Step::Refused) return false;
            if (field == PropertyListStream::Step::End) break;
            Value value;
            if (!stream.readValue(value)) return false;
            setEntryField(entry, key, value);
        }
        table.push_back(entry);
    }
}

}  // namespace

MediaEntryTable MovieJob::entriesFrom(const Value& array)
{
    MediaEntryTable table;
    const auto* items = array.asArray();
    if (!items) return table;
    table.reserve(items->size());
    for (const Value& item : *items) table.push_back(entryFrom(item));
    return table;
}

MovieJob MovieJob::fromSettings(const Value& settings)
{
    MovieJob job;
    readScalars(settings, job);
    job.videoEntries = std::make_shared<MediaEntryTable>(entriesFrom(settings["offsetArray"]));
    job.audioEntries = std::make_shared<MediaEntryTable>(entriesFrom(settings["audioOffsetArray"]));
    return job;
}

std::optional<MovieJob> MovieJob::readXMLDocument(const char* text, size_t length)
{
    // The document's keys map to the job's fields; the entry arrays go straight into their
    // tables, the other values are kept for the accessors.
    PropertyListStream stream({text, length});
    if (!stream.openRootDictionary()) return std::nullopt;
    MovieJob job;
    Value::DictionaryType scalars;
    std::string key;
    for (;;) {
        const auto step = stream.nextKey(key);
        if (step == PropertyListStream::Step::Refused) return std::nullopt;
        if (step == PropertyListStream::Step::End) break;
        if (key == "offsetArray" || key == "audioOffsetArray") {
            auto table = std::make_shared<MediaEntryTable>();
            if (!readEntries(stream, *table)) return std::nullopt;
            (key == "offsetArray" ? job.videoEntries : job.audioEntries) = std::move(table);
            scalars.erase(key);
        } else {
            Value value;
            if (!stream.readValue(value)) return std::nullopt;
            scalars[key] = std::move(value);
        }
    }
    if (!stream.finish()) return std::nullopt;
    readScalars(Value(std::move(scalars)), job);
    return job;
}

Result<MovieJob> MovieJob::readDocument(const std::string& path)
{
    // Read, never mapped: the person who owns the document may change or truncate it while it
    // is parsed, and a mapping would turn that into a fatal signal. FIFOs, devices and folders
    // are refused with their reason, without blocking.
    const auto bytes = Value::propertyListFileBytes(path);
    if (!bytes) return bytes.error();
    auto job = fromDocumentBytes(*bytes);
    if (job) job->documentPath = path;
    return job;
}

Result<MovieJob> MovieJob::fromDocumentBytes(std::string_view bytes)
{
    const bool binary = bytes.size() >= 6 && bytes.substr(0, 6) == "bplist";
    if (!binary)
        if (auto job = readXMLDocument(bytes.data(), bytes.size())) return std::move(*job);
    // Binary documents, and whatever the stream reader left alone, take the full reader; its
    // tree lives only until the job is made.
    const auto settings = Value::fromPropertyListData(bytes.data(), bytes.size());
    if (!settings) return settings.error();
    if (!settings->asDictionary()) {
        static const char* const kinds[] = {"nothing", "a string", "an integer", "a real number", "a boolean",
                                            "a date",  "data",     "an array",   "a dictionary"};
        return Error{"NSCocoaErrorDomain", 3840,
                     std::string("its root is ") + kinds[static_cast<int>(settings->type())] + ", not a dictionary"};
    }
    return fromSettings(*settings);
}

}  // namespace corvina::helper
