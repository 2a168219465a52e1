// A pull reader for XML property lists too large to hold as a tree. The caller walks the root
// dictionary key by key and takes each value either whole, as a Value, or, for arrays of
// dictionaries, item by item and field by field, so that nothing of the document outlives the
// step that reads it.
//
// It reads strings, integers, reals, booleans, arrays, dictionaries, comments, the document
// type and the five named plus numeric character entities. Whatever it is not sure of makes it
// refuse the document: dates, data, CDATA, a NUL, an internal DTD subset, numbers written with
// entities or a leading zero, character references longer than eight characters, empty keys,
// loose declarations, a "<" inside a comment or the document type, anything malformed. The caller then reads the
// document with Value::fromPropertyListData. A document the stream reads, the tree reads the same way.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "Foundation/Value.h"

namespace corvina {

class PropertyListStream {
public:
    // The text must outlive the stream.
    explicit PropertyListStream(std::string_view text) : p_(text.data()), begin_(text.data()), end_(p_ + text.size()) {}

    // A whole document whose root is a dictionary, each value read whole; nullopt when the
    // stream refuses it.
    static std::optional<Value> readRootDictionary(std::string_view text);

    // What a step found: another key or item, the end of its container, or something the
    // stream refuses (the document is then to be read by the tree reader; the stream is done).
    enum class Step { Next, End, Refused };

    // The prolog, the <plist> element when there is one, and the opening of the root, which
    // must be a dictionary written with an opening and a closing tag.
    bool openRootDictionary();
    // After the root dictionary has ended: the closing </plist> when it was opened, then
    // nothing but white space, comments and processing instructions.
    bool finish();

    // The next key of the dictionary being read (into key), or its end.
    Step nextKey(std::string& key);
    // The next item of the array being read, or its end. The item is then read with one of
    // the calls below.
    Step nextItem();

    // The value after a key or the item found: a dictionary entered (its keys follow), or
    // false when the value is something else, for the other calls to read (or when its tag is
    // malformed: they then refuse too).
    bool enterDictionary();
    // As enterDictionary, for an array. An empty-element array (<array/>) is entered too; its
    // first nextItem is its end.
    bool enterArray();
    // The value after a key or the item found, read whole. False when refused.
    bool readValue(Value& out);

    // In a dictionary, the short path for fields written in the usual spelling: white space,
    // <key>name</key>, white space, <integer>digits</integer>, with a key free of entities and
    // a decimal number that fits 64 bits (Field, key and value set); or white space and
    // </dict> (End, the dictionary is closed). Other, with nothing read, for anything else:
    // nextKey and readValue then read it.
    enum class PlainField { Field, End, Other };
    PlainField nextPlainField(std::string_view& key, uint64_t& value);

    // Bytes read so far and bytes left, for callers that size their tables from them.
    size_t bytesRead() const { return size_t(p_ - begin_); }
    size_t bytesLeft() const { return size_t(end_ - p_); }

private:
    // Deeper values are refused (the tree reader's own limit is higher, so it never refuses
    // what the stream reads for its depth).
    static constexpr int kMaxDepth = 256;

    struct Tag {
        std::string_view name;
        bool closing = false;
        bool empty = false;  // <name/>
    };

    bool skipMisc();
    bool skipDeclaration();
    bool skipDocumentType();
    bool readTag(Tag& tag);
    bool skipAttributes(const char*& q, char close, bool attributesAllowed) const;
    bool readText(std::string_view name, std::string& out);
    bool readEntity(std::string& out);
    Step readKey(std::string& key);
    bool readScalar(const Tag& tag, Value& out);
    bool readValue(const Tag& tag, Value& out, int depth);
    // The opening tag of the value ahead, read once and kept until the value is read.
    bool pendingTag();
    Step nextItemInGeneral();
    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
    const char* skipSpaces(const char* q) const
    {
        while (q < end_ && isSpace(*q)) ++q;
        return q;
    }
    bool startsWith(const char* q, std::string_view text) const
    {
        return size_t(end_ - q) >= text.size() && std::memcmp(q, text.data(), text.size()) == 0;
    }
    bool startsWith(std::string_view text) const { return startsWith(p_, text); }

    const char* p_;
    const char* begin_;
    const char* end_;
    Tag pending_;
    bool hasPending_ = false;
    bool emptyArray_ = false;
    bool refused_ = false;
    bool inPlist_ = false;
    int depth_ = 0;  // containers entered below the root dictionary
    std::string text_;
};

// The short paths, inline: a table of a million entries runs through them a few million times.

inline PropertyListStream::Step PropertyListStream::nextItem()
{
    if (!emptyArray_) {
        // The usual item of an entry array, read without the tag machinery.
        const char* const q = skipSpaces(p_);
        if (startsWith(q, "<dict>")) {
            p_ = q + 6;
            pending_ = Tag{"dict", false, false};
            hasPending_ = true;
            return Step::Next;
        }
    }
    return nextItemInGeneral();
}

inline bool PropertyListStream::enterDictionary()
{
    if ((!hasPending_ && !pendingTag()) || pending_.closing || pending_.name != "dict" || pending_.empty ||
        depth_ >= kMaxDepth)
        return false;
    hasPending_ = false;
    ++depth_;
    return true;
}

inline PropertyListStream::PlainField PropertyListStream::nextPlainField(std::string_view& key, uint64_t& value)
{
    const char* q = skipSpaces(p_);
    const auto take = [&](std::string_view text) {
        if (!startsWith(q, text)) return false;
        q += text.size();
        return true;
    };
    if (!take("<key>")) {
        if (!take("</dict>")) return PlainField::Other;
        p_ = q;
        --depth_;
        return PlainField::End;
    }
    const char* const keyStart = q;
    while (q < end_ && *q != '<' && *q != '&') ++q;
    const std::string_view name(keyStart, size_t(q - keyStart));
    if (name.empty() || !take("</key>")) return PlainField::Other;
    q = skipSpaces(q);
    if (!take("<integer>")) return PlainField::Other;
    // Digits only (from_chars takes no sign for an unsigned number), and no leading zero: the
    // tree reader takes that for octal.
    const char* const digits = q;
    const auto [ptr, ec] = std::from_chars(digits, end_, value);
    if (ptr == digits || ec != std::errc() || (*digits == '0' && ptr - digits > 1)) return PlainField::Other;
    q = ptr;
    if (!take("</integer>")) return PlainField::Other;
    key = name;
    p_ = q;
    return PlainField::Field;
}

}  // namespace corvina
