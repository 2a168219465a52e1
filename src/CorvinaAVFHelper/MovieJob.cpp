#include "MovieJob.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

using namespace corvina;

FrameTiming FrameTiming::fromRate(float framesPerSecond)
{
    const double rate = framesPerSecond;
    if (!(rate > 0.0) || !std::isfinite(rate)) return {};
    const double ceilRate = std::ceil(rate);
    if (ceilRate * 1000.0 > 2147483647.0) return {};
    return {static_cast<int32_t>(static_cast<int64_t>(ceilRate) * 1000), std::floor(rate) == ceilRate ? 1000 : 1001};
}

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

// ---------------------------------------------------------------------------------------
// A streaming reader for XML property lists: it walks the text once and keeps nothing but
// the job. Everything it is not sure about makes it give up (the caller then uses the full
// reader), so it never reads a document differently from the property-list reader.

class XMLJobReader {
public:
    XMLJobReader(const char* text, size_t length) : p_(text), begin_(text), end_(text + length) {}

    std::optional<MovieJob> read()
    {
        // A NUL anywhere (in a key, a string, a number) is left to the property-list reader,
        // whose library has rules of its own for it.
        if (std::memchr(p_, '\0', size_t(end_ - p_))) return std::nullopt;
        if (end_ - p_ >= 3 && std::memcmp(p_, "\xEF\xBB\xBF", 3) == 0) p_ += 3;
        if (!skipMisc()) return std::nullopt;
        Tag tag;
        if (!readTag(tag)) return std::nullopt;
        if (tag.name == "plist" && !tag.closing && !tag.empty) {
            if (!skipMisc() || !readTag(tag)) return std::nullopt;
            if (!readTopLevel(tag)) return std::nullopt;
            if (!skipMisc() || !readTag(tag) || !(tag.closing && tag.name == "plist")) return std::nullopt;
        } else if (!readTopLevel(tag)) {
            return std::nullopt;
        }
        if (!skipMisc() || p_ != end_) return std::nullopt;
        readScalars(Value(std::move(scalars_)), job_);
        return std::move(job_);
    }

private:
    struct Tag {
        std::string_view name;
        bool closing = false;
        bool empty = false;  // <name/>
    };
    static constexpr int kMaxDepth = 256;
    static constexpr size_t kSizingEntries = 64;

    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

    void skipSpaces()
    {
        while (p_ < end_ && isSpace(*p_)) ++p_;
    }

    // Whitespace, comments, processing instructions and the document type.
    bool skipMisc()
    {
        for (;;) {
            skipSpaces();
            if (end_ - p_ >= 4 && std::memcmp(p_, "<!--", 4) == 0) {
                // A "<" in a comment is refused: the tree's nesting guard counts the tags it
                // sees there as if they were elements.
                const char* close = find("-->", p_ + 4);
                if (!close || std::memchr(p_ + 4, '<', size_t(close - p_ - 4))) return false;
                p_ = close + 3;
            } else if (end_ - p_ >= 2 && std::memcmp(p_, "<?", 2) == 0) {
                if (!skipDeclaration()) return false;
            } else if (end_ - p_ >= 2 && std::memcmp(p_, "<!", 2) == 0) {
                // The document type only, in its usual spelling.
                if (end_ - p_ < 10 || std::memcmp(p_, "<!DOCTYPE", 9) != 0 || !isSpace(p_[9])) return false;
                // Identifiers in double quotes are passed over whole and must be closed. A
                // document type with an internal subset, single quotes or a "<" anywhere (the
                // tree's nesting guard counts tags even inside quotes) is left to the tree.
                const char* q = p_ + 10;
                while (q < end_ && *q != '>') {
                    if (*q == '[' || *q == '<' || *q == '\'') return false;
                    if (*q == '"') {
                        const char* closeQuote =
                            static_cast<const char*>(std::memchr(q + 1, '"', size_t(end_ - q - 1)));
                        if (!closeQuote || std::memchr(q + 1, '<', size_t(closeQuote - q - 1))) return false;
                        q = closeQuote;
                    }
                    ++q;
                }
                if (q >= end_) return false;
                p_ = q + 1;
            } else {
                return true;
            }
        }
    }

    // A processing instruction or XML declaration: a name, then name="value" pairs only.
    // Anything looser is left to the property-list reader, which is stricter about them.
    bool skipDeclaration()
    {
        const char* q = p_ + 2;
        const char* const nameStart = q;
        while (q < end_ && isNameChar(*q)) ++q;
        if (q == nameStart || !skipAttributes(q, '?', true) || end_ - q < 2 || q[1] != '>') return false;
        p_ = q + 2;
        return true;
    }

    const char* find(std::string_view what, const char* from) const
    {
        std::string_view rest(from, size_t(end_ - from));
        const size_t at = rest.find(what);
        return at == std::string_view::npos ? nullptr : from + at;
    }

    bool readTag(Tag& tag)
    {
        skipSpaces();
        if (p_ >= end_ || *p_ != '<') return false;
        ++p_;
        tag = Tag{};
        if (p_ < end_ && *p_ == '/') {
            tag.closing = true;
            ++p_;
        }
        const char* nameStart = p_;
        while (p_ < end_ && *p_ != '>' && *p_ != '/' && !isSpace(*p_)) ++p_;
        tag.name = std::string_view(nameStart, size_t(p_ - nameStart));
        if (tag.name.empty()) return false;
        // Attributes (the plist version) are passed over when well formed; a closing tag has none.
        const char* q = p_;
        if (!skipAttributes(q, '>', !tag.closing)) return false;
        if (q[-1] == '/' && q - 1 >= p_) tag.empty = true;
        if (tag.closing && tag.empty) return false;
        p_ = q + 1;
        return true;
    }

    static bool isNameChar(char c)
    {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
               c == '.' || c == ':';
    }

    // Moves q past white space and name="value" pairs (each after white space) to the closing
    // character, or to "/" + close for an empty element when allowed. False for anything else.
    bool skipAttributes(const char*& q, char close, bool attributesAllowed) const
    {
        for (;;) {
            const char* const beforeSpace = q;
            while (q < end_ && isSpace(*q)) ++q;
            if (q < end_ && *q == close) return true;
            if (close == '>' && end_ - q >= 2 && q[0] == '/' && q[1] == '>') {
                ++q;
                return true;
            }
            if (q == beforeSpace || !attributesAllowed) return false;
            const char* const attribute = q;
            while (q < end_ && isNameChar(*q)) ++q;
            if (q == attribute || q >= end_ || *q != '=' || ++q >= end_ || (*q != '"' && *q != '\'')) return false;
            const char quote = *q++;
            while (q < end_ && *q != quote && *q != '<' && *q != '&') ++q;
            if (q >= end_ || *q != quote) return false;
            ++q;
        }
    }

    // The text up to the closing tag of name, entities decoded.
    bool readText(std::string_view name, std::string& out)
    {
        out.clear();
        for (;;) {
            const char* lt = static_cast<const char*>(std::memchr(p_, '<', size_t(end_ - p_)));
            if (!lt) return false;
            const char* amp = static_cast<const char*>(std::memchr(p_, '&', size_t(lt - p_)));
            if (!amp) {
                out.append(p_, size_t(lt - p_));
                p_ = lt;
                break;
            }
            out.append(p_, size_t(amp - p_));
            p_ = amp;
            if (!readEntity(out)) return false;
        }
        Tag tag;
        return readTag(tag) && tag.closing && tag.name == name;
    }

    bool readEntity(std::string& out)
    {
        const char* semi = static_cast<const char*>(std::memchr(p_, ';', size_t(std::min<ptrdiff_t>(end_ - p_, 12))));
        if (!semi) return false;
        const std::string_view name(p_ + 1, size_t(semi - p_ - 1));
        p_ = semi + 1;
        if (name == "amp")
            out += '&';
        else if (name == "lt")
            out += '<';
        else if (name == "gt")
            out += '>';
        else if (name == "quot")
            out += '"';
        else if (name == "apos")
            out += '\'';
        else if (name.size() > 1 && name[0] == '#') {
            uint32_t code = 0;
            const bool hex = name[1] == 'x' || name[1] == 'X';
            const char* first = name.data() + (hex ? 2 : 1);
            const char* last = name.data() + name.size();
            auto [ptr, ec] = std::from_chars(first, last, code, hex ? 16 : 10);
            if (ec != std::errc() || ptr != last || first == last || code == 0 || code > 0x10FFFF ||
                (code >= 0xD800 && code <= 0xDFFF))
                return false;
            appendUTF8(out, code);
        } else {
            return false;
        }
        return true;
    }

    static void appendUTF8(std::string& out, uint32_t c)
    {
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | (c >> 12));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | (c >> 18));
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }

    static std::string_view trimmed(std::string_view s)
    {
        while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
        while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
        return s;
    }

    // Decimal numbers only: the property-list reader takes a leading 0 for octal (and 0x for
    // hexadecimal), so those are left to it.
    static bool hasRadixPrefix(std::string_view digits)
    {
        if (!digits.empty() && (digits[0] == '-' || digits[0] == '+')) digits.remove_prefix(1);
        return digits.size() > 1 && digits[0] == '0';
    }

    static bool parseInteger(std::string_view digits, Value& out)
    {
        if (digits.empty() || hasRadixPrefix(digits)) return false;
        const char* last = digits.data() + digits.size();
        if (digits[0] == '-') {
            int64_t v = 0;
            auto [ptr, ec] = std::from_chars(digits.data(), last, v);
            if (ec != std::errc() || ptr != last) return false;
            out = Value(v);
        } else {
            uint64_t v = 0;
            const char* first = digits.data() + (digits[0] == '+' ? 1 : 0);
            auto [ptr, ec] = std::from_chars(first, last, v);
            if (ec != std::errc() || ptr != last || first == ptr) return false;
            out = Value(v);
        }
        return true;
    }

    // A scalar element whose opening tag has been read. False for anything that is not a
    // string, integer, real or boolean.
    bool readScalar(const Tag& tag, Value& out)
    {
        if (tag.closing) return false;
        if (tag.name == "true" || tag.name == "false") {
            if (!tag.empty) {
                Tag close;
                if (!readTag(close) || !close.closing || close.name != tag.name) return false;
            }
            out = Value(tag.name == "true");
            return true;
        }
        if (tag.name == "string") {
            if (tag.empty) {
                out = Value(std::string());
                return true;
            }
            if (!readText(tag.name, text_)) return false;
            out = Value(text_);
            return true;
        }
        if (tag.name == "integer") {
            if (tag.empty) return false;
            // Read in place. A number spelled with entities is the tree's business: it does
            // not decode them there.
            const char* lt = static_cast<const char*>(std::memchr(p_, '<', size_t(end_ - p_)));
            if (!lt || std::memchr(p_, '&', size_t(lt - p_))) return false;
            const std::string_view digits = trimmed(std::string_view(p_, size_t(lt - p_)));
            p_ = lt;
            Tag close;
            return parseInteger(digits, out) && readTag(close) && close.closing && close.name == "integer";
        }
        if (tag.name == "real") {
            if (tag.empty) return false;
            const char* lt = static_cast<const char*>(std::memchr(p_, '<', size_t(end_ - p_)));
            if (!lt || std::memchr(p_, '&', size_t(lt - p_))) return false;
            if (!readText(tag.name, text_)) return false;
            const std::string_view digits = trimmed(text_);
            double v = 0;
            auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v);
            if (digits.empty() || ec != std::errc() || ptr != digits.data() + digits.size()) return false;
            out = Value(v);
            return true;
        }
        return false;
    }

    // Any value whose opening tag has been read, kept as a value (small parts of the document
    // only: the fields the job does not use).
    bool readValue(const Tag& tag, Value& out, int depth)
    {
        if (depth > kMaxDepth || tag.closing) return false;
        if (tag.name == "array") {
            Value::ArrayType items;
            if (!tag.empty) {
                for (;;) {
                    Tag next;
                    if (!skipMisc() || !readTag(next)) return false;
                    if (next.closing) {
                        if (next.name != "array") return false;
                        break;
                    }
                    Value item;
                    if (!readValue(next, item, depth + 1)) return false;
                    items.push_back(std::move(item));
                }
            }
            out = Value(std::move(items));
            return true;
        }
        if (tag.name == "dict") {
            Value::DictionaryType entries;
            if (!tag.empty) {
                std::string key;
                for (;;) {
                    bool done = false;
                    if (!readKey(key, done)) return false;
                    if (done) break;
                    Tag next;
                    if (!skipMisc() || !readTag(next)) return false;
                    Value item;
                    if (!readValue(next, item, depth + 1)) return false;
                    entries[key] = std::move(item);
                }
            }
            out = Value(std::move(entries));
            return true;
        }
        return readScalar(tag, out);
    }

    // The next key of a dictionary, or done at its closing tag.
    bool readKey(std::string& key, bool& done)
    {
        Tag tag;
        if (!skipMisc() || !readTag(tag)) return false;
        if (tag.closing) {
            done = true;
            return tag.name == "dict";
        }
        // An empty key is refused by the property-list reader: left to it.
        if (tag.name != "key" || tag.empty) return false;
        const char* lt = static_cast<const char*>(std::memchr(p_, '<', size_t(end_ - p_)));
        if (lt && !std::memchr(p_, '&', size_t(lt - p_))) {
            key.assign(p_, size_t(lt - p_));
            p_ = lt;
            Tag close;
            return !key.empty() && readTag(close) && close.closing && close.name == "key";
        }
        return readText("key", key) && !key.empty();
    }

    bool readTopLevel(const Tag& tag)
    {
        // An empty-element dictionary is left to the property-list reader, which may refuse it.
        if (tag.closing || tag.name != "dict" || tag.empty) return false;
        std::string key;
        for (;;) {
            bool done = false;
            if (!readKey(key, done)) return false;
            if (done) return true;
            Tag next;
            if (!skipMisc() || !readTag(next)) return false;
            if (key == "offsetArray" || key == "audioOffsetArray") {
                auto table = std::make_shared<MediaEntryTable>();
                if (!readEntries(next, *table)) return false;
                (key == "offsetArray" ? job_.videoEntries : job_.audioEntries) = std::move(table);
                scalars_.erase(key);
            } else {
                Value item;
                if (!readValue(next, item, 1)) return false;
                scalars_[key] = std::move(item);
            }
        }
    }

    // An entry array, one entry at a time straight into the table.
    bool readEntries(const Tag& tag, MediaEntryTable& table)
    {
        if (tag.name != "array") {
            // Not an array: the job sees no entries, as the accessors of a non-array give none.
            Value ignored;
            return readValue(tag, ignored, 1);
        }
        if (tag.empty) return true;
        std::string key;
        const char* const first = p_;
        for (;;) {
            if (table.size() == kSizingEntries) reserveFor(table, first);
            Tag next;
            if (!skipMisc()) return false;
            if (startsWith("<dict>")) {
                // The usual entry, read without the tag machinery.
                p_ += 6;
                next.name = "dict";
            } else if (!readTag(next)) {
                return false;
            }
            if (next.closing) return next.name == "array";
            if (next.name != "dict" || next.empty) {
                Value item;
                if (!readValue(next, item, 2)) return false;
                table.push_back(entryFrom(item));
                continue;
            }
            MediaEntry entry;
            for (;;) {
                if (readPlainField(entry)) continue;
                if (readPlainDictEnd()) break;
                bool done = false;
                if (!readKey(key, done)) return false;
                if (done) break;
                Tag valueTag;
                if (!skipMisc() || !readTag(valueTag)) return false;
                Value item;
                if (!readValue(valueTag, item, 3)) return false;
                if (key == "offset")
                    entry.offset = item.unsignedLongLongValue();
                else if (key == "length")
                    entry.length = item.unsignedLongLongValue();
                else if (key == "frameCount")
                    entry.frameCount = item.integerValue();
            }
            table.push_back(entry);
        }
    }

    // The end of an entry in its usual spelling: white space, then </dict>.
    bool readPlainDictEnd()
    {
        const char* q = p_;
        while (q < end_ && isSpace(*q)) ++q;
        constexpr std::string_view kClose = "</dict>";
        if (size_t(end_ - q) < kClose.size() || std::memcmp(q, kClose.data(), kClose.size()) != 0) return false;
        p_ = q + kClose.size();
        return true;
    }

    bool startsWith(std::string_view text) const
    {
        return size_t(end_ - p_) >= text.size() && std::memcmp(p_, text.data(), text.size()) == 0;
    }

    // One field of an entry in its usual spelling, white space, <key>name</key>, white space,
    // <integer>digits</integer>, stored in the entry. Anything else (signs, entities,
    // comments, other types, numbers past 64 bits, the end of the dictionary) leaves the
    // position as it was and returns false for the general path to read.
    bool readPlainField(MediaEntry& entry)
    {
        const char* q = p_;
        while (q < end_ && isSpace(*q)) ++q;
        constexpr std::string_view kKeyOpen = "<key>", kKeyClose = "</key>";
        constexpr std::string_view kIntOpen = "<integer>", kIntClose = "</integer>";
        const auto take = [&](std::string_view text) {
            if (size_t(end_ - q) < text.size() || std::memcmp(q, text.data(), text.size()) != 0) return false;
            q += text.size();
            return true;
        };
        if (!take(kKeyOpen)) return false;
        const char* const keyStart = q;
        while (q < end_ && *q != '<' && *q != '&') ++q;
        const std::string_view key(keyStart, size_t(q - keyStart));
        if (key.empty() || !take(kKeyClose)) return false;
        while (q < end_ && isSpace(*q)) ++q;
        if (!take(kIntOpen)) return false;
        // Digits only: from_chars takes no sign for an unsigned number.
        const char* const digits = q;
        uint64_t value = 0;
        const auto [ptr, ec] = std::from_chars(digits, end_, value);
        q = ptr;
        if (digits == q || ec != std::errc() || hasRadixPrefix({digits, size_t(q - digits)}) || !take(kIntClose))
            return false;
        // What the accessors make of a non-negative integer.
        if (key == "offset")
            entry.offset = value;
        else if (key == "length")
            entry.length = value;
        else if (key == "frameCount")
            entry.frameCount = static_cast<int64_t>(value);
        p_ = q;
        return true;
    }

    // Sizes the table once its first entries show how long an entry is written: enough room
    // for the rest of the document spelled the same way, so that a long table is not copied
    // as it grows. Only the room used is ever touched, and the room asked for never exceeds
    // the bytes of the document left to read (an entry is written in more than 24 bytes).
    void reserveFor(MediaEntryTable& table, const char* arrayStart)
    {
        const size_t left = size_t(end_ - p_);
        const size_t perEntry = std::max<size_t>(size_t(p_ - arrayStart) / table.size(), sizeof(MediaEntry));
        table.reserve(table.size() + left / perEntry + 16);
    }

    const char* p_;
    const char* begin_;
    const char* end_;
    std::string text_;
    Value::DictionaryType scalars_;
    MovieJob job_;
};

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
    return XMLJobReader(text, length).read();
}

std::optional<MovieJob> MovieJob::readDocument(const std::string& path, Error* error)
{
    // Read, never mapped: the person who owns the document may change or truncate it while it
    // is parsed, and a mapping would turn that into a fatal signal. FIFOs, devices and folders
    // are refused with their reason, without blocking.
    const auto bytes = Value::propertyListFileBytes(path, error);
    if (!bytes) return std::nullopt;
    auto job = fromDocumentBytes(*bytes, error);
    if (job) job->documentPath = path;
    return job;
}

std::optional<MovieJob> MovieJob::fromDocumentBytes(std::string_view bytes, Error* error)
{
    const bool binary = bytes.size() >= 6 && bytes.substr(0, 6) == "bplist";
    if (!binary)
        if (auto job = XMLJobReader(bytes.data(), bytes.size()).read()) return job;
    // Binary documents, and whatever the stream reader left alone, take the full reader; its
    // tree lives only until the job is made.
    const auto settings = Value::fromPropertyListData(bytes.data(), bytes.size(), error);
    if (!settings) return std::nullopt;
    if (!settings->asDictionary()) {
        static const char* const kinds[] = {"nothing", "a string", "an integer", "a real number", "a boolean",
                                            "a date",  "data",     "an array",   "a dictionary"};
        if (error)
            *error =
                Error{"NSCocoaErrorDomain", 3840,
                      std::string("its root is ") + kinds[static_cast<int>(settings->type())] + ", not a dictionary"};
        return std::nullopt;
    }
    return fromSettings(*settings);
}
