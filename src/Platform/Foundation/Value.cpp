#include "Value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "Format.h"
#include "StringUtils.h"

namespace corvina {

namespace {

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
}  // namespace corvina
