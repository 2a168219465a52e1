#include "Format.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace corvina {

int64_t FormatArg::asSigned() const
{
    switch (kind_) {
    case Kind::Signed:
    case Kind::Char:
        return i_;
    case Kind::Unsigned:
        return static_cast<int64_t>(u_);
    case Kind::Double:
        if (std::isnan(d_)) return 0;
        if (d_ >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
        if (d_ <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
        return static_cast<int64_t>(d_);
    case Kind::Pointer:
    case Kind::Object:
        return static_cast<int64_t>(reinterpret_cast<uintptr_t>(p_));
    default:
        return 0;
    }
}

uint64_t FormatArg::asUnsigned() const
{
    switch (kind_) {
    case Kind::Unsigned:
        return u_;
    case Kind::Double:
        if (std::isnan(d_) || d_ <= 0) return static_cast<uint64_t>(asSigned());
        if (d_ >= 18446744073709551615.0) return std::numeric_limits<uint64_t>::max();
        return static_cast<uint64_t>(d_);
    default:
        return static_cast<uint64_t>(asSigned());
    }
}

double FormatArg::asDouble() const
{
    switch (kind_) {
    case Kind::Double:
        return d_;
    case Kind::Signed:
    case Kind::Char:
        return static_cast<double>(i_);
    case Kind::Unsigned:
        return static_cast<double>(u_);
    default:
        return 0.0;
    }
}

namespace {

void appendUnsignedDecimal(std::string& out, uint64_t v)
{
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

void appendPointer(std::string& out, const void* p)
{
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, reinterpret_cast<uintptr_t>(p), 16);
    out += "0x";
    out.append(buf, r.ptr);
}

}  // namespace

void FormatArg::appendDescription(std::string& out) const
{
    switch (kind_) {
    case Kind::None:
        out += "(null)";
        break;
    case Kind::Signed: {
        char buf[24];
        auto r = std::to_chars(buf, buf + sizeof buf, i_);
        out.append(buf, r.ptr);
        break;
    }
    case Kind::Unsigned:
        appendUnsignedDecimal(out, u_);
        break;
    case Kind::Double: {
        char buf[40];
        // Shortest text that reads back to the same number, as the platform's number
        // description shows it ("29.97", "30", "1e+20").
        auto r = single_ ? std::to_chars(buf, buf + sizeof buf, static_cast<float>(d_))
                         : std::to_chars(buf, buf + sizeof buf, d_);
        out.append(buf, r.ptr);
        break;
    }
    case Kind::Char:
        out += static_cast<char>(i_);
        break;
    case Kind::String:
        out += s_;
        break;
    case Kind::Object:
        if (describe_)
            describe_(p_, out);
        else
            out += s_;
        break;
    case Kind::Pointer:
        appendPointer(out, p_);
        break;
    }
}

namespace {

struct Directive {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alt = false;
    bool zero = false;
    int width = -1;
    int precision = -1;
    bool wide = false;  // an l/ll/q/j/z/t length: negative values wrap at 64 bits, not 32
    char conv = 0;
};

// Appends body (already formatted) with the directive's width, padding on the left with spaces
// or (zeroPad) with zeros after the sign/prefix of length prefixLen.
void appendPadded(std::string& out, std::string_view body, const Directive& directive, bool zeroPad = false,
                  size_t prefixLen = 0)
{
    const size_t width = directive.width > 0 ? static_cast<size_t>(directive.width) : 0;
    if (body.size() >= width) {
        out += body;
        return;
    }
    const size_t pad = width - body.size();
    if (directive.left) {
        out += body;
        out.append(pad, ' ');
    } else if (zeroPad) {
        out += body.substr(0, prefixLen);
        out.append(pad, '0');
        out += body.substr(prefixLen);
    } else {
        out.append(pad, ' ');
        out += body;
    }
}

// Integer conversions d i u x X o with sign, precision (minimum digits), '#' and padding.
void appendInteger(std::string& out, const FormatArg& arg, const Directive& directive)
{
    bool negative = false;
    uint64_t magnitude = 0;
    const bool isSigned = directive.conv == 'd' || directive.conv == 'i';
    using K = FormatArg::Kind;
    if (isSigned) {
        const int64_t v = arg.asSigned();
        negative = v < 0;
        magnitude = negative ? (~static_cast<uint64_t>(v) + 1) : static_cast<uint64_t>(v);
    } else if ((arg.kind() == K::Signed || arg.kind() == K::Char || arg.kind() == K::Double) && arg.asSigned() < 0) {
        // A negative value under an unsigned conversion shows its two's complement bits, of
        // an int unless a long length was given and the value does not fit an int.
        const int64_t v = arg.asSigned();
        if (!directive.wide && v >= std::numeric_limits<int32_t>::min())
            magnitude = static_cast<uint32_t>(static_cast<int32_t>(v));
        else
            magnitude = static_cast<uint64_t>(v);
    } else {
        magnitude = arg.asUnsigned();
    }

    const int base = (directive.conv == 'x' || directive.conv == 'X') ? 16 : directive.conv == 'o' ? 8 : 10;
    char digits[32];
    char* end = digits;
    if (!(directive.precision == 0 && magnitude == 0)) {
        end = std::to_chars(digits, digits + sizeof digits, magnitude, base).ptr;
        if (directive.conv == 'X')
            for (char* c = digits; c != end; ++c)
                if (*c >= 'a' && *c <= 'f') *c = static_cast<char>(*c - 'a' + 'A');
    }
    const size_t ndigits = static_cast<size_t>(end - digits);

    char body[96];
    size_t n = 0;
    if (isSigned) {
        if (negative)
            body[n++] = '-';
        else if (directive.plus)
            body[n++] = '+';
        else if (directive.space)
            body[n++] = ' ';
    }
    if (directive.alt && base == 16 && magnitude != 0) {
        body[n++] = '0';
        body[n++] = directive.conv;
    }
    const size_t prefixLen = n;
    size_t zeros = 0;
    if (directive.precision > 0 && static_cast<size_t>(directive.precision) > ndigits)
        zeros = std::min<size_t>(static_cast<size_t>(directive.precision) - ndigits, 48);
    if (directive.alt && base == 8 && zeros == 0 && (ndigits == 0 || digits[0] != '0')) zeros = 1;
    std::memset(body + n, '0', zeros);
    n += zeros;
    std::memcpy(body + n, digits, ndigits);
    n += ndigits;
    const bool zeroPad = directive.zero && !directive.left && directive.precision < 0;
    appendPadded(out, std::string_view(body, n), directive, zeroPad, prefixLen);
}

void appendFloating(std::string& out, double v, const Directive& directive)
{
    const char conv = directive.conv;
    const bool upper = conv == 'F' || conv == 'E' || conv == 'G' || conv == 'A';
    char buf[512];
    size_t n = 0;
    if ((conv == 'f' || conv == 'F' || conv == 'e' || conv == 'E') && !directive.alt && std::isfinite(v) &&
        directive.precision <= 100) {
        // Fast path without the C library's formatter.
        const int precision = directive.precision < 0 ? 6 : directive.precision;
        if (std::signbit(v))
            buf[n++] = '-';
        else if (directive.plus)
            buf[n++] = '+';
        else if (directive.space)
            buf[n++] = ' ';
        const auto fmt = (conv == 'f' || conv == 'F') ? std::chars_format::fixed : std::chars_format::scientific;
        auto r = std::to_chars(buf + n, buf + sizeof buf, std::fabs(v), fmt, precision);
        if (r.ec != std::errc()) return;
        if (upper)
            for (char* c = buf + n; c != r.ptr; ++c)
                if (*c == 'e') *c = 'E';
        const size_t prefixLen = n;
        n = static_cast<size_t>(r.ptr - buf);
        appendPadded(out, std::string_view(buf, n), directive, directive.zero && !directive.left, prefixLen);
        return;
    }
    // Everything else (g, a, '#', inf/nan) through snprintf with a rebuilt conversion; the
    // width is applied here so that the buffer never needs to hold it.
    char fmt[16];
    size_t f = 0;
    fmt[f++] = '%';
    if (directive.plus) fmt[f++] = '+';
    if (directive.space) fmt[f++] = ' ';
    if (directive.alt) fmt[f++] = '#';
    fmt[f++] = '.';
    fmt[f++] = '*';
    fmt[f++] = conv;
    fmt[f] = 0;
    const int precision =
        directive.precision < 0 ? (conv == 'a' || conv == 'A' ? -1 : 6) : std::min(directive.precision, 300);
    int len = std::snprintf(buf, sizeof buf, fmt, precision, v);
    if (len < 0) return;
    n = std::min(static_cast<size_t>(len), sizeof buf - 1);
    size_t prefixLen = (n > 0 && (buf[0] == '-' || buf[0] == '+' || buf[0] == ' ')) ? 1 : 0;
    if ((conv == 'a' || conv == 'A') && n >= prefixLen + 2) prefixLen += 2;
    const bool zeroPad = directive.zero && !directive.left && std::isfinite(v);
    appendPadded(out, std::string_view(buf, n), directive, zeroPad, prefixLen);
}

void appendText(std::string& out, const FormatArg& arg, const Directive& directive)
{
    if (arg.kind() == FormatArg::Kind::String && directive.width <= 0 && directive.precision < 0) {
        out += arg.stringView();
        return;
    }
    if (directive.width <= 0 && directive.precision < 0) {
        arg.appendDescription(out);
        return;
    }
    std::string text;
    arg.appendDescription(text);
    std::string_view body = text;
    if (directive.precision >= 0 && body.size() > static_cast<size_t>(directive.precision))
        body = body.substr(0, static_cast<size_t>(directive.precision));
    appendPadded(out, body, directive);
}

bool parseNumber(std::string_view fmt, size_t& i, int& value)
{
    if (i >= fmt.size() || fmt[i] < '0' || fmt[i] > '9') return false;
    long v = 0;
    while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
        v = v * 10 + (fmt[i] - '0');
        if (v > 100000) v = 100000;  // absurd widths are clamped, never trusted
        ++i;
    }
    value = static_cast<int>(v);
    return true;
}

}  // namespace

void appendFormatv(std::string& out, std::string_view fmt, std::span<const FormatArg> args)
{
    static const FormatArg missing{};
    size_t nextArg = 0;
    auto take = [&](size_t index, bool& present) -> const FormatArg& {
        present = index < args.size();
        return present ? args[index] : missing;
    };

    size_t i = 0;
    const size_t size = fmt.size();
    while (i < size) {
        const size_t pct = fmt.find('%', i);
        if (pct == std::string_view::npos) {
            out.append(fmt.data() + i, size - i);
            break;
        }
        out.append(fmt.data() + i, pct - i);
        size_t p = pct + 1;
        // Fast path for the plain conversions that fill most log lines.
        if (p < size && nextArg < args.size()) {
            const char c = fmt[p];
            const FormatArg& arg = args[nextArg];
            using K = FormatArg::Kind;
            if ((c == 'd' || c == 'i') && arg.kind() == K::Signed) {
                char buf[24];
                out.append(buf, std::to_chars(buf, buf + sizeof buf, arg.asSigned()).ptr);
                ++nextArg;
                i = p + 1;
                continue;
            }
            if (c == 'u' && arg.kind() == K::Unsigned) {
                appendUnsignedDecimal(out, arg.asUnsigned());
                ++nextArg;
                i = p + 1;
                continue;
            }
            if (c == '@' || (c == 's' && arg.kind() == K::String)) {
                arg.appendDescription(out);
                ++nextArg;
                i = p + 1;
                continue;
            }
        }
        Directive directive;

        // Positional argument: "%2$@".
        std::optional<size_t> position;
        {
            size_t q = p;
            int n = 0;
            if (parseNumber(fmt, q, n) && q < size && fmt[q] == '$' && n > 0) {
                position = static_cast<size_t>(n - 1);
                p = q + 1;
            }
        }
        for (; p < size; ++p) {
            const char c = fmt[p];
            if (c == '-')
                directive.left = true;
            else if (c == '+')
                directive.plus = true;
            else if (c == ' ')
                directive.space = true;
            else if (c == '#')
                directive.alt = true;
            else if (c == '0')
                directive.zero = true;
            else if (c == '\'')
                continue;
            else
                break;
        }
        bool present = false;
        if (p < size && fmt[p] == '*') {
            ++p;
            int64_t w = take(nextArg++, present).asSigned();
            if (w < 0) {
                directive.left = true;
                w = -w;
            }
            directive.width = static_cast<int>(std::min<int64_t>(w, 100000));
        } else {
            parseNumber(fmt, p, directive.width);
        }
        if (p < size && fmt[p] == '.') {
            ++p;
            if (p < size && fmt[p] == '*') {
                ++p;
                const int64_t pr = take(nextArg++, present).asSigned();
                directive.precision = pr < 0 ? -1 : static_cast<int>(std::min<int64_t>(pr, 100000));
            } else if (!parseNumber(fmt, p, directive.precision)) {
                directive.precision = 0;
            }
        }
        while (p < size) {
            const char c = fmt[p];
            if (c == 'l' || c == 'q' || c == 'j' || c == 'z' || c == 't')
                directive.wide = true;
            else if (c != 'h' && c != 'L')
                break;
            ++p;
        }
        if (p >= size) {
            // An incomplete conversion at the end is shown as written.
            out.append(fmt.data() + pct, size - pct);
            break;
        }
        directive.conv = fmt[p];
        i = p + 1;
        if (directive.conv == '%') {
            out += '%';
            continue;
        }
        switch (directive.conv) {
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
        case 'D':
        case 'U':
        case 'O':
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
        case 'c':
        case 'C':
        case 's':
        case 'S':
        case '@':
        case 'p':
            break;
        default:
            // Unknown conversions (and %n) are shown as written and consume no argument.
            out.append(fmt.data() + pct, i - pct);
            continue;
        }
        const FormatArg& arg = take(position ? *position : nextArg++, present);
        if (!present) continue;
        using K = FormatArg::Kind;
        const K kind = arg.kind();
        if (directive.conv == 'D' || directive.conv == 'U' || directive.conv == 'O') {
            directive.conv = static_cast<char>(directive.conv - 'A' + 'a');
            directive.wide = true;
        }
        switch (directive.conv) {
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            if (kind == K::Signed || kind == K::Unsigned || kind == K::Double || kind == K::Char)
                appendInteger(out, arg, directive);
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            if (kind == K::Signed || kind == K::Unsigned || kind == K::Double || kind == K::Char)
                appendFloating(out, arg.asDouble(), directive);
            break;
        case 'c':
        case 'C':
            if (kind == K::Signed || kind == K::Unsigned || kind == K::Char || kind == K::Double) {
                const char ch = static_cast<char>(arg.asUnsigned() & 0xff);
                appendPadded(out, std::string_view(&ch, 1), directive);
            } else if (kind == K::String && !arg.stringView().empty()) {
                appendPadded(out, arg.stringView().substr(0, 1), directive);
            }
            break;
        case 's':
        case 'S':
        case '@':
            appendText(out, arg, directive);
            break;
        case 'p':
            if (kind == K::Pointer || kind == K::Object || kind == K::String) {
                std::string text;
                appendPointer(text,
                              kind == K::String ? static_cast<const void*>(arg.stringView().data()) : arg.pointer());
                appendPadded(out, text, directive);
            } else if (kind == K::None) {
                appendPadded(out, "0x0", directive);
            } else {
                std::string text;
                appendPointer(text, reinterpret_cast<const void*>(static_cast<uintptr_t>(arg.asUnsigned())));
                appendPadded(out, text, directive);
            }
            break;
        }
    }
}

namespace {

constexpr uint64_t kPowersOf10[20] = {1ull,
                                      10ull,
                                      100ull,
                                      1000ull,
                                      10000ull,
                                      100000ull,
                                      1000000ull,
                                      10000000ull,
                                      100000000ull,
                                      1000000000ull,
                                      10000000000ull,
                                      100000000000ull,
                                      1000000000000ull,
                                      10000000000000ull,
                                      100000000000000ull,
                                      1000000000000000ull,
                                      10000000000000000ull,
                                      100000000000000000ull,
                                      1000000000000000000ull,
                                      10000000000000000000ull};

size_t decimalDigits(uint64_t v)
{
    if (v < 10) return 1;
    // bits * log10(2), close enough to be off by at most one, then corrected.
    const int guess = ((64 - std::countl_zero(v)) * 1233) >> 12;
    return static_cast<size_t>(guess) + (v >= kPowersOf10[guess] ? 1 : 0);
}

bool isVisibleAscii(char c) { return c > ' ' && c < 0x7f; }

}  // namespace

std::optional<PlainFormatPlan> PlainFormatPlan::make(std::string_view fmt)
{
    PlainFormatPlan plan;
    auto literal = [&plan](size_t n, bool visibleFirst, bool visibleLast) {
        if (n == 0) return;
        auto& steps = plan.steps_;
        if (!steps.empty() && steps.back().piece == Piece::Literal) {
            steps.back().length += n;
            steps.back().visibleLast = visibleLast;
        } else {
            steps.push_back({Piece::Literal, visibleFirst, visibleLast, n});
        }
    };
    size_t i = 0;
    while (i < fmt.size()) {
        const size_t pct = fmt.find('%', i);
        const size_t literalEnd = pct == std::string_view::npos ? fmt.size() : pct;
        if (literalEnd > i) literal(literalEnd - i, isVisibleAscii(fmt[i]), isVisibleAscii(fmt[literalEnd - 1]));
        if (pct == std::string_view::npos) break;
        size_t p = pct + 1;
        while (p < fmt.size() && (fmt[p] == 'l' || fmt[p] == 'h' || fmt[p] == 'q' || fmt[p] == 'j' || fmt[p] == 'z' ||
                                  fmt[p] == 't' || fmt[p] == 'L'))
            ++p;
        if (p >= fmt.size()) return std::nullopt;
        const char conv = fmt[p];
        const bool modified = p != pct + 1;
        i = p + 1;
        if (conv == '%' && !modified) {
            literal(1, true, true);
        } else if (conv == 'd' || conv == 'i') {
            plan.steps_.push_back({Piece::Signed, true, true, 0});
        } else if (conv == 'u') {
            plan.steps_.push_back({Piece::Unsigned, true, true, 0});
        } else if ((conv == '@' || conv == 's') && !modified) {
            plan.steps_.push_back({Piece::String, false, false, 0});
        } else {
            return std::nullopt;
        }
    }
    return plan;
}

std::optional<PlainFormatMeasure> PlainFormatPlan::measure(std::span<const FormatArg> args) const
{
    using K = FormatArg::Kind;
    size_t length = 0;
    bool visibleFirst = false;
    bool visibleLast = false;
    auto add = [&](size_t n, bool visibleAtStart, bool visibleAtEnd) {
        if (n == 0) return;
        if (length == 0) visibleFirst = visibleAtStart;
        visibleLast = visibleAtEnd;
        length += n;
    };
    size_t nextArg = 0;
    for (const Step& step : steps_) {
        if (step.piece == Piece::Literal) {
            add(step.length, step.visibleFirst, step.visibleLast);
            continue;
        }
        if (nextArg >= args.size()) return std::nullopt;
        const FormatArg& arg = args[nextArg++];
        // Digits and the minus sign are visible.
        if (step.piece == Piece::Signed && arg.kind() == K::Signed) {
            const int64_t v = arg.asSigned();
            const uint64_t magnitude = v < 0 ? ~static_cast<uint64_t>(v) + 1 : static_cast<uint64_t>(v);
            add(decimalDigits(magnitude) + (v < 0 ? 1 : 0), true, true);
        } else if (step.piece == Piece::Unsigned && arg.kind() == K::Unsigned) {
            add(decimalDigits(arg.asUnsigned()), true, true);
        } else if (step.piece == Piece::String && arg.kind() == K::String) {
            const std::string_view s = arg.stringView();
            if (!s.empty()) add(s.size(), isVisibleAscii(s.front()), isVisibleAscii(s.back()));
        } else {
            return std::nullopt;
        }
    }
    PlainFormatMeasure m;
    m.length = length;
    m.visibleEnds = length > 0 && visibleFirst && visibleLast;
    return m;
}

std::optional<PlainFormatMeasure> measurePlainFormat(std::string_view fmt, std::span<const FormatArg> args)
{
    const auto plan = PlainFormatPlan::make(fmt);
    return plan ? plan->measure(args) : std::nullopt;
}

std::string formatv(std::string_view fmt, std::span<const FormatArg> args)
{
    std::string out;
    out.reserve(fmt.size() + 16 * args.size());
    appendFormatv(out, fmt, args);
    return out;
}

}  // namespace corvina
