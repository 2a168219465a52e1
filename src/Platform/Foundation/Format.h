// Platform string formats: the C conversions plus "%@" for an object's description,
// implemented once and type-safe over a list of arguments.
//
//   corvina::format("Video format is ProRes 422 %ix%i", 1920, 1080)
//   corvina::format("Error creating video read handle for %@", path)
//
// Supported: %d %i %u %x %X %o %c %s %@ %f %F %e %E %g %G %p %%, with flags (- + space # 0),
// width, precision (also "*"), and the length modifiers hh h l ll q z j t L (accepted and
// ignored: every argument carries its own type). Positional "%1$@" forms are supported.
// An argument whose kind does not fit the conversion is converted where that is meaningful
// (an integer for %f, a number for %@); otherwise the conversion prints "(null)" for %@/%s or
// nothing. A missing argument prints nothing. Never undefined behaviour.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace corvina {

// An object that describes itself for "%@".
template <class T>
concept Describable = requires(const T& t)
{
    {
        t.description()
        } -> std::convertible_to<std::string>;
};

class FormatArg {
public:
    enum class Kind { None, Signed, Unsigned, Double, Char, String, Object, Pointer };

    FormatArg() = default;
    FormatArg(std::nullptr_t) {}
    template <std::signed_integral T>
    requires(!std::same_as<T, char>) FormatArg(T v) : kind_(Kind::Signed), i_(static_cast<int64_t>(v)) {}
    template <std::unsigned_integral T>
    requires(!std::same_as<T, bool>) FormatArg(T v) : kind_(Kind::Unsigned), u_(static_cast<uint64_t>(v)) {}
    FormatArg(bool v) : kind_(Kind::Signed), i_(v ? 1 : 0) {}
    FormatArg(char c) : kind_(Kind::Char), i_(static_cast<unsigned char>(c)) {}
    FormatArg(double v) : kind_(Kind::Double), d_(v) {}
    FormatArg(float v) : kind_(Kind::Double), d_(v), single_(true) {}
    FormatArg(long double v) : kind_(Kind::Double), d_(static_cast<double>(v)) {}
    FormatArg(const char* s) : kind_(s ? Kind::String : Kind::None), s_(s ? std::string_view(s) : std::string_view()) {}
    FormatArg(std::string_view s) : kind_(Kind::String), s_(s) {}
    FormatArg(const std::string& s) : kind_(Kind::String), s_(s) {}
    FormatArg(const void* p) : kind_(Kind::Pointer), p_(p) {}
    template <class T>
    FormatArg(const std::optional<T>& v) : FormatArg(v ? FormatArg(*v) : FormatArg())
    {
    }
    template <Describable T>
    requires(!std::convertible_to<const T&, std::string_view>) FormatArg(const T& obj)
        : kind_(Kind::Object),
          p_(&obj),
          describe_([](const void* o, std::string& out) { out += static_cast<const T*>(o)->description(); })
    {
    }

    // An object described ahead of time: "%@" shows the text, "%p" the object's address.
    static FormatArg describedObject(const void* object, std::string_view description)
    {
        FormatArg arg;
        arg.kind_ = Kind::Object;
        arg.p_ = object;
        arg.s_ = description;
        return arg;
    }

    Kind kind() const { return kind_; }
    bool isSingle() const { return single_; }
    int64_t asSigned() const;
    uint64_t asUnsigned() const;
    // An integer argument n higher (wrapping round as unsigned arithmetic does); any other
    // argument as it is. For counters that step through a series of lines.
    FormatArg plus(uint64_t n) const
    {
        FormatArg moved = *this;
        if (kind_ == Kind::Signed) moved.i_ = static_cast<int64_t>(static_cast<uint64_t>(i_) + n);
        if (kind_ == Kind::Unsigned) moved.u_ = u_ + n;
        return moved;
    }
    double asDouble() const;
    // Appends what "%@" shows for this argument: strings as they are, numbers in their
    // shortest form, objects by description(), none as "(null)".
    void appendDescription(std::string& out) const;
    // The text of a String, or the ahead-of-time description of an Object.
    std::string_view stringView() const { return s_; }
    const void* pointer() const { return p_; }

private:
    Kind kind_ = Kind::None;
    union {
        int64_t i_ = 0;
        uint64_t u_;
        double d_;
    };
    std::string_view s_;
    const void* p_ = nullptr;
    void (*describe_)(const void*, std::string&) = nullptr;
    bool single_ = false;  // a float: "%@" shows its own shortest form (29.97f as 29.97)
};

void appendFormatv(std::string& out, std::string_view fmt, std::span<const FormatArg> args);

// What appendFormatv would make of a plain format, found without making it: its length, and
// whether it begins and ends with a visible ASCII character (so that trimming white space
// leaves it as it is). Plain means every conversion is %d or %i of a signed integer, %u of an
// unsigned one (each with any length modifier), %@ or %s of a string, or %%. None for any
// other format, or when the arguments do not fit the conversions one for one.
struct PlainFormatMeasure {
    size_t length = 0;
    bool visibleEnds = false;  // false for an empty text
};
std::optional<PlainFormatMeasure> measurePlainFormat(std::string_view fmt, std::span<const FormatArg> args);

// A plain format read once and measured for any number of argument lists: what
// measurePlainFormat does, without going over the format's text each time.
class PlainFormatPlan {
public:
    // None when the format is not plain whatever its arguments.
    static std::optional<PlainFormatPlan> make(std::string_view fmt);
    std::optional<PlainFormatMeasure> measure(std::span<const FormatArg> args) const;

private:
    enum class Piece : uint8_t { Literal, Signed, Unsigned, String };
    struct Step {
        Piece piece;
        bool visibleFirst;  // literals only
        bool visibleLast;
        size_t length;  // literals only
    };
    std::vector<Step> steps_;
};

std::string formatv(std::string_view fmt, std::span<const FormatArg> args);

template <class... A>
std::string format(std::string_view fmt, const A&... args)
{
    if constexpr (sizeof...(A) == 0) {
        return formatv(fmt, {});
    } else {
        const FormatArg list[] = {FormatArg(args)...};
        return formatv(fmt, std::span<const FormatArg>(list, sizeof...(A)));
    }
}

template <class... A>
void appendFormat(std::string& out, std::string_view fmt, const A&... args)
{
    if constexpr (sizeof...(A) == 0) {
        appendFormatv(out, fmt, {});
    } else {
        const FormatArg list[] = {FormatArg(args)...};
        appendFormatv(out, fmt, std::span<const FormatArg>(list, sizeof...(A)));
    }
}

}  // namespace corvina
