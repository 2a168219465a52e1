// Property-list values: string, integer, real, boolean, date, data, array, dictionary, and
// "none" for a missing value. Arrays and dictionaries are immutable once made and shared
// between copies, so a Value is cheap to copy and safe to read from several threads.
//
// The numeric conversions follow the platform: a missing or non-numeric value converts to 0,
// reals are truncated toward zero, narrower results wrap as a C cast does (shortValue of
// 40000 is -25536), strings are read by their leading number ("12abc" is 12), booleans are
// 0 or 1. unsignedLongLongValue of -1 is 2^64-1.
//
// Reading accepts XML and binary property lists; writing produces XML. libplist does the
// parsing and serialising; nothing else in the code base sees it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Date.h"
#include "Error.h"
#include "Result.h"

namespace corvina {

class Value {
public:
    enum class Type { None, String, Integer, Real, Boolean, Date, Data, Array, Dictionary };
    using ArrayType = std::vector<Value>;
    using DictionaryType = std::map<std::string, Value, std::less<>>;
    using DataType = std::vector<uint8_t>;

    Value() = default;
    Value(const char* s);
    Value(std::string s);
    Value(std::string_view s);
    template <std::integral T>
    requires(!std::same_as<T, bool> && !std::same_as<T, char>) Value(T v)
        : storage_(Integer{static_cast<int64_t>(v),
                           std::is_unsigned_v<T> && static_cast<uint64_t>(v) > static_cast<uint64_t>(INT64_MAX)})
    {
    }
    Value(bool b);
    Value(double d);
    Value(float f) : Value(static_cast<double>(f)) {}
    Value(ArrayType array);
    Value(DictionaryType dictionary);
    static Value date(Date d);
    static Value data(DataType bytes);

    Type type() const;
    bool isNone() const { return type() == Type::None; }
    explicit operator bool() const { return !isNone(); }
    bool isNumber() const { return type() == Type::Integer || type() == Type::Real || type() == Type::Boolean; }

    // Typed access: null when the value is of another type.
    const std::string* asString() const;
    const ArrayType* asArray() const;
    const DictionaryType* asDictionary() const;
    const DataType* asData() const;
    std::optional<Date> asDate() const;

    // Dictionary lookup: a none value when this is no dictionary or the key is missing.
    const Value& operator[](std::string_view key) const;
    const Value* objectForKey(std::string_view key) const;  // null when missing
    // Array element: none when this is no array or the index is out of range.
    const Value& operator[](size_t index) const;
    const Value& operator[](int index) const { return (*this)[static_cast<size_t>(index)]; }
    // Elements of an array or entries of a dictionary; 0 otherwise.
    size_t count() const;

    int64_t integerValue() const;
    int32_t intValue() const;
    int16_t shortValue() const;
    float floatValue() const;
    double doubleValue() const;
    uint64_t unsignedLongLongValue() const;
    bool boolValue() const;
    // The string itself, a number's shortest decimal form, or the empty string.
    std::string stringValue() const;

    // The platform's description: strings as they are, numbers in decimal, dates in the
    // date form, data as <0a1b...>, arrays "(\n    a,\n    b\n)" and dictionaries
    // "{\n    key = value;\n}" in the old-style property-list form, none as "(null)".
    std::string description() const;

    bool operator==(const Value& other) const;

    // Reads an XML or binary property list. A missing file, unreadable or malformed data
    // gives the Error that says why.
    static Result<Value> fromPropertyListFile(const std::string& path);
    // The bytes of a property-list file, read (never mapped) into memory: a regular file no
    // larger than a property list may be; an Error otherwise. Later changes to the file, a
    // truncation included, do not reach the copy.
    static Result<std::string> propertyListFileBytes(const std::string& path);
    static Result<Value> fromPropertyListData(const void* bytes, size_t length);
    // XML property list text of this value (a none value cannot be written: empty string).
    std::string toXMLPropertyList() const;
    std::vector<uint8_t> toBinaryPropertyList() const;
    // Writes the XML property list; atomically means to a temporary file in the same folder
    // that then replaces the target. False on any failure (or for a none value).
    bool writeToFile(const std::string& path, bool atomically) const;

private:
    struct Integer {
        int64_t value;
        bool isUnsignedAboveInt64;  // value holds the bits of a uint64 above INT64_MAX
        bool operator==(const Integer&) const = default;
    };
    using Storage =
        std::variant<std::monostate, std::string, Integer, double, bool, Date, std::shared_ptr<const DataType>,
                     std::shared_ptr<const ArrayType>, std::shared_ptr<const DictionaryType>>;
    Storage storage_;
};

}  // namespace corvina
