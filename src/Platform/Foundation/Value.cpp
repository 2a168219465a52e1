#include "Value.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>

#include "ByteOrder.h"
#include "FileOperations.h"
#include "PosixIO.h"
#include "Format.h"
#include "StringUtils.h"

namespace corvina {

namespace {

// Seconds between 1970-01-01 and 2001-01-01, the epoch of property-list dates.
constexpr int64_t kPlistEpoch = 978307200;
// Property lists nested deeper than this are refused rather than recursed into.
constexpr int kMaxDepth = 512;
// A binary list may refer to one object from many places; the reader copies each use, so the
// number of values it would make is bounded too.
constexpr uint64_t kMaxExpandedObjects = 16u << 20;
// Property-list files above this size are refused before they are read.
constexpr uint64_t kMaxFileBytes = 512u << 20;

const Value& noneValue()
{
    static const Value none;
    return none;
}

// ---- number parsing with the platform's string conversions ----------------------------

size_t skipSpaces(std::string_view s, size_t i = 0)
{
    while (i < s.size() &&
           (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r' || s[i] == '\v' || s[i] == '\f'))
        ++i;
    return i;
}

// Leading integer: optional blanks, sign and digits; saturates; 0 when there is none.
int64_t leadingInteger(std::string_view s)
{
    size_t i = skipSpaces(s);
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    uint64_t magnitude = 0;
    bool overflow = false;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        const unsigned digit = static_cast<unsigned>(s[i] - '0');
        if (magnitude > (std::numeric_limits<uint64_t>::max() - digit) / 10)
            overflow = true;
        else
            magnitude = magnitude * 10 + digit;
    }
    if (negative) {
        if (overflow || magnitude > uint64_t{1} << 63) return std::numeric_limits<int64_t>::min();
        return static_cast<int64_t>(~magnitude + 1);
    }
    if (overflow || magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(magnitude);
}

uint64_t leadingUnsigned(std::string_view s)
{
    size_t i = skipSpaces(s);
    if (i < s.size() && s[i] == '-') return static_cast<uint64_t>(leadingInteger(s));
    if (i < s.size() && s[i] == '+') ++i;
    uint64_t v = 0;
    auto r = std::from_chars(s.data() + i, s.data() + s.size(), v);
    if (r.ec == std::errc::result_out_of_range) return std::numeric_limits<uint64_t>::max();
    return r.ec == std::errc() ? v : 0;
}

double leadingDouble(std::string_view s)
{
    size_t i = skipSpaces(s);
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    double v = 0;
    auto r = std::from_chars(s.data() + i, s.data() + s.size(), v);
    if (r.ec == std::errc::result_out_of_range) {
        // from_chars leaves v alone; read the digits' scale instead.
        v = std::strtod(std::string(s.substr(i)).c_str(), nullptr);
    } else if (r.ec != std::errc()) {
        return 0.0;
    }
    return negative ? -v : v;
}

int64_t truncateDouble(double d)
{
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
    if (d <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(d);
}

std::string shortestDouble(double d)
{
    char buf[40];
    auto r = std::to_chars(buf, buf + sizeof buf, d);
    return std::string(buf, r.ptr);
}

// ---- libplist ownership ------------------------------------------------------------------

struct PlistFree {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct CFree {
    void operator()(void* p) const { std::free(p); }
};
template <class T>
using CPtr = std::unique_ptr<T, CFree>;

}  // namespace

// ---- construction and access --------------------------------------------------------------

Value::Value(const char* s) : storage_(s ? Storage(std::string(s)) : Storage()) {}
Value::Value(std::string s) : storage_(std::move(s)) {}
Value::Value(std::string_view s) : storage_(std::string(s)) {}
Value::Value(bool b) : storage_(b) {}
Value::Value(double d) : storage_(d) {}
Value::Value(ArrayType array) : storage_(std::make_shared<const ArrayType>(std::move(array))) {}
Value::Value(DictionaryType dictionary) : storage_(std::make_shared<const DictionaryType>(std::move(dictionary))) {}

Value Value::date(Date d)
{
    Value v;
    v.storage_ = d;
    return v;
}

Value Value::data(DataType bytes)
{
    Value v;
    v.storage_ = std::make_shared<const DataType>(std::move(bytes));
    return v;
}

Value::Type Value::type() const
{
    switch (storage_.index()) {
    case 1:
        return Type::String;
    case 2:
        return Type::Integer;
    case 3:
        return Type::Real;
    case 4:
        return Type::Boolean;
    case 5:
        return Type::Date;
    case 6:
        return Type::Data;
    case 7:
        return Type::Array;
    case 8:
        return Type::Dictionary;
    default:
        return Type::None;
    }
}

const std::string* Value::asString() const { return std::get_if<std::string>(&storage_); }

const Value::ArrayType* Value::asArray() const
{
    auto* p = std::get_if<std::shared_ptr<const ArrayType>>(&storage_);
    return p ? p->get() : nullptr;
}

const Value::DictionaryType* Value::asDictionary() const
{
    auto* p = std::get_if<std::shared_ptr<const DictionaryType>>(&storage_);
    return p ? p->get() : nullptr;
}

const Value::DataType* Value::asData() const
{
    auto* p = std::get_if<std::shared_ptr<const DataType>>(&storage_);
    return p ? p->get() : nullptr;
}

std::optional<Date> Value::asDate() const
{
    if (auto* d = std::get_if<Date>(&storage_)) return *d;
    return std::nullopt;
}

const Value* Value::objectForKey(std::string_view key) const
{
    const auto* dict = asDictionary();
    if (!dict) return nullptr;
    auto it = dict->find(key);
    return it == dict->end() ? nullptr : &it->second;
}

const Value& Value::operator[](std::string_view key) const
{
    const Value* v = objectForKey(key);
    return v ? *v : noneValue();
}

const Value& Value::operator[](size_t index) const
{
    const auto* array = asArray();
    if (!array || index >= array->size()) return noneValue();
    return (*array)[index];
}

size_t Value::count() const
{
    if (const auto* a = asArray()) return a->size();
    if (const auto* d = asDictionary()) return d->size();
    return 0;
}

// ---- conversions ---------------------------------------------------------------------------

int64_t Value::integerValue() const
{
    if (auto* i = std::get_if<Integer>(&storage_)) return i->value;
    if (auto* d = std::get_if<double>(&storage_)) return truncateDouble(*d);
    if (auto* b = std::get_if<bool>(&storage_)) return *b ? 1 : 0;
    if (auto* s = std::get_if<std::string>(&storage_)) return leadingInteger(*s);
    return 0;
}

int32_t Value::intValue() const
{
    if (auto* s = std::get_if<std::string>(&storage_)) {
        // Strings saturate at the int's range, numbers wrap as a C cast does.
        const int64_t v = leadingInteger(*s);
        if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
        if (v < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
        return static_cast<int32_t>(v);
    }
    return static_cast<int32_t>(integerValue());
}

int16_t Value::shortValue() const { return static_cast<int16_t>(integerValue()); }

double Value::doubleValue() const
{
    if (auto* i = std::get_if<Integer>(&storage_))
        return i->isUnsignedAboveInt64 ? static_cast<double>(static_cast<uint64_t>(i->value))
                                       : static_cast<double>(i->value);
    if (auto* d = std::get_if<double>(&storage_)) return *d;
    if (auto* b = std::get_if<bool>(&storage_)) return *b ? 1.0 : 0.0;
    if (auto* s = std::get_if<std::string>(&storage_)) return leadingDouble(*s);
    return 0.0;
}

float Value::floatValue() const
{
    // Beyond float's range the conversion is undefined; the platform gives infinity.
    const double d = doubleValue();
    if (d > std::numeric_limits<float>::max()) return std::numeric_limits<float>::infinity();
    if (d < -std::numeric_limits<float>::max()) return -std::numeric_limits<float>::infinity();
    return static_cast<float>(d);
}

uint64_t Value::unsignedLongLongValue() const
{
    if (auto* i = std::get_if<Integer>(&storage_)) return static_cast<uint64_t>(i->value);
    if (auto* d = std::get_if<double>(&storage_)) {
        if (std::isnan(*d)) return 0;
        if (*d < 0) return static_cast<uint64_t>(truncateDouble(*d));
        if (*d >= 18446744073709551615.0) return std::numeric_limits<uint64_t>::max();
        return static_cast<uint64_t>(*d);
    }
    if (auto* s = std::get_if<std::string>(&storage_)) return leadingUnsigned(*s);
    return static_cast<uint64_t>(integerValue());
}

uint64_t Value::unsignedIntegerValue() const { return unsignedLongLongValue(); }

bool Value::boolValue() const
{
    if (auto* s = std::get_if<std::string>(&storage_)) {
        // Y, y, T, t or a digit 1-9 after blanks, signs and leading zeros.
        size_t i = skipSpaces(*s);
        while (i < s->size() && ((*s)[i] == '+' || (*s)[i] == '-')) ++i;
        while (i < s->size() && (*s)[i] == '0') ++i;
        if (i >= s->size()) return false;
        const char c = (*s)[i];
        return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    if (auto* d = std::get_if<double>(&storage_)) return *d != 0.0;
    return integerValue() != 0;
}

std::string Value::stringValue() const
{
    if (auto* s = std::get_if<std::string>(&storage_)) return *s;
    if (auto* i = std::get_if<Integer>(&storage_))
        return i->isUnsignedAboveInt64 ? format("%llu", static_cast<uint64_t>(i->value)) : format("%lld", i->value);
    if (auto* d = std::get_if<double>(&storage_)) return shortestDouble(*d);
    if (auto* b = std::get_if<bool>(&storage_)) return *b ? "1" : "0";
    return {};
}

// ---- description ---------------------------------------------------------------------------

namespace {

bool needsQuotes(std::string_view s)
{
    if (s.empty()) return true;
    for (char c : s) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                           c == '$' || c == '.' || c == '/' || c == ':' || c == '-';
        if (!plain) return true;
    }
    return false;
}

void appendQuoted(std::string& out, std::string_view s)
{
    if (!needsQuotes(s)) {
        out += s;
        return;
    }
    out += '"';
    for (char c : s) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            out += c;
        }
    }
    out += '"';
}

void appendIndent(std::string& out, int level) { out.append(static_cast<size_t>(level) * 4, ' '); }

}  // namespace

std::string Value::description() const
{
    // Strings stand as they are at the top level; inside collections they are quoted.
    if (auto* s = asString()) return *s;
    std::string out;
    struct Writer {
        std::string& out;
        void write(const Value& v, int level)
        {
            if (auto* s = v.asString()) {
                appendQuoted(out, *s);
            } else if (auto* a = v.asArray()) {
                out += "(\n";
                for (size_t i = 0; i < a->size(); ++i) {
                    appendIndent(out, level + 1);
                    write((*a)[i], level + 1);
                    if (i + 1 < a->size()) out += ',';
                    out += '\n';
                }
                appendIndent(out, level);
                out += ')';
            } else if (auto* d = v.asDictionary()) {
                out += "{\n";
                for (const auto& [key, value] : *d) {
                    appendIndent(out, level + 1);
                    appendQuoted(out, key);
                    out += " = ";
                    write(value, level + 1);
                    out += ";\n";
                }
                appendIndent(out, level);
                out += '}';
            } else if (auto* data = v.asData()) {
                static constexpr char hex[] = "0123456789abcdef";
                out += '<';
                for (size_t i = 0; i < data->size(); ++i) {
                    if (i > 0 && i % 4 == 0) out += ' ';
                    out += hex[(*data)[i] >> 4];
                    out += hex[(*data)[i] & 0x0F];
                }
                out += '>';
            } else if (auto date = v.asDate()) {
                appendQuoted(out, dateDescription(*date));
            } else if (v.isNone()) {
                out += "(null)";
            } else {
                out += v.stringValue();
            }
        }
    };
    if (auto date = asDate()) return dateDescription(*date);
    Writer{out}.write(*this, 0);
    return out;
}

bool Value::operator==(const Value& other) const
{
    if (storage_.index() != other.storage_.index()) return false;
    if (auto* i = std::get_if<Integer>(&storage_)) return i->value == std::get<Integer>(other.storage_).value;
    if (auto* a = asArray()) return a == other.asArray() || *a == *other.asArray();
    if (auto* d = asDictionary()) return d == other.asDictionary() || *d == *other.asDictionary();
    if (auto* b = asData()) return b == other.asData() || *b == *other.asData();
    return storage_ == other.storage_;
}

// ---- reading -------------------------------------------------------------------------------

namespace {

std::optional<Value> fromNode(plist_t node, int depth)
{
    if (!node || depth > kMaxDepth) return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
    }
    case PLIST_UINT: {
        uint64_t bits = 0;
        plist_get_uint_val(node, &bits);
        if (bits <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
            return Value(static_cast<int64_t>(bits));
        // Above int64: a negative number or a large unsigned one. The node's text tells.
        char* xml = nullptr;
        uint32_t length = 0;
        plist_to_xml(node, &xml, &length);
        CPtr<char> owned(xml);
        const bool negative =
            xml && std::memchr(xml, '-', length) != nullptr && std::strstr(xml, "<integer>-") != nullptr;
        if (negative) return Value(static_cast<int64_t>(bits));
        return Value(bits);
    }
    case PLIST_UID: {
        uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return Value(uid);
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(d);
    }
    case PLIST_STRING: {
        // By pointer and length: a string may hold a NUL, which the copying getter refuses
        // with an assertion.
        uint64_t length = 0;
        const char* s = plist_get_string_ptr(node, &length);
        return Value(s ? std::string(s, static_cast<size_t>(length)) : std::string());
    }
    case PLIST_KEY:
        // A key outside a dictionary is not a property list (and the library's getter for
        // it asserts on a key holding a NUL).
        return std::nullopt;
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        const auto since1970 = std::chrono::seconds(kPlistEpoch + sec) + std::chrono::microseconds(usec);
        return Value::date(Date(std::chrono::duration_cast<Clock::duration>(since1970)));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        CPtr<char> owned(bytes);
        const auto* p = reinterpret_cast<const uint8_t*>(bytes);
        return Value::data(p ? Value::DataType(p, p + length) : Value::DataType());
    }
    case PLIST_ARRAY: {
        Value::ArrayType array;
        const uint32_t n = plist_array_get_size(node);
        array.reserve(n);
        for (uint32_t i = 0; i < n; ++i) {
            auto item = fromNode(plist_array_get_item(node, i), depth + 1);
            if (!item) return std::nullopt;
            array.push_back(std::move(*item));
        }
        return Value(std::move(array));
    }
    case PLIST_DICT: {
        Value::DictionaryType dict;
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        CPtr<void> ownedIter(iter);
        while (true) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, iter, &key, &item);
            CPtr<char> ownedKey(key);
            if (!item || !key) break;
            auto value = fromNode(item, depth + 1);
            if (!value) return std::nullopt;
            dict.insert_or_assign(std::string(key), std::move(*value));
        }
        return Value(std::move(dict));
    }
    default:
        return std::nullopt;
    }
}

// True when XML text nests arrays or dictionaries deeper than we accept. libplist's XML
// reader recurses once per level and would overflow the stack on hostile input.
bool xmlNestsTooDeep(const char* text, size_t length)
{
    const std::string_view xml(text, length);
    if (xml.substr(0, 6) == "bplist") return false;
    int depth = 0;
    size_t i = 0;
    while ((i = xml.find('<', i)) != std::string_view::npos) {
        ++i;
        const bool closing = i < xml.size() && xml[i] == '/';
        const size_t name = closing ? i + 1 : i;
        const bool container = xml.compare(name, 5, "array") == 0 || xml.compare(name, 4, "dict") == 0;
        if (!container) continue;
        const size_t end = xml.find('>', name);
        if (end == std::string_view::npos) break;
        if (closing)
            --depth;
        else if (xml[end - 1] != '/' && ++depth > kMaxDepth)
            return true;
        i = end + 1;
    }
    return false;
}

// ---- binary lists: structure checked before libplist recurses through it ---------------------

enum class BinaryCheck { Fine, Malformed, TooDeep };

// Walks the object graph of a binary list without recursion: every container's nesting depth
// and expanded size once (memoised), a reference cycle counts as too deep.
BinaryCheck checkBinaryPlist(const uint8_t* data, size_t length)
{
    constexpr size_t kHeader = 8, kTrailer = 32;
    if (length < kHeader + kTrailer) return BinaryCheck::Malformed;
    const uint8_t* trailer = data + length - kTrailer;
    const unsigned offsetSize = trailer[6], refSize = trailer[7];
    const uint64_t count = loadBE(trailer + 8, 8);
    const uint64_t top = loadBE(trailer + 16, 8);
    const uint64_t tableOffset = loadBE(trailer + 24, 8);
    const auto validSize = [](unsigned n) { return n == 1 || n == 2 || n == 4 || n == 8; };
    if (!validSize(offsetSize) || !validSize(refSize) || count == 0 || top >= count) return BinaryCheck::Malformed;
    const uint64_t body = length - kTrailer;
    if (tableOffset < kHeader || tableOffset > body || count > (body - tableOffset) / offsetSize)
        return BinaryCheck::Malformed;

    // Children of object i: their references, or none for a value that holds none.
    struct Refs {
        uint64_t first = 0;  // byte position of the first reference
        uint64_t count = 0;
    };
    // The count in an object's marker, or in the integer that follows it; false when that
    // integer is malformed.
    const auto countOf = [&](uint64_t at, uint64_t* n, uint64_t* pos) -> bool {
        *n = data[at] & 0x0F;
        *pos = at + 1;
        if (*n != 0x0F) return true;
        if (*pos >= tableOffset || (data[*pos] >> 4) != 0x1) return false;
        const unsigned size = 1u << (data[*pos] & 0x0F);
        if (size > 8 || *pos + 1 + size > tableOffset) return false;
        *n = loadBE(data + *pos + 1, size);
        *pos += 1 + size;
        return true;
    };
    const auto refsOf = [&](uint64_t object, Refs* refs) -> bool {
        const uint64_t at = loadBE(data + tableOffset + object * offsetSize, offsetSize);
        if (at < kHeader || at >= tableOffset) return false;
        const unsigned type = data[at] >> 4;
        *refs = {};
        uint64_t n = 0;
        uint64_t pos = 0;
        if (type == 0x5 || type == 0x6) {
            // A string holding a NUL is refused: the library's text getters assert on one.
            if (!countOf(at, &n, &pos)) return false;
            const uint64_t unit = type == 0x6 ? 2 : 1;
            if (n > (tableOffset - pos) / unit) return true;  // the library judges the length
            for (uint64_t i = 0; i < n; ++i) {
                const uint8_t* c = data + pos + i * unit;
                if (c[0] == 0 && (unit == 1 || c[1] == 0)) return false;
            }
            return true;
        }
        if (type != 0xA && type != 0xC && type != 0xD) return true;
        if (!countOf(at, &n, &pos)) return false;
        const uint64_t refs2 = type == 0xD ? 2 : 1;
        if (n > (tableOffset - pos) / refSize / refs2) return false;
        *refs = {pos, n * refs2};
        return true;
    };

    std::vector<uint8_t> state(count, 0);  // 0 unseen, 1 on the path, 2 done
    std::vector<uint16_t> depth(count, 0);
    std::vector<uint64_t> expanded(count, 0);
    struct Frame {
        uint64_t object;
        Refs refs;
        uint64_t next;
    };
    std::vector<Frame> path;
    const auto enter = [&](uint64_t object) -> BinaryCheck {
        Frame frame{object, {}, 0};
        if (!refsOf(object, &frame.refs)) return BinaryCheck::Malformed;
        if (path.size() >= static_cast<size_t>(kMaxDepth)) return BinaryCheck::TooDeep;
        state[object] = 1;
        path.push_back(frame);
        return BinaryCheck::Fine;
    };
    if (auto r = enter(top); r != BinaryCheck::Fine) return r;
    while (!path.empty()) {
        Frame& frame = path.back();
        if (frame.next < frame.refs.count) {
            const uint64_t child = loadBE(data + frame.refs.first + frame.next * refSize, refSize);
            ++frame.next;
            if (child >= count) return BinaryCheck::Malformed;
            if (state[child] == 1) return BinaryCheck::TooDeep;  // a cycle
            if (state[child] == 0)
                if (auto r = enter(child); r != BinaryCheck::Fine) return r;
            continue;
        }
        uint16_t deepest = 0;
        uint64_t size = 1;
        for (uint64_t i = 0; i < frame.refs.count; ++i) {
            const uint64_t child = loadBE(data + frame.refs.first + i * refSize, refSize);
            deepest = std::max(deepest, depth[child]);
            size = expanded[child] > kMaxExpandedObjects - size ? kMaxExpandedObjects + 1 : size + expanded[child];
            if (size > kMaxExpandedObjects) return BinaryCheck::TooDeep;
        }
        depth[frame.object] = static_cast<uint16_t>(deepest + 1);
        expanded[frame.object] = size;
        state[frame.object] = 2;
        path.pop_back();
    }
    return BinaryCheck::Fine;
}

// ---- UTF-16 XML --------------------------------------------------------------------------------

// XML text in UTF-16 (with a byte-order mark, or starting "<" with a zero byte beside it)
// becomes UTF-8, its declaration saying so; anything else is left alone (false).
bool utf16ToUtf8(const uint8_t* data, size_t length, std::string* out)
{
    bool bigEndian;
    size_t start = 0;
    if (length >= 2 && data[0] == 0xFE && data[1] == 0xFF) {
        bigEndian = true;
        start = 2;
    } else if (length >= 2 && data[0] == 0xFF && data[1] == 0xFE) {
        bigEndian = false;
        start = 2;
    } else if (length >= 2 && data[0] == 0 && data[1] == '<') {
        bigEndian = true;
    } else if (length >= 2 && data[0] == '<' && data[1] == 0) {
        bigEndian = false;
    } else {
        return false;
    }
    out->clear();
    out->reserve(length / 2 + 16);
    const auto unit = [&](size_t i) -> uint32_t {
        return uint32_t(bigEndian ? loadBE16(data + i) : loadLE16(data + i));
    };
    for (size_t i = start; i + 1 < length; i += 2) {
        uint32_t c = unit(i);
        if (c >= 0xD800 && c <= 0xDBFF && i + 3 < length && unit(i + 2) >= 0xDC00 && unit(i + 2) <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
            i += 2;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;  // a lone surrogate
        }
        if (c < 0x80) {
            out->push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out->push_back(static_cast<char>(0xC0 | c >> 6));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out->push_back(static_cast<char>(0xE0 | c >> 12));
            out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out->push_back(static_cast<char>(0xF0 | c >> 18));
            out->push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    // The declaration must no longer claim UTF-16.
    const size_t declarationEnd = out->find("?>");
    if (out->compare(0, 5, "<?xml") == 0 && declarationEnd != std::string::npos) {
        for (const char* name : {"UTF-16", "utf-16", "UTF-16LE", "UTF-16BE", "utf-16le", "utf-16be"}) {
            const size_t at = out->find(std::string("\"") + name + "\"");
            if (at != std::string::npos && at < declarationEnd) {
                out->replace(at + 1, std::strlen(name), "UTF-8");
                break;
            }
        }
    }
    return true;
}

void setError(Error* error, std::string text, int64_t code = 3840)
{
    if (!error) return;
    error->domain = "NSPropertyListErrorDomain";
    error->code = code;
    error->localizedDescription = std::move(text);
}

}  // namespace

std::optional<Value> Value::fromPropertyListData(const void* bytes, size_t length, Error* error)
{
    if (!bytes || length == 0) {
        setError(error, "The data is empty.");
        return std::nullopt;
    }
    if (length > std::numeric_limits<uint32_t>::max()) {
        setError(error, "The data is too large for a property list.");
        return std::nullopt;
    }
    std::string utf8;
    if (utf16ToUtf8(static_cast<const uint8_t*>(bytes), length, &utf8)) {
        if (utf8.empty()) {
            setError(error, "The data is empty.");
            return std::nullopt;
        }
        bytes = utf8.data();
        length = utf8.size();
    }
    // A UTF-8 byte order mark, as some editors write, is not part of the document.
    if (length > 3 && std::memcmp(bytes, "\xEF\xBB\xBF", 3) == 0) {
        bytes = static_cast<const char*>(bytes) + 3;
        length -= 3;
    }
    const bool binary = length >= 6 && std::memcmp(bytes, "bplist", 6) == 0;
    if (binary) {
        switch (checkBinaryPlist(static_cast<const uint8_t*>(bytes), length)) {
        case BinaryCheck::Fine:
            break;
        case BinaryCheck::TooDeep:
            setError(error, "The data couldn't be read because it nests too deeply or refers to itself.");
            return std::nullopt;
        case BinaryCheck::Malformed:
            setError(error, "The data couldn't be read because it isn't in the correct format.");
            return std::nullopt;
        }
    } else if (xmlNestsTooDeep(static_cast<const char*>(bytes), length)) {
        setError(error, "The data couldn't be read because it nests too deeply.");
        return std::nullopt;
    }
    plist_t root = nullptr;
    plist_from_memory(static_cast<const char*>(bytes), static_cast<uint32_t>(length), &root);
    PlistPtr owned(root);
    if (!root) {
        setError(error, "The data couldn't be read because it isn't in the correct format.");
        return std::nullopt;
    }
    auto value = fromNode(root, 0);
    if (!value) setError(error, "The data couldn't be read because it isn't in the correct format.");
    return value;
}

std::optional<std::string> Value::propertyListFileBytes(const std::string& path, Error* error)
{
    // Opened without blocking, so that a FIFO or a device at the path cannot hold us up; only
    // regular files are read.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = Error::fromErrno(errno);
        return std::nullopt;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        const int err = errno;
        const bool statFailed = st.st_mode == 0;
        ::close(fd);
        if (error) {
            if (statFailed)
                *error = Error::fromErrno(err);
            else if (S_ISDIR(st.st_mode))
                *error = Error::fromErrno(EISDIR);
            else
                setError(error, S_ISFIFO(st.st_mode) ? "It is a FIFO, not a regular file."
                                                     : "It is a device or a socket, not a regular file.");
        }
        return std::nullopt;
    }
    if (static_cast<uint64_t>(st.st_size) > kMaxFileBytes) {
        ::close(fd);
        setError(error,
                 format("It is too large for a property list (%lld bytes).", static_cast<long long>(st.st_size)));
        return std::nullopt;
    }
    std::string bytes;
    bytes.reserve(static_cast<size_t>(st.st_size));
    char buf[65536];
    while (bytes.size() <= kMaxFileBytes) {
        const ssize_t n = posix::retryInterrupted([&] { return ::read(fd, buf, sizeof buf); });
        if (n < 0) {
            const int err = errno;
            ::close(fd);
            if (error) *error = Error::fromErrno(err);
            return std::nullopt;
        }
        if (n == 0) break;
        bytes.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    return bytes;
}

std::optional<Value> Value::fromPropertyListFile(const std::string& path, Error* error)
{
    const auto bytes = propertyListFileBytes(path, error);
    if (!bytes) return std::nullopt;
    return fromPropertyListData(bytes->data(), bytes->size(), error);
}

// ---- writing -------------------------------------------------------------------------------

namespace {

plist_t toNode(const Value& v, int depth)
{
    if (depth > kMaxDepth) return nullptr;
    switch (v.type()) {
    case Value::Type::String:
        return plist_new_string(v.asString()->c_str());
    case Value::Type::Integer: {
        const uint64_t bits = v.unsignedLongLongValue();
        const double asReal = v.doubleValue();
        if (bits > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) && asReal > 0) {
            // A large unsigned number: libplist keeps its width when it reads the text.
            const std::string xml = format("<plist version=\"1.0\"><integer>%llu</integer></plist>", bits);
            plist_t node = nullptr;
            plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &node);
            if (node) return node;
        }
        return plist_new_uint(bits);
    }
    case Value::Type::Real:
        return plist_new_real(v.doubleValue());
    case Value::Type::Boolean:
        return plist_new_bool(v.boolValue() ? 1 : 0);
    case Value::Type::Date: {
        const auto micros =
            std::chrono::duration_cast<std::chrono::microseconds>(v.asDate()->time_since_epoch()).count() -
            kPlistEpoch * 1000000;
        int64_t sec = micros / 1000000;
        int64_t usec = micros % 1000000;
        if (usec < 0) {
            usec += 1000000;
            sec -= 1;
        }
        sec = std::clamp<int64_t>(sec, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
        return plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>(usec));
    }
    case Value::Type::Data: {
        const auto* d = v.asData();
        return plist_new_data(reinterpret_cast<const char*>(d->data()), d->size());
    }
    case Value::Type::Array: {
        PlistPtr array(plist_new_array());
        for (const auto& item : *v.asArray()) {
            plist_t node = toNode(item, depth + 1);
            if (!node) return nullptr;
            plist_array_append_item(array.get(), node);
        }
        return array.release();
    }
    case Value::Type::Dictionary: {
        PlistPtr dict(plist_new_dict());
        for (const auto& [key, item] : *v.asDictionary()) {
            plist_t node = toNode(item, depth + 1);
            if (!node) return nullptr;
            plist_dict_set_item(dict.get(), key.c_str(), node);
        }
        return dict.release();
    }
    default:
        return nullptr;
    }
}

}  // namespace

std::string Value::toXMLPropertyList() const
{
    PlistPtr root(toNode(*this, 0));
    if (!root) return {};
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    if (!xml) return {};
    std::string out(xml, length);
    plist_to_xml_free(xml);
    return out;
}

std::vector<uint8_t> Value::toBinaryPropertyList() const
{
    PlistPtr root(toNode(*this, 0));
    if (!root) return {};
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root.get(), &bin, &length);
    if (!bin) return {};
    std::vector<uint8_t> out(reinterpret_cast<uint8_t*>(bin), reinterpret_cast<uint8_t*>(bin) + length);
    plist_to_bin_free(bin);
    return out;
}

bool Value::writeToFile(const std::string& path, bool atomically) const
{
    if (path.empty()) return false;
    const std::string xml = toXMLPropertyList();
    if (xml.empty()) return false;
    if (!atomically) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0) return false;
        const bool ok = bool(posix::writeFully(fd, xml));
        return (::close(fd) == 0) && ok;
    }
    return writeFileAtomically(path, xml);
}

}  // namespace corvina
