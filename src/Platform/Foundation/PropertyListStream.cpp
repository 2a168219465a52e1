#include "PropertyListStream.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace corvina {

namespace {

bool isNameChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.' || c == ':';
}

const char* findChar(const char* from, const char* end, char c)
{
    return static_cast<const char*>(std::memchr(from, c, size_t(end - from)));
}

void appendUTF8(std::string& out, uint32_t c)
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

std::string_view trimmed(std::string_view s)
{
    const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!s.empty() && space(s.front())) s.remove_prefix(1);
    while (!s.empty() && space(s.back())) s.remove_suffix(1);
    return s;
}

// Decimal numbers only: the tree reader takes a leading 0 for octal (and 0x for hexadecimal),
// so those are left to it.
bool hasRadixPrefix(std::string_view digits)
{
    if (!digits.empty() && (digits[0] == '-' || digits[0] == '+')) digits.remove_prefix(1);
    return digits.size() > 1 && digits[0] == '0';
}

bool parseInteger(std::string_view digits, Value& out)
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

}  // namespace

std::optional<Value> PropertyListStream::readRootDictionary(std::string_view text)
{
    PropertyListStream stream(text);
    if (!stream.openRootDictionary()) return std::nullopt;
    Value::DictionaryType root;
    std::string key;
    for (Step step; (step = stream.nextKey(key)) != Step::End;) {
        Value value;
        if (step == Step::Refused || !stream.readValue(value)) return std::nullopt;
        root[key] = std::move(value);
    }
    if (!stream.finish()) return std::nullopt;
    return Value(std::move(root));
}

bool PropertyListStream::openRootDictionary()
{
    // A NUL anywhere (in a key, a string, a number) is left to the tree reader, whose library
    // has rules of its own for it.
    if (std::memchr(p_, '\0', bytesLeft())) return false;
    if (startsWith("\xEF\xBB\xBF")) p_ += 3;
    Tag tag;
    if (!skipMisc() || !readTag(tag)) return false;
    if (tag.name == "plist" && !tag.closing && !tag.empty) {
        inPlist_ = true;
        if (!skipMisc() || !readTag(tag)) return false;
    }
    // An empty-element dictionary is left to the tree reader, which may refuse it.
    return !tag.closing && tag.name == "dict" && !tag.empty;
}

bool PropertyListStream::finish()
{
    Tag tag;
    if (inPlist_ && (!skipMisc() || !readTag(tag) || !(tag.closing && tag.name == "plist"))) return false;
    return skipMisc() && p_ == end_;
}

// Whitespace, comments, processing instructions and the document type.
bool PropertyListStream::skipMisc()
{
    for (;;) {
        p_ = skipSpaces(p_);
        if (startsWith("<!--")) {
            // A "<" in a comment is refused: the tree's nesting guard counts the tags it sees
            // there as if they were elements.
            const char* const body = p_ + 4;
            const size_t at = std::string_view(body, size_t(end_ - body)).find("-->");
            if (at == std::string_view::npos || std::memchr(body, '<', at)) return false;
            p_ = body + at + 3;
        } else if (startsWith("<?")) {
            if (!skipDeclaration()) return false;
        } else if (startsWith("<!")) {
            if (!skipDocumentType()) return false;
        } else {
            return true;
        }
    }
}

// A processing instruction or XML declaration: a name, then name="value" pairs only. Anything
// looser is left to the tree reader, which is stricter about them.
bool PropertyListStream::skipDeclaration()
{
    const char* q = p_ + 2;
    const char* const nameStart = q;
    while (q < end_ && isNameChar(*q)) ++q;
    if (q == nameStart || !skipAttributes(q, '?', true) || end_ - q < 2 || q[1] != '>') return false;
    p_ = q + 2;
    return true;
}

// The document type only, in its usual spelling. Identifiers in double quotes are passed over
// whole and must be closed. A document type with an internal subset, single quotes or a "<"
// anywhere (the tree's nesting guard counts tags even inside quotes) is left to the tree.
bool PropertyListStream::skipDocumentType()
{
    if (!startsWith("<!DOCTYPE") || end_ - p_ < 10 || !isSpace(p_[9])) return false;
    const char* q = p_ + 10;
    while (q < end_ && *q != '>') {
        if (*q == '[' || *q == '<' || *q == '\'') return false;
        if (*q == '"') {
            const char* const closeQuote = findChar(q + 1, end_, '"');
            if (!closeQuote || std::memchr(q + 1, '<', size_t(closeQuote - q - 1))) return false;
            q = closeQuote;
        }
        ++q;
    }
    if (q >= end_) return false;
    p_ = q + 1;
    return true;
}

bool PropertyListStream::readTag(Tag& tag)
{
    p_ = skipSpaces(p_);
    if (p_ >= end_ || *p_ != '<') return false;
    ++p_;
    tag = Tag{};
    if (p_ < end_ && *p_ == '/') {
        tag.closing = true;
        ++p_;
    }
    const char* const nameStart = p_;
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

// Moves q past white space and name="value" pairs (each after white space) to the closing
// character, or to "/" + close for an empty element when allowed. False for anything else.
bool PropertyListStream::skipAttributes(const char*& q, char close, bool attributesAllowed) const
{
    for (;;) {
        const char* const beforeSpace = q;
        q = skipSpaces(q);
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
bool PropertyListStream::readText(std::string_view name, std::string& out)
{
    out.clear();
    for (;;) {
        const char* const lt = findChar(p_, end_, '<');
        if (!lt) return false;
        const char* const amp = findChar(p_, lt, '&');
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

bool PropertyListStream::readEntity(std::string& out)
{
    const char* const semi = findChar(p_, p_ + std::min<ptrdiff_t>(end_ - p_, 12), ';');
    if (!semi) return false;
    const std::string_view name(p_ + 1, size_t(semi - p_ - 1));
    p_ = semi + 1;
    if (name == "amp") {
        out += '&';
    } else if (name == "lt") {
        out += '<';
    } else if (name == "gt") {
        out += '>';
    } else if (name == "quot") {
        out += '"';
    } else if (name == "apos") {
        out += '\'';
    } else if (name.size() > 1 && name.size() <= 8 && name[0] == '#') {
        // Eight characters at most, "#" included: the tree reader refuses longer references.
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

// A scalar element whose opening tag has been read. False for anything that is not a string,
// integer, real or boolean.
bool PropertyListStream::readScalar(const Tag& tag, Value& out)
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
    if (tag.name != "integer" && tag.name != "real") return false;
    if (tag.empty) return false;
    // Read in place. A number spelled with entities is the tree's business: it does not
    // decode them there.
    const char* const lt = findChar(p_, end_, '<');
    if (!lt || findChar(p_, lt, '&')) return false;
    const std::string_view digits = trimmed(std::string_view(p_, size_t(lt - p_)));
    p_ = lt;
    Tag close;
    if (!readTag(close) || !close.closing || close.name != tag.name) return false;
    if (tag.name == "integer") return parseInteger(digits, out);
    double v = 0;
    auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v);
    if (digits.empty() || ec != std::errc() || ptr != digits.data() + digits.size()) return false;
    out = Value(v);
    return true;
}

// Any value whose opening tag has been read, kept whole.
bool PropertyListStream::readValue(const Tag& tag, Value& out, int depth)
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
                const Step step = readKey(key);
                if (step == Step::Refused) return false;
                if (step == Step::End) break;
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

PropertyListStream::Step PropertyListStream::nextKey(std::string& key)
{
    const Step step = readKey(key);
    if (step == Step::End) --depth_;
    return step;
}

PropertyListStream::Step PropertyListStream::readKey(std::string& key)
{
    // The end of a dictionary in its usual spelling first: white space, then </dict>.
    p_ = skipSpaces(p_);
    if (startsWith("</dict>")) {
        p_ += 7;
        return Step::End;
    }
    Tag tag;
    if (!skipMisc() || !readTag(tag)) return Step::Refused;
    if (tag.closing) return tag.name == "dict" ? Step::End : Step::Refused;
    // An empty key is refused by the tree reader: left to it.
    if (tag.name != "key" || tag.empty) return Step::Refused;
    const char* const lt = findChar(p_, end_, '<');
    if (lt && !findChar(p_, lt, '&')) {
        key.assign(p_, size_t(lt - p_));
        p_ = lt;
        Tag close;
        if (key.empty() || !readTag(close) || !close.closing || close.name != "key") return Step::Refused;
        return Step::Next;
    }
    return readText("key", key) && !key.empty() ? Step::Next : Step::Refused;
}

PropertyListStream::Step PropertyListStream::nextItemInGeneral()
{
    if (emptyArray_) {
        emptyArray_ = false;
        --depth_;
        return Step::End;
    }
    if (!skipMisc() || !readTag(pending_)) return Step::Refused;
    if (pending_.closing) {
        --depth_;
        return pending_.name == "array" ? Step::End : Step::Refused;
    }
    hasPending_ = true;
    return Step::Next;
}

bool PropertyListStream::pendingTag()
{
    if (hasPending_) return true;
    // A tag that failed to read leaves the position inside it: refused for good, so that no
    // later call (readValue after enterArray said no) reads on from there.
    if (refused_ || !skipMisc() || !readTag(pending_)) {
        refused_ = true;
        return false;
    }
    hasPending_ = true;
    return true;
}

bool PropertyListStream::enterArray()
{
    if (!pendingTag() || pending_.closing || pending_.name != "array" || depth_ >= kMaxDepth) return false;
    hasPending_ = false;
    emptyArray_ = pending_.empty;  // <array/>: the first nextItem ends it
    ++depth_;
    return true;
}

bool PropertyListStream::readValue(Value& out)
{
    if (!pendingTag()) return false;
    hasPending_ = false;
    return readValue(pending_, out, depth_ + 1);
}

}  // namespace corvina
